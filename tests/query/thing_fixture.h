#pragma once

#include <flatbuffers/flatbuffers.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "query/condition.h"
#include "query/query.h"
#include "query/query_builder.h"
#include "schema/property.h"
#include "schema/schema.h"
#include "store/cursor.h"
#include "store/object_store.h"
#include "store/object_table.h"
#include "store/transaction.h"
#include "support/expect_throw.h"
#include "support/object.h"
#include "support/temp_dir.h"

namespace quillmere {

// What a field holds; nothing is null. Integers carry the bits, whatever their width and sign.
using Value = std::variant<std::monostate, int64_t, double, std::string, std::vector<int64_t>,
                           std::vector<double>, std::vector<std::string>>;
using Values = std::map<std::string, Value>;  // by property name

inline constexpr PropertyType kScalarTypes[] = {
    PropertyType::Bool, PropertyType::Byte,   PropertyType::Short, PropertyType::Char,
    PropertyType::Int,  PropertyType::Long,   PropertyType::Float, PropertyType::Double,
    PropertyType::Date, PropertyType::Relation, PropertyType::DateNano};
inline constexpr PropertyType kNumberVectorTypes[] = {
    PropertyType::BoolVector,  PropertyType::ByteVector,   PropertyType::ShortVector,
    PropertyType::CharVector,  PropertyType::IntVector,    PropertyType::LongVector,
    PropertyType::FloatVector, PropertyType::DoubleVector, PropertyType::DateVector,
    PropertyType::DateNanoVector};

inline bool isFloatType(PropertyType type) {
    return type == PropertyType::Float || type == PropertyType::Double ||
           type == PropertyType::FloatVector || type == PropertyType::DoubleVector;
}

// Bytes of a scalar or of an element.
inline size_t numberSize(PropertyType type) {
    switch (type) {
        case PropertyType::BoolVector:
        case PropertyType::ByteVector: return 1;
        case PropertyType::ShortVector:
        case PropertyType::CharVector: return 2;
        case PropertyType::IntVector:
        case PropertyType::FloatVector: return 4;
        case PropertyType::LongVector:
        case PropertyType::DoubleVector:
        case PropertyType::DateVector:
        case PropertyType::DateNanoVector: return 8;
        default: return propertyTypeSize(type);
    }
}

// A store with the entities "Thing", which has a property of every type under the type's name and
// an unsigned one under "U" and the name, and "Part", whose "thing" refers to things. In a thing
// "indexedText", "hashedText", "indexedByte" and "indexedInt" have indexes.
class ThingTest : public ::testing::Test {
protected:
    static constexpr uint32_t kThings = 1;
    static constexpr uint32_t kParts = 2;

    void SetUp() override {
        auto schema = std::make_shared<Schema>(1);
        schema->addEntity(makeThings());
        schema->addEntity(makeParts());
        schema->link();
        schema_ = schema;
        StoreOptions options;
        options.directory = dir_.storePath("db");
        store_ = std::make_unique<ObjectStore>(options);
        store_->setSchema(schema);
        things_ = &schema->entityById(kThings);
        parts_ = &schema->entityById(kParts);
    }

    const Property& property(const std::string& name) { return *things_->findPropertyByName(name); }
    const Property& partProperty(const std::string& name) {
        return *parts_->findPropertyByName(name);
    }
    QueryBuilder makeBuilder() { return QueryBuilder(*things_, schema_, true, 0); }

    // The bytes of an object.
    static ObjectBytes makeObjectOf(const Entity& entity, uint64_t id, const Values& values) {
        flatbuffers::FlatBufferBuilder builder;
        builder.ForceDefaults(true);
        std::map<std::string, flatbuffers::uoffset_t> offsets;
        for (const auto& [name, value] : values) {
            offsets[name] = writeVector(builder, *entity.findPropertyByName(name), value);
        }
        const auto start = builder.StartTable();
        if (!values.contains("id")) {
            builder.AddElement<uint64_t>(entity.idProperty().flatOffset(), id, 0);
        }
        for (const auto& [name, value] : values) {
            writeField(builder, *entity.findPropertyByName(name), value, offsets[name]);
        }
        builder.Finish(flatbuffers::Offset<flatbuffers::Table>(builder.EndTable(start)));
        return {builder.GetBufferPointer(), builder.GetBufferPointer() + builder.GetSize()};
    }

    void put(const Entity& entity, uint64_t id, const Values& values) {
        const auto tx = store_->beginTx(TxMode::Write);
        const auto cursor = tx->createCursor(&entity);
        const ObjectBytes object = makeObjectOf(entity, id, values);
        cursor->put(id, object.data(), object.size(), kPut);
        tx->commit();
    }

    // Whether the condition matches a thing with these values.
    bool check(const QueryCondition& condition, const Values& values) {
        return checkBytes(condition, makeObjectOf(*things_, 1, values));
    }
    bool checkBytes(const QueryCondition& condition, const ObjectBytes& object) {
        if (!cursor_) {
            tx_ = store_->beginTx(TxMode::Read);
            cursor_ = tx_->createCursor(things_);
        }
        const ObjectTable table(object.data(), object.size());
        return condition.check({*cursor_, table});
    }

    std::vector<uint64_t> findIds(Query& query) {
        const auto tx = store_->beginTx(TxMode::Read);
        const auto cursor = tx->createCursor(things_);
        std::vector<uint64_t> ids;
        query.findIds(*cursor, ids);
        return ids;
    }

