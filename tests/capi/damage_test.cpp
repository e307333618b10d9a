// A database file with flipped bits, opened and read through in child processes.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "capi/store_fixture.h"
#include "support/seed.h"

namespace quillmere {
namespace {

constexpr uint32_t kItem = 1;
constexpr uint32_t kText = 2;
constexpr uint32_t kCode = 3;   // indexed
constexpr uint32_t kOwner = 4;  // to-one
constexpr uint32_t kOwners = 1;  // relation
constexpr uint64_t kItems = 4000;
constexpr size_t kPageSize = 4096;
constexpr size_t kPageHeader = 16;
constexpr unsigned kFlips = 2400;
constexpr unsigned kFlipsPerChild = 200;

struct Flip {
    off_t offset;
    uint8_t bit;
};

// What the children tell, in memory that they share with the test.
struct Progress {
    std::atomic<unsigned> started;
    std::atomic<unsigned> refused;  // the store did not open
    std::atomic<unsigned> failed;   // it did, and reading ended in an error
};

class DamageTest : public StoreTest {
protected:
    static QMR_model* itemModel() {
        return TestModel()
            .entity("Item", kItem)
            .idProperty()
            .property("text", QMRPropertyType_String, kText)
            .indexed("code", QMRPropertyType_Int, kCode, 1)
            .toOne("owner", "Item", kOwner, 2)
            .relation(kOwners, kItem)
            .release();
    }

    void fill() {
        QMR_store_options* opt = options(false);
        qmr_opt_model(opt, itemModel());
        store_.reset(qmr_store_open(opt));
        ASSERT_TRUE(store_) << qmr_last_error_message();
        TxnPtr txn = write();
        {
            const CursorPtr cursor(qmr_cursor(txn.get(), kItem));
            for (uint64_t id = 1; id <= kItems; ++id) {
                const std::string text(id % 100 == 0 ? 9000 : id % 60, 't');
                ObjectBytes object = makeObject({{1, uint64_t{0}},
                                                 {kText, text},
                                                 {kCode, static_cast<int32_t>(id % 50)},
                                                 {kOwner, id / 2}});
                ASSERT_EQ(id, qmr_cursor_put_object(cursor.get(), object.data(), object.size()));
                if (id % 4 == 0) {
                    ASSERT_EQ(QMR_SUCCESS, qmr_cursor_rel_put(cursor.get(), kOwners, id, id / 4));
                }
            }
        }
        ASSERT_EQ(QMR_SUCCESS, qmr_txn_success(txn.release()));
        close();
    }

    // Offsets where a flip means something: headers, the array of node offsets, nodes, and values
    // of branch, leaf and overflow pages and of the meta pages in equal parts.
    std::vector<Flip> chooseFlips(std::mt19937& random) const {
        std::vector<uint8_t> bytes(static_cast<size_t>(::lseek(file_, 0, SEEK_END)));
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
                  ::pread(file_, bytes.data(), bytes.size(), 0));
        const auto word = [&](size_t at) { return uint16_t(bytes[at] | bytes[at + 1] << 8); };
        std::array<std::vector<size_t>, 4> kinds;  // by bit of the page's flags
        for (size_t page = 0; page < bytes.size(); page += kPageSize) {
            for (size_t kind = 0; kind < kinds.size(); ++kind) {
                if (word(page + 10) >> kind & 1) kinds[kind].push_back(page);
            }
        }
        std::vector<Flip> flips;
        for (unsigned i = 0; i < kFlips; ++i) {
            const auto& pages = kinds[i % kinds.size()];
            EXPECT_FALSE(pages.empty()) << "no page of kind " << i % kinds.size();
            const size_t page = pages[random() % pages.size()];
            const size_t slots = (word(page + 12) - kPageHeader) / 2;
            size_t at = random() % kPageSize;
            if (i % kinds.size() < 2 && random() % 4 != 0) {
                const size_t slot = page + kPageHeader + random() % slots * 2;
                const std::array<size_t, 3> places = {random() % kPageHeader,
                                                      slot - page + random() % 2,
                                                      size_t{word(slot)} + random() % 24};
                at = places[random() % places.size()];
            } else if (random() % 2 == 0) {
                at = random() % 160;  // all that a meta page has
            }
            flips.push_back({static_cast<off_t>(page + at % kPageSize),
                             static_cast<uint8_t>(1 << random() % 8)});
        }
        return flips;
    }

