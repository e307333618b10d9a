#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <sstream>

#include "core/files.h"
#include "kv/memory/wal_reader.h"
#include "support/expect_throw.h"
#include "support/log_capture.h"
#include "support/seed.h"
#include "wal_fixture.h"

namespace quillmere {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;
using testing::StartsWith;

const std::string kKey = "\0\0\0\1"s;

// The log of one put of kKey, for values below 0x4000 bytes.
std::string putLog(const std::string& value) {
    return "\1\4" + kKey + varint(static_cast<unsigned>(value.size())) + value;
}

struct WalTest : testing::Test, WalStore {
    // Refused, with the message, and the file as it was.
    std::string refusal(const std::string& bytes) {
        writeFile(walPath(), bytes);
        const std::string message = messageOf<WalFileInvalidException>([&] { open(); });
        EXPECT_EQ(wal(), bytes) << message;
        return message;
    }
    uint64_t saltInFile() const {
        uint64_t salt = 0;
        for (size_t i = 8; i-- > 0;) salt = salt << 8 | static_cast<uint8_t>(wal()[21 + i]);
        return salt;
    }
};

TEST_F(WalTest, WritesHeaderAndRecordsByteByByte) {
    open();
    ASSERT_EQ(wal().size(), 29u);
    WalBytes expected(0, saltInFile());
    EXPECT_NE(saltInFile(), 0u);

    const std::string tooSmall(16, '\0');  // a log of 23 bytes
    commit({{kKey, tooSmall}});
    expected.record(1, putLog(tooSmall));
    const std::string justLargeEnough(17, '\0');
    commit({{kKey, justLargeEnough}});
    expected.encodedRecord(2, putLog(justLargeEnough), "\1\4\0\xE3\1\x11\0\xF1"s);
    commit({});
    begin()->abort();
    const std::string large = std::string(300, 'x') + std::string(2000, '\0');
    commit({{kKey, large}});
    expected.encodedRecord(3, putLog(large),
                           "\1\4\0\xE3\1\x88\xFC"s + std::string(300, 'x') + "\0\xFF\x07\xD0"s);
    const std::string notTenPercent = std::string(100, 'x') + "\0\0\0\0"s;
    commit({{kKey, notTenPercent}});
    expected.record(4, putLog(notTenPercent));
    commit({{kKey, "-"}});
    expected.record(5, "\x0A\4" + kKey);
    commit({{kKey, "v"}, {"\0\0\0\2"s, ""}});
    expected.record(6, putLog("v") + "\1\4\0\0\0\2\0"s);
    EXPECT_EQ(testing::PrintToString(wal()), testing::PrintToString(expected.bytes));
    EXPECT_EQ(reopened(), (Records{{kKey, "v"}, {"\0\0\0\2"s, ""}}));
}

TEST_F(WalTest, TellsItsStepsWhenVerbose) {
    LogCapture capture;
    options.debugFlags = kDebugWal;
    open();
    WalBytes expected(0, saltInFile());
    commit({{kKey, "v"}});
    expected.record(1, putLog("v"));
    const std::string first = std::to_string(expected.hash);
    commit({{kKey, "-"}});
    expected.record(2, "\x0A\4" + kKey);
    const std::string second = std::to_string(expected.hash);
    options.walMaxFileSizeOnOpenInKb = 0;
    open();
    options.walMaxFileSizeOnOpenInKb = 4096;
    open();

    std::istringstream lines(capture.text());
    std::string steps;
    for (std::string line; std::getline(lines, line);) {
        steps += line.substr(std::min(line.find("[INFO ] ["), line.size())) + '\n';
    }
    const std::string file = "[INFO ] [WalFil] ";
    EXPECT_EQ(steps,
              file + "Creating new WAL file\n" +
              file + "Wrote header (29 bytes, initial hash: 0)\n" +
              file + "RLE0 encoding not applied to KV log with 8 bytes (too small)\n" +
              file + "Written TX 1 (18 bytes, kvLogSize: 8 bytes, hash prev/new: 0/" + first +
              ")\n" +
              file + "RLE0 encoding not applied to KV log with 6 bytes (no puts)\n" +
              file + "Written TX 2 (16 bytes, kvLogSize: 6 bytes, hash prev/new: " + first + "/" +
              second + ")\n" +
              file + "Closed file\n" +
              file + "Open existing WAL file\n" +
              file + "Read Header (29 bytes, initial hash: 0)\n" +
              file + "Applied TX 1, hash " + first + "\n" +
              file + "Applied TX 2, hash " + second + "\n" +
              "[INFO ] [WalSnp] Taking snapshot at TX 2-" + second + "\n" +
              file + "Wrote header (29 bytes, initial hash: " + second + ")\n" +
              file + "Closed file\n" +
              file + "Initialized next expected TX number to 3 and expected initial hash to " +
              second + "\n" +
              file + "Open existing WAL file\n" +
              file + "Read Header (29 bytes, initial hash: " + second + ")\n");
}

TEST_F(WalTest, LogsWhatIsStoredForAValueThatLiesInTheOneItReplaces) {
    open();
    const auto tx = begin();
    const auto cursor = tx->createDbCursor();
    cursor->put("key1", 4, "abcdef", 6);
    Bytes value;
    ASSERT_TRUE(cursor->get(Bytes("key1", 4), value));
    cursor->put("key1", 4, value.data() + 1, 3);
    tx->commit();
    const Records stored = records();
    EXPECT_EQ(stored, (Records{{"key1", "bcd"}}));
    EXPECT_EQ(reopened(), stored);
}

TEST_F(WalTest, RefusesInvalidHeadersAndRecordsAndLeavesTheFile) {
    const std::string good = WalBytes().bytes;
    const auto withByte = [&](size_t at, char byte) {
        std::string bytes = good;
        bytes[at] = byte;
        return bytes;
    };
    EXPECT_EQ(refusal(withByte(13, 'x')),
              "Invalid WAL format: this is not a Quillmere WAL file");
    EXPECT_EQ(refusal(withByte(14, 2)), "Invalid version: 2");
    EXPECT_EQ(refusal(withByte(15, 2)), "Invalid minimum version: 2");
    EXPECT_EQ(refusal(withByte(16, 1)), "Unknown flag detected: 1");
    EXPECT_THAT(refusal(withByte(17, 1)), StartsWith("Initial hash does not match the expected "));
    EXPECT_EQ(refusal(WalBytes(0, 0).bytes), "Invalid salt detected: 0");

    const auto recordRefusal = [&](const std::string& start) {
        return refusal(good + start + std::string(30, '\1'));
    };
    EXPECT_EQ(recordRefusal("\2"), "Unexpected txNumber 2; expected 1 instead");
    EXPECT_EQ(recordRefusal("\1\4"), "Unsupported TX log flags used: 4");
    EXPECT_EQ(recordRefusal("\1\xF1\0\0\0\0"s), "Varint out of range: 4294967296");
    EXPECT_EQ(recordRefusal("\1\3\5\5"), "Invalid encoded/decoded size detected: 5");
    // Five bytes cannot become that many: nothing is allocated for it.
    EXPECT_EQ(recordRefusal("\1\3\5\xF0\xFF\xFF\xFF\xFF"),
              "Invalid encoded/decoded size detected: 4294967295");
    EXPECT_EQ(recordRefusal("\1\3\5\6"), "Decoded size mismatch: 5");
    EXPECT_EQ(recordRefusal("\1\3\5\6\0\xE0"s), "Illegal special value");
    EXPECT_EQ(recordRefusal("\1\2\5"), "Invalid Hash detected in TX 1");

    // A valid record around a log that is none.
    WalBytes badLog;
    badLog.record(1, putLog("v") + "\7");
    EXPECT_EQ(refusal(badLog.bytes), "Invalid KvLog operation with code: 7");
    WalBytes cutLog;
    cutLog.record(1, "\1\4");
    EXPECT_EQ(refusal(cutLog.bytes), "Expected 4 available bytes but only got 0 at offset 2");
}

TEST_F(WalTest, IsOpenForWritingOnce) {
    open();
    commit({{"key1", "one"}});
    const auto openAgain = [&] { return InMemoryProvider(true).createStore(options); };
    EXPECT_EQ(messageOf<IoException>(openAgain),
              "Couldn't open WAL file (existing): it is open in another process");
    commit({{"key2", "two"}});
    options.readOnly = true;
    EXPECT_NO_THROW(openAgain());
    options.readOnly = false;
    EXPECT_EQ(reopened(), (Records{{"key1", "one"}, {"key2", "two"}}));
}

// ---- Damage -------------------------------------------------------------------------------------

// A log of several records, and the states between them.
struct WalDamageTest : WalTest {
    void SetUp() override {
        open();
        addState();
        for (const Records& changes : std::vector<Records>{
                 {{"key1", "one"}, {"key2", std::string(40, '\0')}},
                 {{"key1", "-"}, {"key3", "three"}},
                 {{"key4", std::string(300, 'x') + std::string(300, '\0')}}}) {
            commit(changes);
            addState();
        }
        whole = wal();
        close();
    }
    void addState() {
        states.push_back(records());
        ends.push_back(wal().size());
    }

