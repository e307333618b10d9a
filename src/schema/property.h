#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "schema/property_type.h"
#include "vector/hnsw_options.h"

namespace quillmere {

// One property of an entity. Immutable once its schema is attached to a store; the setters guard
// against a change of what has been set.
class Property {
public:
    Property(uint32_t id, uint64_t uid, std::string name, PropertyType type, uint32_t flags);

    uint32_t id() const { return id_; }
    uint64_t uid() const { return uid_; }
    uint32_t entityId() const { return entityId_; }
    uint32_t indexId() const { return indexId_; }  // 0: none
    uint64_t indexUid() const { return indexUid_; }
    uint32_t targetEntityId() const { return targetEntityId_; }  // relations only
    // Offset of the property's slot in the vtable of an object, 0 while not assigned.
    uint16_t flatOffset() const { return flatOffset_; }
    const std::string& name() const { return name_; }
    const std::string& secondaryName() const { return secondaryName_; }
    const std::string& virtualTarget() const { return virtualTarget_; }
    // Name of the target entity as the model gives it; resolved to an ID when a schema is linked.
    const std::string& targetEntityName() const { return targetEntityName_; }
    PropertyType type() const { return type_; }
    uint32_t flags() const { return flags_; }
    bool hasFlag(PropertyFlags flag) const { return (flags_ & flag) != 0; }
    bool isIndexed() const { return hasFlag(kPropertyIndexed); }
    bool isRelation() const { return type_ == PropertyType::Relation; }
    // "Property "name" (ID 3, type Int)", for messages.
    std::string text() const;
    // Empty unless the index is, or is meant to be, of type HNSW.
    const std::shared_ptr<const HnswOptions>& hnswOptions() const { return hnswOptions_; }

    // Each throws if it would change what has been set, see the messages in property.cpp.
    void setEntity(uint32_t entityId);
    void setIndex(uint32_t indexId, uint64_t indexUid, uint32_t flags);
    void removeIndex();
    // As a model or a catalog gives them, complete or not; the flags stay as they are.
    void setIndexIds(uint32_t indexId, uint64_t indexUid);
    void setFlatOffset(uint32_t offset);

    void setName(std::string name) { name_ = std::move(name); }
    void setFlags(uint32_t flags) { flags_ = flags; }
    void setTargetEntityId(uint32_t id) { targetEntityId_ = id; }
    void setTargetEntityName(std::string name) { targetEntityName_ = std::move(name); }
    void setSecondaryName(std::string name) { secondaryName_ = std::move(name); }
    void setVirtualTarget(std::string target) { virtualTarget_ = std::move(target); }
    void setHnswOptions(std::shared_ptr<const HnswOptions> options) {
        hnswOptions_ = std::move(options);
    }
    // Checks the property and derives the flags that others imply. Throws SchemaException.
    void finish();

private:
    uint32_t id_;
    uint64_t uid_;
    uint32_t entityId_ = 0;
    uint32_t indexId_ = 0;
    uint64_t indexUid_ = 0;
    uint32_t targetEntityId_ = 0;
    uint16_t flatOffset_ = 0;
    std::string name_;
    std::string secondaryName_;
    std::string virtualTarget_;
    std::string targetEntityName_;
    PropertyType type_;
    uint32_t flags_;
    std::shared_ptr<const HnswOptions> hnswOptions_;
};

}  // namespace quillmere
