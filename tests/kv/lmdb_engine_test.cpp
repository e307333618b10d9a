#include "kv/lmdb/engine/engine.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/seed.h"

namespace {

constexpr MDB_dbi kFreeDb = 0;
constexpr MDB_dbi kMainDb = 1;
constexpr size_t kPageSize = 4096;
constexpr size_t kPageHeader = 16;
// Where the main database's depth and root stand in a meta page.
constexpr size_t kDepthAt = 94;
constexpr size_t kRootAt = 128;

template <auto end>
struct Ended {
    template <class T>
    void operator()(T* handle) const { end(handle); }
};
using EnvPtr = std::unique_ptr<MDB_env, Ended<mdb_env_close>>;
using TxnPtr = std::unique_ptr<MDB_txn, Ended<mdb_txn_abort>>;
using CursorPtr = std::unique_ptr<MDB_cursor, Ended<mdb_cursor_close>>;

void require(int rc, const char* what) {
    if (rc != 0) {
        throw std::runtime_error(std::string(what) + ": " + mdb_strerror(rc));
    }
}

MDB_val toVal(std::string_view text) {
    return {text.size(), const_cast<char*>(text.data())};
}

TxnPtr begin(MDB_env* env, unsigned flags = 0) {
    MDB_txn* txn = nullptr;
    require(mdb_txn_begin(env, nullptr, flags, &txn), "begin");
    return TxnPtr(txn);
}

int tryBeginRead(MDB_env* env, TxnPtr& txn) {
    MDB_txn* raw = nullptr;
    int rc = mdb_txn_begin(env, nullptr, MDB_RDONLY, &raw);
    txn.reset(raw);
    return rc;
}

TxnPtr beginRead(MDB_env* env) {
    return begin(env, MDB_RDONLY);
}

CursorPtr openCursor(MDB_txn* txn, MDB_dbi dbi = kMainDb) {
    MDB_cursor* cursor = nullptr;
    require(mdb_cursor_open(txn, dbi, &cursor), "cursor");
    return CursorPtr(cursor);
}

int put(MDB_txn* txn, std::string_view key, std::string_view value) {
    MDB_val keyVal = toVal(key);
    MDB_val valueVal = toVal(value);
    return mdb_put(txn, kMainDb, &keyVal, &valueVal, 0);
}

void putAndCommit(MDB_env* env, std::string_view key, std::string_view value) {
    TxnPtr txn = begin(env);
    require(put(txn.get(), key, value), "put");
    require(mdb_txn_commit(txn.release()), "commit");
}

std::map<std::string, std::string> contents(MDB_txn* txn) {
    std::map<std::string, std::string> result;
    CursorPtr cursor = openCursor(txn);
    MDB_val key, value;
    int rc;
    while ((rc = mdb_cursor_get(cursor.get(), &key, &value, MDB_NEXT)) == 0) {
        result.emplace(std::string(static_cast<char*>(key.mv_data), key.mv_size),
                       std::string(static_cast<char*>(value.mv_data), value.mv_size));
    }
    require(rc == MDB_NOTFOUND ? 0 : rc, "walk");
    return result;
}

std::map<std::string, std::string> contents(MDB_env* env) {
    return contents(beginRead(env).get());
}

using Map = std::map<std::string, std::string>;

class LmdbEngineTest : public testing::Test {
protected:
    LmdbEngineTest() {
        std::string pattern = (std::filesystem::temp_directory_path() / "engineXXXXXX").string();
        dir_ = mkdtemp(pattern.data());
    }
    ~LmdbEngineTest() override { std::filesystem::remove_all(dir_); }

    // Returns the result of mdb_env_open.
    int tryOpen(EnvPtr& env, unsigned flags = 0, unsigned maxReaders = 0) const {
        MDB_env* raw = nullptr;
        require(mdb_env_create(&raw), "create");
        env.reset(raw);
        require(mdb_env_set_mapsize(raw, 64 << 20), "map size");
        if (maxReaders != 0) require(mdb_env_set_maxreaders(raw, maxReaders), "max readers");
        int rc = mdb_env_open(raw, dir_.c_str(), flags | MDB_NOTLS, 0644);
        if (rc != 0) return rc;
        TxnPtr txn;
        MDB_dbi dbi;
        rc = tryBeginRead(raw, txn);
        return rc != 0 ? rc : mdb_dbi_open(txn.get(), nullptr, 0, &dbi);
    }