    std::vector<Records> states;
    std::vector<size_t> ends;  // file sizes: of the header, then behind each record
    std::string whole;
};

TEST_F(WalDamageTest, CutAtEveryOffsetLosesTheIncompleteRecordOnly) {
    LogCapture capture;
    for (size_t size = 0; size < whole.size(); ++size) {
        size_t complete = 0;
        while (complete + 1 < ends.size() && ends[complete + 1] <= size) ++complete;
        writeFile(walPath(), whole.substr(0, size));
        ASSERT_EQ(reopened(), states[complete]) << size;
        ASSERT_EQ(wal().size(), ends[complete]) << size;
        commit({{"next", "commit"}});
        Records expected = states[complete];
        expected["next"] = "commit";
        ASSERT_EQ(reopened(), expected) << size;
    }
    EXPECT_TRUE(capture.contains(
        "[INFO ] [WalFil] Truncating WAL file before transaction 1 (at offset 29); ignoring the "
        "incomplete transaction (Expected 1 available bytes but only got 0 at offset 30)\n"));
    EXPECT_TRUE(capture.contains("[WARN ] [WalFil] WAL file header is too small (10 bytes)\n"));
    EXPECT_TRUE(capture.contains("[WARN ] [WalFil] Overwriting existing content: "
                                 "5175696c6c6d65726520\n"));
}

TEST_F(WalDamageTest, FlippedAtAnyByteIsNoticed) {
    LogCapture capture;
    for (size_t at = 0; at < whole.size(); ++at) {
        for (int bit = 0; bit < 8; ++bit) {
            std::string flipped = whole;
            flipped[at] = static_cast<char>(flipped[at] ^ 1 << bit);
            writeFile(walPath(), flipped);
            try {
                open();
            } catch (const WalFileInvalidException&) {
                ASSERT_EQ(wal(), flipped);
                continue;
            }
            // A size that points behind the end is what an interrupted write looks like.
            size_t complete = 0;
            while (ends[complete + 1] <= at) ++complete;
            ASSERT_EQ(records(), states[complete]) << at << " bit " << bit;
            ASSERT_THAT(flipped, StartsWith(wal()));
        }
    }
}

// ---- Failing writes -----------------------------------------------------------------------------

// Files of this process do not grow beyond a size, for the time of its scope.
struct FileSizeLimit {
    explicit FileSizeLimit(rlim_t size) {
        handler = signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before);
        const rlimit limited{size, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limited);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &before);
        signal(SIGXFSZ, handler);
    }
    rlimit before{};
    sighandler_t handler;
};

