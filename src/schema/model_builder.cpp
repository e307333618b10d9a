#include "schema/model_builder.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/cast.h"
#include "core/checks.h"
#include "core/error.h"
#include "schema/flat_table.h"
#include "schema/hnsw_table.h"
#include "schema/model_format.h"
#include "schema/schema.h"

namespace quillmere {

using namespace model_format;
using flatbuffers::FlatBufferBuilder;

namespace {

void addIdUid(TableWriter& table, uint32_t field, const IdUid& value) {
    if (!value.empty()) table.structure(field, IdUidField(value));
}

}  // namespace

struct ModelBuilder::Output {
    FlatBufferBuilder builder;
    std::vector<TableOffset> entities;
};

class ModelBuilder::PropertyBuilder {
public:
    TableOffset finish(FlatBufferBuilder& builder) const {
        const auto nameOffset = createText(builder, name);
        const auto targetOffset = createText(builder, targetEntity);
        const auto virtualOffset = createText(builder, virtualTarget);
        const auto secondaryOffset = createText(builder, secondaryName);
        const TableOffset hnswOffset = hnsw ? writeHnswTable(builder, *hnsw) : TableOffset();
        TableWriter table(builder);
        addIdUid(table, kPropertyIdUid, id);
        table.offset(kPropertyName, nameOffset);
        table.scalar(kPropertyType, static_cast<uint16_t>(type));
        table.scalar(kPropertyFlagsWord, flags);
        addIdUid(table, kPropertyIndex, index);
        table.offset(kPropertyTargetEntity, targetOffset);
        table.offset(kPropertyVirtualTarget, virtualOffset);
        table.offset(kPropertySecondaryName, secondaryOffset);
        table.offset(kPropertyHnsw, hnswOffset);
        return table.finish();
    }

    HnswOptions& hnswOptions() {
        if (!hnsw) {
            hnsw.emplace();
            hnsw->neighborsPerNode = 0;  // not set: the field is left out
            hnsw->indexingSearchCount = 0;
        }
        return *hnsw;
    }

    std::string name;
    PropertyType type = PropertyType::Unknown;
    IdUid id;
    uint32_t flags = 0;
    IdUid index;
    std::string targetEntity;
    std::string virtualTarget;
    std::string secondaryName;
    std::optional<HnswOptions> hnsw;
};

class ModelBuilder::EntityBuilder {
public:
    EntityBuilder(std::string_view name, IdUid id) : id_(id), name_(name) {}

    PropertyBuilder& property(FlatBufferBuilder& builder) {
        finishProperty(builder);
        CHECK_STATE_AT(87, !activeProperty_);
        return activeProperty_.emplace();
    }
    PropertyBuilder* activeProperty() { return activeProperty_ ? &*activeProperty_ : nullptr; }

    void addRelation(FlatBufferBuilder& builder, const IdUid& id, const IdUid& target) {
        TableWriter table(builder);
        addIdUid(table, kRelationId, id);
        addIdUid(table, kRelationTarget, target);
        relations_.push_back(table.finish());
    }

    TableOffset finish(FlatBufferBuilder& builder) {
        finishProperty(builder);
        if (properties_.empty()) throwIllegalState("No properties added");
        const auto nameOffset = createText(builder, name_);
        const auto externalOffset = createText(builder, externalName);
        const auto propertiesOffset = createTables(builder, properties_);
        const auto relationsOffset = createTables(builder, relations_);
        TableWriter table(builder);
        addIdUid(table, kEntityId, id_);
        table.offset(kEntityName, nameOffset);
        table.offset(kEntityProperties, propertiesOffset);
        addIdUid(table, kEntityLastPropertyId, lastPropertyId);
        table.offset(kEntityRelations, relationsOffset);
        table.scalar(kEntityFlags, flags);
        table.offset(kEntityExternalName, externalOffset);
        return table.finish();
    }

    uint32_t flags = 0;
    std::string externalName;
    IdUid lastPropertyId;

private:
    void finishProperty(FlatBufferBuilder& builder) {
        if (!activeProperty_) return;
        properties_.push_back(activeProperty_->finish(builder));
        activeProperty_.reset();
    }

