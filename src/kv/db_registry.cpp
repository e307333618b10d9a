#include "kv/db_registry.h"

#include <atomic>

#include "core/checks.h"
#include "core/error.h"
#include "core/log.h"
#include "kv/db_provider.h"
#include "kv/lmdb/lmdb_provider.h"
#include "kv/memory/in_memory_provider.h"

namespace quillmere {

namespace {
std::atomic<size_t> lastSerial{0};
}

DbRegistry& DbRegistry::instance() {
    // Never destroyed: stores may still open and close while the process exits.
    static DbRegistry* const registry = new DbRegistry;
    return *registry;
}

DbRegistry::DbRegistry() : serial_(++lastSerial) {
    registerDefault(std::make_shared<LmdbProvider>(), false);
    registerPrefix(kInMemoryPrefix, std::make_shared<InMemoryProvider>(false), false);
    registerPrefix(kInMemoryWalPrefix, std::make_shared<InMemoryProvider>(true), false);
}

void DbRegistry::registerDefault(std::shared_ptr<DbProvider> provider, bool log) {
    CHECK_ARG_NOT_NULL(provider);
    const std::lock_guard lock(mutex_);
    if (log) {
        logLine("%s [INFO ] [DbRegi] Registering default provider at registry %zu: %s (%d)\n",
                logTimestamp(), serial_, provider->name(), static_cast<int>(provider->id()));
    }
    byId_[provider->id()] = provider;
    default_ = std::move(provider);
}

void DbRegistry::registerPrefix(const std::string& prefix, std::shared_ptr<DbProvider> provider,
                                bool log) {
    CHECK_ARG_NOT_NULL(provider);
    const std::lock_guard lock(mutex_);
    if (log) {
        logLine("%s [INFO ] [DbRegi] Registering provider for prefix \"%s\" at registry %zu: "
                "%s (%d)\n",
                logTimestamp(), prefix.c_str(), serial_, provider->name(),
                static_cast<int>(provider->id()));
    }
    byId_[provider->id()] = provider;
    byPrefix_[prefix] = std::move(provider);
}

std::shared_ptr<DbProvider> DbRegistry::find(std::string_view directory) {
    const std::lock_guard lock(mutex_);
    for (const auto& [prefix, provider] : byPrefix_) {
        if (directory.starts_with(prefix)) return provider;
    }
    return default_;
}

std::shared_ptr<DbProvider> DbRegistry::get(std::string_view directory) {
    std::shared_ptr<DbProvider> provider = find(directory);
    if (!provider) throwIllegalState("No database implementation available for given path");
    return provider;
}

std::shared_ptr<DbProvider> DbRegistry::byId(uint32_t id) {
    const std::lock_guard lock(mutex_);
    const auto found = byId_.find(id);
    return found == byId_.end() ? nullptr : found->second;
}

}  // namespace quillmere
