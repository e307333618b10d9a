#include "raw_lmdb.h"

#include <filesystem>
#include <stdexcept>

namespace bench {

void checkLmdb(int result) {
    if (result != 0) throw std::runtime_error(std::string("LMDB: ") + mdb_strerror(result));
}

Environment::Environment(const std::string& directory, uint64_t maxSizeInKb) {
    std::filesystem::create_directories(directory);
    checkLmdb(mdb_env_create(&env_));
    try {
        checkLmdb(mdb_env_set_mapsize(env_, maxSizeInKb * 1024));
        checkLmdb(mdb_env_open(env_, directory.c_str(), 0, 0644));
        MDB_txn* txn;
        checkLmdb(mdb_txn_begin(env_, nullptr, 0, &txn));
        checkLmdb(mdb_dbi_open(txn, nullptr, MDB_CREATE, &dbi_));
        checkLmdb(mdb_txn_commit(txn));
    } catch (...) {
        mdb_env_close(env_);
        throw;
    }
}

LmdbWork::LmdbWork(const Environment& environment, unsigned flags) {
    checkLmdb(mdb_txn_begin(environment.env(), nullptr, flags, &txn_));
    checkLmdb(mdb_cursor_open(txn_, environment.dbi(), &cursor_));
}

LmdbWork::~LmdbWork() {
    if (!txn_) return;
    mdb_cursor_close(cursor_);
    mdb_txn_abort(txn_);
}

void LmdbWork::commit() {
    mdb_cursor_close(cursor_);
    MDB_txn* txn = txn_;
    txn_ = nullptr;
    checkLmdb(mdb_txn_commit(txn));
}

}  // namespace bench
