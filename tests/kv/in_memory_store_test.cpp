#include "kv/memory/in_memory_store.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "core/error.h"
#include "kv/memory/in_memory_data.h"
#include "kv/memory/in_memory_provider.h"
#include "kv/memory/in_memory_transaction.h"
#include "kv_fixture.h"
#include "support/expect_throw.h"
#include "support/log_capture.h"

namespace quillmere {
namespace {

const char* const kFull =
    "Maximum database size reached (note: the maximum can be set via store options)";

class InMemoryStoreTest : public testing::Test {
protected:
    // With a log if the prefix says so.
    void open(const std::string& prefix = kInMemoryPrefix) {
        store_.reset();
        options_.directory = prefix + dir_.path();
        provider_ = std::make_unique<InMemoryProvider>(prefix == kInMemoryWalPrefix);
        store_ = provider_->createStore(options_);
    }
    std::unique_ptr<DbTransaction> begin(bool readOnly = false) {
        auto tx = store_->createTransaction(readOnly, 0);
        tx->begin();
        return tx;
    }
    static void put(DbTransaction& tx, std::string_view key, std::string_view value) {
        tx.createDbCursor()->put(key.data(), key.size(), value.data(), value.size());
    }
    void commitPut(std::string_view key, std::string_view value) {
        const auto tx = begin();
        put(*tx, key, value);
        tx->commit();
    }
    static std::string read(DbTransaction& tx, std::string_view key) {
        Bytes value;
        return tx.createDbCursor()->get(bytesOf(key), value) ? std::string(value.text()) : "none";
    }
    std::string read(std::string_view key) { return read(*begin(true), key); }

    TempDir dir_;
    StoreOptions options_;
    std::unique_ptr<InMemoryProvider> provider_;
    std::unique_ptr<DbStore> store_;
};

TEST_F(InMemoryStoreTest, DataOutlivesItsStoreUntilItIsRemoved) {
    open();
    EXPECT_EQ(provider_->dbFileSize(options_), 184u);
    commitPut("short", "value");
    const std::string longKey(17, 'k');  // does not fit into a node of the tree
    commitPut(longKey, "");
    EXPECT_EQ(store_->dbSize(), 184 + 2 * 64 + 5 + 5 + 17u);
    EXPECT_EQ(provider_->dbFileSize(options_), store_->dbSize());
    open();
    EXPECT_EQ(read("short"), "value");
    EXPECT_EQ(read(longKey), "");
    store_->close();
    EXPECT_THROW(begin(true), IllegalStateException);

    EXPECT_TRUE(provider_->dbFileExists(options_));
    EXPECT_TRUE(provider_->removeDbFiles(options_, true));
    EXPECT_FALSE(provider_->dbFileExists(options_));
    EXPECT_TRUE(std::filesystem::exists(dir_.path())) << "behind the prefix is a mere name";
    open();
    EXPECT_EQ(read("short"), "none");
}

TEST_F(InMemoryStoreTest, ReadersKeepTheirDataUntilTheyRenew) {
    open();
    commitPut("key", "old");
    const auto reader = begin(true);
    const auto cursor = reader->createDbCursor();
    Bytes value;
    commitPut("key", "new");
    EXPECT_TRUE(cursor->get(bytesOf("key"), value));
    EXPECT_EQ(value.text(), "old");
    reader->recycleReadOnlyForRenew();
    reader->renewReadOnly();
    cursor->renew();
    EXPECT_TRUE(cursor->get(bytesOf("key"), value));
    EXPECT_EQ(value.text(), "new");
    commitPut("key", "newest");
    reader->resetReadOnly();
    EXPECT_EQ(read(*reader, "key"), "newest");
    reader->abort();
    EXPECT_TRUE(cursor->isReleased());
    EXPECT_THROW(cursor->first(), IllegalStateException);
    EXPECT_THROW(reader->createDbCursor(), IllegalStateException);
}

TEST_F(InMemoryStoreTest, PutsFailAtTheSizeLimitAndInReadTransactions) {
    options_.maxDbSizeInKb = 1;
    open();
    const auto tx = begin();
    put(*tx, "key", std::string(1020, 'x'));
    put(*tx, "more", std::string(5000, 'x'));  // one byte below it passes, and may go beyond
    EXPECT_EQ(messageOf<DbFullException>([&] { put(*tx, "key", ""); }), kFull);
    tx->abort();
    const auto reader = begin(true);
    EXPECT_EQ(messageOf<DbFullException>([&] { put(*reader, "key", ""); }), kFull);
    EXPECT_EQ(store_->dbSize(), 184u);
}

TEST_F(InMemoryStoreTest, ChecksWhatIsPutAndRemoved) {
    open();
    const auto tx = begin();
    const auto cursor = tx->createDbCursor();
    EXPECT_EQ(messageOf<ArgumentNullException>([&] { cursor->put(nullptr, 0, "", 0); }),
              "Can not put with a null key");
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { cursor->put("", 0, "", 0); }),
              "Can not put with a zero-length key");
    EXPECT_EQ(messageOf<ArgumentNullException>([&] { cursor->put("key", 3, nullptr, 1); }),
              "Can not put a null value with a size");
    EXPECT_EQ(messageOf<IllegalStateException>([&] { cursor->next(); }),
              "This operation requires to set a position first");
    cursor->put("key", 3, nullptr, 0);
    tx->commit();
    EXPECT_EQ(messageOf<IllegalStateException>([&] { cursor->put("key", 3, "", 0); }),
              "State condition failed in put:129: !data_.isNull()");
    const auto reader = begin(true);
    bool hasNext = false;
    EXPECT_EQ(messageOf<IllegalStateException>([&] {
                  reader->createDbCursor()->remove(bytesOf("key"), hasNext);
              }),
              "Cannot erase from a read-only iterator");
}