TEST_F(WalTest, ShortWritePublishesNothingAndDoesNotBuryWhatFollows) {
    open();
    commit({{"key1", "one"}});
    const std::string before = wal();
    const auto commitWithin = [&](size_t room) {
        return messageOf<IoException>([&] {
            const FileSizeLimit limit(before.size() + room);
            commit({{"key2", "never stored"}});
        });
    };
    EXPECT_EQ(commitWithin(5), "Error while writing to WAL file: written 5 bytes, but expected 29 "
                               "bytes; error code message: File too large");
    EXPECT_EQ(records(), (Records{{"key1", "one"}}));
    EXPECT_EQ(wal().size(), before.size() + 5);
    EXPECT_THAT(commitWithin(28), HasSubstr("written 28 bytes, but expected 29 bytes"));
    // Reopened by another process right now, and continued here: both find all commits.
    const std::string torn = wal();
    commit({{"key3", "three"}});
    EXPECT_EQ(reopened(), (Records{{"key1", "one"}, {"key3", "three"}}));
    close();
    writeFile(walPath(), torn);
    EXPECT_EQ(reopened(), (Records{{"key1", "one"}}));
    EXPECT_EQ(wal(), before);
}

TEST_F(WalTest, FailedSnapshotFailsTheCommitterThoughItsCommitIsDurable) {
    options.walMaxFileSizeInKb = 0;
    open();
    prepareDirectory(snapshotPath() + ".new", 0755);
    EXPECT_EQ(messageOf<IoException>([&] { commit({{"key1", "one"}}); }),
              "Unable to open new snapshot file \"" + snapshotPath() + "\"");
    EXPECT_EQ(records(), (Records{{"key1", "one"}}));
    // The cleared state has no record: without a snapshot it was never committed.
    const auto clearAndPut = [&] {
        const auto tx = begin();
        store->dropAll(*tx);
        tx->createDbCursor()->put("key2", 4, "two", 3);
        tx->commit();
    };
    EXPECT_THROW(clearAndPut(), IoException);
    EXPECT_EQ(records(), (Records{{"key1", "one"}}));
    EXPECT_EQ(reopened(), (Records{{"key1", "one"}}));
    removeDirectory(snapshotPath() + ".new");
    clearAndPut();
    EXPECT_EQ(wal().size(), 29u);
    EXPECT_EQ(reopened(), (Records{{"key2", "two"}}));
}

