// A writing process is killed at random moments, again and again on the same database.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "capi/store_fixture.h"
#include "support/seed.h"

namespace quillmere {
namespace {

constexpr int kRounds = 200;
// What the writing process tells of itself, one byte each.
constexpr char kStep = 's';
constexpr char kCommitted = 'c';

using Contents = std::map<uint64_t, std::string>;

struct Change {
    uint64_t id;
    bool remove;
    std::string text;
};

struct Batch {
    std::vector<Change> changes;
    bool abort;

    void applyTo(Contents& contents) const {
        for (const Change& change : changes) {
            if (change.remove) {
                contents.erase(change.id);
            } else {
                contents[change.id] = change.text;
            }
        }
    }
};

// An endless random series of transactions, the same for the same seed.
class Workload {
public:
    explicit Workload(uint32_t seed) : random_(seed) {}

    Batch next() {
        Batch batch{{}, random_() % 6 == 0};
        const size_t count = 1 + random_() % 12;
        for (size_t i = 0; i < count; ++i) batch.changes.push_back(nextChange());
        return batch;
    }

private:
    Change nextChange() {
        uint64_t id = 1 + random_() % 150;
        if (random_() % 4 == 0) id += uint64_t{1} << 32;  // the long form of keys
        const bool remove = random_() % 3 == 0;
        // Mostly small, some larger than a page.
        const size_t size = random_() % 10 == 0 ? 3000 + random_() % 9000 : random_() % 200;
        return {id, remove, std::string(size, static_cast<char>('a' + random_() % 26))};
    }

    std::mt19937 random_;
};

class CrashTest : public StoreTest {
protected:
    // Writes until it is killed. Runs in the child process.
    [[noreturn]] void writeForever(uint32_t seed, int pipe) {
        store_.reset(qmr_store_open(options()));
        if (!store_) _exit(2);
        for (Workload workload(seed);;) {
            if (!runBatch(workload.next(), pipe)) _exit(3);
        }
    }

    bool runBatch(const Batch& batch, int pipe) {
        TxnPtr txn = write();
        if (!txn) return false;
        const CursorPtr cursor(qmr_cursor(txn.get(), kTag));
        for (const Change& change : batch.changes) {
            if (::write(pipe, &kStep, 1) != 1) return false;
            if (!apply(cursor.get(), change)) return false;
        }
        if (batch.abort) return qmr_txn_close(txn.release()) == QMR_SUCCESS;
        if (qmr_txn_success(txn.release()) != QMR_SUCCESS) return false;
        return ::write(pipe, &kCommitted, 1) == 1;
    }

    static bool apply(QMR_cursor* cursor, const Change& change) {
        if (change.remove) {
            const qmr_err code = qmr_cursor_remove(cursor, change.id);
            return code == QMR_SUCCESS || code == QMR_NOT_FOUND;
        }
        const ObjectBytes object = makeObject({{1, change.id}, {kTagName, change.text}});
        return qmr_cursor_put(cursor, change.id, object.data(), object.size()) == QMR_SUCCESS;
    }

    // Kills the child when it has told so many steps; gives the number of commits that it told of.
    size_t killAfter(pid_t child, int pipe, size_t steps) {
        size_t committed = 0;
        char told = 0;
        while (steps > 0 && ::read(pipe, &told, 1) == 1) {
            committed += told == kCommitted;
            --steps;
        }
        ::kill(child, SIGKILL);
        while (::read(pipe, &told, 1) == 1) committed += told == kCommitted;
        int status = 0;
        EXPECT_EQ(child, ::waitpid(child, &status, 0));
        EXPECT_TRUE(WIFSIGNALED(status)) << "the writer failed with " << WEXITSTATUS(status);
        return committed;
    }

    // All tags, read with every page and record validated.
    Contents readAll() {
        QMR_store_options* opt = options();
        qmr_opt_validate_on_open_pages(opt, ~uint64_t{0}, 1);
        qmr_opt_validate_on_open_kv(opt);
        store_.reset(qmr_store_open(opt));
        EXPECT_TRUE(store_) << qmr_last_error_message();
        Contents contents;
        const auto collect = [](const void* data, size_t, void* contents) {
            const uint64_t id = objectValue<uint64_t>(data, 1);
            return static_cast<Contents*>(contents)->emplace(id, objectText(data, kTagName)).second;
        };
        EXPECT_EQ(QMR_SUCCESS, qmr_kist_visit_all(tags(), collect, &contents));
        uint64_t count = 0;
        EXPECT_EQ(QMR_SUCCESS, qmr_kist_count(tags(), 0, &count));
        EXPECT_EQ(contents.size(), count);
        close();
        return contents;
    }
};

TEST_F(CrashTest, KeepsEveryAcknowledgedTransactionWholeAndNothingElse) {
    if (!TempDir::onFiles()) GTEST_SKIP() << "mere memory dies with its process";
    const uint32_t seed = testSeed();
    std::mt19937 random(seed);
    Contents expected;
    size_t acknowledged = 0;
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        const uint32_t workloadSeed = random();
        const size_t steps = random() % 60;
        int ends[2];
        ASSERT_EQ(0, ::pipe(ends));
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(ends[0]);
            writeForever(workloadSeed, ends[1]);
        }
        ::close(ends[1]);
        const size_t committed = killAfter(child, ends[0], steps);
        ::close(ends[0]);
        acknowledged += committed;

        Workload workload(workloadSeed);
        const auto nextCommitted = [&workload] {
            Batch batch = workload.next();
            while (batch.abort) batch = workload.next();
            return batch;
        };
        for (size_t i = 0; i < committed; ++i) nextCommitted().applyTo(expected);
        const Contents found = readAll();
        if (found != expected) {
            // The last transaction may have been committed without a word.
            nextCommitted().applyTo(expected);
            ASSERT_TRUE(found == expected) << "seed " << seed;
        }
    }
    EXPECT_GT(acknowledged, size_t{kRounds}) << "the writers hardly got to commit";
}

}  // namespace
}  // namespace quillmere
