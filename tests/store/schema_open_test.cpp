#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "core/endian.h"
#include "kv/db_cursor.h"
#include "kv/db_store.h"
#include "kv/partition.h"
#include "kv/partition_cursor.h"
#include "schema/index.h"
#include "schema/model_builder.h"
#include "store/entity_state.h"
#include "store/object_test.h"
#include "store/schema_host.h"
#include "store/thread_tx.h"
#include "support/hooked_provider.h"
#include "support/log_capture.h"

namespace quillmere {
namespace {

// What a model of the tests consists of: Note (1), and what a test adds to it.
struct ModelParts {
    bool tag = false;      // entity 2
    bool noteText = false; // property 2 of Note
    uint32_t tagFlags = 0;
    PropertyType textType = PropertyType::String;
};

Bytes makeModel(const ModelParts& parts) {
    ModelBuilder model;
    model.entity("Note", 1, 101);
    model.property("id", PropertyType::Long, 1, 1001);
    model.propertyFlags(kPropertyId | kPropertyIdSelfAssignable);
    if (parts.noteText) model.property("text", parts.textType, 2, 1002);
    model.entityLastPropertyId(parts.noteText ? 2 : 1, parts.noteText ? 1002 : 1001);
    if (parts.tag) {
        model.entity("Tag", 2, 102);
        model.entityFlags(parts.tagFlags);
        model.property("id", PropertyType::Long, 1, 2001);
        model.propertyFlags(kPropertyId | kPropertyIdSelfAssignable);
        model.entityLastPropertyId(1, 2001);
    }
    model.lastEntityId(2, 102);
    model.finish();
    return Bytes::copyOf(model.data(), model.size());
}

class SchemaOpenTest : public ::testing::Test {
protected:
    static constexpr uint32_t kNote = 1;
    static constexpr uint32_t kTag = 2;

    StoreOptions options(const ModelParts& parts) {
        StoreOptions result = rawOptions();
        result.modelBytes = makeModel(parts);
        return result;
    }
    StoreOptions rawOptions() {
        StoreOptions result;
        result.directory = dir_.storePath("db");
        result.noReaderThreadLocals = true;
        return result;
    }
    void open(const StoreOptions& options) {
        store_.reset();
        store_ = ObjectStore::create(options);
    }
    void put(uint32_t entityId, uint64_t id, uint32_t flags = 0) {
        const ObjectBytes object = makeObject({{1, id}});
        ThreadTx tx(*store_, TxMode::Write, &store_->requireSchema()->entityById(entityId), false,
                    flags);
        tx.cursor().put(id, object.data(), object.size(), kPut);
        tx.markSuccess();
    }
    uint64_t count(uint32_t entityId) {
        ThreadTx tx(*store_, TxMode::Read, &store_->requireSchema()->entityById(entityId));
        return tx.cursor().count();
    }
    uint64_t recordsOf(PartitionType type, uint32_t id) {
        const auto tx = store_->beginTx(TxMode::Read);
        PartitionCursor::Config config;
        config.firstPrefix = partitionPrefix(type, id);
        config.lastPrefix = config.firstPrefix | 3;
        return PartitionCursor(*tx, config).count();
    }
    // Where the engine does not count its transactions, a record more or less.
    std::string lastEngineTx() {
        const std::string text = store_->diagnose();
        if (text.empty()) return std::to_string(store_->size());
        const size_t start = text.find("last-tx-id=");
        return text.substr(start, text.find('\n', start) - start);
    }