// ---- Snapshots and the log ----------------------------------------------------------------------

struct WalSnapshotTest : WalTest {
    // A log of three records, and what a snapshot at the next open makes of it.
    void SetUp() override {
        open();
        commit({{"key1", "one"}});
        commit({{"key2", "two"}});
        oldWal = wal();
        commit({{"key3", "three"}});
        fullWal = wal();
        options.walMaxFileSizeOnOpenInKb = 0;
        open();
        options.walMaxFileSizeOnOpenInKb = 4096;
        takenSnapshot = snapshot();
        all = records();
        close();
    }
    void setFiles(const std::string& snapshotBytes, const std::string& walBytes) {
        close();
        writeFile(snapshotPath(), snapshotBytes);
        writeFile(walPath(), walBytes);
    }
    void expectContinues() {
        ASSERT_EQ(reopened(), all);
        commit({{"key4", "four"}});
        Records more = all;
        more["key4"] = "four";
        ASSERT_EQ(reopened(), more);
    }

    std::string oldWal, fullWal, takenSnapshot;
    Records all;
};

TEST_F(WalSnapshotTest, SnapshotTakesOverTheLogAndTheNextRecordContinuesTheChain) {
    const std::string emptied = wal();
    EXPECT_EQ(emptied.size(), 29u);
    EXPECT_NE(emptied.substr(21), fullWal.substr(21, 8)) << "a new salt";
    EXPECT_EQ(emptied.substr(17, 4), fullWal.substr(fullWal.size() - 4)) << "the last hash";
    expectContinues();
    EXPECT_EQ(wal()[29], 4);
}

TEST_F(WalSnapshotTest, DeathBetweenTheStepsLosesNothing) {
    const std::string emptied = wal();
    LogCapture capture;
    // While the new file is written, and before it is renamed.
    writeFile(snapshotPath() + ".new", takenSnapshot.substr(0, 50));
    removeFile(snapshotPath());
    writeFile(walPath(), fullWal);
    expectContinues();
    EXPECT_EQ(readFile(snapshotPath() + ".new").size(), 50u);
    // Renamed; the log not emptied yet, also with a torn tail that a failed commit left.
    for (const std::string& tail : {""s, "\4"s, "\4\0\x10\0\0"s}) {
        setFiles(takenSnapshot, fullWal + tail);
        expectContinues();
        EXPECT_EQ(wal().substr(17, 4), emptied.substr(17, 4));
    }
    // The log emptied, its header not written, or in part.
    for (size_t size = 0; size < emptied.size(); ++size) {
        setFiles(takenSnapshot, emptied.substr(0, size));
        expectContinues();
    }
}

