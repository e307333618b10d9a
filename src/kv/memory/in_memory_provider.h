#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "kv/db_provider.h"

namespace quillmere {

inline constexpr uint32_t kInMemoryProviderId = 2;
inline constexpr uint32_t kInMemoryWalProviderId = 3;
inline constexpr const char* kInMemoryPrefix = "memory:";
inline constexpr const char* kInMemoryWalPrefix = "memory-wal:";

// Stores in memory. Without a log they live as long as the process, and behind the prefix stands a
// mere name. With one, a log and a snapshot are in the directory behind the prefix.
class InMemoryProvider : public DbProvider {
public:
    // With `alwaysLogs`, stores have a log whether their options ask for it or not.
    explicit InMemoryProvider(bool alwaysLogs) : alwaysLogs_(alwaysLogs) {}

    std::unique_ptr<DbStore> createStore(const StoreOptions& options) override;
    uint32_t id() const override;
    const char* name() const override;
    // Only with a log. Throws IoException. With the file mode plus x wherever there is r.
    void prepareDirectory(const StoreOptions& options) override;
    // With the prefix, so that it never meets a store of another provider. Throws IoException.
    std::string canonicalPath(const std::string& path) override;
    bool removeDbFiles(const StoreOptions& options, bool removeDirectory) override;
    bool dbFileExists(const StoreOptions& options) override;
    uint64_t dbFileSize(const StoreOptions& options) override;
    // Of the log, else of the snapshot.
    uint32_t dbFileMode(const StoreOptions& options) override;

private:
    bool hasLog(const StoreOptions& options) const;

    const bool alwaysLogs_;
};

}  // namespace quillmere
