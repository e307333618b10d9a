#pragma once

// A transaction of a storage provider.

#include <memory>
#include <mutex>
#include <vector>

namespace quillmere {

class DbCursor;
class DbStore;

// Belongs to the thread that began it, apart from abort() and destruction. Destruction aborts and
// never throws. Cursors are shared with their users and held weakly; commit and abort release them.
class DbTransaction {
public:
    virtual ~DbTransaction() = default;
    DbTransaction(const DbTransaction&) = delete;
    DbTransaction& operator=(const DbTransaction&) = delete;

    virtual DbStore& store() = 0;
    virtual bool isInProgress() const = 0;
    virtual void begin() = 0;
    virtual void commit() = 0;
    virtual void abort() = 0;
    // For read transactions: a new snapshot; the slot kept without a snapshot; and the way back.
    virtual void resetReadOnly() = 0;
    virtual void recycleReadOnlyForRenew() = 0;
    virtual void renewReadOnly() = 0;
    // Throws IllegalStateException if the transaction is over. Where the transaction may end on
    // another thread meanwhile, close() the cursor before dropping the last reference.
    virtual std::shared_ptr<DbCursor> createDbCursor() = 0;

    bool readOnly() const { return readOnly_; }
    // Called by a cursor that closes before its transaction ends.
    void unregisterCursor(const DbCursor* cursor) noexcept;

protected:
    explicit DbTransaction(bool readOnly) : readOnly_(readOnly) {}
    void registerCursor(const std::shared_ptr<DbCursor>& cursor);
    // Tells all registered cursors that the transaction has ended, outside the lock.
    void releaseCursors();

private:
    struct RegisteredCursor {
        const DbCursor* address;  // tells which one, also when it is being destroyed
        std::weak_ptr<DbCursor> cursor;
    };

    std::mutex cursorsMutex_;
    std::vector<RegisteredCursor> cursors_;
    const bool readOnly_;
};

}  // namespace quillmere
