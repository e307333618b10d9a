#include "kv/lmdb/lmdb_store.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>
#include <vector>

#include "core/error.h"
#include "kv/partition.h"
#include "kv_fixture.h"
#include "support/expect_throw.h"
#include "support/log_capture.h"

namespace quillmere {
namespace {

namespace fs = std::filesystem;

constexpr size_t kPageSize = 4096;
constexpr size_t kPageFlagsOffset = 10;
constexpr size_t kPageLowerOffset = 12;
constexpr char kLeafFlag = 2;

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

class LmdbStoreTest : public testing::Test, protected StoreInDir {
protected:
    std::string dataFile() const { return dir.path("data.mdb"); }

    LmdbStore& lmdbStore() { return static_cast<LmdbStore&>(*store); }

    void commitMany(uint32_t from, uint32_t to, size_t valueSize = 40) {
        auto tx = begin();
        auto cursor = tx->createDbCursor();
        const std::string value(valueSize, 'v');
        for (uint32_t id = from; id <= to; ++id) {
            const std::string key = keyOf(partitionPrefix(PartitionType::KeyValue, 1), id);
            cursor->put(key.data(), key.size(), value.data(), value.size());
        }
        tx->commit();
    }

    // The first leaf page behind the two meta pages.
    static size_t findLeafPage(const std::string& content) {
        for (size_t page = 2; page < content.size() / kPageSize; ++page) {
            if (content[page * kPageSize + kPageFlagsOffset] == kLeafFlag) return page;
        }
        return 0;
    }

