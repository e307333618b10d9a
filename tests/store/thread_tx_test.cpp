#include "store/thread_tx.h"

#include <gtest/gtest.h>

#include <thread>

#include "store/kist.h"
#include "store/object_test.h"
#include "support/hooked_provider.h"

namespace quillmere {
namespace {

std::string notActive(uint64_t number) {
    return "TX is not active anymore: #" + std::to_string(number);
}

class ThreadTxTest : public ObjectTest {
protected:
    void putTag(ThreadTx& tx, uint64_t id) { put(*tx.createCursor(entity(kTags)), id); }
    std::vector<uint64_t> tags() { return storedIds(kTags); }
};

TEST_F(ThreadTxTest, nestedHandlesJoinAndOnlyTheOwnerCommits) {
    ThreadTx owner(*store_, TxMode::Write);
    {
        ThreadTx nested(*store_, TxMode::Write, &entity(kTags), true);
        EXPECT_FALSE(nested.isOwner());
        EXPECT_EQ(&nested.tx(), &owner.tx());
        put(nested.cursor(), 1);
        nested.markSuccess();
    }
    EXPECT_TRUE(owner.tx().active());
    std::thread([&] { EXPECT_TRUE(tags().empty()); }).join();
    {
        ThreadTx reader(*store_, TxMode::Read, &entity(kTags));
        EXPECT_EQ(reader.cursor().count(), 1u) << "a nested reader sees the writer's work";
    }
    owner.markSuccess();
    EXPECT_EQ(tags(), std::vector<uint64_t>{1});
}

TEST_F(ThreadTxTest, ownerThatClosesUnmarkedAborts) {
    {
        ThreadTx owner(*store_, TxMode::Write);
        putTag(owner, 1);
    }
    EXPECT_TRUE(tags().empty());
    ThreadTx next(*store_, TxMode::Write);
    EXPECT_TRUE(next.isOwner());
}

TEST_F(ThreadTxTest, modesMustGoTogether) {
    expectThrow<IllegalStateException>(
        "An existing transaction is required",
        [&] { ThreadTx(*store_, TxMode::Read, nullptr, true); });
    ThreadTx reader(*store_, TxMode::Read);
    expectThrow<IllegalStateException>(
        "Cannot start a write transaction inside a read only transaction",
        [&] { ThreadTx(*store_, TxMode::Write); });
    ThreadTx(*store_, TxMode::Read);
    EXPECT_TRUE(reader.tx().active());
    expectThrow<IllegalStateException>("Cannot set success on a non-write TX",
                                       [&] { reader.markSuccess(); });
    expectThrow<IllegalStateException>("State condition failed in tx:137: tx_",
                                       [&] { reader.tx(); });
}

TEST_F(ThreadTxTest, nestedWriterWithoutSuccessFailsTheOwner) {
    ThreadTx owner(*store_, TxMode::Write);
    const uint64_t number = owner.tx().number();
    ThreadTx other(*store_, TxMode::Write);
    putTag(owner, 1);
    { ThreadTx failing(*store_, TxMode::Write); }
    EXPECT_FALSE(owner.tx().active());
    expectThrow<IllegalStateException>(notActive(number), [&] { other.markSuccess(); });
    expectThrow<IllegalStateException>(notActive(number), [&] { owner.markSuccess(); });
    EXPECT_TRUE(tags().empty());
    ThreadTx(*store_, TxMode::Write).markSuccess();
}

TEST_F(ThreadTxTest, nothingJoinsOrCommitsBehindAnAbortedLeftover) {
    Kist& kist = store_->kist(kNotes);
    ThreadTx owner(*store_, TxMode::Write);
    const uint64_t number = owner.tx().number();
    owner.abort();
    const ObjectBytes tag = makeNote(1);
    expectThrow<IllegalStateException>(notActive(number), [&] {
        kist.put(1, tag.data(), tag.size(), kPut);
    });
    expectThrow<IllegalStateException>(notActive(number),
                                       [&] { ThreadTx(*store_, TxMode::Write); });
    owner.close(true);
    EXPECT_TRUE(storedIds().empty());
}

TEST_F(ThreadTxTest, nestedHandlesOutliveTheOwner) {
    auto owner = std::make_unique<ThreadTx>(*store_, TxMode::Write);
    ThreadTx nested(*store_, TxMode::Write, &entity(kTags));
    put(nested.cursor(), 1);
    owner.reset();

    // Its place is free again while the nested handle still stands.
    ThreadTx next(*store_, TxMode::Write);
    EXPECT_TRUE(next.isOwner());
    expectThrow<IllegalStateException>("State condition failed in tx:137: tx_",
                                       [&] { nested.tx(); });
    expectThrow<IllegalStateException>("State condition failed in abort:164: tx_",
                                       [&] { nested.abort(); });
    expectThrow<IllegalStateException>("State condition failed in createCursor:174: tx_",
                                       [&] { nested.createCursor(entity(kTags)); });
    expectThrow<IllegalStateException>("State condition failed in tx:137: tx_",
                                       [&] { nested.markSuccess(); });
    expectThrow<IllegalStateException>("State condition failed in cursor:169: cursor_",
                                       [&] { nested.cursor(); });
    EXPECT_TRUE(next.tx().active());
    putTag(next, 2);
    next.markSuccess();
    EXPECT_EQ(tags(), std::vector<uint64_t>{2});
}

TEST_F(ThreadTxTest, failedBeginLeavesNothingBehind) {
    HookedProvider::instance();
    StoreOptions options;
    options.directory = HookedProvider::kPrefix + dir_.storePath("hooked");
    ObjectStore store(options);
    {
        HookedProvider::Hooks hooks;
        hooks.beforeBegin = [] { throw StorageException("no begin", 5); };
        const ScopedHooks scope(hooks);
        expectThrow<StorageException>("no begin", [&] { ThreadTx(store, TxMode::Write); });
    }
    expectThrow<IllegalStateException>("An existing transaction is required",
                                       [&] { ThreadTx(store, TxMode::Write, nullptr, true); });
    ThreadTx(store, TxMode::Write).markSuccess();
}

TEST_F(ThreadTxTest, handleWhoseCursorCannotBeMadeCloses) {
    expectThrow<IllegalStateException>("Can not modify object of sync-enabled type",
                                       [&] { ThreadTx(*store_, TxMode::Write, &entity(kSynced)); });
    ThreadTx owner(*store_, TxMode::Write);
    EXPECT_TRUE(owner.isOwner());
    expectThrow<IllegalStateException>("Can not modify object of sync-enabled type",
                                       [&] { ThreadTx(*store_, TxMode::Write, &entity(kSynced)); });
    EXPECT_FALSE(owner.tx().active()) << "a failing nested writer aborts the whole";
}

TEST_F(ThreadTxTest, failedCommitClosesTheHandle) {
    StoreOptions options;
    options.maxDataSizeInKb = 1;
    open(options);
    ThreadTx owner(*store_, TxMode::Write);
    const std::vector<uint8_t> large(2048, 1);
    owner.createCursor(entity(kTags))->put(1, large.data(), large.size(), kPut);
    EXPECT_THROW(owner.markSuccess(), DbMaxDataSizeExceededException);
    expectThrow<IllegalStateException>("State condition failed in tx:137: tx_",
                                       [&] { owner.markSuccess(); });
    ThreadTx next(*store_, TxMode::Write);
    putTag(next, 2);
    next.markSuccess();
    EXPECT_EQ(tags(), std::vector<uint64_t>{2});
}

TEST_F(ThreadTxTest, listenersOfACommitUseTransactionsOfTheirOwn) {
    std::vector<uint64_t> numbers;
    store_->addListener([&](const auto& ids) {
        if (ids.front() != kTags) return;
        {
            ThreadTx reader(*store_, TxMode::Read, &entity(kTags));
            EXPECT_TRUE(reader.isOwner());
            EXPECT_EQ(reader.cursor().count(), 1u);
        }
        ThreadTx writer(*store_, TxMode::Write, &entity(kNotes));
        numbers.push_back(writer.tx().number());
        put(writer.cursor(), writer.cursor().idForPut(0));
        writer.markSuccess();
    });
    ThreadTx owner(*store_, TxMode::Write);
    numbers.push_back(owner.tx().number());
    putTag(owner, 1);
    owner.markSuccess();
    ASSERT_EQ(numbers.size(), 2u);
    EXPECT_LT(numbers[0], numbers[1]);
    EXPECT_EQ(storedIds(kNotes).size(), 1u);
}

using ConcurrentThreadTxTest = ThreadTxTest;

TEST_F(ConcurrentThreadTxTest, threadsHaveATransactionEach) {
    constexpr uint64_t kThreads = 4;
    constexpr uint64_t kRounds = 25;
    std::vector<std::thread> threads;
    for (uint64_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (uint64_t i = 0; i < kRounds; ++i) {
                ThreadTx owner(*store_, TxMode::Write);
                EXPECT_TRUE(owner.isOwner());
                putTag(owner, 1 + t * kRounds + i);
                ThreadTx(*store_, TxMode::Write).markSuccess();
                owner.markSuccess();
                ThreadTx reader(*store_, TxMode::Read, &entity(kTags));
                EXPECT_TRUE(reader.cursor().seek(1 + t * kRounds + i));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(tags().size(), kThreads * kRounds);
}

}  // namespace
}  // namespace quillmere