// Keys that a cursor gave out die with the erasure; where it goes on from does not.
TEST_F(InMemoryStoreTest, CursorsSurviveWhatOthersErase) {
    open();
    const auto tx = begin();
    for (const char* key : {"a", "b", "c", "d"}) put(*tx, key, key);
    const auto standing = tx->createDbCursor(), behind = tx->createDbCursor(),
               acting = tx->createDbCursor();
    Bytes key, value;
    bool hasNext = false;
    EXPECT_TRUE(standing->seek(bytesOf("b")));
    EXPECT_TRUE(behind->seek(bytesOf("d")));
    EXPECT_FALSE(behind->next());
    for (const char* erased : {"b", "d"}) EXPECT_TRUE(acting->remove(bytesOf(erased), hasNext));
    EXPECT_FALSE(standing->current());
    EXPECT_TRUE(standing->next(key, value));
    EXPECT_EQ(key.text(), "c");
    EXPECT_TRUE(behind->previous(key, value));
    EXPECT_EQ(key.text(), "c");
    // The one that erased the last element lends its copy of the key.
    acting->keyView(key);
    acting->setKey(key);
    EXPECT_TRUE(acting->previous(key, value));
    EXPECT_EQ(key.text(), "c");
    store_->dropAll(*tx);
    EXPECT_FALSE(standing->next());
    EXPECT_FALSE(behind->previous());
    put(*tx, "e", "");
    EXPECT_TRUE(acting->first());
}

TEST_F(InMemoryStoreTest, ClearedDataDoesNotComeBackFromTheLog) {
    open(kInMemoryWalPrefix);
    commitPut("cleared", "value");
    {
        const auto tx = begin();
        store_->dropAll(*tx);
        put(*tx, "kept", "value");
        tx->commit();
    }
    commitPut("later", "value");
    open(kInMemoryWalPrefix);
    EXPECT_EQ(read("cleared"), "none");
    EXPECT_EQ(read("kept"), "value");
    EXPECT_EQ(read("later"), "value");
}

// A directory in the place of the new snapshot stands for a full disk.
TEST_F(InMemoryStoreTest, SnapshotsThatFailUndoOnlyWhatTheyStandFor) {
    options_.walMaxFileSizeInKb = 0;
    open(kInMemoryWalPrefix);
    std::filesystem::create_directory(dir_.path("quillmere.snapshot.new"));
    EXPECT_THROW(commitPut("key", "value"), IoException);
    EXPECT_EQ(read("key"), "value") << "the record was written";
    {
        const auto tx = begin();
        store_->dropAll(*tx);
        EXPECT_THROW(tx->commit(), IoException);
    }
    EXPECT_EQ(read("key"), "value") << "only the snapshot would have told of it";
    std::filesystem::remove(dir_.path("quillmere.snapshot.new"));
    commitPut("later", "value");
    open(kInMemoryWalPrefix);
    EXPECT_EQ(read("key"), "value");
    EXPECT_EQ(read("later"), "value");
}

TEST_F(InMemoryStoreTest, RemovesTheFilesOfTheLogOnly) {
    open(kInMemoryWalPrefix);
    commitPut("key", "value");
    EXPECT_EQ(provider_->dbFileSize(options_), store_->sizeOnDisk());
    EXPECT_EQ(provider_->dbFileMode(options_), options_.fileMode);
    store_.reset();
    StoreOptions named = options_;
    named.directory = kInMemoryPrefix + dir_.path();
    EXPECT_TRUE(InMemoryProvider(false).removeDbFiles(named, true));
    EXPECT_TRUE(provider_->dbFileExists(options_));
    EXPECT_EQ(provider_->canonicalPath(kInMemoryWalPrefix + dir_.path("x/..")),
              kInMemoryWalPrefix + std::filesystem::canonical(dir_.path()).string());

    std::ofstream(dir_.path("foreign")) << "x";
    const LogCapture log;
    EXPECT_FALSE(provider_->removeDbFiles(options_, true));
    EXPECT_TRUE(log.contains(" [WARN ] Dir remove err: "));
    EXPECT_FALSE(provider_->dbFileExists(options_));
    std::filesystem::create_directory(dir_.path("quillmere.wal"));
    EXPECT_FALSE(provider_->removeDbFiles(options_, false));
    EXPECT_TRUE(log.contains(" [WARN ] File (WAL) remove err: "));
}

}  // namespace
}  // namespace quillmere
