#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "store/cursor.h"
#include "store/index_cursor.h"
#include "store/index_cursor_set.h"
#include "store/object_store.h"
#include "store/relation_cursor.h"
#include "store/test_schema.h"
#include "store/transaction.h"
#include "support/index_checker.h"
#include "support/object.h"
#include "support/temp_dir.h"

namespace quillmere {

class IndexTest : public ::testing::Test {
protected:
    void open(TestSchema spec, StoreOptions options = {}) {
        store_.reset();
        options.directory = dir_.storePath("db");
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
             IndexChecker(tx).indexKeys(TestSchema::indexId(entityId, propertyId))) {
            result.push_back(IndexChecker::hex(key.substr(4)));
        }
        return result;
    }

    TempDir dir_;
    std::unique_ptr<ObjectStore> store_;
};

}  // namespace quillmere
