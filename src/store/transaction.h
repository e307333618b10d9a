#pragma once

// A transaction of the object layer: a storage transaction with a number, the store's write lock,
// the list of changed entities and the account of the data size.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kv/tx_context.h"

namespace quillmere {

class Cursor;
class DbCursor;
class Entity;
class NumberLock;
class ObjectStore;
class PartitionCursor;
struct StoreActivity;

enum class TxMode : int32_t { Read = 0, Write = 1 };

// Made by ObjectStore::beginTx. Belongs to the thread that created it for commit and cursors; abort
// and destruction may come from others. Destruction of an active transaction aborts it and never
// throws. The store must outlive it (a closing store waits for it).
class Transaction : public TxContext {
public:
    Transaction(ObjectStore& store, std::unique_ptr<DbTransaction> dbTx, TxMode mode,
                uint32_t flags, uint64_t baseNumber);
    ~Transaction();

    // Gives the changed entities to `outAffected`. On a failure before the engine's commit the
    // transaction stays active; a failed commit of the engine ends it. A failing listener throws
    // although the data is committed.
    void commit(std::vector<uint32_t>* outAffected = nullptr);
    // No-op on an inactive transaction.
    void abort();
    // Read transactions: keep the reader slot without a snapshot, and come back on the newest one.
    void recycle();
    void renew();
    // A new snapshot, or a write transaction begun anew under the same number.
    void reset();

    // The cursor must be destroyed before or with the transaction's end; the caller owns it.
    // `registered` cursors hear of commit, abort and destruction.
    std::unique_ptr<Cursor> createCursor(const Entity* entity, bool registered = true);
    // A cursor without an entity, on the partition of the prefix.
    std::unique_ptr<Cursor> createKeyValueCursor(uint32_t prefix);
    std::shared_ptr<DbCursor> createDbCursor();

    void entityAffected(uint32_t entityId);
    void addDataSizeChange(int64_t change) { dataSizeChange_ += change; }
    int64_t dataSizeChange() const { return dataSizeChange_; }
    // All data was dropped within this transaction, the stored total included.
    void dataDropped();
    // The stored total at the start of the transaction, in bytes.
    uint64_t getDataSize();
    int64_t remainingDataSize();
    bool hasCursors();
    // True only for a read transaction on the newest commit; then gives its base number.
    bool isLatest(uint64_t& outBase) const;
    // "TX #7 (write, active)"
    std::string describe() const;

    ObjectStore& store() const { return store_; }
    uint64_t baseNumber() const { return baseNumber_; }
    bool active() const { return active_; }
    void requireActive() const;
    bool isOwnerThread() const;
    bool recycled() const { return recycled_; }
    bool skipSyncCheck() const { return skipSyncCheck_; }
    bool trackDataSize() const { return trackDataSize_; }
    // Set while a change that has to finish is under way; commit refuses then. Gives the former
    // value.
    bool setSilentChanges(bool value) { return std::exchange(silentChanges_, value); }

    // For a closing cursor: see Cursor's destructor for the order of the two mutexes.
    std::mutex& cursorsMutex() { return cursorsMutex_; }
    void removeCursorLocked(Cursor* cursor) noexcept;  // under cursorsMutex()

private:
    void sampleBase();
    void requireOpenStore() const;
    void requireStorage() const;
    void beginWrite();
    void waitForWriteLock(uint64_t holder);
    // Gives another holder that was found instead, which means that the lock was not released.
    uint64_t unlockWriteLock() noexcept;
    void releaseWriteLock();
    [[noreturn]] void throwIllegalWriter(uint64_t holder) const;
    void requireCommittable();
    void accountDataSize();
    void commitDbTransaction();
    void publishCommit() noexcept;
    void fireListeners();
    PartitionCursor& sizeCursor();
    void forgetDataSize();
    void abortInternal();
    void renewForDestruction() noexcept;
    void detachCursors() noexcept;
    void endOnDestruction();
    void tellCursorsEnded() noexcept;
    std::unique_ptr<Cursor> addCursor(std::unique_ptr<Cursor> cursor, bool registered);

    ObjectStore& store_;
    const std::shared_ptr<StoreActivity> activity_;
    NumberLock& writeLock_;
    uint64_t baseNumber_;
    uint64_t commitSequence_ = 0;  // of the store, as sampled with baseNumber_
    const bool logging_;
    const bool skipSyncCheck_;
    const bool trackDataSize_;
    const bool enforceMaxDataSize_;
    bool holdsWriteLock_ = false;
    bool silentChanges_ = false;
    bool active_ = false;
    bool recycled_ = false;
    bool dataSizeRead_ = false;
    std::vector<uint32_t> affectedEntities_;  // unique, in order of first touch
    std::mutex cursorsMutex_;
    std::vector<Cursor*> cursors_;
    int64_t dataSizeChange_ = 0;
    uint64_t committedDataSize_ = 0;
    std::unique_ptr<PartitionCursor> sizeCursor_;
};

// Process-wide: the number of the latest commit of any store, 0 before the first. Numbers are drawn
// at begin, so it may fall.
uint64_t lastCommittedTx();

}  // namespace quillmere
