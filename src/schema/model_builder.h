#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "schema/entity.h"
#include "schema/property_type.h"
#include "vector/hnsw_options.h"

namespace quillmere {

// Builds model bytes from calls that describe one element after the other: a property belongs to
// the entity that was started last, its settings to the property that was started last.
//
// Throws IllegalStateException if there is no current entity or property, or if the model is
// finished, and IllegalArgumentException for an empty entity name; the model then stays as it was.
// Values beyond their fields throw, too. One thread at a time.
class ModelBuilder {
public:
    ModelBuilder();
    ~ModelBuilder();
    ModelBuilder(const ModelBuilder&) = delete;
    ModelBuilder& operator=(const ModelBuilder&) = delete;

    // Finishes the current entity, which must have properties, and starts one.
    void entity(std::string_view name, uint32_t id, uint64_t uid);
    void entityFlags(uint32_t flags);
    void entityExternalName(std::string_view name);
    void entityLastPropertyId(uint32_t id, uint64_t uid);

    // Finishes the current property and starts one.
    void property(std::string_view name, PropertyType type, uint32_t id, uint64_t uid);
    void propertyFlags(uint32_t flags);
    void propertyIndexId(uint32_t id, uint64_t uid);
    void propertyRelation(std::string_view targetEntity, uint32_t indexId, uint64_t indexUid);
    void propertyVirtualTarget(std::string_view target);
    void propertySecondaryName(std::string_view name);

    // The first of these gives the property its HNSW options. What is not set is left to the
    // defaults of the reader.
    void hnswDimensions(uint64_t value);
    void hnswNeighborsPerNode(uint64_t value);
    void hnswIndexingSearchCount(uint64_t value);
    void hnswFlags(uint32_t flags);
    void hnswDistanceType(VectorDistanceType type);
    void hnswReparationBacklinkProbability(float value);
    void hnswVectorCacheHintSizeKb(uint64_t value);

    // Adds a standalone relation to the current entity.
    void relation(uint32_t id, uint64_t uid, uint32_t targetId, uint64_t targetUid);

    void lastEntityId(uint32_t id, uint64_t uid);
    void lastIndexId(uint32_t id, uint64_t uid);
    void lastRelationId(uint32_t id, uint64_t uid);

    // Finishes the current entity and the model; once.
    void finish();
    // The model bytes: after finish() only, valid as long as the builder.
    const void* data() const;
    size_t size() const;

private:
    class EntityBuilder;
    class PropertyBuilder;
    struct Output;

    void checkFinishEntity();
    EntityBuilder& currentEntity() const;
    PropertyBuilder& currentProperty() const;
    HnswOptions& hnswOptions() const;

    std::unique_ptr<Output> output_;
    std::unique_ptr<EntityBuilder> activeEntity_;
    IdUid lastEntityId_;
    IdUid lastIndexId_;
    IdUid lastRelationId_;
    bool finished_ = false;
};

}  // namespace quillmere
