#include <flatbuffers/flatbuffers.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <latch>
#include <map>
#include <new>
#include <thread>

#include "core/log.h"
#include "core/number_lock.h"
#include "kv/db_store.h"
#include "kv/kv_validation.h"
#include "store/object_test.h"
#include "store/store_activity.h"
#include "store/store_close.h"
#include "store/thread_tx.h"
#include "support/expected_leak.h"
#include "support/hooked_provider.h"
#include "support/log_capture.h"

namespace quillmere {
namespace {

using StorePtr = std::shared_ptr<ObjectStore>;

class LifecycleTest : public ::testing::Test {
protected:
    StoreOptions options(const std::string& name = "db") {
        StoreOptions result;
        result.directory = dir_.storePath(name);
        return result;
    }
    StoreOptions hooked() {
        HookedProvider::instance().mostOpenStores = 0;
        StoreOptions result = options();
        result.directory = HookedProvider::kPrefix + result.directory;
        return result;
    }
    StorePtr openStore(const StoreOptions& options) {
        return ObjectStore::attachOrOpen(options, nullptr);
    }
    StorePtr openStore() { return openStore(options()); }
    std::string inUse() {
        return "Cannot open store: another store is still open using the same path: \"" +
               canonicalPath() + "\"";
    }
    // Of a store without files a mere name, which no other name means.
    std::string canonicalPath() {
        return TempDir::storePrefix() +
               std::filesystem::weakly_canonical(dir_.path("db")).string();
    }
    // One raw record, so that the data of a database can be told apart.
    static void putMark(ObjectStore& store, uint64_t id) {
        const auto tx = store.beginTx(TxMode::Write);
        tx->createKeyValueCursor(kMarks)->putRaw(id, "mark", 4);
        tx->commit();
    }
    static uint64_t countMarks(ObjectStore& store) {
        const auto tx = store.beginTx(TxMode::Read);
        return tx->createKeyValueCursor(kMarks)->count();
    }
    static constexpr uint32_t kMarks = 0x40000004;

