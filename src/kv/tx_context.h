#pragma once

// What a PartitionCursor needs to know of the transaction it belongs to.

#include <cstdint>
#include <memory>
#include <utility>

#include "kv/db_transaction.h"

namespace quillmere {

// The base of the object layer's Transaction. Belongs to the thread that created it. Its destructor
// tells the cursors that are left, which use it no more from then on.
class TxContext {
public:
    TxContext(const TxContext&) = delete;
    TxContext& operator=(const TxContext&) = delete;

    DbTransaction& dbTransaction() const { return *dbTx_; }
    uint64_t number() const { return number_; }
    int32_t ownerThread() const { return ownerThread_; }
    bool readOnly() const { return readOnly_; }
    // Whether anything was put or removed.
    bool changed() const { return changed_; }
    void markChanged() { changed_ = true; }

protected:
    TxContext(std::unique_ptr<DbTransaction> dbTx, uint64_t number, int32_t ownerThread,
              bool readOnly)
        : dbTx_(std::move(dbTx)), number_(number), ownerThread_(ownerThread), readOnly_(readOnly) {}
    ~TxContext() = default;

    std::unique_ptr<DbTransaction> dbTx_;
    const uint64_t number_;
    const int32_t ownerThread_;
    const bool readOnly_;
    bool changed_ = false;
};

}  // namespace quillmere
