#pragma once

// What every loop over raw LMDB needs: an open environment, a transaction with a cursor, keys.

#include <lmdb.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace bench {

void checkLmdb(int result);

// An environment with LMDB's default flags and its unnamed database. Made in `directory`.
class Environment {
public:
    Environment(const std::string& directory, uint64_t maxSizeInKb);
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
class LmdbWork {
public:
    LmdbWork(const Environment& environment, unsigned flags);
    ~LmdbWork();
    LmdbWork(const LmdbWork&) = delete;
    LmdbWork& operator=(const LmdbWork&) = delete;

    void commit();
    MDB_cursor* cursor() const { return cursor_; }
    MDB_txn* txn() const { return txn_; }

private:
    MDB_txn* txn_ = nullptr;
    MDB_cursor* cursor_ = nullptr;
};

// The first four bytes of Quillmere's keys, by the type of the partition.
constexpr uint32_t kObjectType = 6, kIndexType = 8;
constexpr uint32_t keyPrefix(uint32_t type, uint32_t id) { return ((type << 24) | id) << 2; }

inline void storeBig(uint8_t* to, uint32_t number) {
    number = __builtin_bswap32(number);
    __builtin_memcpy(to, &number, sizeof number);
}
inline uint32_t loadBig(const void* from) {
    uint32_t number;
    __builtin_memcpy(&number, from, sizeof number);
    return __builtin_bswap32(number);
}

// Quillmere's key of an object: the prefix of its entity, then the ID.
class ObjectKey {
public:
    explicit ObjectKey(uint32_t entity) { storeBig(bytes_, keyPrefix(kObjectType, entity)); }

    MDB_val* set(uint32_t id) {
        storeBig(bytes_ + 4, id);
        val_ = {sizeof bytes_, bytes_};
        return &val_;
    }

private:
    uint8_t bytes_[8];
    MDB_val val_;
};

}  // namespace bench
