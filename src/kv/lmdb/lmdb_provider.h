#pragma once

#include "kv/db_provider.h"

namespace quillmere {

// Stores on LMDB: the default, without a directory prefix. Looks at the files of a store by path
// only, and never opens them, since closing them would drop the locks of a store that is open in
// this process.
class LmdbProvider : public DbProvider {
public:
    std::unique_ptr<DbStore> createStore(const StoreOptions& options) override;
    uint32_t id() const override { return 1; }
    const char* name() const override { return "LMDB"; }
    // Throws IoException. With the file mode plus x wherever there is r.
    void prepareDirectory(const StoreOptions& options) override;
    // Throws IoException if the file system refuses to tell.
    std::string canonicalPath(const std::string& path) override;
    bool removeDbFiles(const StoreOptions& options, bool removeDirectory) override;
    bool dbFileExists(const StoreOptions& options) override;
    uint64_t dbFileSize(const StoreOptions& options) override;
    uint32_t dbFileMode(const StoreOptions& options) override;
};

}  // namespace quillmere