    EnvPtr open(unsigned flags = 0, unsigned maxReaders = 0) const {
        EnvPtr env;
        require(tryOpen(env, flags, maxReaders), "open");
        return env;
    }

    std::string path(const char* file) const { return dir_ + "/" + file; }

    // Numbered records; each seventh value lies on overflow pages.
    void fill(MDB_env* env, int count) const {
        TxnPtr txn = begin(env);
        for (int i = 0; i < count; i++) {
            std::string key = "key" + std::to_string(100000 + i);
            require(put(txn.get(), key, std::string(i % 7 == 0 ? 5000 : 100, 'v')), "put");
        }
        require(mdb_txn_commit(txn.release()), "commit");
    }

    std::string dir_;
};

// A child process that runs a function after the parent lets it, and reports when it is done.
class Child {
public:
    explicit Child(const std::function<void()>& work) {
        int ends[2];
        if (pipe(ends) != 0 || (pid_ = fork()) < 0) throw std::runtime_error("no child");
        if (pid_ == 0) {
            close(ends[0]);
            try {
                work();
            } catch (const std::exception& e) {
                fprintf(stderr, "child: %s\n", e.what());
                _exit(1);
            }
            if (write(ends[1], "d", 1) != 1) _exit(1);
            while (true) pause();
        }
        close(ends[1]);
        char done = 0;
        reached_ = read(ends[0], &done, 1) == 1;
        close(ends[0]);
    }
    ~Child() { kill(); }

    bool reached() const { return reached_; }
    void kill() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = 0;
    }

private:
    pid_t pid_ = 0;
    bool reached_ = false;
};

// --- The previous snapshot ---

class PreviousSnapshotTest : public LmdbEngineTest {
protected:
    PreviousSnapshotTest() {
        EnvPtr env = open();
        putAndCommit(env.get(), "a", "1");
        putAndCommit(env.get(), "b", "2");
    }
};

TEST_F(PreviousSnapshotTest, isSeenByReadAndWriteTransactionsAndStaysWithoutChange) {
    for (int round = 0; round < 2; round++) {
        EnvPtr env = open(MDB_PREVSNAPSHOT);
        EXPECT_EQ(contents(env.get()), (Map{{"a", "1"}}));
        TxnPtr writer = begin(env.get());
        EXPECT_EQ(contents(writer.get()), (Map{{"a", "1"}}));
        require(put(writer.get(), "c", "3"), "put");
        writer.reset();
        require(mdb_txn_commit(begin(env.get()).release()), "empty commit");
        EXPECT_EQ(contents(env.get()), (Map{{"a", "1"}}));
    }
    EXPECT_EQ(contents(open().get()), (Map{{"a", "1"}, {"b", "2"}}));
}

TEST_F(PreviousSnapshotTest, firstCommitReplacesTheNewestSnapshot) {
    {
        EnvPtr env = open(MDB_PREVSNAPSHOT);
        putAndCommit(env.get(), "c", "3");
        EXPECT_EQ(contents(env.get()), (Map{{"a", "1"}, {"c", "3"}}));
        unsigned flags = 0;
        mdb_env_get_flags(env.get(), &flags);
        EXPECT_EQ(flags & MDB_PREVSNAPSHOT, 0u);
        putAndCommit(env.get(), "d", "4");
        EXPECT_EQ(contents(env.get()), (Map{{"a", "1"}, {"c", "3"}, {"d", "4"}}));
    }
    EXPECT_EQ(contents(open().get()), (Map{{"a", "1"}, {"c", "3"}, {"d", "4"}}));
    EXPECT_EQ(contents(open(MDB_PREVSNAPSHOT).get()), (Map{{"a", "1"}, {"c", "3"}}));
}