    TempDir dir_;
};

// --- sharing -------------------------------------------------------------------------------------

TEST_F(LifecycleTest, pathIsOpenedOnceInsideAndOutsideOfTheRegistry) {
    StoreOptions detour = options();
    if (TempDir::onFiles()) detour.directory = dir_.storePath("db/../db/.");
    for (const bool shared : {true, false}) {
        const StorePtr store = shared ? openStore() : StorePtr(ObjectStore::create(options()));
        EXPECT_EQ(store->id() != 0, shared);
        EXPECT_EQ(ObjectStore::isOpen(dir_.storePath("db")), shared);
        expectThrow<IllegalStateException>(inUse(), [&] { openStore(detour); });
        expectThrow<IllegalStateException>(inUse(), [&] { ObjectStore::create(options()); });
        putMark(*store, 1);
        EXPECT_EQ(countMarks(*store), 1u);
    }
}

TEST_F(LifecycleTest, attachingComparesOptionsOnRequest) {
    StoreOptions original = options();
    if (TempDir::onLmdb()) original.maxReaders = 50;
    const StorePtr store = openStore(original);
    const auto differs = [&](auto change, const std::string& name) {
        StoreOptions other = original;
        change(other);
        bool attached = false;
        expectThrow<IllegalStateException>(
            "Given options do not match the existing open store at the same path: " + name,
            [&] { ObjectStore::attachOrOpen(other, &attached, true); });
        EXPECT_EQ(ObjectStore::attachOrOpen(other, &attached, false), store);
    };
    differs([](StoreOptions& o) { o.readOnly = true; }, "read-only");
    differs([](StoreOptions& o) { o.putPaddingMode = 2; }, "put padding mode");
    differs([](StoreOptions& o) { o.maxReaders = 51; }, "max. readers");
    differs([](StoreOptions& o) { o.maxDbSizeInKb = 2048; o.readOnly = true; }, "max. DB size");
    bool attached = false;
    StoreOptions unset = original;
    unset.maxReaders = 0;
    EXPECT_EQ(ObjectStore::attachOrOpen(unset, &attached, true), store);
}

// --- opening -------------------------------------------------------------------------------------

TEST_F(LifecycleTest, failedOpenLeavesThePathFree) {
    if (TempDir::onFiles()) {
        std::filesystem::create_directory(dir_.path("db"));
        const char* file = TempDir::onLmdb() ? "db/data.mdb" : "db/quillmere.wal";
        std::ofstream(dir_.path(file)) << std::string(20000, 'x');
        EXPECT_THROW(openStore(), Exception);
        std::filesystem::remove_all(dir_.path("db"));
    }

    StoreOptions bad = options();
    bad.maxDbSizeInKb = 0;
    expectThrow<IllegalArgumentException>("Size option may not be zero", [&] { openStore(bad); });
    bad = options();
    bad.backupFile = "backup";
    expectThrow<FeatureNotAvailableException>("Feature 'Backup' is not available in this edition.",
                                              [&] { openStore(bad); });
    bad = options();
    bad.readOnly = true;
    if (TempDir::onFiles()) {
        EXPECT_THROW(openStore(bad), OpenDbException);
    }
    {
        HookedProvider::Hooks hooks;
        hooks.createNothing = true;
        const ScopedHooks scope(hooks);
        expectThrow<IllegalStateException>("Store provider did not create a store",
                                           [&] { openStore(hooked()); });
    }
    {
        // The storage is open by then, and must be closed again.
        HookedProvider::Hooks hooks;
        hooks.beforeBegin = [] { throw StorageException("no begin", 5); };
        const ScopedHooks scope(hooks);
        StoreOptions validating = hooked();
        validating.validateKvOnOpen = true;
        expectThrow<StorageException>("no begin", [&] { openStore(validating); });
        expectThrow<StorageException>("no begin", [&] { openStore(hooked()); });
        EXPECT_EQ(HookedProvider::instance().openStores, 0);
    }
    EXPECT_NE(openStore(), nullptr);
}

TEST_F(LifecycleTest, logCallbackSeesTheOpenAlone) {
    std::vector<std::string> heard;
    StoreOptions withCallback = options();
    withCallback.logCallback = [&](int32_t level, const char* text, size_t length) {
        heard.push_back(std::to_string(level) + " " + std::string(text, length));
    };
    openStore(withCallback);
    EXPECT_EQ(heard, std::vector<std::string>{"20 Opening store: " + canonicalPath()});
}

TEST_F(LifecycleTest, validatesRecordsOnRequest) {
    putMark(*openStore(), 1);
    EXPECT_EQ(openStore()->validationResult(), nullptr);
    StoreOptions validating = options();
    validating.validateKvOnOpen = true;
    const StorePtr store = openStore(validating);
    ASSERT_NE(store->validationResult(), nullptr);
    EXPECT_EQ(store->validationResult()->pairs, 1u);
    EXPECT_EQ(store->cleanStaleReadTransactions(), 0u);
}

TEST_F(LifecycleTest, flatOptionsAndParameterMayNotBothGiveAModel) {
    constexpr flatbuffers::voffset_t kModelField = 6;
    flatbuffers::FlatBufferBuilder builder;
    const auto bytes = builder.CreateVector(std::vector<uint8_t>{1, 2, 3, 4});
    const auto start = builder.StartTable();
    builder.AddOffset(kModelField, bytes);
    builder.Finish(flatbuffers::Offset<flatbuffers::Table>(builder.EndTable(start)));
    const Bytes model("1234", 4);
    expectThrow<IllegalArgumentException>(
        "Two models given; either provide in the options or as a param, but not both", [&] {
            ObjectStore::createWithFlatOptions(builder.GetBufferPointer(), builder.GetSize(),
                                               &model);
        });
}

// --- state ---------------------------------------------------------------------------------------

std::string banner(const std::string& state) {
    const std::string frame(67, '!');
    const std::string line = "!! Irrecoverable memory error detected: store instance is " + state;
    return frame + "\n" + line + std::string(65 - line.size(), ' ') + "!!\n" + frame + "\n";
}

TEST_F(LifecycleTest, illegalInstancesAreReported) {
    const std::string start =
        "Illegal Store instance detected! This is a severe usage error that must be fixed. State: ";
    alignas(ObjectStore) unsigned char memory[sizeof(ObjectStore)];
    auto* const store = new (memory) ObjectStore(options());
    ObjectStore::checkOpen(store, true);
    store->~ObjectStore();

    const LogCapture log;
    expectThrow<StoreClosedException>(start + "dead",
                                      [&] { ObjectStore::checkOpen(store, false); });
    EXPECT_EQ(log.text(), banner("dead"));
    std::memset(memory, 'x', sizeof memory);
    expectThrow<StoreClosedException>(start + "corrupt",
                                      [&] { ObjectStore::checkOpen(store, false); });
    expectThrow<StoreClosedException>(start + "null",
                                      [&] { ObjectStore::checkOpen(nullptr, false); });
    EXPECT_EQ(log.text(), banner("dead") + banner("corrupt") + banner("null"));
}

TEST_F(LifecycleTest, illegalInstanceEndsTheProcessIfFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(ObjectStore::checkOpen(nullptr, true),
                 "Irrecoverable memory error detected: store instance is null ");
}

TEST_F(LifecycleTest, exceptionListenerIsSetOnceAndToldOfTheEnd) {
    struct Listener : DbExceptionListener {
        explicit Listener(int& calls) : calls_(calls) {}
        void storeDestroyed() override { ++calls_; }
        int& calls_;
    };
    int calls = 0;
    StorePtr store = openStore();
    store->setDbExceptionListener(std::make_unique<Listener>(calls));
    expectThrow<IllegalStateException>(
        "Already set", [&] { store->setDbExceptionListener(std::make_unique<Listener>(calls)); });
    store.reset();
    EXPECT_EQ(calls, 1);
}

// --- closing -------------------------------------------------------------------------------------

TEST_F(LifecycleTest, closingWaitsForQueriesAndGivesUp) {
    StoreActivity activity;
    activity.queries = 2;
    size_t pauses = 0;
    {
        const LogCapture log;
        awaitQueries(activity, [&] { if (++pauses == 1001) activity.queries = 0; });
        const std::string text = log.text();
        EXPECT_TRUE(log.contains("[WARN ] [Store ] Waiting for 2 queries to finish (TXs: 0, wait "
                                 "count: 0)\n"));
        EXPECT_TRUE(log.contains("(TXs: 0, wait count: 1000)\n"));
        EXPECT_TRUE(log.contains("[INFO ] [Store ] Waited 1001 times for queries to finish\n"));
        EXPECT_FALSE(log.contains("[ERROR]"));
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
    }
    activity.queries = 1;
    pauses = 0;
    const LogCapture log;
    awaitQueries(activity, [&] { ++pauses; });
    EXPECT_EQ(pauses, 10000u);
    EXPECT_TRUE(log.contains(
        "[ERROR] [Store ] Waiting for queries to finish took too long; please ensure that all "
        "queries finish in time. Closing store now, but this may lead to undefined behavior.\n"));
    EXPECT_TRUE(log.contains("[INFO ] [Store ] Waited 10000 times for queries to finish\n"));
}

TEST_F(LifecycleTest, closingDoesNotWaitForCommitsOfItsOwnThread) {
    StoreActivity activity;
    StoreActivity other;
    const CommitInProgress outer(activity);
    const CommitInProgress elsewhere(other);
    const CommitInProgress inner(activity);
    activity.transactions = 3;  // two of them are committing right here
    size_t pauses = 0;
    awaitCommits(activity, [&] { ++pauses; });
    EXPECT_EQ(pauses, 0u);
    const LogCapture log;
    awaitTransactions(activity, [&] { ++pauses; });
    EXPECT_EQ(pauses, 1000u);
    EXPECT_TRUE(log.contains("[WARN ] [Store ] Waiting for 1 TX(s) to finish (wait count: "
                             "1000)\n"));
    EXPECT_TRUE(log.contains("[ERROR] [Store ] Waiting for TXs to finish took too long; please "
                             "ensure that all TXs finish in time. Closing store now, but this may "
                             "lead to undefined behavior.\n"));
    EXPECT_TRUE(log.contains("[INFO ] [Store ] Waited 1000 times for TXs to finish\n"));
}

TEST_F(LifecycleTest, closingWithATimeLimitGoesOnWithoutTheWriteLock) {
    NumberLock lock;
    const std::atomic<int32_t> writerThread{17};
    lock.lock(5);
    lock.shutDown();
    const LogCapture log;
    EXPECT_FALSE(awaitWriter(lock, writerThread, 1'000'000, 0));
    EXPECT_TRUE(log.contains("[WARN ] Cannot close store yet: TX #5 is still active in thread 17. "
                             "Waiting...\n"));
    EXPECT_TRUE(log.contains("[ERROR] Closing store time limit reached; cannot wait for TX #5\n"));
    EXPECT_EQ(lock.holder(), 5u);
}

TEST_F(LifecycleTest, transactionOutlivesAStoreThatGaveUpWaiting) {
    StoreOptions options = this->options();
    options.noReaderThreadLocals = true;
    StorePtr store = openStore(options);
    putMark(*store, 1);
    std::unique_ptr<Transaction> reader;
    std::unique_ptr<Transaction> recycled;
    std::unique_ptr<Cursor> marks;
    std::unique_ptr<Cursor> more;
    {
        const ExpectedLeak engineTransactions;
        reader = store->beginTx(TxMode::Read);
        marks = reader->createKeyValueCursor(kMarks);
        recycled = store->beginTx(TxMode::Read);
        more = recycled->createKeyValueCursor(kMarks);
    }
    recycled->recycle();
    {
        const LogCapture log;
        store.reset();
        EXPECT_TRUE(log.contains("Waiting for 2 TX(s) to finish (wait count: 0)\n"));
        EXPECT_TRUE(log.contains("Closing store now, but this may lead to undefined behavior.\n"));
    }
    expectThrow<IllegalStateException>(
        "State condition failed in createKeyValueCursor:484: !store_.closed_",
        [&] { reader->createKeyValueCursor(kMarks); });
    Entity entity(1, 1, "Any");
    expectThrow<StoreClosedException>("Store is closed", [&] { reader->createCursor(&entity); });
    expectThrow<StoreClosedException>("Store is already closed", [&] { recycled->renew(); });
    expectThrow<StoreClosedException>("Store is closed", [&] { reader->getDataSize(); });
    reader->abort();
    expectThrow<IllegalStateException>("TX is not active anymore: #",
                                       [&] { reader->createKeyValueCursor(kMarks); });
    expectThrow<IllegalStateException>("State condition failed in createDbCursor:569: ",
                                       [&] { reader->createDbCursor(); });
    recycled.reset();
    reader.reset();
    EXPECT_EQ(countMarks(*openStore()), 1u);
}

using ConcurrentLifecycleTest = LifecycleTest;

TEST_F(ConcurrentLifecycleTest, closingWaitsForTheWriterInRounds) {
    NumberLock lock;
    std::atomic<int32_t> writerThread{17};
    lock.lock(5);
    lock.shutDown();
    const LogCapture log;
    std::thread closer([&] { EXPECT_TRUE(awaitWriter(lock, writerThread, 0, 1'000'000)); });
    while (!log.contains("[ERROR] Cannot close store yet: TX #5 still active. Waiting...\n")) {
        std::this_thread::yield();
    }
    lock.unlock(5);
    closer.join();
    EXPECT_EQ(lock.holder(), NumberLock::kCloserNumber);
    EXPECT_TRUE(log.contains("[WARN ] Writer lock acquired for closing store, starting grace "
                             "period for TXs to finish\n"));
    EXPECT_TRUE(log.contains("[WARN ] OK, store can be closed now\n"));
}

TEST_F(ConcurrentLifecycleTest, openWaitsUntilTheClosingStoreIsReallyClosed) {
    const auto openWhileClosing = [&](uint64_t id, const std::function<StorePtr()>& openAgain) {
        StorePtr store = openStore(hooked());
        auto tx = store->beginTx(TxMode::Write);
        tx->createKeyValueCursor(kMarks)->putRaw(id, "mark", 4);

        const LogCapture log;
        const std::string waiting = "Cannot close store yet: TX #" + std::to_string(tx->number()) +
                                    " is still active in thread " + std::to_string(threadNumber());
        std::thread closer([&] { store.reset(); });
        while (!log.contains(waiting)) std::this_thread::yield();
        EXPECT_FALSE(ObjectStore::isOpen(dir_.storePath("db")));

        std::latch started(1);
        std::thread opener([&] {
            started.count_down();
            EXPECT_EQ(countMarks(*openAgain()), id) << "sees the commit it waited for";
        });
        started.wait();
        tx->commit();
        tx.reset();
        closer.join();
        opener.join();
        EXPECT_EQ(HookedProvider::instance().mostOpenStores, 1);
    };
    openWhileClosing(1, [&] { return openStore(hooked()); });
    openWhileClosing(2, [&] { return StorePtr(ObjectStore::create(hooked())); });
}

TEST_F(ConcurrentLifecycleTest, waitingWriterFailsWhenTheStoreCloses) {
    StoreOptions options = this->options();
    options.debugFlags = kDebugLogWriteTx;
    const LogCapture log;
    StorePtr store = openStore(options);
    ObjectStore& raw = *store;
    auto tx = store->beginTx(TxMode::Write);
    std::thread waiting([&] { EXPECT_THROW(raw.beginTx(TxMode::Write), ShuttingDownException); });
    while (!log.contains("waiting for TX #")) std::this_thread::yield();
    std::thread closer([&] { store.reset(); });
    waiting.join();
    tx->commit();
    tx.reset();
    closer.join();
}

TEST_F(ConcurrentLifecycleTest, closingWaitsForListenersOfACommit) {
    StorePtr store = openStore();
    std::latch entered(1);
    std::latch release(1);
    std::atomic<bool> listenerDone{false};
    store->addListener([&](const auto&) {
        entered.count_down();
        release.wait();
        listenerDone = true;
    });
    auto tx = store->beginTx(TxMode::Write);
    tx->entityAffected(1);
    std::thread closer([&] {
        entered.wait();
        ObjectStore* const raw = store.get();
        std::thread releaser([&] {
            // The close has begun, so that it meets the listener at work.
            while (!raw->closing()) std::this_thread::yield();
            release.count_down();
        });
        store.reset();
        EXPECT_TRUE(listenerDone);
        releaser.join();
    });
    tx->commit();
    tx.reset();
    closer.join();
}

}  // namespace
}  // namespace quillmere
