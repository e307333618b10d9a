#include "schema/entity_record.h"

#include <string>
#include <vector>

#include "core/error.h"
#include "core/flatbuffer_check.h"
#include "kv/partition.h"
#include "schema/catalog.h"
#include "schema/catalog_format.h"
#include "schema/entity.h"
#include "schema/flat_table.h"
#include "schema/hnsw_table.h"
#include "schema/relation.h"

namespace quillmere {

using namespace catalog_format;
using flatbuffers::FlatBufferBuilder;
using flatbuffers::Table;
using flatbuffers::Verifier;

namespace {

// --- verification ---------------------------------------------------------------------------

bool verifyPropertyTable(Verifier& verifier, const Table& table) {
    for (const PropertyField field : {kPropertyIdField, kPropertyEntityId, kPropertyTargetEntityId,
                                      kPropertyIndexId, kPropertyFlagsWord}) {
        if (!verifyScalar<uint32_t>(verifier, table, field)) return false;
    }
    return verifyScalar<uint64_t>(verifier, table, kPropertyUid) &&
           verifyScalar<uint64_t>(verifier, table, kPropertyIndexUid) &&
           verifyText(verifier, table, kPropertyName) &&
           verifyScalar<uint16_t>(verifier, table, kPropertyType) &&
           verifyScalar<uint16_t>(verifier, table, kPropertyFlatOffset) &&
           verifyText(verifier, table, kPropertyVirtualTarget) &&
           verifyText(verifier, table, kPropertySecondaryName) &&
           verifySubTable(verifier, table, kPropertyHnsw, verifyHnswTable);
}

bool verifyRelationTable(Verifier& verifier, const Table& table) {
    return verifyScalar<uint32_t>(verifier, table, kRelationId) &&
           verifyScalar<uint64_t>(verifier, table, kRelationUid) &&
           verifyScalar<uint32_t>(verifier, table, kRelationSource) &&
           verifyScalar<uint32_t>(verifier, table, kRelationTarget);
}

bool verifyEntityTable(Verifier& verifier, const Table& table) {
    for (const EntityField field :
         {kEntityId, kEntitySchemaId, kEntityCarried, kEntityVersionField, kEntityMinVersionField,
          kEntityLastPropertyId, kEntityLastRelationId, kEntityFlags}) {
        if (!verifyScalar<uint32_t>(verifier, table, field)) return false;
    }
    return verifyScalar<uint64_t>(verifier, table, kEntityUid) &&
           verifyText(verifier, table, kEntityName) &&
           verifySubTables(verifier, table, kEntityProperties, verifyPropertyTable) &&
           verifySubTables(verifier, table, kEntityRelations, verifyRelationTable) &&
           verifyText(verifier, table, kEntityExternalName);
}

// --- reading --------------------------------------------------------------------------------

void checkVersions(const Table& table) {
    const uint32_t minVersion = readScalar<uint32_t>(table, kEntityMinVersionField);
    if (minVersion > kEntityVersion) {
        throwSchema("Please update, this file requires a minimum meta schema version of ",
                    std::to_string(minVersion));
    }
    if (minVersion == 0 || readScalar<uint32_t>(table, kEntityVersionField) == 0) {
        throw DbFileCorruptException("Entity: No meta schema version(s) available");
    }
}

std::shared_ptr<Property> parseProperty(const Table& table) {
    auto property = std::make_shared<Property>(
        readScalar<uint32_t>(table, kPropertyIdField), readScalar<uint64_t>(table, kPropertyUid),
        readText(table, kPropertyName),
        static_cast<PropertyType>(readScalar<uint16_t>(table, kPropertyType)),
        readScalar<uint32_t>(table, kPropertyFlagsWord));
    property->setEntity(readScalar<uint32_t>(table, kPropertyEntityId));
    property->setTargetEntityId(readScalar<uint32_t>(table, kPropertyTargetEntityId));
    property->setIndexIds(readScalar<uint32_t>(table, kPropertyIndexId),
                          readScalar<uint64_t>(table, kPropertyIndexUid));
    property->setFlatOffset(readScalar<uint16_t>(table, kPropertyFlatOffset));
    property->setVirtualTarget(readText(table, kPropertyVirtualTarget));
    property->setSecondaryName(readText(table, kPropertySecondaryName));
    const auto* const hnsw = table.GetPointer<const Table*>(fieldOffset(kPropertyHnsw));
    if (hnsw) property->setHnswOptions(readHnswTable(*hnsw));
    return property;
}

std::shared_ptr<Relation> parseRelation(const Table& table) {
    return std::make_shared<Relation>(
        readScalar<uint32_t>(table, kRelationId), readScalar<uint64_t>(table, kRelationUid),
        readScalar<uint32_t>(table, kRelationSource), readScalar<uint32_t>(table, kRelationTarget));
}

// --- writing --------------------------------------------------------------------------------

TableOffset buildProperty(FlatBufferBuilder& builder, const Property& property) {
    const auto name = createText(builder, property.name());
    const auto virtualTarget = createText(builder, property.virtualTarget());
    const auto secondaryName = createText(builder, property.secondaryName());
    const TableOffset hnsw = property.hnswOptions()
                                 ? writeHnswTable(builder, *property.hnswOptions())
                                 : TableOffset();
    TableWriter table(builder);
    table.scalar(kPropertyUid, property.uid());
    table.scalar(kPropertyIdField, property.id());
    table.scalar(kPropertyEntityId, property.entityId());
    table.scalar(kPropertyTargetEntityId, property.targetEntityId());
    table.scalar(kPropertyIndexId, property.indexId());
    table.scalar(kPropertyIndexUid, property.indexUid());
    table.offset(kPropertyName, name);
    table.scalar(kPropertyType, static_cast<uint16_t>(property.type()));
    table.scalar(kPropertyFlatOffset, property.flatOffset());
    table.scalar(kPropertyFlagsWord, property.flags());
    table.offset(kPropertyVirtualTarget, virtualTarget);
    table.offset(kPropertySecondaryName, secondaryName);
    table.offset(kPropertyHnsw, hnsw);
    return table.finish();
}

TableOffset buildRelation(FlatBufferBuilder& builder, const Relation& relation) {
    TableWriter table(builder);
    table.scalar(kRelationId, relation.id());
    table.scalar(kRelationUid, relation.uid());
    table.scalar(kRelationSource, relation.sourceEntityId());
    table.scalar(kRelationTarget, relation.targetEntityId());
    return table.finish();
}

void checkComplete(const Entity& entity) {
    if (entity.schemaId() == 0 || entity.id() == 0) {
        throwSchema("Cannot write entity: ", entity.name(), " is incomplete");
    }
    for (const auto& property : entity.properties()) {
        if (property->flatOffset() == 0 || property->id() == 0 || property->entityId() == 0) {
            throwSchema("Cannot write entity ", entity.name(), ": property ", property->name(),
                        " is incomplete");
        }
    }
}

}  // namespace

Bytes buildEntityRecord(const Entity& entity) {
    checkComplete(entity);
    FlatBufferBuilder builder;
    std::vector<TableOffset> propertyTables;
    for (const auto& property : entity.properties()) {
        propertyTables.push_back(buildProperty(builder, *property));
    }
    std::vector<TableOffset> relationTables;
    for (const auto& relation : entity.relations()) {
        relationTables.push_back(buildRelation(builder, *relation));
    }
    const auto properties = createTables(builder, propertyTables);
    const auto relations = createTables(builder, relationTables);
    const auto name = createText(builder, entity.name());
    const auto externalName = createText(builder, entity.externalName());
    TableWriter table(builder);
    table.scalar(kEntityUid, entity.uid());
    table.scalar(kEntityId, entity.id());
    table.scalar(kEntitySchemaId, entity.schemaId());
    table.offset(kEntityName, name);
    table.offset(kEntityProperties, properties);
    table.offset(kEntityRelations, relations);
    table.scalar(kEntityCarried, entity.carriedValue());
    table.scalar(kEntityVersionField, kEntityVersion);
    table.scalar(kEntityMinVersionField, kEntityVersion);
    table.scalar(kEntityLastPropertyId, entity.lastPropertyId().id);
    table.scalar(kEntityLastRelationId,
                 entity.relations().empty() ? 0 : entity.relations().back()->id());
    table.scalar(kEntityFlags, entity.flags());
    table.offset(kEntityExternalName, externalName);
    return finishedBytes(builder, table.finish());
}

EntityRecord::EntityRecord(const Bytes& record) : aligned_(alignedForTables(record)) {}

EntityRecord EntityRecord::verify(uint64_t key, const Bytes& record, const Catalog& catalog) {
    const auto require = [key](bool condition, const char* message) {
        if (!condition) throw DbFileCorruptException(message + std::to_string(key));
    };
    EntityRecord result(record);
    const Bytes& bytes = result.aligned_;
    require(verifyFlatBuffer(bytes.data(), bytes.size(), verifyEntityTable),
            "Schema entity could not be verified for key ");
    const Table& table = rootTable(bytes.data());
    const uint32_t id = readScalar<uint32_t>(table, kEntityId);
    require(id != 0, "No schema entity ID for key ");
    require(!readTextField(table, kEntityName).empty(), "No schema entity name for key ");
    require(isPartitionId(id), "Invalid entity ID for key ");
    require(id <= catalog.lastEntityId, "Invalid entity ID larger than last ID for key ");
    require(id == key, "Invalid entity ID does not match key ");
    return result;
}

uint32_t EntityRecord::schemaId() const {
    return readScalar<uint32_t>(rootTable(aligned_.data()), kEntitySchemaId);
}

std::shared_ptr<Entity> EntityRecord::parse() const {
    const Table& table = rootTable(aligned_.data());
    checkVersions(table);
    const std::string name = readText(table, kEntityName);
    const auto id = readScalar<uint32_t>(table, kEntityId);
    auto entity = std::make_shared<Entity>(id, readScalar<uint64_t>(table, kEntityUid), name);
    entity->setSchemaId(readScalar<uint32_t>(table, kEntitySchemaId));
    entity->setFlags(readScalar<uint32_t>(table, kEntityFlags));
    entity->setLastPropertyId({readScalar<uint32_t>(table, kEntityLastPropertyId), 0});
    entity->setMetaVersions(readScalar<uint32_t>(table, kEntityVersionField),
                            readScalar<uint32_t>(table, kEntityMinVersionField));
    entity->setCarriedValue(readScalar<uint32_t>(table, kEntityCarried));
    entity->setExternalName(readText(table, kEntityExternalName));
    forEachTable(table, kEntityProperties, [&](const Table& property) {
        entity->addProperty(parseProperty(property));
        entity->properties().back()->setEntity(id);  // refuses that of another entity
    });
    if (entity->properties().empty()) throwSchema("Entity must have at least one property");
    if (name.empty()) throwSchema("An entity has no name");
    forEachTable(table, kEntityRelations,
                 [&](const Table& relation) { entity->addRelation(parseRelation(relation)); });
    entity->finish();
    return entity;
}

}  // namespace quillmere