TEST_F(PreviousSnapshotTest, ofTheFirstCommitIsEmpty) {
    std::filesystem::remove(path("data.mdb"));
    EXPECT_TRUE(contents(open(MDB_PREVSNAPSHOT).get()).empty());
    putAndCommit(open().get(), "a", "1");
    EnvPtr env = open(MDB_PREVSNAPSHOT);
    EXPECT_TRUE(contents(env.get()).empty());
    putAndCommit(env.get(), "b", "2");
    env.reset();
    EXPECT_EQ(contents(open().get()), (Map{{"b", "2"}}));
}

// The pages of a commit are written before its meta page. A failure in between must leave the
// snapshot that was chosen, not the abandoned one, whose pages may be overwritten by then.
TEST_F(PreviousSnapshotTest, holdsWhenTheFirstCommitFailsHalfway) {
    Child child([&] {
        EnvPtr env = open(MDB_PREVSNAPSHOT);
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit{12 * kPageSize, 12 * kPageSize};
        setrlimit(RLIMIT_FSIZE, &limit);
        TxnPtr txn = begin(env.get());
        require(put(txn.get(), "c", std::string(200 * kPageSize, 'x')), "put");
        if (mdb_txn_commit(txn.release()) == 0) throw std::runtime_error("no failure");
    });
    ASSERT_TRUE(child.reached());
    child.kill();
    EnvPtr env = open();
    EXPECT_EQ(contents(env.get()), (Map{{"a", "1"}}));
    putAndCommit(env.get(), "d", "4");
    EXPECT_EQ(contents(env.get()), (Map{{"a", "1"}, {"d", "4"}}));
}

TEST_F(PreviousSnapshotTest, isRefusedWhileAnotherProcessHasTheEnvironmentOpen) {
    EnvPtr childs;
    Child child([&] { childs = open(); });
    ASSERT_TRUE(child.reached());
    EnvPtr env;
    EXPECT_EQ(tryOpen(env, MDB_PREVSNAPSHOT), EAGAIN);
    EXPECT_EQ(tryOpen(env, MDB_PREVSNAPSHOT | MDB_RDONLY), EAGAIN);
    child.kill();
    EXPECT_EQ(tryOpen(env, MDB_PREVSNAPSHOT), 0);
}

TEST_F(PreviousSnapshotTest, manyChangesOnTopLeaveASoundTree) {
    EnvPtr env = open();
    fill(env.get(), 2000);
    fill(env.get(), 3000);
    Map expected = contents(env.get());
    { // abandoned: it frees and reuses many pages
        TxnPtr txn = begin(env.get());
        require(mdb_drop(txn.get(), kMainDb, 0), "drop");
        require(mdb_txn_commit(txn.release()), "commit");
    }
    env.reset();
    env = open(MDB_PREVSNAPSHOT);
    for (int i = 0; i < 20; i++) {
        std::string key = "new" + std::to_string(i);
        putAndCommit(env.get(), key, std::string(3000, 'n'));
        expected[key] = std::string(3000, 'n');
    }
    env.reset();
    env = open();
    EXPECT_EQ(contents(env.get()), expected);
    TxnPtr txn = beginRead(env.get());
    for (MDB_dbi dbi : {kFreeDb, kMainDb}) {
        QmrPageValidation result;
        EXPECT_EQ(qmr_mdb_validate_pages(openCursor(txn.get(), dbi).get(), 0, 1, &result), 0);
    }
}

// --- The writer lock ---

TEST_F(LmdbEngineTest, writeTransactionEndedOnAnotherThreadFreesTheLock) {
    EnvPtr env = open();
    for (bool commit : {false, true}) {
        TxnPtr txn;
        std::thread([&] {
            txn = begin(env.get());
            require(put(txn.get(), "a", "1"), "put");
        }).join();
        if (commit) {
            require(mdb_txn_commit(txn.release()), "commit");
        } else {
            txn.reset();
        }
        std::thread([&] { putAndCommit(env.get(), "b", "2"); }).join();
        EXPECT_EQ(contents(env.get()).count("a"), commit ? 1u : 0u);
    }
}

