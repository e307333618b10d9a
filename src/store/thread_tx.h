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

// The thread's entry in the store's table. Owned by the owner handle.
struct ThreadTxEntry;

// Used on the thread that made it. A write handle that closes without markSuccess() aborts: the
// owner by destroying the transaction, a nested one by aborting the shared transaction, after which
// the owner's success fails. Destruction closes without throwing.
class ThreadTx {
public:
    // `entity` may be null; with one, cursor() is a registered cursor on it.
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

    ObjectStore& store() const { return store_; }
    bool isOwner() const { return isOwner_; }

private:
    ObjectStore& store_;
    std::shared_ptr<ThreadTxEntry> entry_;  // shared with nested handles
    std::unique_ptr<Cursor> cursor_;
    const int32_t threadNumber_;
    const bool write_;
    bool isOwner_ = false;
    bool success_ = false;
    bool closed_ = false;
};

}  // namespace quillmere
