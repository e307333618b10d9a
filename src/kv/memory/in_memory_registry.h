#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace quillmere {

class InMemoryData;

// The data of the stores without files, by directory: it outlives the stores. A process-wide
// singleton, never destroyed. Any thread.
class InMemoryDataRegistry {
public:
    static InMemoryDataRegistry& instance();

    bool exists(std::string_view name);
    // Empty and sealed if it is new.
    std::shared_ptr<InMemoryData> getOrCreate(const std::string& name);
    // Replaces the data of the name. Null or unsealed data is refused.
    void commit(const std::string& name, std::shared_ptr<InMemoryData> data);
    // Accounted bytes; 0 without the name.
    uint64_t size(std::string_view name);
    // Whether there was one.
    bool remove(std::string_view name);

private:
    InMemoryDataRegistry() = default;
    std::shared_ptr<InMemoryData> find(std::string_view name);

    std::mutex mutex_;  // no data is destroyed while it is held
    std::map<std::string, std::shared_ptr<InMemoryData>, std::less<>> dataByName_;
};

}  // namespace quillmere