TEST_F(LmdbEngineTest, writersOfOneProcessTakeTurns) {
    EnvPtr env = open();
    constexpr int kRounds = 200;
    auto count = [&] {
        for (int i = 0; i < kRounds; i++) {
            TxnPtr txn = begin(env.get());
            Map map = contents(txn.get());
            int value = map.empty() ? 0 : std::stoi(map["n"]);
            require(put(txn.get(), "n", std::to_string(value + 1)), "put");
            require(mdb_txn_commit(txn.release()), "commit");
        }
    };
    require(mdb_env_set_flags(env.get(), MDB_NOSYNC, 1), "flags");
    std::thread first(count), second(count);
    first.join();
    second.join();
    EXPECT_EQ(contents(env.get())["n"], std::to_string(2 * kRounds));
}

TEST_F(LmdbEngineTest, processKilledInsideAWriteTransactionHandsTheLockOver) {
    putAndCommit(open().get(), "a", "1");
    EnvPtr childs;
    TxnPtr childsReader, childsWriter;
    Child child([&] {
        childs = open();
        childsReader = beginRead(childs.get());
        childsWriter = begin(childs.get());
        require(put(childsWriter.get(), "b", "2"), "put");
    });
    ASSERT_TRUE(child.reached());

    EnvPtr env = open();
    std::thread waiter([&] { putAndCommit(env.get(), "c", "3"); });
    child.kill();
    waiter.join();
    EXPECT_EQ(contents(env.get()), (Map{{"a", "1"}, {"c", "3"}}));
    int dead = -1;
    require(mdb_reader_check(env.get(), &dead), "reader check");
    EXPECT_EQ(dead, 0) << "the writer that took over clears the readers of the dead process";
}

TEST_F(LmdbEngineTest, otherLmdbProgramsReadButCannotWrite) {
    auto run = [&](const std::string& command) {
        return std::system((command + " >" + path("out") + " 2>&1").c_str());
    };
    if (run("command -v mdb_stat mdb_dump mdb_load") != 0) GTEST_SKIP() << "lmdb-utils needed";

    EnvPtr env = open();
    fill(env.get(), 100);
    EXPECT_EQ(run("mdb_stat -e -f " + dir_), 0);
    EXPECT_EQ(run("mdb_dump -p " + dir_), 0);
    std::string load = "printf '%s\\n' 'VERSION=3' 'format=print' 'type=btree' 'HEADER=END' "
                       "' x' ' y' 'DATA=END' | timeout 60 mdb_load " + dir_;
    EXPECT_NE(run(load), 0);
    EXPECT_EQ(contents(env.get()).count("x"), 0u);
    putAndCommit(env.get(), "z", "1");

    env.reset();
    EXPECT_EQ(run(load), 0) << "alone, it may write";
    EXPECT_EQ(contents(open().get()).count("x"), 1u);
}

// --- Damage ---

class DamageTest : public LmdbEngineTest {
protected:
    DamageTest() {
        EnvPtr env = open();
        fill(env.get(), 1200);
        fill(env.get(), 1200); // free pages for the free-page database
    }

    void openData() {
        fd_ = ::open(path("data.mdb").c_str(), O_RDWR);
        size_ = static_cast<size_t>(lseek(fd_, 0, SEEK_END));
    }
    ~DamageTest() override { if (fd_ >= 0) close(fd_); }

    template <typename T>
    T get(size_t at) const {
        T value{};
        EXPECT_EQ(pread(fd_, &value, sizeof(T), static_cast<off_t>(at)), ssize_t{sizeof(T)});
        return value;
    }
    template <typename T>
    void set(size_t at, T value) const {
        EXPECT_EQ(pwrite(fd_, &value, sizeof(T), static_cast<off_t>(at)), ssize_t{sizeof(T)});
    }
    uint8_t byteAt(size_t at) const { return get<uint8_t>(at); }
    void setByte(size_t at, uint8_t byte) const { set(at, byte); }

    static int validateAll(MDB_txn* txn, QmrPageValidation* result) {
        for (MDB_dbi dbi : {kFreeDb, kMainDb}) {
            int rc = qmr_mdb_validate_pages(openCursor(txn, dbi).get(), 0, 1, result);
            if (rc != 0) return rc;
        }
        return 0;
    }

    int fd_ = -1;
    size_t size_ = 0;
};