TEST_F(WalSnapshotTest, FilesOfDifferentHistoriesAreRefused) {
    const auto refused = [&](const std::string& walBytes) {
        setFiles(takenSnapshot, walBytes);
        EXPECT_THAT(refusal(walBytes), StartsWith("Initial hash does not match the expected one"));
        EXPECT_EQ(snapshot(), takenSnapshot);
    };
    refused(oldWal);
    WalBytes another;
    another.record(1, putLog("v"));
    another.record(2, putLog("v"));
    another.record(3, putLog("v"));
    refused(another.bytes);
    std::string flipped = fullWal;
    flipped[40] ^= 1;
    refused(flipped);
    // One record more than the snapshot: it was written behind a log that should have been empty.
    setFiles("", fullWal);
    removeFile(snapshotPath());
    open();
    commit({{"key4", "four"}});
    refused(wal());
}

TEST_F(WalSnapshotTest, ReadOnlyOpenLoadsAndChangesNothing) {
    const std::string emptied = wal();
    options.readOnly = true;
    options.walMaxFileSizeOnOpenInKb = 0;
    LogCapture capture;
    for (const std::string& walBytes :
         {""s, emptied, emptied.substr(0, 12), fullWal, emptied + "\4\0\x10"s}) {
        setFiles(takenSnapshot, walBytes);
        EXPECT_EQ(reopened(), all);
        EXPECT_EQ(wal(), walBytes);
    }
    removeFile(walPath());
    EXPECT_EQ(reopened(), all);
    EXPECT_FALSE(pathExists(walPath()));
    removeFile(snapshotPath());
    EXPECT_THAT(messageOf<OpenDbException>([&] { open(); }),
                StartsWith("Database not found: read-only databases must already exist (2"));
    EXPECT_FALSE(pathExists(walPath()));
}

// ---- Kills --------------------------------------------------------------------------------------

// Commits number after number, each told to the pipe once it is acknowledged.
[[noreturn]] void commitUntilKilled(WalStore& wal, unsigned next, int acknowledgements) {
    try {
        wal.open();
        for (;; ++next) {
            wal.commit({{"last", std::to_string(next)},
                        {"key" + std::to_string(next % 50), std::to_string(next)}});
            if (write(acknowledgements, &next, sizeof next) != sizeof next) _exit(2);
        }
    } catch (...) {
        _exit(1);
    }
}

TEST_F(WalTest, KilledAtAnyMomentComesBackWithEveryAcknowledgedCommit) {
    std::mt19937 random(testSeed());
    options.walMaxFileSizeInKb = 1;  // a snapshot every few commits
    open();
    close();
    unsigned last = 0;
    for (int round = 0; round < 25; ++round) {
        int pipe[2];
        ASSERT_EQ(::pipe(pipe), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) commitUntilKilled(*this, last + 1, pipe[1]);
        ::close(pipe[1]);
        unsigned acknowledged = last;
        for (unsigned commits = random() % 40; commits > 0; --commits) {
            if (read(pipe[0], &acknowledged, sizeof acknowledged) <= 0) break;
        }
        kill(child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the child failed: " << WEXITSTATUS(status);
        while (read(pipe[0], &acknowledged, sizeof acknowledged) > 0) {}
        ::close(pipe[0]);

        const Records found = reopened();
        close();
        last = found.empty() ? 0 : static_cast<unsigned>(std::stoul(found.at("last")));
        ASSERT_GE(last, acknowledged);
        ASSERT_LE(last, acknowledged + 1) << "at most the one that was about to be told";
        for (unsigned number = last > 50 ? last - 49 : 1; number <= last; ++number) {
            ASSERT_EQ(found.at("key" + std::to_string(number % 50)), std::to_string(number));
        }
    }
    EXPECT_GT(last, 0u);
}

}  // namespace
}  // namespace quillmere
