// Raw LMDB as a careful user of it would write the same loops: one cursor, keys in a buffer on the
// stack, no flags beyond those that Quillmere sets, the same keys and the same values.

#include <lmdb.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "dataset.h"
#include "measure.h"
#include "subject.h"

namespace bench {

namespace {

void check(int result) {
    if (result != 0) throw std::runtime_error(std::string("LMDB: ") + mdb_strerror(result));
}

// Quillmere's key of an object: partition type 6 and entity 1 in four bytes, then the ID.
class Key {
public:
    MDB_val* set(uint32_t id) {
        const uint32_t prefix = ((6u << 24) | 1u) << 2;
        store(bytes_, prefix);
        store(bytes_ + 4, id);
        val_ = {sizeof bytes_, bytes_};
        return &val_;
    }

private:
    static void store(uint8_t* to, uint32_t number) {
        number = __builtin_bswap32(number);
        std::memcpy(to, &number, sizeof number);
    }

    uint8_t bytes_[8];
    MDB_val val_;
};

class Environment {
public:
    Environment(const std::string& directory, uint64_t maxSizeInKb) {
        std::filesystem::create_directories(directory);
        check(mdb_env_create(&env_));
        try {
            check(mdb_env_set_mapsize(env_, maxSizeInKb * 1024));
            check(mdb_env_open(env_, directory.c_str(), 0, 0644));
            MDB_txn* txn;
            check(mdb_txn_begin(env_, nullptr, 0, &txn));
            check(mdb_dbi_open(txn, nullptr, MDB_CREATE, &dbi_));
            check(mdb_txn_commit(txn));
        } catch (...) {
            mdb_env_close(env_);
            throw;
        }
    }
    ~Environment() { mdb_env_close(env_); }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

    MDB_env* env() const { return env_; }
    MDB_dbi dbi() const { return dbi_; }

private:
    MDB_env* env_ = nullptr;
    MDB_dbi dbi_ = 0;
};

// A transaction with a cursor; ends without effect unless committed.
class Work {
public:
    Work(const Environment& environment, unsigned flags) {
        check(mdb_txn_begin(environment.env(), nullptr, flags, &txn_));
        check(mdb_cursor_open(txn_, environment.dbi(), &cursor_));
    }
    ~Work() {
        if (!txn_) return;
        mdb_cursor_close(cursor_);
        mdb_txn_abort(txn_);
    }
    Work(const Work&) = delete;
    Work& operator=(const Work&) = delete;

    void commit() {
        mdb_cursor_close(cursor_);
        MDB_txn* txn = txn_;
        txn_ = nullptr;
        check(mdb_txn_commit(txn));
    }
    MDB_cursor* cursor() const { return cursor_; }

private:
    MDB_txn* txn_ = nullptr;
    MDB_cursor* cursor_ = nullptr;
};

void putOne(MDB_cursor* cursor, Key& key, uint32_t id, Object object) {
    MDB_val value{object.size, object.data};
    check(mdb_cursor_put(cursor, key.set(id), &value, 0));
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
        Key key;
        for (uint32_t id = 1; id <= count;) {
            Work work(*environment_, 0);
            for (uint32_t i = 0; i < batchSize && id <= count; ++i, ++id) {
                putOne(work.cursor(), key, id, data.object(id));
            }
            work.commit();
        }
    }

    uint64_t getAll(Dataset& data) override {
        Work work(*environment_, MDB_RDONLY);
        Key key;
        MDB_val value;
        uint64_t sum = 0;
        for (const uint32_t id : data.randomOrder()) {
            check(mdb_cursor_get(work.cursor(), key.set(id), &value, MDB_SET));
            sum += sumOfWords(value.mv_data, value.mv_size);
        }
        return sum;
    }

    uint64_t walk() override {
        Work work(*environment_, MDB_RDONLY);
        MDB_val key, value;
        uint64_t sum = 0;
        int result = mdb_cursor_get(work.cursor(), &key, &value, MDB_FIRST);
        for (; result == 0; result = mdb_cursor_get(work.cursor(), &key, &value, MDB_NEXT)) {
            sum += sumOfTwoFields(value.mv_data);
        }
        if (result != MDB_NOTFOUND) check(result);
        return sum;
    }

    void updateAll(Dataset& data) override {
        Work work(*environment_, 0);
        Key key;
        for (const uint32_t id : data.randomOrder()) {
            putOne(work.cursor(), key, id, data.object(id));
        }
        work.commit();
    }

    void removeAll(Dataset& data) override {
        Work work(*environment_, 0);
        Key key;
        MDB_val value;
        for (const uint32_t id : data.randomOrder()) {
            check(mdb_cursor_get(work.cursor(), key.set(id), &value, MDB_SET));
            check(mdb_cursor_del(work.cursor(), 0));
        }
        work.commit();
    }

    uint64_t sizeOnDisk() override {
        struct stat status{};
        mdb_filehandle_t file;
        check(mdb_env_get_fd(environment_->env(), &file));
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
    Key key;
    const uint32_t warm = data.count() - kAllocationSample;
    {
        Work work(environment, 0);
        const auto put = [&](uint32_t id) { putOne(work.cursor(), key, id, data.object(id)); };
        for (uint32_t id = 1; id <= warm; ++id) put(id);
        counts.insert = allocationsOf(warm + 1, data.count(), put);
        counts.update = allocationsOf(warm + 1, data.count(), put);
        work.commit();
    }
    Work work(environment, MDB_RDONLY);
    MDB_val value;
    const auto get = [&](uint32_t id) {
        check(mdb_cursor_get(work.cursor(), key.set(id), &value, MDB_SET));
    };
    for (uint32_t id = 1; id <= warm; ++id) get(id);
    counts.get = allocationsOf(warm + 1, data.count(), get);

    MDB_val stepKey;
    const auto step = [&](uint32_t) {
        check(mdb_cursor_get(work.cursor(), &stepKey, &value, MDB_NEXT));
    };
    check(mdb_cursor_get(work.cursor(), &stepKey, &value, MDB_FIRST));
    counts.step = allocationsOf(2, warm, step);
    return counts;
}

void openEmptyLmdb(const std::string& directory, void (*opened)()) {
    Environment environment(directory, 1024 * 1024);
    opened();
}

}  // namespace bench