TEST_F(DamageTest, everyFlippedByteOfPageAndNodeHeadersIsJudgedWithoutACrash) {
    EnvPtr env = open(MDB_RDONLY);
    openData();
    std::map<int, int> codes;
    auto flip = [&](size_t at, uint8_t mask) {
        uint8_t byte = byteAt(at);
        setByte(at, byte ^ mask);
        QmrPageValidation result;
        int rc = validateAll(beginRead(env.get()).get(), &result);
        codes[rc]++;
        EXPECT_TRUE(rc == 0 || rc == MDB_CORRUPTED || rc == MDB_PAGE_NOTFOUND) << rc;
        EXPECT_EQ(result.first_failed_page != 0, rc != 0);
        TxnPtr txn = beginRead(env.get());
        QmrFillStats fill;
        qmr_mdb_fill_stats(openCursor(txn.get()).get(), &fill);
        setByte(at, byte);
    };
    for (size_t page = 2 * kPageSize; page < size_; page += kPageSize) {
        size_t firstNode = page + get<uint16_t>(page + kPageHeader);
        for (size_t i = 0; i < kPageHeader + 4; i++) {
            for (uint8_t mask : {0x01, 0x80, 0xff}) flip(page + i, mask);
        }
        for (size_t i = 0; i < 8 && firstNode + i < page + kPageSize; i++) {
            for (uint8_t mask : {0x01, 0x02, 0x80}) flip(firstNode + i, mask);
        }
    }
    for (int rc : {0, MDB_CORRUPTED, MDB_PAGE_NOTFOUND}) EXPECT_GT(codes[rc], 0) << rc;
    QmrPageValidation result;
    EXPECT_EQ(validateAll(beginRead(env.get()).get(), &result), 0) << "all bytes are back";
}

TEST_F(DamageTest, isNamedByItsKindAndPage) {
    EnvPtr env = open(MDB_RDONLY);
    openData();
    MDB_envinfo info;
    mdb_env_info(env.get(), &info);
    auto root = get<uint64_t>(info.me_last_txnid % 2 * kPageSize + kRootAt);
    size_t page = root * kPageSize, lower = page + 12, upper = page + 14;
    size_t firstChild = page + get<uint16_t>(page + kPageHeader);
    auto filePages = static_cast<uint16_t>(size_ / kPageSize);

    struct Damage {
        size_t at;
        uint16_t value;
        int code;
    };
    for (const Damage& damage : {Damage{firstChild, 0, MDB_CORRUPTED},
                                 {firstChild, 1, MDB_CORRUPTED},
                                 {firstChild, static_cast<uint16_t>(root), MDB_CORRUPTED},
                                 {firstChild, filePages, MDB_PAGE_NOTFOUND},
                                 {firstChild + 6, 60000, MDB_CORRUPTED},
                                 {lower, 0, MDB_CORRUPTED},
                                 {lower, kPageSize, MDB_CORRUPTED},
                                 {upper, kPageSize + 1, MDB_CORRUPTED},
                                 {page + kPageHeader, kPageHeader, MDB_CORRUPTED},
                                 {page + kPageHeader, kPageSize - 4, MDB_CORRUPTED}}) {
        auto before = get<uint16_t>(damage.at);
        set(damage.at, damage.value);
        QmrPageValidation result;
        TxnPtr txn = beginRead(env.get());
        EXPECT_EQ(qmr_mdb_validate_pages(openCursor(txn.get()).get(), 1, 0, &result), damage.code)
            << damage.value << " at " << damage.at - page;
        EXPECT_EQ(result.first_failed_page, root);
        set(damage.at, before);
    }
}

TEST_F(DamageTest, pageOfTheWrongKindFailsTheTransaction) {
    EnvPtr env = open(MDB_RDONLY);
    openData();
    constexpr size_t kFlags = 10;
    int failures = 0;
    for (size_t page = 2 * kPageSize; page < size_; page += kPageSize) {
        uint8_t flags = byteAt(page + kFlags);
        setByte(page + kFlags, 0);
        TxnPtr txn = beginRead(env.get());
        try {
            contents(txn.get());
        } catch (const std::runtime_error&) {
            failures++;
            MDB_val key = toVal("key100000");
            MDB_val value;
            EXPECT_EQ(mdb_get(txn.get(), kMainDb, &key, &value), MDB_BAD_TXN);
        }
        setByte(page + kFlags, flags);
    }
    EXPECT_GT(failures, 10);
}

