#pragma once

// Picks the provider for a directory.

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

namespace quillmere {

class DbProvider;

// A process-wide singleton, made on first use and kept until the process exits. Any thread.
class DbRegistry {
public:
    static DbRegistry& instance();

    // Null is an argument failure. `log` writes a line about it.
    void registerDefault(std::shared_ptr<DbProvider> provider, bool log);
    void registerPrefix(const std::string& prefix, std::shared_ptr<DbProvider> provider, bool log);
    // The provider whose prefix starts the directory, else the default one.
    std::shared_ptr<DbProvider> find(std::string_view directory);
    // As find(), but throws IllegalStateException if there is none.
    std::shared_ptr<DbProvider> get(std::string_view directory);
    // Empty if there is none.
    std::shared_ptr<DbProvider> byId(uint32_t id);

private:
    DbRegistry();

    std::recursive_mutex mutex_;
    const size_t serial_;
    std::unordered_map<uint32_t, std::shared_ptr<DbProvider>> byId_;
    std::map<std::string, std::shared_ptr<DbProvider>> byPrefix_;
    std::shared_ptr<DbProvider> default_;
};

}  // namespace quillmere
