#include "store/store_registry.h"

#include <functional>
#include <utility>

#include "core/error.h"
#include "core/log.h"
#include "core/store_options.h"
#include "kv/db_provider.h"
#include "kv/db_registry.h"
#include "kv/db_store.h"
#include "store/object_store.h"
#include "store/path_claim.h"

namespace quillmere {

namespace {

// The last difference between the options and a store that is open; null if there is none.
const char* findDifference(const StoreOptions& options, const ObjectStore& store) {
    const char* difference = nullptr;
    if (options.readOnly != store.readOnly()) difference = "read-only";
    if (options.putPaddingMode != store.putPaddingMode()) difference = "put padding mode";
    if (options.maxReaders != 0 && options.maxReaders != store.dbStore().maxReaders()) {
        difference = "max. readers";
    }
    if (options.maxDbSizeInKb != store.maxDbSizeInKb()) difference = "max. DB size";
    return difference;
}

}  // namespace

StoreRegistry& StoreRegistry::instance() {
    static StoreRegistry& registry = *new StoreRegistry;
    return registry;
}

std::shared_ptr<ObjectStore> StoreRegistry::attachOrOpen(const StoreOptions& options,
                                                         bool* outAttached,
                                                         bool checkMatchingOptions) {
    const auto provider = DbRegistry::instance().get(options.directory);
    provider->prepareDirectory(options);
    const std::string path = provider->canonicalPath(options.directory);

    std::shared_ptr<ObjectStore> store;
    for (;;) {
        {
            const std::lock_guard lock(mutex_);
            store = find(path);
            if (store) break;
            if (auto opened = open(options, path)) {
                if (outAttached) *outAttached = false;
                return opened;
            }
        }
        // Not under the mutex: what the closing store waits for may need it.
        PathClaim::awaitRelease(path);
    }
    if (!outAttached) throwPathInUse(path);
    if (checkMatchingOptions) {
        if (const char* difference = findDifference(options, *store)) {
            throwIllegalState(
                "Given options do not match the existing open store at the same path: ",
                difference);
        }
    }
    *outAttached = true;
    return store;
}

// Empty if another store on the path is just closing.
std::shared_ptr<ObjectStore> StoreRegistry::open(const StoreOptions& options,
                                                 const std::string& path) {
    std::shared_ptr<PathClaim> claim = PathClaim::tryTake(path);
    if (!claim) return nullptr;
    std::shared_ptr<ObjectStore> store = ObjectStore::create(options, claim);
    claim->setHolder(store);
    enter(store, path);
    return store;
}

void StoreRegistry::enter(const std::shared_ptr<ObjectStore>& store, const std::string& path) {
    std::erase_if(storesById_, [](const auto& entry) { return entry.second.expired(); });
    store->id_ = nextStoreId_++;
    storesById_.emplace(store->id_, store);
    storesByPath_.insert_or_assign(path, store);
}

std::shared_ptr<ObjectStore> StoreRegistry::find(const std::string& path) {
    return isLive(path) ? storesByPath_.find(path)->second.lock() : nullptr;
}

bool StoreRegistry::isLive(const std::string& path) {
    const auto entry = storesByPath_.find(path);
    if (entry == storesByPath_.end()) return false;
    if (!entry->second.expired()) return true;
    storesByPath_.erase(entry);
    return false;
}

std::shared_ptr<ObjectStore> StoreRegistry::attach(const std::string& directory) {
    const std::string path = DbRegistry::instance().get(directory)->canonicalPath(directory);
    const std::lock_guard lock(mutex_);
    return find(path);
}

// Takes no reference: it might become the last one, and close the store here.
bool StoreRegistry::isOpen(const std::string& directory) {
    const std::string path = DbRegistry::instance().get(directory)->canonicalPath(directory);
    const std::lock_guard lock(mutex_);
    return isLive(path);
}

std::weak_ptr<ObjectStore> StoreRegistry::weakById(uint64_t id) {
    const std::lock_guard lock(mutex_);
    const auto entry = storesById_.find(id);
    if (entry == storesById_.end()) return {};
    if (!entry->second.expired()) return entry->second;
    storesById_.erase(entry);
    return {};
}

bool StoreRegistry::removeDbFiles(const std::string& directory, bool removeDirectory) {
    StoreOptions options;
    options.directory = directory.empty() ? "." : directory;
    const auto provider = DbRegistry::instance().get(options.directory);
    const std::string path = provider->canonicalPath(options.directory);

    const std::lock_guard lock(mutex_);
    if (!provider->removeDbFiles(options, removeDirectory)) return false;
    if (isLive(path)) {
        logLine("%s [INFO ] Removed files of shared store that's still open: %s\n", logTimestamp(),
                path.c_str());
    }
    storesByPath_.erase(path);
    PathClaim::forget(path);
    return true;
}

}  // namespace quillmere
