#include "core/store_options.h"

#include "core/error.h"

namespace quillmere {

void checkStoreOptions(const StoreOptions& options) {
    constexpr uint32_t kExecutableFlags = 0111;
    if (options.maxDbSizeInKb == 0) throwIllegalArgument("Size option may not be zero");
    if (options.maxDataSizeInKb > options.maxDbSizeInKb) {
        throwIllegalArgument("Maximum data size option must not exceed the maximum DB size");
    }
    if (options.fileMode == 0) throwIllegalArgument("File mode option may not be zero");
    if (options.putPaddingMode < kPaddingNone || options.putPaddingMode > kPaddingByCaller) {
        throwIllegalArgument("Illegal put padding mode:",
                             static_cast<int64_t>(options.putPaddingMode));
    }
    if ((options.fileMode & kExecutableFlags) != 0) {
        throwIllegalArgument("File mode may not include any executable flags");
    }
    if (!options.backupFile.empty() && options.readOnly) {
        throwIllegalArgument("Cannot restore a backup in read-only mode");
    }
    if (options.backupFile.empty() && options.backupRestoreFlags != 0) {
        throwIllegalArgument("Backup restore flags given, but no backup file");
    }
}

}  // namespace quillmere
