#include "kv/lmdb/lmdb_provider.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "core/error.h"
#include "core/files.h"
#include "core/log.h"
#include "core/store_options.h"
#include "kv/lmdb/lmdb_store.h"

namespace quillmere {

namespace {

std::string dataFile(const StoreOptions& options) {
    return options.directory + "/data.mdb";
}

std::string lockFile(const StoreOptions& options) {
    return options.directory + "/lock.mdb";
}

// Logs a failed removal. What was missing anyway is no failure.
bool isRemoved(const char* what, int result) {
    if (result == 0 || result == ENOENT) return true;
    logLine("%s [WARN ] %s remove err: %d, %d, %s\n", logTimestamp(), what, result, result,
            std::generic_category().message(result).c_str());
    return false;
}

// Who may read a directory's files must be able to enter it.
uint32_t directoryMode(uint32_t fileMode) {
    return fileMode | (fileMode & 0444) >> 2;
}

}  // namespace

std::unique_ptr<DbStore> LmdbProvider::createStore(const StoreOptions& options) {
    return std::make_unique<LmdbStore>(options);
}

void LmdbProvider::prepareDirectory(const StoreOptions& options) {
    if (pathExists(options.directory)) return;
    checkStoreOptions(options);  // leaves no directory of an illegal mode behind
    quillmere::prepareDirectory(options.directory, directoryMode(options.fileMode));
}

std::string LmdbProvider::canonicalPath(const std::string& path) {
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(path, error);
    std::filesystem::path canonical;
    if (!error) canonical = std::filesystem::weakly_canonical(absolute, error);
    if (error) throwIo("Could not get canonical path of \"", path, "\": ", error.message());
    if (!canonical.has_filename()) canonical = canonical.parent_path();
    return canonical.string();
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
