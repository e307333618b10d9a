#include "kv/lmdb/lmdb_provider.h"

#include "core/files.h"
#include "core/store_options.h"
#include "kv/lmdb/lmdb_store.h"
#include "kv/provider_files.h"

namespace quillmere {

namespace {

std::string dataFile(const StoreOptions& options) {
    return options.directory + "/data.mdb";
}

std::string lockFile(const StoreOptions& options) {
    return options.directory + "/lock.mdb";
}

}  // namespace

std::unique_ptr<DbStore> LmdbProvider::createStore(const StoreOptions& options) {
    return std::make_unique<LmdbStore>(options);
}

void LmdbProvider::prepareDirectory(const StoreOptions& options) {
    prepareStoreDirectory(options.directory, options);
}

std::string LmdbProvider::canonicalPath(const std::string& path) {
    return canonicalFilePath(path);
}

bool LmdbProvider::removeDbFiles(const StoreOptions& options, bool removeDirectory) {
    bool allRemoved = isRemoved("File (data)", removeFile(dataFile(options)));
    allRemoved &= isRemoved("File (lock)", removeFile(lockFile(options)));
    if (removeDirectory) {
        allRemoved &= isRemoved("Dir", quillmere::removeDirectory(options.directory));
    }
    return allRemoved;
}

bool LmdbProvider::dbFileExists(const StoreOptions& options) {
    return pathType(dataFile(options)) == PathType::File;
}

uint64_t LmdbProvider::dbFileSize(const StoreOptions& options) {
    uint64_t size = 0;
    pathType(dataFile(options), &size);
    return size;
}

uint32_t LmdbProvider::dbFileMode(const StoreOptions& options) {
    uint32_t mode = 0;
    pathType(dataFile(options), nullptr, &mode);
    return mode;
}

}  // namespace quillmere
