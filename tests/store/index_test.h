#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "schema/schema.h"
#include "store/cursor.h"
#include "store/index_cursor.h"
#include "store/index_cursor_set.h"
#include "store/object_store.h"
#include "store/relation_cursor.h"
#include "store/transaction.h"
#include "support/index_checker.h"
#include "support/object.h"
#include "support/temp_dir.h"

namespace quillmere {

// A schema written down in a few lines. Each entity has an ID property with ID 1; index IDs are 100
// times the entity's plus the property's.
class SchemaSpec {
public:
    SchemaSpec() : schema_(std::make_shared<Schema>(1)) {}

    SchemaSpec& entity(uint32_t id, const std::string& name) {
        finishEntity();
        entity_ = std::make_shared<Entity>(id, 100 + id, name);
        return property(1, "id", PropertyType::Long, kPropertyId | kPropertyIdSelfAssignable);
    }
    SchemaSpec& property(uint32_t id, const std::string& name, PropertyType type,
                         uint32_t flags = 0, uint32_t target = 0) {
        auto property =
            std::make_shared<Property>(id, 1000 * entity_->id() + id, name, type, flags);
        property->setEntity(entity_->id());
        property->setFlatOffset(objectSlot(id));
        if (target != 0) property->setTargetEntityId(target);
        property->finish();
        if (property->isIndexed()) property->setIndexIds(indexId(entity_->id(), id), 50000 + id);
        entity_->addProperty(property);
        return *this;
    }
    SchemaSpec& toOne(uint32_t id, const std::string& name, uint32_t target, uint32_t flags = 0) {
        return property(id, name, PropertyType::Relation,
                        kPropertyIndexed | kPropertyIndexSkipZero | flags, target);
    }
    SchemaSpec& relation(uint32_t id, uint32_t target) {
        entity_->addRelation(std::make_shared<Relation>(id, 70000 + id, entity_->id(), target));
        return *this;
    }
    std::shared_ptr<Schema> build() {
        finishEntity();
        schema_->link();
        return schema_;
    }

    static uint32_t indexId(uint32_t entityId, uint32_t propertyId) {
        return 100 * entityId + propertyId;
    }

private:
    void finishEntity() {
        if (!entity_) return;
        entity_->finish();
        schema_->addEntity(std::exchange(entity_, nullptr));
    }

    std::shared_ptr<Schema> schema_;
    std::shared_ptr<Entity> entity_;
};

class IndexTest : public ::testing::Test {
protected:
    void open(SchemaSpec spec) {
        store_.reset();
        StoreOptions options;
        options.directory = dir_.path("db");
        store_ = std::make_unique<ObjectStore>(options);
        store_->setSchema(spec.build());
    }

    const Entity& entity(uint32_t id) { return store_->requireSchema()->entityById(id); }
    const Property& property(uint32_t entityId, uint32_t id) {
        return entity(entityId).propertyById(id);
    }
    std::unique_ptr<Transaction> read() { return store_->beginTx(TxMode::Read); }
    std::unique_ptr<Transaction> write() { return store_->beginTx(TxMode::Write); }
    std::unique_ptr<Cursor> cursor(Transaction& tx, uint32_t entityId = 1) {
        return tx.createCursor(&entity(entityId));
    }

    // Puts an object with its ID and these fields.
    static void put(Cursor& cursor, uint64_t id, std::vector<ObjectField> fields = {},
                    int32_t mode = kPut) {
        fields.emplace_back(1u, id);
        const ObjectBytes object = makeObjectFrom(fields);
        cursor.put(id, object.data(), object.size(), mode);
    }

    // The keys of an index without their prefix, in hexadecimal.
    std::vector<std::string> entries(Transaction& tx, uint32_t entityId, uint32_t propertyId) {
        std::vector<std::string> result;
        for (const std::string& key :
             IndexChecker(tx).indexKeys(SchemaSpec::indexId(entityId, propertyId))) {
            result.push_back(IndexChecker::hex(key.substr(4)));
        }
        return result;
    }

    TempDir dir_;
    std::unique_ptr<ObjectStore> store_;
};

}  // namespace quillmere
