#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace quillmere {

class Entity;
class Property;

enum class IndexType : uint32_t { Value = 0, Hash = 1, Hash64 = 2, Hnsw = 3 };

// The index on one property of an entity. Immutable.
class Index {
public:
    enum Flags : uint32_t { kSkipNull = 0x1, kHash = 0x8, kHash64 = 0x10 };

    // Throws IllegalArgumentException if the property is not indexed.
    Index(uint32_t entityId, std::shared_ptr<const Property> property);

    uint32_t entityId() const { return entityId_; }
    uint32_t id() const { return id_; }
    uint64_t uid() const { return uid_; }
    uint32_t flags() const { return flags_; }
    IndexType type() const { return type_; }
    bool unique() const { return unique_; }
    // Throws unless there is exactly one.
    const Property& property() const;
    const std::vector<std::shared_ptr<const Property>>& properties() const { return properties_; }

private:
    uint32_t entityId_;
    uint32_t id_;
    uint64_t uid_;
    uint32_t flags_ = 0;
    IndexType type_ = IndexType::Value;
    bool unique_ = false;
    std::vector<std::shared_ptr<const Property>> properties_;
};

}  // namespace quillmere
