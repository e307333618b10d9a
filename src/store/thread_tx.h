#pragma once

// A handle on the one transaction that a thread shares per store: the first handle owns it, nested
// ones join it.

#include <cstdint>
#include <memory>

#include "store/transaction.h"

namespace quillmere {

class Cursor;
class Entity;
class ObjectStore;
struct StoreActivity;

// The transaction that the handles of a thread share. It goes with its owner handle; nested handles
// that outlive the owner find it gone.
struct ThreadTxEntry {
    std::unique_ptr<Transaction> tx;
};

// Used on the thread that made it. A write handle that closes without markSuccess() aborts: the
// owner by destroying the transaction, a nested one by aborting the shared transaction, after which
// the owner's success fails. Destruction closes without throwing.
class ThreadTx {
public:
    // `entity` may be null; with one, cursor() is a registered cursor on it. Fails if the shared
    // transaction has ended already.
    ThreadTx(ObjectStore& store, TxMode mode, const Entity* entity = nullptr,
             bool existingRequired = false, uint32_t flags = 0);
    ~ThreadTx();
    ThreadTx(const ThreadTx&) = delete;
    ThreadTx& operator=(const ThreadTx&) = delete;

    // Commits if this handle owns the transaction, then closes. A failure closes too, and throws.
    void markSuccess();
    void abort();
    // Runs once. With `rethrow` a failing abort throws, else it is only logged.
    void close(bool rethrow);

    // Each throws IllegalStateException once the handle has closed or its transaction is gone.
    std::unique_ptr<Cursor> createCursor(const Entity& entity);
    Cursor& cursor();
    Transaction& tx();

    // Throws StoreClosedException if the store gave up waiting for this transaction and has gone.
    ObjectStore& store() const;
    bool isOwner() const { return isOwner_; }

private:
    void join(TxMode mode);
    void begin(TxMode mode, bool existingRequired, uint32_t flags);
    // From here on the thread's next handle begins a transaction of its own.
    void leaveTable() noexcept;
    static void abortShared(Transaction& tx, bool rethrow);
    Transaction* shared() const { return entry_ ? entry_->tx.get() : nullptr; }

    ObjectStore& store_;
    const std::shared_ptr<StoreActivity> activity_;  // tells whether the store is still there
    std::shared_ptr<ThreadTxEntry> entry_;  // shared with nested handles; empty once closed
    std::unique_ptr<Cursor> cursor_;
    const int32_t threadNumber_;
    const bool write_;
    bool isOwner_ = false;
    bool inTable_ = false;  // this handle's entry stands in the store's table
    bool success_ = false;
    bool closed_ = false;
};

}  // namespace quillmere
