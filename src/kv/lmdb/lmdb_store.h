#pragma once

// The store on LMDB: one unnamed database in one environment, the files data.mdb and lock.mdb of
// the store's directory.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "kv/db_store.h"
#include "kv/lmdb/engine/engine.h"
#include "kv/lmdb/lmdb_error.h"

namespace quillmere {

class LmdbTransaction;
struct StoreOptions;

// A closed store refuses every operation with an IllegalStateException. The caller sees to it that
// a path is open once per process and that one thread at a time writes.
class LmdbStore : public DbStore {
public:
    // Opens the store. Throws OpenDbException, or DbFileCorruptException for a damaged file.
    explicit LmdbStore(const StoreOptions& options);
    ~LmdbStore() override;

    size_t maxKeySize() const override;
    uint32_t providerId() const override;
    // Runs in a read transaction of its own.
    bool stats(DbStats& out) override;
    std::string statsString() override;
    size_t cleanStaleReaders() override;
    // The transaction must be a read transaction: the engine shows its free pages to no other.
    uint64_t validatePages(DbTransaction& transaction, uint64_t pageLimit,
                           bool checkLeafLevel) override;
    uint64_t sizeOnDisk() override;
    uint64_t dbSize() override { return sizeOnDisk(); }
    void close() override;
    void setNoMetaSync(bool flag) override;
    void dropAll(DbTransaction& transaction) override;
    uint32_t maxReaders() override;
    bool openedWithPreviousCommit() const override { return previousCommit_; }
    std::unique_ptr<DbTransaction> createTransaction(bool readOnly, uint32_t flags) override;

    MDB_env* env() const;
    MDB_dbi dbi() const { return dbi_.load(std::memory_order_relaxed); }
    const LmdbErrors& errors() const { return errors_; }
    // What the page validation at open found.
    const QmrPageValidation& openValidation() const { return openValidation_; }
    // Some reader slot may have lost its owner: the next transaction looks for such slots first.
    void requestStaleReaderCheck() noexcept { checkStaleReaders_ = true; }

private:
    void open(const StoreOptions& options);
    void openEnv(const StoreOptions& options);
    void openDatabase();
    void validateOnOpen(const StoreOptions& options);
    void checkOpen(int result, const std::string& text);
    LmdbTransaction& getDbTransaction(DbTransaction& dbTransaction) const;
    // Both trees, the free pages and the data; gives the number of pages checked.
    uint64_t validateAllPages(MDB_txn* tx, uint64_t pageLimit, bool checkLeafLevel,
                              QmrPageValidation& outStats) const;
    uint64_t validatePages(MDB_dbi dbi, MDB_txn* tx, uint64_t pageLimit, bool checkLeafLevel,
                           QmrPageValidation& outStats) const;

    std::atomic<MDB_env*> env_{nullptr};
    std::atomic<MDB_dbi> dbi_{0};
    const LmdbErrors errors_;
    const bool readOnly_;
    const bool previousCommit_;
    QmrPageValidation openValidation_{};
    std::atomic<bool> checkStaleReaders_{false};
};

}  // namespace quillmere
