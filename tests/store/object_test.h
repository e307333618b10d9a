#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "core/error.h"
#include "store/cursor.h"
#include "store/object_store.h"
#include "store/test_schema.h"
#include "store/transaction.h"
#include "support/object.h"
#include "support/temp_dir.h"

namespace quillmere {

inline constexpr uint64_t kAllOnes = ~uint64_t{0};

// Property IDs of the entities of ObjectTest.
inline constexpr uint32_t kIdProperty = 1;
inline constexpr uint32_t kTextProperty = 2;
inline constexpr uint32_t kNumberProperty = 3;

inline ObjectBytes makeNote(uint64_t id, const std::string& text = "", int64_t number = 0) {
    return makeObject({{kIdProperty, id}, {kTextProperty, text}, {kNumberProperty, number}});
}

// Expects E with a message that starts like this.
template <class E, class Work>
void expectThrow(const std::string& messageStart, Work&& work) {
    try {
        work();
        ADD_FAILURE() << "nothing thrown, expected: " << messageStart;
    } catch (const E& e) {
        EXPECT_EQ(typeid(e), typeid(E)) << e.what();
        EXPECT_EQ(std::string(e.what()).substr(0, messageStart.size()), messageStart);
    }
}

// A store in a directory of its own. Each entity has an ID, a text and a number.
class ObjectTest : public ::testing::Test {
protected:
    static constexpr uint32_t kNotes = 1;
    static constexpr uint32_t kTags = 2;    // callers may assign IDs
    static constexpr uint32_t kSynced = 3;  // sync-enabled
    static constexpr uint32_t kDated = 4;   // with an ID companion
    static constexpr uint64_t kNoLimit = 0;

    void SetUp() override { open(); }

    void open(StoreOptions options = {}) {
        store_.reset();
        options.directory = dir_.storePath("db");
        store_ = std::make_unique<ObjectStore>(options);
        store_->setSchema(makeSchema());
    }

    static std::shared_ptr<Schema> makeSchema() {
        TestSchema spec;
        const auto addFields = [](TestSchema& entity, PropertyType numberType = PropertyType::Long,
                                  uint32_t numberFlags = 0) {
            entity.property(kTextProperty, "text", PropertyType::String)
                .property(kNumberProperty, "number", numberType, numberFlags);
        };
        addFields(spec.entity(kNotes, "Note", 0, 0));
        addFields(spec.entity(kTags, "Tag"));
        addFields(spec.entity(kSynced, "Synced", kEntitySyncEnabled, 0));
        addFields(spec.entity(kDated, "Dated", 0, 0), PropertyType::Date, kPropertyIdCompanion);
        return spec.build();
    }

    const Entity& entity(uint32_t id) { return store_->requireSchema()->entityById(id); }
    std::unique_ptr<Transaction> read() { return store_->beginTx(TxMode::Read); }
    std::unique_ptr<Transaction> write(uint32_t flags = 0) {
        return store_->beginTx(TxMode::Write, flags);
    }
    std::unique_ptr<Cursor> cursor(Transaction& tx, uint32_t entityId = kNotes) {
        return tx.createCursor(&entity(entityId));
    }

    void putNotes(std::initializer_list<uint64_t> ids, uint32_t entityId = kNotes) {
        const auto tx = write();
        const auto notes = cursor(*tx, entityId);
        for (const uint64_t id : ids) put(*notes, id);
        tx->commit();
    }
    static void put(Cursor& notes, uint64_t id) {
        const ObjectBytes note = makeNote(id, "note", static_cast<int64_t>(id));
        notes.put(id, note.data(), note.size(), kPut);
    }

    std::vector<uint64_t> storedIds(uint32_t entityId = kNotes) {
        const auto tx = read();
        const auto notes = cursor(*tx, entityId);
        std::vector<uint64_t> ids;
        for (uint64_t id = notes->seekFirstId(); id != 0; id = notes->seekNextId()) {
            ids.push_back(id);
        }
        return ids;
    }

    TempDir dir_;
    std::unique_ptr<ObjectStore> store_;
};

}  // namespace quillmere
