#include "store/transaction.h"

#include <gtest/gtest.h>

#include <latch>
#include <limits>
#include <thread>

#include "core/log.h"
#include "kv/db_cursor.h"
#include "kv/db_store.h"
#include "kv/partition.h"
#include "kv/partition_cursor.h"
#include "store/entity_state.h"
#include "store/object_test.h"
#include "store/store_activity.h"
#include "store/thread_tx.h"
#include "support/hooked_provider.h"
#include "support/log_capture.h"

namespace quillmere {
namespace {

constexpr uint64_t kMaxInt64 = std::numeric_limits<int64_t>::max();

std::string numbered(const char* text, uint64_t number) { return text + std::to_string(number); }

class TransactionTest : public ObjectTest {
protected:
    void SetUp() override { open(severalReadersPerThread()); }
    static StoreOptions severalReadersPerThread() {
        StoreOptions options;
        options.noReaderThreadLocals = true;
        return options;
    }
    std::unique_ptr<ObjectStore> openAnother(const std::string& name, StoreOptions options = {}) {
        options.directory = dir_.storePath(name);
        auto store = std::make_unique<ObjectStore>(options);
        store->setSchema(makeSchema());
        return store;
    }
    // Opened through hooks.
    std::unique_ptr<ObjectStore> openHooked() {
        HookedProvider::instance();
        StoreOptions options = severalReadersPerThread();
        options.directory = HookedProvider::kPrefix + dir_.storePath("hooked");
        auto store = std::make_unique<ObjectStore>(options);
        store->setSchema(makeSchema());
        return store;
    }
    static uint64_t countNotes(ObjectStore& store) {
        const auto tx = store.beginTx(TxMode::Read);
        return tx->createCursor(&store.requireSchema()->entityById(kNotes))->count();
    }
    static void putNote(ObjectStore& store, Transaction& tx, uint64_t id) {
        put(*tx.createCursor(&store.requireSchema()->entityById(kNotes)), id);
    }
    // Reserves the ID and puts `size` bytes.
    void putBytes(Transaction& tx, uint64_t id, size_t size) {
        const std::vector<uint8_t> bytes(size, 7);
        cursor(tx, kTags)->put(id, bytes.data(), bytes.size(), kPut);
    }
    uint64_t storedTotal() { return read()->getDataSize(); }
};

TEST_F(TransactionTest, numbersRiseAcrossStoresAndShareTheLatestCommit) {
    const auto other = openAnother("other");
    const auto early = read();
    uint64_t base = 0;
    EXPECT_TRUE(early->isLatest(base));
    EXPECT_EQ(base, lastCommittedTx());

    const auto writer = other->beginTx(TxMode::Write);
    EXPECT_GT(writer->number(), early->number());
    EXPECT_FALSE(writer->isLatest(base));
    writer->commit();
    EXPECT_EQ(lastCommittedTx(), writer->number());
    EXPECT_FALSE(early->isLatest(base));
    EXPECT_EQ(read()->baseNumber(), writer->number());
}

TEST_F(TransactionTest, describesItself) {
    const auto reader = read();
    EXPECT_EQ(reader->describe(), numbered("TX #", reader->number()) + " (read, active)");
    const auto writer = write();
    writer->abort();
    EXPECT_EQ(writer->describe(), numbered("TX #", writer->number()) + " (write, inactive)");
}

TEST_F(TransactionTest, refusesCommitsThatMakeNoSense) {
    expectThrow<IllegalStateException>("Illegal mode",
                                       [&] { store_->beginTx(static_cast<TxMode>(2)); });
    expectThrow<IllegalStateException>(
        "Read transactions may not be committed - use abort instead", [&] { read()->commit(); });

    const auto aborted = write();
    aborted->abort();
    aborted->abort();
    expectThrow<IllegalStateException>(numbered("TX is not active anymore: #", aborted->number()),
                                       [&] { aborted->commit(); });

    const auto silent = write();
    silent->setSilentChanges(true);
    expectThrow<IllegalStateException>("State condition failed in commit:232: !silentChanges_",
                                       [&] { silent->commit(); });
    silent->setSilentChanges(false);
    silent->commit();
}

TEST_F(TransactionTest, secondWriterOnTheSameThreadFailsAtOnce) {
    const auto first = write();
    try {
        write();
        FAIL();
    } catch (const IllegalStateException& e) {
        EXPECT_EQ(std::string(e.what()),
                  "Cannot begin new TX #" + std::to_string(first->number() + 1) +
                      " because thread " + std::to_string(threadNumber()) +
                      " is already in write TX #" + std::to_string(first->number()));
    }
    first->commit();
    write()->commit();
}

TEST_F(TransactionTest, givesCursorsOnlyWhileActive) {
    const auto tx = write();
    expectThrow<ArgumentNullException>("Argument \"entity\" must not be null",
                                       [&] { tx->createCursor(nullptr); });
    EXPECT_FALSE(tx->hasCursors());
    {
        const auto first = cursor(*tx);
        const auto second = tx->createKeyValueCursor(kKeyValuePrefix);
        EXPECT_TRUE(tx->hasCursors());
    }
    EXPECT_FALSE(tx->hasCursors());
    tx->abort();
    const std::string inactive = numbered("TX is not active anymore: #", tx->number());
    expectThrow<IllegalStateException>(inactive, [&] { cursor(*tx); });
    expectThrow<IllegalStateException>(inactive,
                                       [&] { tx->createKeyValueCursor(kKeyValuePrefix); });
    expectThrow<IllegalStateException>(
        "State condition failed in createDbCursor:569: dbTx_->isInProgress()",
        [&] { tx->createDbCursor(); });
}

TEST_F(TransactionTest, recycledReaderComesBackOnTheNewestCommit) {
    putNotes({store_->entityState(entity(kNotes)).idsForPut(1)});
    const auto reader = read();
    const auto notes = cursor(*reader);
    EXPECT_EQ(notes->count(), 1u);
    expectThrow<IllegalStateException>(
        "Only previously recycled transactions can be renewed", [&] { reader->renew(); });

    reader->recycle();
    EXPECT_FALSE(reader->active());
    EXPECT_TRUE(reader->recycled());
    expectThrow<IllegalStateException>(numbered("TX is not active anymore: #", reader->number()),
                                       [&] { reader->recycle(); });
    putNotes({store_->entityState(entity(kNotes)).idsForPut(1)});
    reader->renew();
    uint64_t base = 0;
    EXPECT_TRUE(reader->isLatest(base));
    EXPECT_EQ(notes->count(), 2u);

    reader->recycle();
    reader->abort();
    EXPECT_FALSE(reader->recycled());
    expectThrow<IllegalStateException>("Only read transactions may be recycled",
                                       [&] { write()->recycle(); });
    expectThrow<IllegalStateException>("Only read transactions may be recycled",
                                       [&] { write()->renew(); });
}

TEST_F(TransactionTest, resetReaderSeesNewCommits) {
    const auto reader = read();
    {
        const auto notes = cursor(*reader);
        expectThrow<IllegalStateException>("Cannot reset TX with active cursors",
                                           [&] { reader->reset(); });
    }
    putNotes({store_->entityState(entity(kNotes)).idsForPut(1)});
    EXPECT_EQ(cursor(*reader)->count(), 0u);
    reader->reset();
    EXPECT_EQ(cursor(*reader)->count(), 1u);
    uint64_t base = 0;
    EXPECT_TRUE(reader->isLatest(base));

    reader->recycle();
    expectThrow<IllegalStateException>("State condition failed in reset:339: !recycled_",
                                       [&] { reader->reset(); });
    reader->abort();
    reader->reset();
    EXPECT_TRUE(reader->active());
}

TEST_F(TransactionTest, resetWriterStartsAnewUnderItsNumber) {
    store_->entityState(entity(kNotes)).idsForPut(9);
    const auto tx = write();
    const uint64_t number = tx->number();
    put(*cursor(*tx), 1);
    tx->reset();
    EXPECT_EQ(tx->number(), number);
    EXPECT_EQ(cursor(*tx)->count(), 0u);
    put(*cursor(*tx), 2);
    tx->commit();
    EXPECT_EQ(storedIds(), std::vector<uint64_t>{2});

    // The same number commits twice: a count cached in between must not survive.
    EXPECT_EQ(countNotes(*store_), 1u);
    tx->reset();
    put(*cursor(*tx), 3);
    tx->commit();
    EXPECT_EQ(countNotes(*store_), 2u);
}

// --- data size -----------------------------------------------------------------------------------

class DataSizeTest : public TransactionTest {
protected:
    void SetUp() override { openWithLimit(1); }
    void openWithLimit(uint64_t kilobytes) {
        StoreOptions options = severalReadersPerThread();
        options.maxDataSizeInKb = kilobytes;
        open(options);
    }
};

TEST_F(DataSizeTest, limitRefusesTheCommitAndASmallerOneSucceeds) {
    {
        const auto tx = write();
        putBytes(*tx, 1, 1024);
        EXPECT_EQ(tx->remainingDataSize(), 1024);
        tx->commit();
    }
    EXPECT_EQ(storedTotal(), 1024u);
    {
        const auto tx = write();
        EXPECT_EQ(tx->remainingDataSize(), 0);
        putBytes(*tx, 2, 8);
        expectThrow<DbMaxDataSizeExceededException>("Exceeded user-set maximum by [bytes]: 8",
                                                    [&] { tx->commit(); });
        EXPECT_TRUE(tx->active());
        tx->abort();
    }
    EXPECT_EQ(storedIds(kTags), std::vector<uint64_t>{1});
    {
        const auto tx = write();
        putBytes(*tx, 1, 1000);
        putBytes(*tx, 2, 24);
        tx->commit();
    }
    EXPECT_EQ(storedTotal(), 1024u);
    const auto exempt = write(kTxExempt);
    putBytes(*exempt, 3, 4096);
    exempt->commit();
    EXPECT_EQ(storedTotal(), 5120u) << "counted but not limited";
}

TEST_F(DataSizeTest, dataAboveTheLimitMayShrink) {
    openWithLimit(2);
    {
        const auto tx = write();
        for (uint64_t id = 1; id <= 4; ++id) putBytes(*tx, id, 512);
        tx->commit();
    }
    openWithLimit(1);
    const auto tx = write();
    EXPECT_EQ(tx->remainingDataSize(), -1024);
    EXPECT_TRUE(cursor(*tx, kTags)->remove(4));
    tx->commit();
    EXPECT_EQ(storedTotal(), 1536u);
}

TEST_F(DataSizeTest, readerOnANewerSnapshotReadsTheTotalAgain) {
    const auto recycled = read();
    const auto reset = read();
    EXPECT_EQ(recycled->getDataSize(), 0u);
    EXPECT_EQ(reset->getDataSize(), 0u);
    const auto tx = write();
    putBytes(*tx, 1, 512);
    tx->commit();
    recycled->recycle();
    recycled->renew();
    EXPECT_EQ(recycled->getDataSize(), 512u);
    reset->reset();
    EXPECT_EQ(reset->getDataSize(), 512u);
}

TEST_F(DataSizeTest, damagedAccountIsReported) {
    const auto putTotal = [&](const void* value, size_t size) {
        const auto tx = write();
        const uint8_t key[4] = {0, 0, 4, 0};
        tx->createDbCursor()->put(key, sizeof key, value, size);
        tx->commit();
    };
    const uint64_t tooMuch = kMaxInt64 + 1;
    putTotal(&tooMuch, sizeof tooMuch);
    {
        const auto tx = write();
        putBytes(*tx, 1, 8);
        expectThrow<NumericOverflowException>("Numeric overflow: 9223372036854775808",
                                              [&] { tx->commit(); });
    }
    const uint64_t tooLittle = 3;
    putTotal(&tooLittle, sizeof tooLittle);
    {
        const auto tx = write();
        tx->addDataSizeChange(-8);
        expectThrow<NumericOverflowException>("Numeric overflow: -5", [&] { tx->commit(); });
    }
    putTotal("four", 4);
    expectThrow<DbFileCorruptException>("Illegal data size length: 4",
                                        [&] { read()->getDataSize(); });
}

// --- log lines -----------------------------------------------------------------------------------

// The lines without their time stamps, and with every transaction number as "#".
std::string withoutNumbers(const std::string& log) {
    std::string result;
    for (size_t i = log.find(" ["); i < log.size();) {
        const size_t end = log.find('\n', i);
        for (; i < end; ++i) {
            result += log[i];
            if (log[i] == '#') {
                while (i + 1 < end && std::isdigit(static_cast<unsigned char>(log[i + 1]))) ++i;
            }
        }
        result += '\n';
        i = log.find(" [", end);
    }
    return result;
}

TEST_F(TransactionTest, logsTheLifeOfReadTransactions) {
    StoreOptions options;
    options.debugFlags = kDebugLogReadTx;
    open(options);
    const LogCapture log;
    {
        const auto tx = read();
        tx->recycle();
        tx->renew();
        tx->reset();
        tx->recycle();
        store_->setDebugFlags(0);  // sampled at begin
    }
    write()->commit();
    EXPECT_EQ(withoutNumbers(log.text()),
              " [INFO ] TX # (read)\n"
              " [INFO ] TX # recycle\n"
              " [INFO ] TX # renew from base #\n"
              " [INFO ] TX # renewed to base #\n"
              " [INFO ] TX # reset\n"
              " [INFO ] TX # recycle\n"
              " [INFO ] TX # to be destroyed on owner thread (last committed: TX #)...\n"
              " [INFO ] TX # destroyed\n");
}

TEST_F(TransactionTest, logsTheLifeOfWriteTransactions) {
    store_->setDebugFlags(kDebugLogWriteTx);
    const LogCapture log;
    {
        const auto tx = write();
        tx->reset();
        tx->commit();
        tx->abort();
    }
    read();
    EXPECT_EQ(withoutNumbers(log.text()),
              " [INFO ] TX # (write)\n"
              " [INFO ] TX # reset\n"
              " [INFO ] TX # abort\n"
              " [INFO ] TX # committing...\n"
              " [INFO ] TX # abort\n"
              " [INFO ] TX # to be destroyed on owner thread (last committed: TX #)...\n"
              " [INFO ] TX # destroyed\n");
}

TEST_F(TransactionTest, destroyedRecycledReaderClosesItsCursors) {
    store_->setDebugFlags(kDebugLogReadTx);
    auto reader = read();
    const auto notes = cursor(*reader);
    reader->recycle();
    const LogCapture log;
    reader.reset();
    EXPECT_TRUE(log.contains("renewed to close low level cursors\n"));
    EXPECT_FALSE(log.contains("[ERROR]")) << log.text();
    EXPECT_FALSE(log.contains("[WARN ]")) << log.text();
}

// --- failures of the engine ----------------------------------------------------------------------

TEST_F(TransactionTest, failedBeginLeavesNothingBehind) {
    const auto store = openHooked();
    {
        HookedProvider::Hooks hooks;
        hooks.beforeBegin = [] { throw StorageException("no begin", 5); };
        const ScopedHooks scope(hooks);
        expectThrow<StorageException>("no begin", [&] { store->beginTx(TxMode::Write); });
        expectThrow<StorageException>("no begin", [&] { store->beginTx(TxMode::Read); });
        expectThrow<StorageException>("no begin", [&] { ThreadTx(*store, TxMode::Write); });
    }
    expectThrow<IllegalStateException>("An existing transaction is required",
                                       [&] { ThreadTx(*store, TxMode::Write, nullptr, true); });
    EXPECT_EQ(store->activity().transactions.load(), 0u);
    store->beginTx(TxMode::Write)->commit();
}

TEST_F(TransactionTest, failedCommitEndsTheTransaction) {
    const auto store = openHooked();
    store->entityState(store->requireSchema()->entityById(kNotes)).idsForPut(9);
    int fired = 0;
    store->addListener([&](const auto&) { ++fired; });
    const auto tx = store->beginTx(TxMode::Write);
    const auto notes = tx->createCursor(&store->requireSchema()->entityById(kNotes));
    put(*notes, 1);
    {
        HookedProvider::Hooks hooks;
        hooks.beforeCommit = [] { throw StorageException("no commit", 5); };
        const ScopedHooks scope(hooks);
        const uint64_t before = lastCommittedTx();
        expectThrow<StorageException>("no commit", [&] { tx->commit(); });
        EXPECT_EQ(lastCommittedTx(), before);
    }
    EXPECT_FALSE(tx->active());
    EXPECT_EQ(fired, 0);
    EXPECT_EQ(store->activity().commitsInProgress.load(), 0u);
    expectThrow<IllegalStateException>(numbered("TX is not active anymore: #", tx->number()),
                                       [&] { tx->commit(); });
    EXPECT_EQ(countNotes(*store), 0u);
    store->beginTx(TxMode::Write)->commit();
}

// --- order of commits ----------------------------------------------------------------------------

TEST_F(TransactionTest, countsStayRightWhenCommitsOfTwoStoresCrossAndTheLatestNumberFalls) {
    const auto other = openAnother("other");
    EntityState& state = store_->entityState(entity(kNotes));
    state.idsForPut(9);
    const auto older = write();
    const auto younger = other->beginTx(TxMode::Write);
    younger->commit();
    EXPECT_EQ(countNotes(*store_), 0u);  // cached under the younger number
    put(*cursor(*older), 1);
    older->commit();
    EXPECT_EQ(lastCommittedTx(), older->number());
    EXPECT_LT(lastCommittedTx(), younger->number());

    EXPECT_EQ(countNotes(*store_), 1u);
    const uint64_t hits = state.cacheHits();
    EXPECT_EQ(countNotes(*store_), 1u);
    EXPECT_EQ(state.cacheHits(), hits + 1) << "the cache came back to life";
}

TEST_F(TransactionTest, readerBetweenTheEnginesCommitAndItsAnnouncementIsNotTheLatest) {
    const auto store = openHooked();
    const Entity& notes = store->requireSchema()->entityById(kNotes);
    store->entityState(notes).idsForPut(9);
    const auto oldReader = store->beginTx(TxMode::Read);
    std::unique_ptr<Transaction> between;
    {
        HookedProvider::Hooks hooks;
        hooks.afterCommit = [&] {
            uint64_t base = 0;
            EXPECT_FALSE(oldReader->isLatest(base));
            std::thread([&] {
                const auto reader = store->beginTx(TxMode::Read);
                EXPECT_FALSE(reader->isLatest(base));
                EXPECT_EQ(reader->createCursor(&notes)->count(), 1u);
            }).join();
        };
        const auto tx = store->beginTx(TxMode::Write);
        putNote(*store, *tx, 1);
        const ScopedHooks scope(hooks);
        tx->commit();
    }
    EXPECT_EQ(oldReader->createCursor(&notes)->count(), 0u);
    EXPECT_EQ(countNotes(*store), 1u);
}

// --- threads -------------------------------------------------------------------------------------

using ConcurrentTransactionTest = TransactionTest;

TEST_F(ConcurrentTransactionTest, commitOnAnotherThreadFailsAndTheOwnerGoesOn) {
    const auto tx = write();
    std::thread([&] {
        expectThrow<IllegalStateException>("Transactions may only be committed from the thread "
                                           "that started the transaction",
                                           [&] { tx->commit(); });
    }).join();
    EXPECT_TRUE(tx->active());
    tx->commit();
}

TEST_F(ConcurrentTransactionTest, writerWaitsForTheOneBeforeAndStartsOnItsCommit) {
    StoreOptions options;
    options.debugFlags = kDebugLogWriteTx;
    open(options);
    store_->entityState(entity(kNotes)).idsForPut(9);
    const LogCapture log;
    auto first = write();
    uint64_t secondBase = 0;
    std::thread second([&] {
        const auto tx = write();
        secondBase = tx->baseNumber();
        EXPECT_EQ(cursor(*tx)->count(), 1u);
    });
    const std::string waiting = numbered("waiting for TX #", first->number()) + " to finish\n";
    while (!log.contains(waiting)) std::this_thread::yield();
    put(*cursor(*first), 1);
    first->commit();
    second.join();
    EXPECT_EQ(secondBase, first->number()) << "read again once the lock was held";
    EXPECT_TRUE(log.contains(" starts after "));
}

TEST_F(ConcurrentTransactionTest, writerDestroyedOnAnotherThreadFreesEverything) {
    store_->entityState(entity(kNotes)).idsForPut(9);
    const LogCapture log;
    auto tx = write();
    const uint64_t owner = static_cast<uint64_t>(threadNumber());
    put(*cursor(*tx), 1);
    std::thread([&] { tx.reset(); }).join();
    EXPECT_TRUE(log.contains(numbered("[ERROR] Cannot destroy still-active transaction owned by "
                                      "thread ", owner) + " from non-owner thread '"));
    std::thread([&] { write()->commit(); }).join();
    const auto next = write();
    EXPECT_EQ(cursor(*next)->count(), 0u);

    auto reader = read();
    reader->recycle();
    std::thread([&] { reader.reset(); }).join();
    EXPECT_TRUE(log.contains(numbered("[WARN ] Destroyed recycled transaction owned by thread ",
                                      owner) + " from non-owner thread '"));
    EXPECT_EQ(store_->activity().transactions.load(), 1u);
}

TEST_F(ConcurrentTransactionTest, writersAndReadersKeepCountsExact) {
    constexpr int kWriters = 3;
    constexpr int kRounds = 30;
    store_->entityState(entity(kNotes)).idsForPut(kWriters * kRounds + 1);
    const auto other = openAnother("other");
    std::atomic<bool> done{false};
    std::thread disturber([&] {  // moves the process-wide numbers
        while (!done) other->beginTx(TxMode::Write)->commit();
    });
    std::thread reader([&] {
        while (!done) {
            const auto tx = read();
            const auto notes = cursor(*tx);
            const uint64_t counted = notes->count();
            uint64_t walked = 0;
            for (uint64_t id = notes->seekFirstId(); id != 0; id = notes->seekNextId()) ++walked;
            EXPECT_EQ(counted, walked);
        }
    });
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([&, w] {
            for (int i = 0; i < kRounds; ++i) {
                const auto tx = write();
                put(*cursor(*tx), static_cast<uint64_t>(w * kRounds + i + 1));
                tx->commit();
            }
        });
    }
    for (auto& writer : writers) writer.join();
    done = true;
    disturber.join();
    reader.join();
    EXPECT_EQ(countNotes(*store_), static_cast<uint64_t>(kWriters * kRounds));
}

}  // namespace
}  // namespace quillmere
