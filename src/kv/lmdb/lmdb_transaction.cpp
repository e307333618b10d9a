#include "kv/lmdb/lmdb_transaction.h"

#include <exception>
#include <utility>

#include "core/checks.h"
#include "core/error.h"
#include "core/log.h"
#include "kv/lmdb/lmdb_cursor.h"
#include "kv/lmdb/lmdb_store.h"

namespace quillmere {

LmdbTransaction::LmdbTransaction(LmdbStore& store, bool readOnly)
    : DbTransaction(readOnly), store_(store) {}

LmdbTransaction::~LmdbTransaction() {
    try {
        abort();
    } catch (const std::exception& e) {
        logLine("%s [ERROR] Error during destruction of LMDB transaction: %s\n", logTimestamp(),
                e.what());
    } catch (...) {
        logLine("%s [ERROR] Error during destruction of LMDB transaction\n", logTimestamp());
    }
}

DbStore& LmdbTransaction::store() {
    return store_;
}

void LmdbTransaction::begin() {
    CHECK_STATE_HERE(!tx_);
    const int result = mdb_txn_begin(store_.env(), nullptr, readOnly() ? MDB_RDONLY : 0, &tx_);
    store_.errors().check(result, readOnly() ? "Could not begin read transaction"
                                             : "Could not begin write transaction");
}

void LmdbTransaction::commit() {
    CHECK_STATE_HERE(tx_);
    releaseCursors();
    const int result = mdb_txn_commit(std::exchange(tx_, nullptr));
    store_.errors().check(result, "Could not commit tx");
}

void LmdbTransaction::abort() {
    if (!tx_) return;
    releaseCursors();
    mdb_txn_abort(std::exchange(tx_, nullptr));
}

void LmdbTransaction::resetReadOnly() {
    checkReadOnlyInProgress(__func__);
    mdb_txn_reset(tx_);
    store_.errors().check(mdb_txn_renew(tx_), "Could not renew tx for resetReadOnly");
}

void LmdbTransaction::recycleReadOnlyForRenew() {
    checkReadOnlyInProgress(__func__);
    mdb_txn_reset(tx_);
}

void LmdbTransaction::renewReadOnly() {
    checkReadOnlyInProgress(__func__);
    store_.errors().check(mdb_txn_renew(tx_), "Could not renew tx");
}

std::shared_ptr<DbCursor> LmdbTransaction::createDbCursor() {
    if (!tx_) throwIllegalState("Cannot create cursor; transaction was already released");
    auto cursor = std::make_shared<LmdbCursor>(*this);
    registerCursor(cursor);
    return cursor;
}

MDB_txn* LmdbTransaction::handle() const {
    CHECK_STATE_HERE(tx_);
    return tx_;
}

void LmdbTransaction::checkReadOnlyInProgress(const char* function) const {
    CHECK_STATE_TEXT_AT(__LINE__, tx_, function, "tx_");
    CHECK_STATE_TEXT_AT(__LINE__, readOnly(), function, "readOnly_");
}

}  // namespace quillmere
