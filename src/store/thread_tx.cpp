#include "store/thread_tx.h"

#include <exception>
#include <mutex>
#include <utility>

#include "core/checks.h"
#include "core/error.h"
#include "core/log.h"
#include "store/cursor.h"
#include "store/object_store.h"
#include "store/store_activity.h"

namespace quillmere {

ThreadTx::ThreadTx(ObjectStore& store, TxMode mode, const Entity* entity, bool existingRequired,
                   uint32_t flags)
    : store_(store),
      activity_(store.activity_),
      threadNumber_(threadNumber()),
      write_(mode == TxMode::Write) {
    entry_ = store_.threadTxEntry();
    if (entry_) {
        join(mode);
    } else {
        begin(mode, existingRequired, flags);
    }
    if (!entity) return;
    try {
        cursor_ = entry_->tx->createCursor(entity);
    } catch (...) {
        close(false);
        throw;
    }
}

ThreadTx::~ThreadTx() {
    try {
        close(false);
    } catch (const std::exception& e) {
        logLine("%s [ERROR] Exception during rtx abort: %s\n", logTimestamp(), e.what());
    }
}

void ThreadTx::join(TxMode mode) {
    const Transaction& tx = *entry_->tx;
    if (mode == TxMode::Write && tx.readOnly()) {
        throwIllegalState("Cannot start a write transaction inside a read only transaction");
    }
    tx.requireActive();
}

// Only this thread uses its place in the table, so the lock is not held while a writer waits.
void ThreadTx::begin(TxMode mode, bool existingRequired, uint32_t flags) {
    if (existingRequired) throwIllegalState("An existing transaction is required");
    auto entry = std::make_shared<ThreadTxEntry>();
    entry->tx = store_.beginTx(mode, flags);
    {
        const std::lock_guard lock(store_.threadTxsMutex_);
        store_.threadTxs_[threadNumber_] = entry;
    }
    entry_ = std::move(entry);
    isOwner_ = inTable_ = true;
}

void ThreadTx::leaveTable() noexcept {
    if (!std::exchange(inTable_, false) || activity_->storeClosed.load()) return;
    const std::lock_guard lock(store_.threadTxsMutex_);
    store_.threadTxs_.erase(threadNumber_);
}

void ThreadTx::markSuccess() {
    if (!write_) {
        close(false);
        throwIllegalState("Cannot set success on a non-write TX");
    }
    success_ = true;
    try {
        Transaction& shared = tx();
        shared.requireActive();  // another handle may have aborted it
        if (isOwner_) {
            // Listeners on this thread may begin transactions of their own, or drop the store.
            leaveTable();
            shared.commit();
        }
    } catch (...) {
        close(true);
        throw;
    }
    close(true);
}

void ThreadTx::abort() {
    CHECK_STATE_TEXT_AT(164, shared(), "abort", "tx_");
    shared()->abort();
}

void ThreadTx::close(bool rethrow) {
    if (std::exchange(closed_, true)) return;
    cursor_.reset();
    const std::shared_ptr<ThreadTxEntry> entry = std::exchange(entry_, nullptr);
    if (!entry) return;
    if (isOwner_) {
        leaveTable();
        entry->tx.reset();  // nested handles find it gone; an active transaction aborts
    } else if (write_ && !success_ && entry->tx) {
        abortShared(*entry->tx, rethrow);
    }
}

void ThreadTx::abortShared(Transaction& tx, bool rethrow) {
    try {
        tx.abort();
    } catch (const std::exception& e) {
        logLine("%s [ERROR] Exception during rtx abort: %s\n", logTimestamp(), e.what());
        if (rethrow) throw;
    } catch (...) {
        logLine("%s [ERROR] Unknown exception during rtx abort\n", logTimestamp());
        if (rethrow) throw;
    }
}

std::unique_ptr<Cursor> ThreadTx::createCursor(const Entity& entity) {
    CHECK_STATE_TEXT_AT(174, shared(), "createCursor", "tx_");
    return shared()->createCursor(&entity);
}

Cursor& ThreadTx::cursor() {
    CHECK_STATE_AT(169, cursor_);
    return *cursor_;
}

ObjectStore& ThreadTx::store() const {
    if (activity_->storeClosed.load()) throwWith<StoreClosedException>("Store is already closed");
    return store_;
}

Transaction& ThreadTx::tx() {
    CHECK_STATE_TEXT_AT(137, shared(), "tx", "tx_");
    return *shared();
}

}  // namespace quillmere