// Two pages that lead to each other, below a depth that makes a walk without a bound endless.
TEST_F(DamageTest, treeThatLeadsIntoItselfIsCorrupt) {
    constexpr uint16_t kBranch = 1, kNodes = 100, kDepth = 30;
    openData();
    for (uint64_t number : {2, 3}) {
        std::vector<uint16_t> page(kPageSize / 2);
        page[0] = static_cast<uint16_t>(number);
        page[5] = kBranch;
        page[6] = kPageHeader + 2 * kNodes;
        page[7] = kPageSize - 8 * kNodes;
        for (size_t i = 0; i < kNodes; i++) {
            size_t node = page[7] + 8 * i;
            page[8 + i] = static_cast<uint16_t>(node);
            page[node / 2] = static_cast<uint16_t>(5 - number);
        }
        for (size_t i = 0; i < page.size(); i++) set(number * kPageSize + 2 * i, page[i]);
    }
    for (size_t meta : {size_t{0}, kPageSize}) {
        set(meta + kDepthAt, kDepth);
        set(meta + kRootAt, uint64_t{2});
    }
    EnvPtr env = open(MDB_RDONLY);
    TxnPtr txn = beginRead(env.get());
    CursorPtr cursor = openCursor(txn.get());
    QmrPageValidation result;
    EXPECT_EQ(qmr_mdb_validate_pages(cursor.get(), 0, 1, &result), MDB_CORRUPTED);
    EXPECT_LE(result.pages_checked, size_ / kPageSize + 1);
    QmrFillStats fill;
    EXPECT_EQ(qmr_mdb_fill_stats(cursor.get(), &fill), 0);
}

TEST_F(DamageTest, everyFlippedByteOfTheMetaPagesIsJudgedWithoutACrash) {
    openData();
    std::map<int, int> codes;
    for (size_t meta : {size_t{0}, kPageSize}) {
        for (size_t at = meta; at < meta + 152; at++) {
            for (uint8_t mask : {0x01, 0x80, 0xff}) {
                uint8_t byte = byteAt(at);
                setByte(at, byte ^ mask);
                EnvPtr env;
                QmrPageValidation result;
                int rc = tryOpen(env, MDB_RDONLY);
                if (rc == 0) rc = validateAll(beginRead(env.get()).get(), &result);
                setByte(at, byte);
                codes[rc]++;
            }
        }
    }
    EXPECT_GT(codes[0], 0);
    EXPECT_GT(codes[MDB_INVALID], 0);
    EXPECT_GT(codes[MDB_PAGE_NOTFOUND], 0);
}

TEST_F(DamageTest, fileThatWasCutGivesAnErrorInsteadOfABusError) {
    openData();
    EnvPtr env = open(MDB_RDONLY);
    ASSERT_EQ(ftruncate(fd_, static_cast<off_t>(size_ / 2 + 100)), 0);
    env.reset();
    env = open(MDB_RDONLY);
    EXPECT_THROW(contents(env.get()), std::runtime_error);
    QmrPageValidation result;
    EXPECT_EQ(validateAll(beginRead(env.get()).get(), &result), MDB_PAGE_NOTFOUND);
    EXPECT_NE(result.first_failed_page, 0u);
    TxnPtr txn = beginRead(env.get());
    QmrFillStats fill;
    EXPECT_EQ(qmr_mdb_fill_stats(openCursor(txn.get()).get(), &fill), MDB_PAGE_NOTFOUND);
}

// The pages of a long value must belong to the snapshot, even if the file has more.
TEST_F(DamageTest, longValueThatLeavesTheSnapshotIsNotGivenOut) {
    constexpr uint32_t kValueSize = 5000;
    constexpr std::string_view kKey = "key100007";
    openData();
    const auto wrongSize = static_cast<uint32_t>(size_);
    std::string bytes(size_, '\0');
    ASSERT_EQ(pread(fd_, bytes.data(), size_, 0), static_cast<ssize_t>(size_));
    int found = 0;
    for (size_t at = 0; (at = bytes.find(kKey, at)) != std::string::npos; at++) {
        if (get<uint32_t>(at - 8) != kValueSize) continue;
        set(at - 8, wrongSize);
        found++;
    }
    ASSERT_GT(found, 0);
    ASSERT_EQ(ftruncate(fd_, static_cast<off_t>(3 * size_)), 0);

    EnvPtr env = open(MDB_RDONLY);
    TxnPtr txn = beginRead(env.get());
    MDB_val key = toVal(kKey);
    MDB_val value;
    EXPECT_EQ(mdb_get(txn.get(), kMainDb, &key, &value), MDB_PAGE_NOTFOUND);
    EXPECT_EQ(mdb_get(txn.get(), kMainDb, &key, &value), MDB_BAD_TXN);
}

