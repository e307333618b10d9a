#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "query/condition.h"
#include "query/query.h"
#include "query/query_builder.h"
#include "query/random_rows.h"
#include "store/index_test.h"
#include "store/object_table.h"
#include "support/expect_throw.h"

namespace quillmere {

using Values = std::map<std::string, Value>;  // by property name

// A store with the entities "Thing", which has properties that bear the names of their types, some
// unsigned under "U" and the name, and indexed ones, and "Part", whose "thing" refers to things.
class ThingTest : public IndexTest {
protected:
    static constexpr uint32_t kThings = 1;
    static constexpr uint32_t kParts = 2;

    void SetUp() override {
        TestSchema spec;
        spec.entity(kThings, "Thing");
        uint32_t id = 1;
        for (const PropertyType type : kTypes) {
            const uint32_t target = type == PropertyType::Relation ? kThings : 0;
            spec.property(++id, propertyTypeName(type), type, 0, target);
        }
        using Extra = std::tuple<const char*, PropertyType, uint32_t>;
        for (const auto& [name, type, flags] :
             {Extra{"UByte", PropertyType::Byte, kPropertyUnsigned},
              Extra{"UInt", PropertyType::Int, kPropertyUnsigned},
              Extra{"ULong", PropertyType::Long, kPropertyUnsigned},
              Extra{"indexedText", PropertyType::String, kPropertyIndexed},
              Extra{"hashedText", PropertyType::String, kPropertyIndexHash},
              Extra{"indexedInt", PropertyType::Int, kPropertyIndexed}}) {
            spec.property(++id, name, type, flags);
        }
        spec.entity(kParts, "Part")
            .property(2, "thing", PropertyType::Relation, kPropertyIndexed, kThings)
            .property(3, "number", PropertyType::Int);
        open(std::move(spec));
        schema_ = store_->requireSchema();
        things_ = &entity(kThings);
        parts_ = &entity(kParts);
    }

    const Property& property(const std::string& name) { return *things_->findPropertyByName(name); }
    const Property& partProperty(const std::string& name) {
        return *parts_->findPropertyByName(name);
    }
    QueryBuilder makeBuilder() { return QueryBuilder(*things_, schema_, true, 0); }

    // The bytes of an object.
    static ObjectBytes makeObjectOf(const Entity& entity, uint64_t id, const Values& values) {
        Row row{id, {}};
        std::vector<Column> columns;
        for (const auto& [name, value] : values) {
            const Property& property = *entity.findPropertyByName(name);
            columns.push_back({property.id(), property.name().c_str(), property.type()});
            row.values[property.id()] = value;
        }
        return RowEncoder::encode(row, columns);
    }

    void put(const Entity& entity, uint64_t id, const Values& values) {
        const auto tx = write();
        const ObjectBytes object = makeObjectOf(entity, id, values);
        tx->createCursor(&entity)->put(id, object.data(), object.size(), kPut);
        tx->commit();
    }

    // Whether the condition matches a thing with these values.
    bool check(const QueryCondition& condition, const Values& values) {
        return checkBytes(condition, makeObjectOf(*things_, 1, values));
    }
    bool checkBytes(const QueryCondition& condition, const ObjectBytes& object) {
        if (!cursor_) {
            tx_ = read();
            cursor_ = tx_->createCursor(things_);
        }
        const ObjectTable table(object.data(), object.size());
        return condition.check({*cursor_, table});
    }

    std::vector<uint64_t> findIds(Query& query) {
        const auto tx = read();
        std::vector<uint64_t> ids;
        query.findIds(*tx->createCursor(things_), ids);
        return ids;
    }

    std::shared_ptr<const Schema> schema_;
    const Entity* things_ = nullptr;
    const Entity* parts_ = nullptr;
    std::unique_ptr<Transaction> tx_;
    std::unique_ptr<Cursor> cursor_;

private:
    static constexpr PropertyType kTypes[] = {
        PropertyType::Bool,       PropertyType::Byte,       PropertyType::Int,
        PropertyType::Long,       PropertyType::Float,      PropertyType::Double,
        PropertyType::Date,       PropertyType::Relation,   PropertyType::String,
        PropertyType::Flex,       PropertyType::ByteVector, PropertyType::CharVector,
        PropertyType::IntVector,  PropertyType::FloatVector, PropertyType::DoubleVector,
        PropertyType::StringVector};
};

}  // namespace quillmere