    TempDir dir_;
    std::shared_ptr<const Schema> schema_;
    std::unique_ptr<ObjectStore> store_;
    const Entity* things_ = nullptr;
    const Entity* parts_ = nullptr;
    std::unique_ptr<Transaction> tx_;
    std::unique_ptr<Cursor> cursor_;

private:
    using Builder = flatbuffers::FlatBufferBuilder;

    static std::shared_ptr<Property> addProperty(Entity& entity, const std::string& name,
                                                 PropertyType type, uint32_t flags = 0) {
        const auto id = static_cast<uint32_t>(entity.properties().size() + 1);
        auto property = std::make_shared<Property>(id, 1000 * entity.id() + id, name, type, flags);
        property->setEntity(entity.id());
        property->setFlatOffset(objectSlot(id));
        if (type == PropertyType::Relation) property->setTargetEntityId(kThings);
        if (flags & kPropertyIndexed) property->setIndexIds(100 * entity.id() + id, 5000 + id);
        property->finish();
        entity.addProperty(property);
        return property;
    }
    static std::shared_ptr<Entity> makeThings() {
        auto entity = std::make_shared<Entity>(kThings, 101, "Thing");
        addProperty(*entity, "id", PropertyType::Long, kPropertyId);
        for (const PropertyType type : kScalarTypes) addBothSigns(*entity, type);
        for (const PropertyType type : kNumberVectorTypes) addBothSigns(*entity, type);
        for (const PropertyType type :
             {PropertyType::String, PropertyType::Flex, PropertyType::StringVector}) {
            addProperty(*entity, propertyTypeName(type), type);
        }
        addProperty(*entity, "indexedText", PropertyType::String, kPropertyIndexed);
        addProperty(*entity, "hashedText", PropertyType::String,
                    kPropertyIndexed | kPropertyIndexHash);
        addProperty(*entity, "indexedByte", PropertyType::Byte, kPropertyIndexed);
        addProperty(*entity, "indexedInt", PropertyType::Int, kPropertyIndexed);
        entity->finish();
        return entity;
    }
    static void addBothSigns(Entity& entity, PropertyType type) {
        const std::string name = propertyTypeName(type);
        addProperty(entity, name, type);
        if (!isFloatType(type)) addProperty(entity, "U" + name, type, kPropertyUnsigned);
    }
    static std::shared_ptr<Entity> makeParts() {
        auto entity = std::make_shared<Entity>(kParts, 102, "Part");
        addProperty(*entity, "id", PropertyType::Long, kPropertyId);
        addProperty(*entity, "thing", PropertyType::Relation, kPropertyIndexed);
        addProperty(*entity, "number", PropertyType::Int);
        entity->finish();
        return entity;
    }

    template <class T, class Numbers>
    static flatbuffers::uoffset_t writeNumbers(Builder& builder, const Numbers& numbers) {
        std::vector<T> narrow;
        for (const auto number : numbers) narrow.push_back(static_cast<T>(number));
        return builder.CreateVector(narrow).o;
    }
    // The offset of what stands outside of the table; 0 for what stands in it.
    static flatbuffers::uoffset_t writeVector(Builder& builder, const Property& property,
                                              const Value& value) {
        const size_t size = numberSize(property.type());
        if (const auto* text = std::get_if<std::string>(&value)) {
            return builder.CreateString(*text).o;
        }
        if (const auto* strings = std::get_if<std::vector<std::string>>(&value)) {
            return builder.CreateVectorOfStrings(*strings).o;
        }
        if (const auto* numbers = std::get_if<std::vector<double>>(&value)) {
            return size == 4 ? writeNumbers<float>(builder, *numbers)
                             : writeNumbers<double>(builder, *numbers);
        }
        if (const auto* numbers = std::get_if<std::vector<int64_t>>(&value)) {
            switch (size) {
                case 1: return writeNumbers<int8_t>(builder, *numbers);
                case 2: return writeNumbers<int16_t>(builder, *numbers);
                case 4: return writeNumbers<int32_t>(builder, *numbers);
                default: return writeNumbers<int64_t>(builder, *numbers);
            }
        }
        return 0;
    }
    static void writeField(Builder& builder, const Property& property, const Value& value,
                           flatbuffers::uoffset_t offset) {
        const auto slot = property.flatOffset();
        const size_t size = numberSize(property.type());
        if (offset != 0) {
            builder.AddOffset(slot, flatbuffers::Offset<void>(offset));
        } else if (const auto* number = std::get_if<double>(&value)) {
            if (size == 4) builder.AddElement<float>(slot, static_cast<float>(*number), 0);
            else builder.AddElement<double>(slot, *number, 0);
        } else if (const auto* bits = std::get_if<int64_t>(&value)) {
            switch (size) {
                case 1: builder.AddElement<int8_t>(slot, static_cast<int8_t>(*bits), 0); break;
                case 2: builder.AddElement<int16_t>(slot, static_cast<int16_t>(*bits), 0); break;
                case 4: builder.AddElement<int32_t>(slot, static_cast<int32_t>(*bits), 0); break;
                default: builder.AddElement<int64_t>(slot, *bits, 0);
            }
        }
    }
};

}  // namespace quillmere
