#include "kv/provider_files.h"

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <system_error>

#include "core/error.h"
#include "core/files.h"
#include "core/log.h"
#include "core/store_options.h"

namespace quillmere {

namespace {

// Who may read a directory's files must be able to enter it.
uint32_t directoryMode(uint32_t fileMode) {
    return fileMode | (fileMode & 0444) >> 2;
}

}  // namespace

void prepareStoreDirectory(const std::string& directory, const StoreOptions& options) {
    if (pathExists(directory)) return;
    checkStoreOptions(options);  // leaves no directory of an illegal mode behind
    prepareDirectory(directory, directoryMode(options.fileMode));
}

std::string canonicalFilePath(const std::string& path) {
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(path, error);
    std::filesystem::path canonical;
    if (!error) canonical = std::filesystem::weakly_canonical(absolute, error);
    if (error) throwIo("Could not get canonical path of \"", path, "\": ", error.message());
    if (!canonical.has_filename()) canonical = canonical.parent_path();
    return canonical.string();
}

bool isRemoved(const char* what, int result) {
    if (result == 0 || result == ENOENT) return true;
    logLine("%s [WARN ] %s remove err: %d, %d, %s\n", logTimestamp(), what, result, result,
            std::generic_category().message(result).c_str());
    return false;
}

}  // namespace quillmere