    template <class E = OpenDbException>
    std::string openFailure() {
        return messageOf<E>([this] { open(); });
    }
};

// ---- Opening ------------------------------------------------------------------------------------

TEST_F(LmdbStoreTest, MissingDatabaseReadOnlyIsReportedOnceClosed) {
    std::vector<std::string> told;
    options.readOnly = true;
    options.storageErrorListener = [&](const std::string& message, int32_t kind) {
        EXPECT_EQ(kind, kStorageErrorKind);
        told.push_back(message);
    };
    const LogCapture log;
    const std::string message = openFailure();
    EXPECT_EQ(message, "Database not found: read-only databases must already exist (2: No such "
                       "file or directory)");
    EXPECT_EQ(told, (std::vector<std::string>{"Storage error 2", message}));
    EXPECT_TRUE(log.contains(" [ERROR] Storage error \"No such file or directory\" (code 2)\n"));
}

TEST_F(LmdbStoreTest, OpenFailuresNameTheirCause) {
    options.directory = dir.path("missing");
    EXPECT_EQ(openFailure(), "Database not found (2: No such file or directory)");

    options.directory = dir.path("file");
    writeFile(options.directory, "x");
    EXPECT_EQ(openFailure(), "Could not open database environment; please check options and file "
                             "system (20: Not a directory)");

    options.directory = dir.path();
    options.maxDbSizeInKb = uint64_t{1} << 60;
    EXPECT_EQ(openFailure(), "Could not open database environment; please check options and file "
                             "system (12: Cannot allocate memory)");
    fs::remove(dataFile());

    options.maxDbSizeInKb = 1024;
    options.walFlags = 1;
    EXPECT_EQ(openFailure<IllegalArgumentException>(),
              "WAL is not yet supported by disk based DB provider");
    EXPECT_FALSE(fs::exists(dataFile()));

    options.walFlags = 0;
    writeFile(dataFile(), std::string(2 * kPageSize, 'x'));
    EXPECT_EQ(openFailure(), "Not a database file (-30793)");
}

// ---- Transactions -------------------------------------------------------------------------------

TEST_F(LmdbStoreTest, FullMapLeavesTheStoreUsable) {
    options.maxDbSizeInKb = 64;
    open();
    commitPut("key!", "data");
    EXPECT_EQ(messageOf<DbFullException>([&] { commitMany(1, 1000, 1000); }), "Could not put");
    EXPECT_EQ(read("key!"), "data");
    commitPut("also", "this");
    EXPECT_EQ(read("also"), "this");
}

TEST_F(LmdbStoreTest, FullReaderTableRefusesOneReaderMore) {
    open();  // with the engine's default, as another opening of the store may do before
    options.maxReaders = 2;
    open();
    EXPECT_EQ(store->maxReaders(), 2u);
    auto first = begin(true), second = begin(true);
    EXPECT_EQ(messageOf<DbMaxReadersExceededException>([&] { begin(true); }),
              "Could not begin read transaction (maximum of read transactions reached)");
    first.reset();
    EXPECT_TRUE(begin(true)->isInProgress());
}

TEST_F(LmdbStoreTest, OneThreadHasOneReadTransactionWithReaderThreadLocals) {
    options.noReaderThreadLocals = false;
    open();
    auto tx = begin(true);
    EXPECT_EQ(messageOf<StorageException>([&] { begin(true); }),
              "Could not begin read transaction (another read transaction is still active on this "
              "thread)");
}

TEST_F(LmdbStoreTest, ReadOnlyRefusesWrites) {
    open();
    commitPut("key!", "data");
    auto tx = begin(true);
    auto cursor = tx->createDbCursor();
    ASSERT_TRUE(cursor->seek(bytesOf("key!")));
    bool hasNext = true;
    EXPECT_EQ(messageOf<StorageException>([&] { cursor->removeCurrent(hasNext); }),
              "Cannot remove in a read-only transaction (13)");
    EXPECT_EQ(messageOf<StorageException>([&] { cursor->put("key!", 4, "more", 4); }),
              "Cannot put in a read-only transaction (13)");
    tx.reset();

    options.readOnly = true;
    options.debugFlags = kDebugStorageFailures;
    open();
    const LogCapture log;
    EXPECT_EQ(messageOf<StorageException>([&] { begin(); }),
              "Could not begin write transaction (13)");
    EXPECT_TRUE(log.contains("] Storage error \"Permission denied\" (code 13)\n"));
    EXPECT_TRUE(log.contains(" [INFO ] Storage exception occurred (13): Could not begin write "
                             "transaction (13)\n\n"));
    EXPECT_EQ(read("key!"), "data");
}

TEST_F(LmdbStoreTest, TransactionsThatAreOverRefuseAllWork) {
    open();
    auto tx = begin();
    EXPECT_THROW(tx->begin(), IllegalStateException);
    EXPECT_THROW(tx->renewReadOnly(), IllegalStateException);
    tx->commit();
    EXPECT_FALSE(tx->isInProgress());
    tx->abort();
    EXPECT_THROW(tx->commit(), IllegalStateException);
    EXPECT_EQ(messageOf<IllegalStateException>([&] { tx->createDbCursor(); }),
              "Cannot create cursor; transaction was already released");
}

TEST_F(LmdbStoreTest, ClosedStoreRefusesEverything) {
    open();
    auto tx = store->createTransaction(false, 0);
    store->close();
    store->close();
    EXPECT_THROW(tx->begin(), IllegalStateException);
    EXPECT_THROW(store->maxKeySize(), IllegalStateException);
    EXPECT_THROW(store->sizeOnDisk(), IllegalStateException);
    EXPECT_THROW(store->statsString(), IllegalStateException);
    EXPECT_THROW(store->cleanStaleReaders(), IllegalStateException);
    DbStats stats;
    EXPECT_THROW(store->stats(stats), IllegalStateException);
}

TEST_F(LmdbStoreTest, RefusesTransactionsOfAnotherStore) {
    open();
    StoreInDir other;
    other.open();
    auto tx = other.begin(true);
    const std::string message =
        messageOf<IllegalStateException>([&] { store->validatePages(*tx, 0, true); });
    EXPECT_NE(message.find("in getDbTransaction:"), std::string::npos) << message;
    EXPECT_NE(message.find(": &dbTransaction.store() == this"), std::string::npos) << message;
}

// ---- Statistics ---------------------------------------------------------------------------------

TEST_F(LmdbStoreTest, StatisticsDescribeTheTree) {
    open();
    commitMany(1, 1000);
    DbStats stats;
    EXPECT_TRUE(store->stats(stats));
    EXPECT_EQ(stats.entries, 1000u);
    EXPECT_EQ(stats.pageSize, kPageSize);
    EXPECT_EQ(stats.depth, 2u);
    const auto sum = [](const auto& counts) {
        return std::accumulate(counts.begin(), counts.end(), uint64_t{0});
    };
    EXPECT_EQ(sum(stats.leafFill), stats.leafPages);
    EXPECT_EQ(sum(stats.branchFill), stats.branchPages);
    EXPECT_GT(stats.leafPages, 10u);

    auto tx = begin(true);
    const std::string text = store->statsString();
    EXPECT_EQ(text.find("    pid     thread     txnid\n"), 0u) << text;
    EXPECT_NE(text.find("\nentries=1000\ndepth=2\nbranch-pages=1\nleaf-pages=" +
                        std::to_string(stats.leafPages) +
                        "\noverflow-pages=0\npage-size=4096\nlast-page-number="),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("\nsize=16777216\nmax-readers=126\nreaders=1"), std::string::npos) << text;
}

// ---- Damage -------------------------------------------------------------------------------------

TEST_F(LmdbStoreTest, DamagedLeafFailsAnOpenThatChecksLeaves) {
    open();
    commitMany(1, 1000);
    store.reset();
    std::string content = readFile(dataFile());
    const size_t leaf = findLeafPage(content);
    ASSERT_NE(leaf, 0u);
    content[leaf * kPageSize + kPageLowerOffset + 1] = '\x7F';
    writeFile(dataFile(), content);

    options.validatePagesLimit = 1;
    open();
    EXPECT_EQ(lmdbStore().openValidation().pages_checked, 2u - 1u);  // no free pages yet
    options.validatePagesLimit = ~uint64_t{0};
    open();

    options.validatePagesLeafLevel = true;
    const LogCapture log;
    EXPECT_EQ(openFailure<DbFileCorruptException>(), "Validating pages failed (corrupted)");
    EXPECT_TRUE(log.contains(" [INFO ] Page validation failed: " + std::to_string(leaf) + "\n"));
    EXPECT_EQ(readFile(dataFile()), content);
}

TEST_F(LmdbStoreTest, ValidatesPagesOfARunningReadTransaction) {
    open();
    commitMany(1, 1000);
    auto tx = begin(true);
    const uint64_t upper = store->validatePages(*tx, 0, false);
    EXPECT_GT(store->validatePages(*tx, 0, true), upper);
    auto writeTx = begin();
    EXPECT_EQ(messageOf<StorageException>([&] { store->validatePages(*writeTx, 0, true); }),
              "Could not open validation cursor (22)");
}

}  // namespace
}  // namespace quillmere
