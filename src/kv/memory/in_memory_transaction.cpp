#include "kv/memory/in_memory_transaction.h"

#include <exception>
#include <utility>

#include "core/checks.h"
#include "core/error.h"
#include "core/log.h"
#include "kv/memory/in_memory_cursor.h"
#include "kv/memory/in_memory_data.h"
#include "kv/memory/in_memory_store.h"
#include "kv/memory/wal_storage.h"

namespace quillmere {

InMemoryTransaction::InMemoryTransaction(InMemoryStore& store, bool readOnly, uint32_t flags)
    : DbTransaction(readOnly),
      store_(store),
      wal_(readOnly || (flags & kTxNoWal) ? nullptr : store.wal()) {}

InMemoryTransaction::~InMemoryTransaction() {
    try {
        abort();
    } catch (const std::exception& e) {
        logLine("%s [ERROR] Error during destruction of in-memory transaction: %s\n",
                logTimestamp(), e.what());
    } catch (...) {
        logLine("%s [ERROR] Error during destruction of in-memory transaction\n", logTimestamp());
    }
}

DbStore& InMemoryTransaction::store() {
    return store_;
}

uint64_t InMemoryTransaction::sizeLimit() const {
    return readOnly() ? 0 : store_.maxSizeInBytes();
}

void InMemoryTransaction::begin() {
    CHECK_STATE_TEXT_AT(34, !data_, "begin", "data_.isNull()");
    std::shared_ptr<InMemoryData> current = store_.currentData();
    CHECK_STATE_TEXT_AT(36, current->sealed(), "begin", "data_->isSealed()");
    if (!readOnly()) {
        current = current->clone();
        if (wal_) wal_->beginTx();
    }
    data_ = std::move(current);
    cleared_ = logFailed_ = false;
}

void InMemoryTransaction::commit() {
    CHECK_STATE_TEXT_AT(41, !readOnly(), "commit", "!readOnly_");
    CHECK_STATE_HERE(data_);
    releaseCursors();
    data_->seal();
    std::exception_ptr snapshotFailure;
    try {
        if (wal_) snapshotFailure = writeLog();
        store_.commit(data_);
    } catch (...) {
        abort();
        throw;
    }
    releaseCursors();  // one that a failed snapshot left
    data_.reset();
    if (snapshotFailure) std::rethrow_exception(snapshotFailure);
}

// Gives the failure of a snapshot that was due, as the record is written by then. A log cannot tell
// that all data was cleared: then the snapshot takes the place of the record.
std::exception_ptr InMemoryTransaction::writeLog() {
    if (logFailed_) throwIllegalState("Cannot commit as a change could not be logged");
    if (cleared_) {
        wal_->abortTx();
        wal_->takeSnapshot(*this);
        return nullptr;
    }
    wal_->commitTx();
    try {
        if (wal_->snapshotDue()) wal_->takeSnapshot(*this);
    } catch (...) {
        return std::current_exception();
    }
    return nullptr;
}

void InMemoryTransaction::abort() {
    if (!data_) return;
    releaseCursors();
    data_.reset();
    if (wal_) wal_->abortTx();
}

void InMemoryTransaction::renewReadOnly() {
    CHECK_STATE_TEXT_AT(60, readOnly(), "renewReadOnly", "readOnly_");
    data_ = store_.currentData();
}

std::shared_ptr<DbCursor> InMemoryTransaction::createDbCursor() {
    if (!data_) throwIllegalState("Cannot create cursor; transaction was already released");
    auto cursor = std::make_shared<InMemoryCursor>(*this);
    registerCursor(cursor);
    return cursor;
}

void InMemoryTransaction::clear() {
    CHECK_STATE_HERE(data_);
    data_->clear();
    cleared_ = true;
}

}  // namespace quillmere