    void flip(const Flip& flip) const {
        uint8_t byte = 0;
        if (::pread(file_, &byte, 1, flip.offset) != 1) _exit(3);
        byte ^= flip.bit;
        if (::pwrite(file_, &byte, 1, flip.offset) != 1) _exit(3);
    }

    void openAndRead(unsigned round) {
        QMR_store_options* opt = options(false);
        qmr_opt_read_only(opt, true);
        if (round % 3 == 1) qmr_opt_validate_on_open_pages(opt, ~uint64_t{0}, 1);
        if (round % 3 == 2) qmr_opt_validate_on_open_kv(opt);
        store_.reset(qmr_store_open(opt));
        if (!store_) {
            if (qmr_last_error_code() == QMR_SUCCESS) _exit(4);
            ++progress_->refused;
            return;
        }
        if (!readAll()) ++progress_->failed;
        close();
    }

    // Every way into the data once. False after an error, which a read without a transaction has.
    bool readAll() {
        const TxnPtr txn = read();
        if (!txn) return false;
        const CursorPtr cursor(qmr_cursor(txn.get(), kItem));
        if (!cursor) return false;
        const void* data = nullptr;
        size_t size = 0;
        unsigned sum = 0;
        const auto touch = [&] {
            for (size_t i = 0; i < size; ++i) sum += static_cast<const uint8_t*>(data)[i];
        };
        bool sound = true;
        const auto note = [&sound](qmr_err code) {
            sound &= code == QMR_SUCCESS || code == QMR_NOT_FOUND;
            return code == QMR_SUCCESS;
        };
        bool found = note(qmr_cursor_first(cursor.get(), &data, &size));
        for (uint64_t steps = 0; found; ++steps) {
            if (steps > 100 * kItems) _exit(5);
            touch();
            found = note(qmr_cursor_next(cursor.get(), &data, &size));
        }
        for (uint64_t id = 1; id <= kItems; id += 7) {
            if (note(qmr_cursor_get(cursor.get(), id, &data, &size))) touch();
        }
        sound &= IdArrayPtr(qmr_cursor_rel_ids(cursor.get(), kOwners, 400)) != nullptr;
        sound &= IdArrayPtr(qmr_cursor_backlink_ids(cursor.get(), kItem, kOwner, 7)) != nullptr;
        return runQueries() && sound && sum != 0;
    }

    bool runQueries() {
        const BuilderPtr builder(qmr_query_builder(store_.get(), kItem));
        if (!builder) return false;
        qmr_qb_equals_int(builder.get(), kCode, 7);
        const QueryPtr byIndex(qmr_query(builder.get()));
        const BuilderPtr scanned(qmr_query_builder(store_.get(), kItem));
        qmr_qb_contains_string(scanned.get(), kText, "ttt", false);
        const QueryPtr byScan(qmr_query(scanned.get()));
        if (!byIndex || !byScan) return false;
        uint64_t count = 0;
        return BytesArrayPtr(qmr_query_find(byIndex.get())) != nullptr &&
               qmr_query_count(byScan.get(), &count) == QMR_SUCCESS;
    }

    int file_ = -1;
    Progress* progress_ = nullptr;
};

TEST_F(DamageTest, EndsInAnErrorOrInDataButNeverInASignalOrALoop) {
    if (!TempDir::onLmdb()) GTEST_SKIP() << "pages are of LMDB";
    fill();
    std::mt19937 random(testSeed());
    file_ = ::open((dir_.path() + "/data.mdb").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(file_, 0);
    progress_ = static_cast<Progress*>(::mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE,
                                              MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(MAP_FAILED, progress_);
    const std::vector<Flip> flips = chooseFlips(random);
    unsigned done = 0;
    while (done < kFlips && !HasFailure()) {
        progress_->started = done;
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::alarm(120);
            for (unsigned i = done; i < done + kFlipsPerChild; ++i) {
                progress_->started = i;
                flip(flips[i]);
                openAndRead(i);
                flip(flips[i]);
            }
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(child, ::waitpid(child, &status, 0));
        const Flip& last = flips[progress_->started];
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "status " << status << " after flip " << progress_->started << " of bit "
            << int{last.bit} << " at " << last.offset;
        done += kFlipsPerChild;
    }
    // Damage is found where there is one to find, and not everywhere.
    std::cout << progress_->refused << " refused, " << progress_->failed << " failed" << std::endl;
    EXPECT_GT(progress_->refused, kFlips / 20);
    EXPECT_LT(progress_->refused + progress_->failed, kFlips);
    ::munmap(progress_, sizeof(Progress));
    ::close(file_);
}

}  // namespace
}  // namespace quillmere