    TempDir dir_;
    std::unique_ptr<ObjectStore> store_;
};

TEST_F(SchemaOpenTest, changesOfTheSchemaAreLogged) {
    {
        const LogCapture log;
        open(options({}));
        EXPECT_TRUE(log.contains("[INFO ] Schema updated: entities added: 1\n"));
        open(options({.tag = true, .noteText = true}));
        EXPECT_TRUE(log.contains("Schema updated: entities added: 1, properties added: 1\n"));
    }
    const LogCapture log;
    const std::string before = lastEngineTx();
    open(options({.tag = true, .noteText = true}));
    EXPECT_EQ(lastEngineTx(), before) << "the same model changes nothing";
    EXPECT_THROW(open(options({.noteText = true, .textType = PropertyType::Int})),
                 SchemaException);
    EXPECT_FALSE(log.contains("Schema updated")) << "neither without a change nor when refused";
}

TEST_F(SchemaOpenTest, schemasLiveAsLongAsTheStore) {
    open(options({.tag = true}));
    const std::weak_ptr<Schema> first = store_->schema();
    EXPECT_TRUE(store_->readSchema(true));
    EXPECT_NE(store_->schema(), first.lock());
    const std::weak_ptr<Schema> second = store_->schema();
    store_->setSchema(first.lock());
    EXPECT_FALSE(first.expired());
    EXPECT_FALSE(second.expired());
    store_.reset();
    EXPECT_TRUE(first.expired());
    EXPECT_TRUE(second.expired());
}

TEST_F(SchemaOpenTest, opensFromModelBytesAlone) {
    const Bytes model = makeModel({});
    const auto store = ObjectStore::openWithModelBytes(
        model.data(), model.size(), dir_.storePath("db"), 4096, 0600, 20);
    EXPECT_EQ(store->dbStore().maxReaders(), TempDir::onLmdb() ? 20u : 0u)
        << "holds after the phase of the model";
    EXPECT_EQ(store->maxDbSizeInKb(), 4096u);
    EXPECT_EQ(store->requireSchema()->entities().size(), 1u);
}

TEST_F(SchemaOpenTest, storeWithoutAModelHasNoSchema) {
    open(rawOptions());
    EXPECT_EQ(store_->schema(), nullptr);
    expectThrow<IllegalStateException>("No schema set on store",
                                       [&] { store_->requireSchema(); });
    EXPECT_FALSE(store_->readSchema(true));
    expectThrow<IllegalStateException>("No DB catalog present",
                                       [&] { store_->readSchema(false); });
    EXPECT_TRUE(store_->closed()) << "a failing read closes the store";
    expectThrow<StoreClosedException>("Store is already closed",
                                      [&] { store_->beginTx(TxMode::Read); });

    StoreOptions withoutSchema = options({});
    withoutSchema.readSchema = false;
    expectThrow<IllegalArgumentException>("Read schema option must be set when using a model",
                                          [&] { open(withoutSchema); });
}

TEST_F(SchemaOpenTest, damagedCatalogFailsTheOpenAndLeavesThePathFree) {
    open(options({}));
    {
        const auto tx = store_->beginTx(TxMode::Write);
        StoreSchemaHost(*tx).writeElement(0, "damaged!", 8);
        tx->commit();
    }
    EXPECT_THROW(open(rawOptions()), DbFileCorruptException);
    EXPECT_THROW(open(options({})), DbFileCorruptException);
    StoreOptions unread = rawOptions();
    unread.readSchema = false;
    EXPECT_THROW(open(unread), DbFileCorruptException) << "the hashes are read all the same";
}

TEST_F(SchemaOpenTest, removedEntityTakesItsObjectsAlong) {
    // Also one that only the schema's own transaction may change.
    StoreOptions limited = options({.tag = true, .tagFlags = kEntitySyncEnabled});
    limited.maxDataSizeInKb = 1;
    open(limited);
    put(kNote, 1);
    const uint64_t noteSize = store_->beginTx(TxMode::Read)->getDataSize();
    for (uint64_t id = 1; id <= 3; ++id) put(kTag, id, kTxExempt);
    EXPECT_EQ(recordsOf(PartitionType::Entity, kTag), 3u);
    limited.modelBytes = makeModel({});
    open(limited);
    EXPECT_EQ(recordsOf(PartitionType::Entity, kTag), 0u);
    EXPECT_EQ(count(kNote), 1u);
    EXPECT_EQ(store_->beginTx(TxMode::Read)->getDataSize(), noteSize);
}

TEST_F(SchemaOpenTest, readOnlyStoreTakesOnlyTheModelItHas) {
    open(options({}));
    put(kNote, 1);
    StoreOptions reader = options({});
    reader.readOnly = true;
    open(reader);
    EXPECT_EQ(count(kNote), 1u);
    reader.modelBytes = makeModel({.noteText = true});
    expectThrow<IllegalStateException>(
        "Can not update schema when opening in read-only mode", [&] { open(reader); });
    store_.reset();
    open(options({.tag = true}));
    put(kTag, 1);
    reader.modelBytes = makeModel({});  // would remove Tag with its objects
    expectThrow<IllegalStateException>(
        "Can not update schema when opening in read-only mode", [&] { open(reader); });
    reader.modelBytes = {};
    open(reader);
    EXPECT_EQ(store_->requireSchema()->entityById(kNote).findPropertyByName("text"), nullptr);
}

TEST_F(SchemaOpenTest, previousCommitIsOneStepBackWhetherTheModelChangesOrNot) {
    if (!TempDir::onLmdb()) GTEST_SKIP() << "the data in memory has no previous commit";
    open(options({}));
    for (uint64_t id = 1; id <= 4; ++id) put(kNote, id);
    EXPECT_FALSE(store_->openedWithPreviousCommit());

    StoreOptions previous = options({});
    previous.usePreviousCommit = true;
    open(previous);
    EXPECT_TRUE(store_->openedWithPreviousCommit());
    EXPECT_EQ(count(kNote), 3u);

    previous.modelBytes = makeModel({.noteText = true});
    open(previous);
    EXPECT_TRUE(store_->openedWithPreviousCommit());
    EXPECT_EQ(count(kNote), 3u);
    EXPECT_NE(store_->requireSchema()->entityById(kNote).findPropertyByName("text"), nullptr);
    put(kNote, 9);
    open(rawOptions());
    EXPECT_FALSE(store_->openedWithPreviousCommit());
    EXPECT_EQ(count(kNote), 4u);
}

TEST_F(SchemaOpenTest, droppedDataLeavesTheSchemaAndTellsListeners) {
    StoreOptions limited = options({.tag = true});
    limited.maxDataSizeInKb = 1;
    open(limited);
    put(kTag, 1);
    put(kTag, 2);
    std::vector<uint32_t> heard;
    store_->addListener(
        [&](const auto& ids) { heard.insert(heard.end(), ids.begin(), ids.end()); });
    store_->dropAllData();
    EXPECT_EQ(heard, std::vector<uint32_t>{kTag}) << "Note had no objects";
    EXPECT_EQ(count(kTag), 0u);
    EXPECT_EQ(store_->beginTx(TxMode::Read)->getDataSize(), 0u);
    put(kTag, 7);
    EXPECT_GT(store_->beginTx(TxMode::Read)->getDataSize(), 0u);

    {
        ThreadTx tx(*store_, TxMode::Write, &store_->requireSchema()->entityById(kTag));
        tx.cursor().remove(7);
        store_->dropAllData();  // joins, and goes with the owner
    }
    EXPECT_EQ(count(kTag), 1u);
    open(rawOptions());
    EXPECT_EQ(store_->requireSchema()->entities().size(), 2u);

    store_->dropAllRaw();
    EXPECT_FALSE(store_->readSchema(true));
    expectThrow<IllegalStateException>(
        "State condition failed in dropAllData:742: !schemaData.empty()",
        [&] { store_->dropAllData(); });
}

TEST_F(SchemaOpenTest, panicModeRemovesAllInTransactionsOfItsOwn) {
    open(options({.tag = true}));
    for (uint64_t id = 1; id <= 5; ++id) put(kTag, id);
    put(kNote, 1);
    const LogCapture log;
    EXPECT_EQ(store_->removeAllForPanic(store_->requireSchema()->entityById(kTag)), 5u);
    EXPECT_EQ(count(kTag), 0u);
    EXPECT_EQ(count(kNote), 1u);
    EXPECT_TRUE(log.contains("[WARN ] Panic mode removeAll started\n"));
    EXPECT_TRUE(log.contains("[WARN ] Panic mode removeAll changes: 5 total: 5\n"));
    EXPECT_TRUE(log.contains("[WARN ] Panic mode removeAll changes: 0 total: 5\n"));
    EXPECT_TRUE(log.contains("[WARN ] Panic mode removeAll committed changes\n"));
}

TEST_F(SchemaOpenTest, hostWalksElementsFromAnyPlaceAndRemovesWholeRanges) {
    open(rawOptions());
    const auto tx = store_->beginTx(TxMode::Write);
    StoreSchemaHost host(*tx);
    for (const uint64_t id : {uint64_t{0}, uint64_t{1}, uint64_t{7}, uint64_t{1} << 33}) {
        host.writeElement(id, "element", 8);
    }
    const auto walk = [&](uint64_t from) {
        std::vector<uint64_t> ids;
        host.visitElements(from, [&](uint64_t id, const Bytes& data) {
            EXPECT_EQ(data.text(), std::string_view("element\0", 8));
            Bytes other;
            EXPECT_TRUE(host.readElement(0, other)) << "reading does not disturb the walk";
            ids.push_back(id);
            return id <= 7;
        });
        return ids;
    };
    EXPECT_EQ(walk(0), (std::vector<uint64_t>{0, 1, 7, uint64_t{1} << 33}));
    EXPECT_EQ(walk(1), (std::vector<uint64_t>{1, 7, uint64_t{1} << 33}));
    EXPECT_EQ(walk(2), (std::vector<uint64_t>{7, uint64_t{1} << 33}));
    EXPECT_TRUE(host.removeElement(7));
    EXPECT_FALSE(host.removeElement(7));

    const auto fill = [&](PartitionType type, uint32_t id, uint32_t sub) {
        uint8_t key[8] = {};
        storeBig<uint32_t>(key, partitionPrefix(type, id, sub));
        tx->createDbCursor()->put(key, sizeof key, "", 0);
    };
    for (uint32_t sub = 0; sub < 4; ++sub) fill(PartitionType::Relation, 4, sub);
    fill(PartitionType::Relation, 5, 0);
    fill(PartitionType::Index, 4, 0);
    fill(PartitionType::Index, 5, 0);
    host.removeRelationData(Relation(4, 1, 1, 1));
    auto property = std::make_shared<Property>(1, 1, "indexed", PropertyType::Int,
                                               kPropertyIndexed);
    property->setIndex(4, 1, kPropertyIndexed);
    host.removeIndexData(Index(1, property));
    tx->commit();
    EXPECT_EQ(recordsOf(PartitionType::Relation, 4), 0u);
    EXPECT_EQ(recordsOf(PartitionType::Relation, 5), 1u);
    EXPECT_EQ(recordsOf(PartitionType::Index, 4), 0u);
    EXPECT_EQ(recordsOf(PartitionType::Index, 5), 1u);
}

using ConcurrentSchemaOpenTest = SchemaOpenTest;

TEST_F(ConcurrentSchemaOpenTest, neverTwoEnvironmentsAreOnOnePath) {
    auto& provider = HookedProvider::instance();
    provider.mostOpenStores = 0;
    StoreOptions shared = options({.tag = true});
    shared.directory = HookedProvider::kPrefix + shared.directory;
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 10; ++i) {
                bool attached = false;
                const auto store = ObjectStore::attachOrOpen(shared, &attached);
                EXPECT_EQ(store->requireSchema()->entities().size(), 2u);
                ThreadTx tx(*store, TxMode::Write);
                tx.tx().createKeyValueCursor(0x40000004)->putRaw(1, "mark", 4);
                tx.markSuccess();
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(provider.mostOpenStores, 1);
    EXPECT_EQ(provider.openStores, 0);
}

}  // namespace
}  // namespace quillmere
