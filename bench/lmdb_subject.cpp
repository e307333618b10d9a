// Raw LMDB as a careful user of it would write the same loops: one cursor, keys in a buffer on the
// stack, no flags beyond those that Quillmere sets, the same keys and the same values.

#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>

#include "dataset.h"
#include "measure.h"
#include "raw_lmdb.h"
#include "subject.h"

namespace bench {

namespace {

void putOne(MDB_cursor* cursor, ObjectKey& key, uint32_t id, Object object) {
    MDB_val value{object.size, object.data};
    checkLmdb(mdb_cursor_put(cursor, key.set(id), &value, 0));
}

class LmdbSubject : public Subject {
public:
    LmdbSubject(std::string directory, uint64_t maxSizeInKb)
        : directory_(std::move(directory)), maxSizeInKb_(maxSizeInKb) {}
    ~LmdbSubject() override {
        environment_.reset();
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }

    std::string name() const override { return "raw LMDB"; }

    // LMDB commits durably with its default flags.
    void reset(bool) override {
        environment_.reset();
        std::filesystem::remove_all(directory_);
        environment_ = std::make_unique<Environment>(directory_, maxSizeInKb_);
    }

    void put(Dataset& data, uint32_t count, uint32_t batchSize) override {
        ObjectKey key(1);
        for (uint32_t id = 1; id <= count;) {
            LmdbWork work(*environment_, 0);
            for (uint32_t i = 0; i < batchSize && id <= count; ++i, ++id) {
                putOne(work.cursor(), key, id, data.object(id));
            }
            work.commit();
        }
    }

    uint64_t getAll(Dataset& data) override {
        LmdbWork work(*environment_, MDB_RDONLY);
        ObjectKey key(1);
        MDB_val value;
        uint64_t sum = 0;
        for (const uint32_t id : data.randomOrder()) {
            checkLmdb(mdb_cursor_get(work.cursor(), key.set(id), &value, MDB_SET));
            sum += sumOfWords(value.mv_data, value.mv_size);
        }
        return sum;
    }

    uint64_t walk() override {
        LmdbWork work(*environment_, MDB_RDONLY);
        MDB_val key, value;
        uint64_t sum = 0;
        int result = mdb_cursor_get(work.cursor(), &key, &value, MDB_FIRST);
        for (; result == 0; result = mdb_cursor_get(work.cursor(), &key, &value, MDB_NEXT)) {
            sum += sumOfTwoFields(value.mv_data);
        }
        if (result != MDB_NOTFOUND) checkLmdb(result);
        return sum;
    }

    void updateAll(Dataset& data) override {
        LmdbWork work(*environment_, 0);
        ObjectKey key(1);
        for (const uint32_t id : data.randomOrder()) {
            putOne(work.cursor(), key, id, data.object(id));
        }
        work.commit();
    }

    void removeAll(Dataset& data) override {
        LmdbWork work(*environment_, 0);
        ObjectKey key(1);
        MDB_val value;
        for (const uint32_t id : data.randomOrder()) {
            checkLmdb(mdb_cursor_get(work.cursor(), key.set(id), &value, MDB_SET));
            checkLmdb(mdb_cursor_del(work.cursor(), 0));
        }
        work.commit();
    }

    uint64_t sizeOnDisk() override {
        struct stat status{};
        mdb_filehandle_t file;
        checkLmdb(mdb_env_get_fd(environment_->env(), &file));
        if (fstat(file, &status) != 0) throw std::runtime_error("LMDB: cannot stat the data file");
        return static_cast<uint64_t>(status.st_size);
    }

private:
    const std::string directory_;
    const uint64_t maxSizeInKb_;
    std::unique_ptr<Environment> environment_;
};

}  // namespace

std::unique_ptr<Subject> makeLmdbSubject(const std::string& directory, uint64_t maxSizeInKb) {
    return std::make_unique<LmdbSubject>(directory, maxSizeInKb);
}

AllocationCounts countLmdbAllocations(const std::string& directory, Dataset& data) {
    AllocationCounts counts;
    Environment environment(directory, 1024 * 1024);
    ObjectKey key(1);
    const uint32_t warm = data.count() - kAllocationSample;
    {
        LmdbWork work(environment, 0);
        const auto put = [&](uint32_t id) { putOne(work.cursor(), key, id, data.object(id)); };
        for (uint32_t id = 1; id <= warm; ++id) put(id);
        counts.insert = allocationsOf(warm + 1, data.count(), put);
        counts.update = allocationsOf(warm + 1, data.count(), put);
        work.commit();
    }
    LmdbWork work(environment, MDB_RDONLY);
    MDB_val value;
    const auto get = [&](uint32_t id) {
        checkLmdb(mdb_cursor_get(work.cursor(), key.set(id), &value, MDB_SET));
    };
    for (uint32_t id = 1; id <= warm; ++id) get(id);
    counts.get = allocationsOf(warm + 1, data.count(), get);

    MDB_val stepKey;
    const auto step = [&](uint32_t) {
        checkLmdb(mdb_cursor_get(work.cursor(), &stepKey, &value, MDB_NEXT));
    };
    checkLmdb(mdb_cursor_get(work.cursor(), &stepKey, &value, MDB_FIRST));
    counts.step = allocationsOf(2, warm, step);
    return counts;
}

void openEmptyLmdb(const std::string& directory, void (*opened)()) {
    Environment environment(directory, 1024 * 1024);
    opened();
}

}  // namespace bench
