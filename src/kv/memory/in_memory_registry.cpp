#include "kv/memory/in_memory_registry.h"

#include "core/error.h"
#include "kv/memory/in_memory_data.h"

namespace quillmere {

InMemoryDataRegistry& InMemoryDataRegistry::instance() {
    static InMemoryDataRegistry* const registry = new InMemoryDataRegistry;
    return *registry;
}

std::shared_ptr<InMemoryData> InMemoryDataRegistry::find(std::string_view name) {
    const std::lock_guard lock(mutex_);
    const auto found = dataByName_.find(name);
    return found == dataByName_.end() ? nullptr : found->second;
}

bool InMemoryDataRegistry::exists(std::string_view name) {
    return find(name) != nullptr;
}

uint64_t InMemoryDataRegistry::size(std::string_view name) {
    const std::shared_ptr<InMemoryData> data = find(name);
    return data ? data->accountedSize() : 0;
}

std::shared_ptr<InMemoryData> InMemoryDataRegistry::getOrCreate(const std::string& name) {
    const std::lock_guard lock(mutex_);
    std::shared_ptr<InMemoryData>& data = dataByName_[name];
    if (!data) {
        data = std::make_shared<InMemoryData>();
        data->seal();
    }
    return data;
}

void InMemoryDataRegistry::commit(const std::string& name, std::shared_ptr<InMemoryData> data) {
    if (!data) throw ArgumentNullException("Cannot commit a null instance");
    if (!data->sealed()) {
        throwIllegalArgument("Cannot commit an instance that is not sealed");
    }
    const std::lock_guard lock(mutex_);
    dataByName_[name].swap(data);
}

bool InMemoryDataRegistry::remove(std::string_view name) {
    std::shared_ptr<InMemoryData> data;
    const std::lock_guard lock(mutex_);
    const auto found = dataByName_.find(name);
    if (found == dataByName_.end()) return false;
    data = std::move(found->second);
    dataByName_.erase(found);
    return true;
}

}  // namespace quillmere
