#pragma once

// The open stores of the process, by path and by ID.

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "core/hash.h"

namespace quillmere {

class ObjectStore;
struct StoreOptions;

// A process-wide singleton that is never destroyed. Any thread. Holds stores weakly; a dead entry
// goes when a look-up meets it.
class StoreRegistry {
public:
    static StoreRegistry& instance();

    // See the functions of the same names of ObjectStore.
    std::shared_ptr<ObjectStore> attachOrOpen(const StoreOptions& options, bool* outAttached,
                                              bool checkMatchingOptions);
    std::shared_ptr<ObjectStore> attach(const std::string& directory);
    bool isOpen(const std::string& directory);
    std::weak_ptr<ObjectStore> weakById(uint64_t id);
    bool removeDbFiles(const std::string& directory, bool removeDirectory);

private:
    StoreRegistry() = default;
    // Expect mutex_ to be held.
    std::shared_ptr<ObjectStore> find(const std::string& path);
    bool isLive(const std::string& path);
    std::shared_ptr<ObjectStore> open(const StoreOptions& options, const std::string& path);
    void enter(const std::shared_ptr<ObjectStore>& store, const std::string& path);

    // Comes before every other lock that an open takes, and is held during the whole open. A store
    // reference must not be dropped while it is held, as it may be the last.
    std::mutex mutex_;
    std::unordered_map<std::string, std::weak_ptr<ObjectStore>, FnvHash<std::string>,
                       std::equal_to<>>
        storesByPath_;
    std::unordered_map<uint64_t, std::weak_ptr<ObjectStore>, FnvHash<uint64_t>> storesById_;
    uint64_t nextStoreId_ = 1;
};

}  // namespace quillmere