    IdUid id_;
    std::string name_;
    std::vector<TableOffset> properties_;
    std::vector<TableOffset> relations_;
    std::optional<PropertyBuilder> activeProperty_;
};

ModelBuilder::ModelBuilder() : output_(std::make_unique<Output>()) {}
ModelBuilder::~ModelBuilder() = default;

void ModelBuilder::checkFinishEntity() {
    CHECK_STATE_AT(28, !finished_);
    if (!activeEntity_) return;
    output_->entities.push_back(activeEntity_->finish(output_->builder));
    activeEntity_.reset();
}

ModelBuilder::EntityBuilder& ModelBuilder::currentEntity() const {
    if (!activeEntity_) throwIllegalState("No entity started");
    return *activeEntity_;
}

ModelBuilder::PropertyBuilder& ModelBuilder::currentProperty() const {
    PropertyBuilder* property = activeEntity_ ? activeEntity_->activeProperty() : nullptr;
    if (!property) throwIllegalState("No property started");
    return *property;
}

HnswOptions& ModelBuilder::hnswOptions() const { return currentProperty().hnswOptions(); }

void ModelBuilder::entity(std::string_view name, uint32_t id, uint64_t uid) {
    CHECK_STATE_AT(13, !finished_);
    if (name.empty()) throwIllegalArgument("Name cannot be empty");
    checkFinishEntity();
    activeEntity_ = std::make_unique<EntityBuilder>(name, IdUid{id, uid});
}

void ModelBuilder::entityFlags(uint32_t flags) { currentEntity().flags = flags; }

void ModelBuilder::entityExternalName(std::string_view name) {
    currentEntity().externalName = name;
}

void ModelBuilder::entityLastPropertyId(uint32_t id, uint64_t uid) {
    currentEntity().lastPropertyId = {id, uid};
}

void ModelBuilder::property(std::string_view name, PropertyType type, uint32_t id, uint64_t uid) {
    PropertyBuilder& property = currentEntity().property(output_->builder);
    property.name = name;
    property.type = type;
    property.id = {id, uid};
}

void ModelBuilder::propertyFlags(uint32_t flags) { currentProperty().flags = flags; }

void ModelBuilder::propertyIndexId(uint32_t id, uint64_t uid) {
    currentProperty().index = {id, uid};
}

void ModelBuilder::propertyRelation(std::string_view targetEntity, uint32_t indexId,
                                    uint64_t indexUid) {
    PropertyBuilder& property = currentProperty();
    property.targetEntity = targetEntity;
    property.index = {indexId, indexUid};
}

void ModelBuilder::propertyVirtualTarget(std::string_view target) {
    currentProperty().virtualTarget = target;
}

void ModelBuilder::propertySecondaryName(std::string_view name) {
    currentProperty().secondaryName = name;
}

void ModelBuilder::hnswDimensions(uint64_t value) {
    hnswOptions().dimensions = checkedCast<uint32_t>(value);
}

void ModelBuilder::hnswNeighborsPerNode(uint64_t value) {
    hnswOptions().neighborsPerNode = checkedCast<uint32_t>(value);
}

void ModelBuilder::hnswIndexingSearchCount(uint64_t value) {
    hnswOptions().indexingSearchCount = checkedCast<uint32_t>(value);
}

void ModelBuilder::hnswFlags(uint32_t flags) { hnswOptions().setFlags(flags); }

void ModelBuilder::hnswDistanceType(VectorDistanceType type) {
    hnswOptions().distanceType = type;
}

void ModelBuilder::hnswReparationBacklinkProbability(float value) {
    hnswOptions().reparationBacklinkProbability = value;
}

void ModelBuilder::hnswVectorCacheHintSizeKb(uint64_t value) {
    hnswOptions().setVectorCacheSizeKb(value);
}

void ModelBuilder::relation(uint32_t id, uint64_t uid, uint32_t targetId, uint64_t targetUid) {
    currentEntity().addRelation(output_->builder, {id, uid}, {targetId, targetUid});
}

void ModelBuilder::lastEntityId(uint32_t id, uint64_t uid) { lastEntityId_ = {id, uid}; }
void ModelBuilder::lastIndexId(uint32_t id, uint64_t uid) { lastIndexId_ = {id, uid}; }
void ModelBuilder::lastRelationId(uint32_t id, uint64_t uid) { lastRelationId_ = {id, uid}; }

void ModelBuilder::finish() {
    checkFinishEntity();
    if (output_->entities.empty()) throwIllegalState("No entities added");
    FlatBufferBuilder& builder = output_->builder;
    const auto nameOffset = builder.CreateString(Schema::kDefaultName);
    const auto entitiesOffset = createTables(builder, output_->entities);
    TableWriter table(builder);
    table.scalar(kModelVersionField, kModelVersion);
    table.offset(kModelName, nameOffset);
    table.scalar(kModelUserVersion, kUserVersion);
    table.offset(kModelEntities, entitiesOffset);
    addIdUid(table, kModelLastEntityId, lastEntityId_);
    addIdUid(table, kModelLastIndexId, lastIndexId_);
    addIdUid(table, kModelLastRelationId, lastRelationId_);
    builder.Finish(table.finish());
    finished_ = true;
}

const void* ModelBuilder::data() const {
    CHECK_STATE_TEXT_AT(76, finished_, "buffer", "finished_");
    return output_->builder.GetBufferPointer();
}

size_t ModelBuilder::size() const {
    CHECK_STATE_AT(81, finished_);
    return output_->builder.GetSize();
}

}  // namespace quillmere
