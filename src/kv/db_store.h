#pragma once

// A transactional, ordered key-value store, as each storage provider implements it. Keys compare as
// unsigned bytes, the shorter first when one is a prefix of the other.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace quillmere {

class DbTransaction;

struct DbStats {
    std::array<uint64_t, 10> leafFill{};    // pages by fill, in tenths
    std::array<uint64_t, 10> branchFill{};
    uint32_t pageSize = 0;
    uint32_t depth = 0;
    uint64_t branchPages = 0;
    uint64_t leafPages = 0;
    uint64_t overflowPages = 0;
    uint64_t entries = 0;
};

enum DbTxFlags : uint32_t {
    kTxExempt = 1,  // exempt from the sync check and from the data size limit
    kTxNoWal = 2,   // not written to the write-ahead log: what loads the log uses it
};

// Shared by any number of threads. Closed by close() or destruction, which must not happen while a
// transaction of it runs.
class DbStore {
public:
    virtual ~DbStore() = default;
    DbStore(const DbStore&) = delete;
    DbStore& operator=(const DbStore&) = delete;

    virtual bool isAvailable() const { return true; }
    virtual size_t maxKeySize() const = 0;
    virtual uint32_t providerId() const = 0;
    // False if the provider has no statistics.
    virtual bool stats(DbStats& out) = 0;
    virtual std::string statsString() = 0;
    // Frees the reader slots of dead processes; gives their number.
    virtual size_t cleanStaleReaders() = 0;
    // Gives the number of pages checked; throws DbFileCorruptException.
    virtual uint64_t validatePages(DbTransaction& transaction, uint64_t pageLimit,
                                   bool checkLeafLevel) = 0;
    virtual uint64_t sizeOnDisk() = 0;  // bytes
    virtual uint64_t dbSize() = 0;      // bytes
    virtual void close() = 0;           // idempotent
    virtual void setNoMetaSync(bool flag) = 0;
    virtual void dropAll(DbTransaction& transaction) = 0;
    virtual uint32_t maxReaders() = 0;
    virtual bool openedWithPreviousCommit() const { return false; }
    // The transaction has not begun yet.
    virtual std::unique_ptr<DbTransaction> createTransaction(bool readOnly, uint32_t flags) = 0;

protected:
    DbStore() = default;
};

}  // namespace quillmere
