#include "store/thread_tx.h"

#include <gtest/gtest.h>

#include <functional>

#include "store/kist.h"
#include "store/object_test.h"

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

TEST_F(ThreadTxTest, refusedPutsFailTheTransactionThatTheyJoined) {
    const ObjectBytes tag = makeNote(1);
    const Bytes bytes(tag.data(), tag.size());
    Kist& kist = store_->kist(kTags);
    kist.put(1, tag.data(), tag.size(), kPut);
    EXPECT_TRUE(kist.containsAll({1}));
    const std::function<void()> refused[] = {
        [&] {
            EXPECT_THROW(kist.put(1, tag.data(), tag.size(), kPutInsert), IdAlreadyExistsException);
        },
        [&] { EXPECT_FALSE(kist.putMany({3, 1}, {bytes, bytes}, kPutInsert, true)); }};
    for (const auto& put : refused) {
        ThreadTx owner(*store_, TxMode::Write);
        const uint64_t number = owner.tx().number();
        putTag(owner, 2);
        ThreadTx nested(*store_, TxMode::Write);
        put();
        expectThrow<IllegalStateException>(notActive(number), [&] { nested.markSuccess(); });
        expectThrow<IllegalStateException>(notActive(number), [&] { owner.markSuccess(); });
        EXPECT_EQ(tags(), std::vector<uint64_t>{1});
    }
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

using ConcurrentThreadTxTest = ThreadTxTest;

}  // namespace
}  // namespace quillmere
