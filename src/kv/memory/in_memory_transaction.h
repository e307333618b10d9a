#pragma once

#include <cstdint>
#include <exception>
#include <memory>

#include "kv/db_transaction.h"

namespace quillmere {

class InMemoryData;
class InMemoryStore;
class WalStorage;

// A read transaction holds the data that was current when it began, a write transaction a copy of
// its own. The store must outlive it.
class InMemoryTransaction : public DbTransaction {
public:
    InMemoryTransaction(InMemoryStore& store, bool readOnly, uint32_t flags);
    ~InMemoryTransaction() override;

    DbStore& store() override;
    bool isInProgress() const override { return data_ != nullptr; }
    // A write transaction takes time and memory in proportion to all data.
    void begin() override;
    // With a log, the record is on its way to the disk before the data is published; if it could
    // not be written, nothing is. A failure to save a snapshot that was due is thrown too, but the
    // commit has happened then.
    void commit() override;
    void abort() override;
    void resetReadOnly() override { renewReadOnly(); }
    void recycleReadOnlyForRenew() override {}  // the data may stay: it has no slot to give back
    void renewReadOnly() override;
    std::shared_ptr<DbCursor> createDbCursor() override;

    // Removes all records.
    void clear();

    // Null before begin() and after the end.
    const std::shared_ptr<InMemoryData>& data() const { return data_; }
    // From this many bytes of keys and values on, a put is refused: any in a read transaction.
    uint64_t sizeLimit() const;
    // Where writes go to also; null if they are not logged.
    WalStorage* wal() const { return wal_; }
    // A change of the data is not in the log: commit() fails then.
    void logFailed() { logFailed_ = true; }

private:
    std::exception_ptr writeLog();

    InMemoryStore& store_;
    std::shared_ptr<InMemoryData> data_;
    WalStorage* const wal_;
    bool cleared_ = false;  // which the log cannot tell
    bool logFailed_ = false;
};

}  // namespace quillmere