// Marks the leaf nodes of a key as holding duplicates, in all pages of the file.
void markAsDuplicates(const std::string& file, std::string_view key) {
    constexpr size_t kFlagsBeforeKey = 4; // a node: data size, flags, key size, key
    constexpr char kDuplicates = 0x04;
    std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(stream)), {});
    for (size_t at = 0; (at = bytes.find(key, at)) != std::string::npos; at += key.size()) {
        bytes[at - kFlagsBeforeKey] |= kDuplicates;
    }
    stream.seekp(0);
    stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(stream.good());
}

TEST_F(LmdbEngineTest, nodeThatClaimsDuplicatesIsReportedAsCorrupt) {
    EnvPtr env = open();
    for (const char* key : {"a", "b", "claims", "d", "e"}) putAndCommit(env.get(), key, "abcd");
    env.reset();
    markAsDuplicates(path("data.mdb"), "claims");
    env = open();

    auto get = [](MDB_cursor* cursor, MDB_cursor_op op, std::string_view at = {}) {
        MDB_val key = toVal(at);
        MDB_val value;
        return mdb_cursor_get(cursor, &key, &value, op);
    };
    testing::internal::CaptureStderr();
    {
        TxnPtr txn = beginRead(env.get());
        for (MDB_cursor_op op : {MDB_SET, MDB_SET_KEY, MDB_SET_RANGE}) {
            EXPECT_EQ(get(openCursor(txn.get()).get(), op, "claims"), MDB_BAD_TXN);
        }
        CursorPtr cursor = openCursor(txn.get());
        ASSERT_EQ(get(cursor.get(), MDB_SET, "b"), 0);
        EXPECT_EQ(get(cursor.get(), MDB_NEXT), MDB_BAD_TXN);
        EXPECT_EQ(get(cursor.get(), MDB_GET_CURRENT), MDB_BAD_TXN);
        ASSERT_EQ(get(cursor.get(), MDB_SET, "d"), 0) << "a read transaction goes on";
        EXPECT_EQ(get(cursor.get(), MDB_PREV), MDB_BAD_TXN);
    }
    for (const bool deletes : {false, true}) {
        TxnPtr txn = begin(env.get());
        MDB_cursor* cursor = nullptr; // ends with the transaction
        require(mdb_cursor_open(txn.get(), kMainDb, &cursor), "cursor");
        MDB_val key = toVal("claims"), value = toVal("wxyz");
        if (deletes) {
            EXPECT_EQ(get(cursor, MDB_SET, "b"), 0); // the deletion moves the cursor to the node
            EXPECT_EQ(mdb_cursor_del(cursor, 0), MDB_BAD_TXN);
        } else {
            EXPECT_EQ(mdb_cursor_put(cursor, &key, &value, 0), MDB_BAD_TXN);
        }
        EXPECT_EQ(mdb_txn_commit(txn.release()), MDB_BAD_TXN);
    }
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_EQ(text.find("Severe error condition: xcursor is null. "
                        "Node lo: 4, hi:0, flags: 4, ksize: 6"), 0u) << text;
}

