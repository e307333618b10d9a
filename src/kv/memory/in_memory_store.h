#pragma once

// A store that keeps all data in memory: readers use the sealed data they began with, a writer
// works on a copy that its commit makes the current one.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "kv/db_store.h"

namespace quillmere {

class InMemoryData;
class InMemoryTransaction;
class WalStorage;
struct StoreOptions;

// Without a log the data belongs to the process, under the name of the directory. With one it
// belongs to the store, and to the files in the directory.
class InMemoryStore : public DbStore {
public:
    // With the log if its flag is set in the options. Throws what WalStorage::load() throws.
    explicit InMemoryStore(const StoreOptions& options);
    ~InMemoryStore() override;

    size_t maxKeySize() const override { return 512; }
    uint32_t providerId() const override;
    bool stats(DbStats&) override { return false; }
    std::string statsString() override { return {}; }
    size_t cleanStaleReaders() override { return 0; }
    uint64_t validatePages(DbTransaction&, uint64_t, bool) override { return 0; }
    uint64_t sizeOnDisk() override;
    uint64_t dbSize() override;
    void close() override;
    void setNoMetaSync(bool) override {}
    void dropAll(DbTransaction& transaction) override;
    uint32_t maxReaders() override { return 0; }
    std::unique_ptr<DbTransaction> createTransaction(bool readOnly, uint32_t flags) override;

    // The newest data. Throws IllegalStateException if the store is closed.
    std::shared_ptr<InMemoryData> currentData() const;
    // Publishes sealed data: transactions that begin from now on see it.
    void commit(const std::shared_ptr<InMemoryData>& data);
    // A put fails from this many bytes of keys and values on.
    uint64_t maxSizeInBytes() const { return maxSizeInBytes_; }
    WalStorage* wal() const { return wal_.get(); }  // null without a log

private:
    void open(const StoreOptions& options);

    const std::string directory_;
    const uint64_t maxSizeInBytes_;
    const bool hasLog_;
    mutable std::mutex mutex_;            // guards data_, which is never destroyed under it
    std::shared_ptr<InMemoryData> data_;  // null once closed
    std::unique_ptr<WalStorage> wal_;
};

}  // namespace quillmere
