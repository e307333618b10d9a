#pragma once

// Makes stores of one kind and knows their files.

#include <cstdint>
#include <memory>
#include <string>

namespace quillmere {

class DbStore;
struct StoreOptions;

// Stateless; any thread.
class DbProvider {
public:
    virtual ~DbProvider() = default;

    // Opens the store in the directory of the options.
    virtual std::unique_ptr<DbStore> createStore(const StoreOptions& options) = 0;
    virtual uint32_t id() const = 0;
    virtual const char* name() const = 0;
    // Creates the directory with the options' file mode if it is missing. Nothing is created for
    // options that a store must not open with: throws IllegalArgumentException.
    virtual void prepareDirectory(const StoreOptions& options) = 0;
    // One name for all ways to write a path, also of one that does not exist.
    virtual std::string canonicalPath(const std::string& path) = 0;
    // False if a file could not be removed, which is logged. A missing file is no failure.
    virtual bool removeDbFiles(const StoreOptions& options, bool removeDirectory) = 0;
    virtual bool dbFileExists(const StoreOptions& options) = 0;
    virtual uint64_t dbFileSize(const StoreOptions& options) = 0;  // bytes, 0 without a file
    virtual uint32_t dbFileMode(const StoreOptions& options) = 0;  // 0 without a file
};

}  // namespace quillmere
