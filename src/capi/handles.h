#pragma once

// The records behind the handles of stores, transactions, cursors, kists and observers. Each lives
// on the heap and belongs to the caller, a QMR_kist to its QMR_store.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "core/bytes.h"
#include "core/error.h"
#include "core/hash.h"
#include "quillmere/quillmere.h"
#include "store/cursor.h"
#include "store/kist.h"
#include "store/object_store.h"
#include "store/thread_tx.h"

struct QMR_kist {
    QMR_store* store;
    quillmere::Kist& kist;
};

// Several records may share one ObjectStore; the last one to go closes it.
struct QMR_store {
    explicit QMR_store(std::shared_ptr<quillmere::ObjectStore> owned)
        : shared(std::move(owned)), store(shared.get()) {}
    explicit QMR_store(quillmere::ObjectStore& borrowed) : store(&borrowed) {}

    std::shared_ptr<quillmere::ObjectStore> shared;  // empty in a record that only borrows
    quillmere::ObjectStore* store;
    std::mutex kistsMutex;
    // By entity ID, filled on demand, guarded by kistsMutex.
    std::unordered_map<uint32_t, QMR_kist, quillmere::FnvHash<uint32_t>> kists;
};

struct QMR_weak_store {
    std::weak_ptr<quillmere::ObjectStore> store;
};

struct QMR_txn {
    QMR_txn(quillmere::ObjectStore& store, quillmere::TxMode mode) : tx(store, mode) {}

    quillmere::ThreadTx tx;
};

struct QMR_cursor {
    std::unique_ptr<quillmere::Cursor> cursor;
    quillmere::Bytes object;  // the last one read
};

struct QMR_observer {
    QMR_store* store;
    std::atomic<uint64_t> listenerId{0};
};

namespace quillmere {

// The transaction of a cursor. Throws IllegalStateException once it is closed, and
// StoreClosedException once the store is.
inline Transaction& liveTx(const QMR_cursor& cursor) {
    cursor.cursor->requireStorage();
    if (!cursor.cursor->txAlive()) throwIllegalState("Transaction of the cursor is closed");
    return cursor.cursor->tx();
}

// A new record on the store, or null for an empty pointer.
inline QMR_store* makeStoreRecord(std::shared_ptr<ObjectStore> store) {
    return store ? new QMR_store(std::move(store)) : nullptr;
}

}  // namespace quillmere