// Runs of rising keys through several cursors, broken by puts elsewhere, removals and steps: the way
// without a search must leave the same tree as the engine's own.
TEST_F(LmdbEngineTest, putsInPlaceAndPlainStepsAgreeWithAMap) {
    std::mt19937 random(quillmere::testSeed());
    auto below = [&](unsigned limit) { return random() % limit; };
    auto keyOf = [](unsigned number) { return "key" + std::to_string(1000000 + number); };
    EnvPtr env = open();
    Map model;
    for (int round = 0; round < 20; round++) {
        TxnPtr txn = begin(env.get());
        std::vector<MDB_cursor*> cursors(3); // they end with the transaction
        for (MDB_cursor*& cursor : cursors) {
            require(mdb_cursor_open(txn.get(), kMainDb, &cursor), "cursor");
        }
        for (int run = 0; run < 60; run++) {
            MDB_cursor* cursor = cursors[below(3)];
            const unsigned from = below(100000);
            const unsigned step = 1 + below(3);
            const unsigned count = below(5) == 0 ? 100 : below(8);
            for (unsigned i = 0; i < count; i++) {
                std::string key = keyOf(from + i * step);
                std::string value(below(40) == 0 ? 3000 + below(6000) : below(150),
                                  static_cast<char>('a' + below(26)));
                MDB_val keyVal = toVal(key), valueVal = toVal(value);
                require(qmr_mdb_cursor_put(cursor, &keyVal, &valueVal), "put");
                model[key] = value;
                // Another cursor in the same page, or this one, is moved on the way.
                if (below(20) != 0) continue;
                MDB_cursor* other = cursors[below(3)];
                std::string near = keyOf(from + below(3 * count + 1));
                keyVal = toVal(near);
                int rc = mdb_cursor_get(other, &keyVal, &valueVal, MDB_SET_RANGE);
                auto at = model.lower_bound(near);
                if (rc == 0 && below(2) == 0) {
                    ASSERT_TRUE(at != model.end());
                    require(mdb_cursor_del(other, 0), "remove");
                    at = model.erase(at);
                } else if (at != model.end()) {
                    ++at;
                }
                if (rc != 0) continue;
                rc = qmr_mdb_cursor_next(other, &keyVal, &valueVal);
                ASSERT_EQ(rc, at == model.end() ? MDB_NOTFOUND : 0);
                if (rc != 0) continue;
                ASSERT_EQ(std::string_view(static_cast<char*>(keyVal.mv_data), keyVal.mv_size),
                          at->first);
                ASSERT_EQ(std::string_view(static_cast<char*>(valueVal.mv_data), valueVal.mv_size),
                          at->second);
            }
        }
        ASSERT_EQ(contents(txn.get()), model);
        require(mdb_txn_commit(txn.release()), "commit");

        txn = beginRead(env.get());
        MDB_stat stat;
        require(mdb_stat(txn.get(), kMainDb, &stat), "stat");
        ASSERT_EQ(stat.ms_entries, model.size());
        QmrPageValidation pages;
        ASSERT_EQ(qmr_mdb_validate_pages(openCursor(txn.get()).get(), 0, 1, &pages), 0);
    }
}

TEST_F(LmdbEngineTest, fillOfOnePageIsInTenthsOfItsRoom) {
    EnvPtr env = open();
    // An offset of 2 bytes, a node header of 8 and the key of 2 leave 1016 for a quarter page.
    putAndCommit(env.get(), "k1", std::string(1008, 'v'));
    TxnPtr txn = beginRead(env.get());
    QmrFillStats fill;
    ASSERT_EQ(qmr_mdb_fill_stats(openCursor(txn.get()).get(), &fill), 0);
    EXPECT_EQ(fill.leaf_fill[2], 1u);
}

TEST_F(LmdbEngineTest, validationStopsAtTheLimitAndTheLeafLevelIsAnOption) {
    EnvPtr env = open();
    fill(env.get(), 3000);
    TxnPtr txn = beginRead(env.get());
    MDB_stat stat;
    require(mdb_stat(txn.get(), kMainDb, &stat), "stat");
    auto checked = [&](uint64_t limit, int leaves) {
        QmrPageValidation result;
        EXPECT_EQ(qmr_mdb_validate_pages(openCursor(txn.get()).get(), limit, leaves, &result), 0);
        EXPECT_EQ(result.first_failed_page, 0u);
        return result.pages_checked;
    };
    EXPECT_EQ(checked(0, 0), stat.ms_branch_pages);
    EXPECT_EQ(checked(~uint64_t{0}, 1), stat.ms_branch_pages + stat.ms_leaf_pages);
    EXPECT_EQ(checked(1, 1), 1u);
    EXPECT_EQ(checked(5, 1), 5u);
}

}  // namespace
