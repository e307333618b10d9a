#include "kv/lmdb/lmdb_cursor.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <string>
#include <thread>

#include "core/error.h"
#include "kv/lmdb/lmdb_store.h"
#include "kv_fixture.h"
#include "support/expect_throw.h"
#include "support/expected_leak.h"
#include "support/log_capture.h"

namespace quillmere {
namespace {

class LmdbCursorTest : public testing::Test, protected StoreInDir {
protected:
    LmdbCursorTest() { open(); }

    static void runAsCollector(const std::function<void()>& action) {
        std::thread([&] {
            pthread_setname_np(pthread_self(), "collector");
            action();
        }).join();
    }
};

TEST_F(LmdbCursorTest, RemovalTellsOfTheFollowingElementAndStandsOnIt) {
    auto tx = begin();
    auto cursor = tx->createDbCursor();
    for (const char* key : {"bbbb", "cccc", "dddd", "eeee"}) cursor->put(key, 4, key, 4);
    bool hasNext = false;
    EXPECT_TRUE(cursor->remove(bytesOf("bbbb"), hasNext));
    EXPECT_TRUE(hasNext);
    EXPECT_EQ(cursor->key().text(), "cccc");
    EXPECT_TRUE(cursor->next());
    EXPECT_EQ(cursor->key().text(), "dddd");
    EXPECT_FALSE(cursor->remove(bytesOf("bbbb"), hasNext));
    EXPECT_FALSE(hasNext);
    for (const char* key : {"cccc", "dddd"}) EXPECT_TRUE(cursor->remove(bytesOf(key), hasNext));
    EXPECT_TRUE(hasNext);
    EXPECT_TRUE(cursor->removeCurrent(hasNext));
    EXPECT_FALSE(hasNext);
    EXPECT_FALSE(cursor->removeCurrent(hasNext));
    EXPECT_FALSE(cursor->first());
}

TEST_F(LmdbCursorTest, ChecksWhatIsPut) {
    auto tx = begin();
    auto cursor = tx->createDbCursor();
    EXPECT_EQ(messageOf<ArgumentNullException>([&] { cursor->put(nullptr, 1, nullptr, 1); }),
              "Can not put with a null key");
    EXPECT_EQ(messageOf<ArgumentNullException>([&] { cursor->put("key!", 4, nullptr, 3); }),
              "Can not put a null value with a size");
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { cursor->put("8 bytes!", 8, "odd", 3); }),
              "Can not put: key + value length is not multiple of 4");
    const std::string longKey(512, 'k');
    EXPECT_EQ(messageOf<StorageException>([&] { cursor->put(longKey.data(), 512, "data", 4); }),
              "Could not put (bad key or value size)");
    EXPECT_FALSE(cursor->first());
}

TEST_F(LmdbCursorTest, OperationsThatContinueNeedAKey) {
    auto tx = begin();
    auto cursor = tx->createDbCursor();
    const auto failure = [&] {
        return messageOf<IllegalStateException>([&] { cursor->previous(); });
    };
    EXPECT_EQ(failure(), "Key was not set before, but this operation requires it");
    cursor->setKey(Bytes(nullptr, 4));
    EXPECT_EQ(failure(), "Invalid key value (nullptr)");
    cursor->setKey(Bytes("", 0));
    EXPECT_EQ(failure(), "Invalid key size (zero)");
}

TEST_F(LmdbCursorTest, ReadsRefuseRecordsOfOtherSizes) {
    MDB_txn* tx = nullptr;
    auto& lmdb = static_cast<LmdbStore&>(*store);
    ASSERT_EQ(mdb_txn_begin(lmdb.env(), nullptr, 0, &tx), 0);
    MDB_val key{4, const_cast<char*>("key!")}, value{3, const_cast<char*>("odd")};
    ASSERT_EQ(mdb_put(tx, lmdb.dbi(), &key, &value, 0), 0);
    ASSERT_EQ(mdb_txn_commit(tx), 0);
    auto readTx = begin(true);
    auto cursor = readTx->createDbCursor();
    EXPECT_EQ(messageOf<DbFileCorruptException>([&] { cursor->first(); }),
              "Key + value length is not a multiple of 4: 4 + 3");
}

TEST_F(LmdbCursorTest, EndsWithItsTransaction) {
    for (const bool commits : {true, false}) {
        auto tx = begin();
        auto cursor = tx->createDbCursor();
        auto closedBefore = tx->createDbCursor();
        closedBefore->close(true);
        closedBefore->close(true);
        commits ? tx->commit() : tx->abort();
        EXPECT_TRUE(cursor->isReleased());
        const std::string message = messageOf<IllegalStateException>([&] { cursor->first(); });
        EXPECT_EQ(message, "State condition failed in get:123: cursor_");
        EXPECT_THROW(cursor->put("key!", 4, "data", 4), IllegalStateException);
    }
}

TEST_F(LmdbCursorTest, OtherThreadsLeaveTheEnginePartAlone) {
    const LogCapture log;
    auto writeTx = begin();
    auto writer = writeTx->createDbCursor();
    writer->put("key!", 4, "data", 4);
    runAsCollector([&] { writer->close(true); });
    EXPECT_TRUE(writer->isReleased());
    EXPECT_TRUE(log.contains(" [INFO ] Skipping low-level close for writable cursor (non-creator "
                             "thread 'collector')\n"));
    writeTx->commit();

    auto readTx = begin(true);
    {
        [[maybe_unused]] const ExpectedLeak leak;
        auto reader = readTx->createDbCursor();
        runAsCollector([&] { reader.reset(); });
    }
    EXPECT_TRUE(log.contains(" [WARN ] Skipping low-level close for read-only cursor (non-creator "
                             "thread 'collector')\n"));
    readTx.reset();
    EXPECT_EQ(read("key!"), "data");
}

TEST_F(LmdbCursorTest, RenewsOnlyReadCursorsOnTheirThread) {
    auto writeTx = begin();
    auto writer = writeTx->createDbCursor();
    EXPECT_EQ(messageOf<IllegalStateException>([&] { writer->renew(); }),
              "Only cursors bound to read-only transactions may be renewed");
    auto readTx = begin(true);
    auto reader = readTx->createDbCursor();
    runAsCollector([&] {
        EXPECT_EQ(messageOf<IllegalStateException>([&] { reader->renew(); }),
                  "This operation is only allowed in the creator thread");
    });
    reader->renew();
    readTx->abort();
    EXPECT_THROW(reader->renew(), IllegalStateException);
}

}  // namespace
}  // namespace quillmere
