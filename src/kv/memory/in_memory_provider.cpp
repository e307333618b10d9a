#include "kv/memory/in_memory_provider.h"

#include <array>

#include "core/files.h"
#include "core/store_options.h"
#include "kv/memory/in_memory_registry.h"
#include "kv/memory/in_memory_store.h"
#include "kv/memory/snapshot_format.h"
#include "kv/memory/wal_storage.h"
#include "kv/provider_files.h"

namespace quillmere {

namespace {

struct StoreFile {
    const char* what;
    std::string path;
};

std::array<StoreFile, 2> filesOf(const StoreOptions& options) {
    return {{{"File (WAL)", walFilePath(options.directory)},
             {"File (snapshot)", snapshotFilePath(options.directory)}}};
}

}  // namespace

uint32_t InMemoryProvider::id() const {
    return alwaysLogs_ ? kInMemoryWalProviderId : kInMemoryProviderId;
}

const char* InMemoryProvider::name() const {
    return alwaysLogs_ ? "in-memory-wal" : "in-memory";
}

bool InMemoryProvider::hasLog(const StoreOptions& options) const {
    return alwaysLogs_ || (options.walFlags & kWalEnabled) != 0;
}

std::unique_ptr<DbStore> InMemoryProvider::createStore(const StoreOptions& options) {
    if (!hasLog(options)) return std::make_unique<InMemoryStore>(options);
    StoreOptions withLog = options;
    withLog.walFlags |= kWalEnabled;
    return std::make_unique<InMemoryStore>(withLog);
}

void InMemoryProvider::prepareDirectory(const StoreOptions& options) {
    if (hasLog(options)) prepareStoreDirectory(memoryStoragePath(options.directory), options);
}

std::string InMemoryProvider::canonicalPath(const std::string& path) {
    return alwaysLogs_ ? kInMemoryWalPrefix + canonicalFilePath(memoryStoragePath(path)) : path;
}

bool InMemoryProvider::removeDbFiles(const StoreOptions& options, bool removeDirectory) {
    InMemoryDataRegistry::instance().remove(options.directory);
    if (!hasLog(options)) return true;
    bool anyPresent = false;
    for (const StoreFile& file : filesOf(options)) {
        const int result = removeFile(file.path);
        if (!isRemoved(file.what, result)) return false;
        anyPresent |= result == 0;
    }
    // What a process left that died while it wrote a snapshot.
    removeFile(snapshotFilePath(options.directory) + kSnapshotProgressSuffix);
    if (!anyPresent || !removeDirectory) return true;
    return isRemoved("Dir", quillmere::removeDirectory(memoryStoragePath(options.directory)));
}

bool InMemoryProvider::dbFileExists(const StoreOptions& options) {
    if (InMemoryDataRegistry::instance().exists(options.directory)) return true;
    if (!hasLog(options)) return false;
    for (const StoreFile& file : filesOf(options)) {
        if (pathType(file.path) == PathType::File) return true;
    }
    return false;
}

uint64_t InMemoryProvider::dbFileSize(const StoreOptions& options) {
    uint64_t total = InMemoryDataRegistry::instance().size(options.directory);
    if (total != 0 || !hasLog(options)) return total;
    for (const StoreFile& file : filesOf(options)) {
        uint64_t size = 0;
        pathType(file.path, &size);
        total += size;
    }
    return total;
}

uint32_t InMemoryProvider::dbFileMode(const StoreOptions& options) {
    uint32_t mode = 0;
    if (!hasLog(options)) return mode;
    for (const StoreFile& file : filesOf(options)) {
        if (pathType(file.path, nullptr, &mode) == PathType::File) break;
    }
    return mode;
}

}  // namespace quillmere
