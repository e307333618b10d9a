#pragma once

#include <cstdint>
#include <memory>

#include "kv/db_transaction.h"
#include "kv/lmdb/engine/engine.h"

namespace quillmere {

class LmdbStore;

// A transaction of the engine, from begin() to commit() or abort(). The store must outlive it.
class LmdbTransaction : public DbTransaction {
public:
    LmdbTransaction(LmdbStore& store, bool readOnly);
    ~LmdbTransaction() override;

    DbStore& store() override;
    bool isInProgress() const override { return tx_ != nullptr; }
    void begin() override;
    void commit() override;
    void abort() override;
    void resetReadOnly() override;
    void recycleReadOnlyForRenew() override;
    void renewReadOnly() override;
    std::shared_ptr<DbCursor> createDbCursor() override;

    LmdbStore& lmdbStore() const { return store_; }
    // Throws IllegalStateException if the transaction is not in progress.
    MDB_txn* handle() const;
    // Counts the writes. A cursor that finds another number than after its own last move seeks its
    // key again, as the engine's cursors lose their place over some writes of other cursors.
    uint64_t writeCount() const { return writeCount_; }
    void countWrite() { ++writeCount_; }

private:
    void checkReadOnlyInProgress(const char* function) const;

    LmdbStore& store_;
    MDB_txn* tx_ = nullptr;
    uint64_t writeCount_ = 0;
};

}  // namespace quillmere
