#include "schema/schema_sync.h"

#include <algorithm>
#include <string>
#include <utility>

#include "core/checks.h"
#include "core/error.h"
#include "core/log.h"
#include "schema/model_reader.h"
#include "schema/schema.h"
#include "schema/schema_hash.h"
#include "schema/schema_host.h"
#include "schema/schema_verify.h"

namespace quillmere {
namespace {

// Entity flags that may change.
constexpr uint32_t kFreeEntityFlags = kEntityFlag1 | kEntitySyncEnabled;
// Property flags that may change; NOT_NULL may only be cleared.
constexpr uint32_t kFreePropertyFlags =
    kPropertyNullableScalar | kPropertyNotNull | kPropertyUnique | kPropertyIdSelfAssignable |
    kPropertyVirtual | kPropertyUnsigned | kPropertyReplaceOnConflict | kPropertyExpirationTime;
static_assert(kFreePropertyFlags == 0x1A4A6);

constexpr const char* kPropertyAdvice =
    "). Consider creating a new property instead. "
    "Please check the docs on data model migration and UIDs.";

Model readAndVerify(const Bytes& modelBytes) {
    std::optional<Model> model = readModel(modelBytes);
    if (!model) {
        throwSchema("Could not sync the incoming data model. Verification of the model object (",
                    std::to_string(modelBytes.size()),
                    " bytes) failed; does it originate from another version?");
    }
    const Schema& schema = *model->schema;
    if (schema.name() != Schema::kDefaultName || schema.id() != Schema::kDefaultId) {
        throwSchema("Only a single default schema is currently supported");
    }
    verifySchema(schema);
    verifyModelIds(*model);
    if (schema.entities().empty()) throwSchema("No entities in schema");
    model->schema->link();
    return std::move(*model);
}

void verifyModelHash(const Model& model) {
    if (model.hash.empty()) return;
    Catalog catalog = Catalog::create(model);
    catalog.defaultSchema = model.schema;
    const Bytes calculated = schemaHash(catalog, kBindingHash);
    if (!calculated.equals(model.hash)) {
        throwSchema("The incoming schema model hash ", model.hash.toHex(model.hash.size()),
                    " does not match the calculated one starting with ", calculated.toHex(4));
    }
}

// Raises a last ID of the database to that of the model. Returns whether it changed.
bool raiseLastId(uint32_t& stored, uint32_t incoming, const char* kind) {
    if (stored > incoming) {
        throwSchema("DB's last ", kind, " ID ", std::to_string(stored), " is higher than ",
                    std::to_string(incoming), " from model");
    }
    return std::exchange(stored, incoming) != incoming;
}

// Takes over what the model says beside its schema. Returns whether anything changed.
bool updateCatalogFields(const Model& model, Catalog& catalog) {
    bool changed = raiseLastId(catalog.lastEntityId, model.lastEntityId.id, "entity");
    changed |= raiseLastId(catalog.lastIndexId, model.lastIndexId.id, "index");
    changed |= raiseLastId(catalog.lastRelationId, model.lastRelationId.id, "relation");
    const uint32_t fourthLastId = std::max(catalog.fourthLastId, model.fourthLastId.id);
    changed |= std::exchange(catalog.fourthLastId, fourthLastId) != fourthLastId;
    changed |= std::exchange(catalog.userVersion, model.userVersion) != model.userVersion;
    return changed;
}

void verifySameId(uint32_t stored, uint32_t incoming, uint64_t uid) {
    if (stored == incoming) return;
    throwSchema("Conflicting Schema IDs ", std::to_string(stored), " vs. ",
                std::to_string(incoming), " for UID ", std::to_string(uid));
}

bool sameIndex(const Property& a, const Property& b) {
    if (((a.flags() ^ b.flags()) & kPropertyIndexMask) != 0) return false;
    if (a.indexId() != b.indexId()) return false;
    if (!a.hnswOptions() || !b.hnswOptions()) return a.hnswOptions() == b.hnswOptions();
    return *a.hnswOptions() == *b.hnswOptions();
}

}  // namespace

std::string SchemaSyncResult::text() const {
    const std::pair<const char*, uint32_t> counters[] = {
        {"entities added", entitiesAdded},
        {"entities renamed", entitiesRenamed},
        {"entities removed", entitiesRemoved},
        {"entity flag changes", entityFlagChanges},
        {"properties added", propertiesAdded},
        {"properties renamed", propertiesRenamed},
        {"properties removed", propertiesRemoved},
        {"properties reordered", propertiesReordered},
        {"property flag changes", propertyFlagChanges},
        {"relations added", relationsAdded},
        {"relations removed", relationsRemoved},
        {"indexes added", indexesAdded},
        {"indexes removed", indexesRemoved},
        {"HNSW indexes added", hnswIndexesAdded},
    };
    std::string text;
    for (const auto& [name, count] : counters) {
        if (count == 0) continue;
        if (!text.empty()) text += ", ";
        text.append(name).append(": ").append(std::to_string(count));
    }
    return text;
}

SchemaSyncResult SchemaSync::syncSchema(const Bytes& modelBytes) {
    CHECK_ARG(modelBytes.hasBytes());
    const Model model = readAndVerify(modelBytes);
    verifyModelHash(model);
    std::optional<Catalog> catalog = catalogStore_.readCatalogOnly();
    if (catalog) {
        updateSchema(model, *catalog);
    } else {
        createSchema(model);
    }
    return result_;
}

void SchemaSync::createSchema(const Model& model) {
    Catalog catalog = Catalog::create(model);
    for (const auto& entity : model.schema->entities()) {
        entity->assignIds(catalog, model.schema->id());
        catalogStore_.writeEntity(*entity);
        ++result_.entitiesAdded;
    }
    updateHashesAndWriteCatalog(model, catalog);
}

void SchemaSync::updateSchema(const Model& model, Catalog& catalog) {
    const bool catalogChanged = updateCatalogFields(model, catalog);
    existing_ = catalogStore_.readDefaultSchemaWithEntities(catalog);
    CHECK_STATE_TEXT_AT(93, existing_, "syncSchema", "existingSchema");
    verifyIncoming(*model.schema, *existing_);

    // Removing data needs the stored schema in its place.
    const std::shared_ptr<Schema> former = host_.schema();
    host_.setSchema(existing_);
    try {
        updateEntities(model, catalog, catalogChanged);
    } catch (...) {
        host_.setSchema(former);
        throw;
    }
}

void SchemaSync::updateEntities(const Model& model, Catalog& catalog, bool catalogChanged) {
    const auto verifySchemaIsSet = [&](int site) {
        CHECK_STATE_TEXT_AT(site, host_.schema() == existing_, "syncSchema",
                            "store.getSchema() == existingSchema");
    };
    verifySchemaIsSet(111);
    catalog_ = &catalog;
    syncEntities(*model.schema);
    catalog_ = nullptr;
    verifySchemaIsSet(117);
    if (!result_.any() && !catalogChanged && !entityWritten_) return;
    existing_->link();
    updateHashesAndWriteCatalog(model, catalog);
}

// The hashes are those of what is stored: the entities are read back.
void SchemaSync::updateHashesAndWriteCatalog(const Model& model, Catalog& catalog) {
    CHECK_STATE_TEXT_AT(137, catalog.defaultSchema, __func__, "catalog.defaultSchema()");
    const std::shared_ptr<Schema> updated = catalog.renewDefaultSchema();
    catalogStore_.readEntitiesIntoSchema(catalog, *updated);
    const size_t count = updated->entities().size();
    const size_t incomingCount = model.schema->entities().size();
    if (count != incomingCount) {
        throwSchema("Updated schema has ", std::to_string(count),
                    " entity types, but incoming schema has ", std::to_string(incomingCount));
    }
    catalog.bindingHash = schemaHash(catalog, kBindingHash);
    if (!model.hash.empty() && !catalog.bindingHash.equals(model.hash)) {
        throwSchema("Updated schema hash ", catalog.bindingHash.toHex(catalog.bindingHash.size()),
                    " does not match the incoming one ", model.hash.toHex(model.hash.size()));
    }
    catalog.fullHash = schemaHash(catalog, kFullHash);
    catalog.baseHash = schemaHash(catalog, kBaseHash);
    catalog.updateTimeNanos = currentTimeNanos();
    catalogStore_.writeCatalog(catalog);
}

void SchemaSync::syncEntities(const Schema& incoming) {
    std::vector<Entity*> removed;
    std::vector<Entity*> matched;
    for (const auto& entity : existing_->entities()) {
        const Entity* newEntity = incoming.findEntityByUid(entity->uid());
        if (newEntity) verifySameId(entity->id(), newEntity->id(), entity->uid());
        (newEntity ? matched : removed).push_back(entity.get());
    }
    removeEntities(removed);
    for (Entity* entity : matched) {
        const std::string& name = incoming.findEntityByUid(entity->uid())->name();
        if (entity->name() != name) renameEntity(*entity, name);
    }
    for (Entity* entity : matched) {
        const Entity* newEntity = incoming.findEntityByUid(entity->uid());
        CHECK_STATE_AT(544, newEntity);
        if (syncEntity(*entity, *newEntity)) writeEntity(*entity);
    }
    for (const auto& entity : incoming.entities()) {
        if (!existing_->findEntityByUid(entity->uid())) addEntity(entity);
    }
}

void SchemaSync::removeEntities(const std::vector<Entity*>& entities) {
    for (Entity* entity : entities) {
        existing_->removeEntity(*entity);
        catalogStore_.removeEntity(*entity);
        ++result_.entitiesRemoved;
    }
}

void SchemaSync::renameEntity(Entity& entity, const std::string& newName) {
    existing_->renameEntity(entity, newName);
    writeEntity(entity);
    ++result_.entitiesRenamed;
}

void SchemaSync::addEntity(const std::shared_ptr<Entity>& entity) {
    existing_->addEntity(entity);
    entity->assignIds(*catalog_, existing_->id());
    writeEntity(*entity);
    ++result_.entitiesAdded;
}

void SchemaSync::writeEntity(const Entity& entity) {
    catalogStore_.writeEntity(entity);
    entityWritten_ = true;
}

// Returns whether the entity changed.
bool SchemaSync::syncEntity(Entity& entity, const Entity& incoming) {
    const SchemaSyncResult before = result_;
    const bool lastIdRaised = syncLastPropertyId(entity, incoming);
    syncProperties(entity, incoming);
    syncRelations(entity, incoming);
    syncEntityFlags(entity, incoming);
    if (entity.externalName() != incoming.externalName()) {
        entity.setExternalName(incoming.externalName());
        ++result_.entityFlagChanges;
    }
    if (entity.reorderProperties(incoming)) ++result_.propertiesReordered;
    return lastIdRaised || result_ != before;
}

void SchemaSync::syncEntityFlags(Entity& entity, const Entity& incoming) {
    const uint32_t stored = entity.flags();
    const uint32_t wanted = incoming.flags();
    if (stored == wanted) return;
    if ((stored | kFreeEntityFlags) != (wanted | kFreeEntityFlags)) {
        throwSchema("Flags of ", entity.name(), " are not compatible to the previous definition");
    }
    if (!entity.hasFlag(kEntitySyncEnabled) && incoming.hasFlag(kEntitySyncEnabled)) {
        throwSchema("Turning an existing local entity type into a synced one is not allowed: ",
                    entity.name());
    }
    entity.setFlags(wanted);
    ++result_.entityFlagChanges;
}

// Returns whether the ID was raised.
bool SchemaSync::syncLastPropertyId(Entity& entity, const Entity& incoming) {
    const uint32_t stored = entity.lastPropertyId().id;
    const uint32_t wanted = incoming.lastPropertyId().id;
    if (stored > wanted) {
        throwSchema("DB's last property ID ", std::to_string(stored),
                    " is higher than the incoming one ", std::to_string(wanted), " in entity ",
                    entity.name());
    }
    entity.setLastPropertyId(incoming.lastPropertyId());
    return stored != wanted;
}

void SchemaSync::syncProperties(Entity& entity, const Entity& incoming) {
    std::vector<std::pair<Property*, std::string>> renames;
    const std::vector<std::shared_ptr<Property>> storedProperties = entity.properties();
    for (const auto& property : storedProperties) {
        const Property* newProperty = incoming.findPropertyByUid(property->uid());
        if (!newProperty) {
            removeProperty(entity, *property);
            continue;
        }
        syncProperty(entity, property, *newProperty);
        if (property->name() != newProperty->name()) {
            renames.emplace_back(property.get(), newProperty->name());
        }
    }
    for (const auto& [property, newName] : renames) {
        entity.renameProperty(*property, newName);
        ++result_.propertiesRenamed;
    }
    for (const auto& property : incoming.properties()) {
        if (!entity.findPropertyByUid(property->uid())) addProperty(entity, property);
    }
}

void SchemaSync::syncProperty(Entity& entity, const std::shared_ptr<Property>& property,
                              const Property& incoming) {
    // A relation to another entity is another type: the stored IDs mean nothing there.
    if (property->type() != incoming.type() ||
        property->targetEntityId() != incoming.targetEntityId()) {
        throwSchema("Existing ", property->name(), " of entity ", entity.name(),
                    " is not compatible with the new type ", propertyTypeName(incoming.type()),
                    " (", std::to_string(incoming.flags()), kPropertyAdvice);
    }
    syncPropertyIndex(entity, property, incoming);
    syncPropertyFlags(entity, *property, incoming);
    syncPropertyNames(*property, incoming);
}

void SchemaSync::syncPropertyFlags(const Entity& entity, Property& property,
                                   const Property& incoming) {
    const uint32_t stored = property.flags();
    const uint32_t wanted = incoming.flags();
    if (stored == wanted) return;
    uint32_t bad = (stored | kFreePropertyFlags) ^ (wanted | kFreePropertyFlags);
    if (!property.hasFlag(kPropertyNotNull)) bad |= wanted & kPropertyNotNull;
    if (bad != 0) {
        throwSchema("Cannot change the following flags for ", property.name(), " (",
                    entity.name(), ") from ", std::to_string(stored), " to ",
                    std::to_string(wanted), " (problematic flags: ", std::to_string(bad),
                    kPropertyAdvice);
    }
    property.setFlags(wanted);
    ++result_.propertyFlagChanges;
}

// All names but the property's own.
void SchemaSync::syncPropertyNames(Property& property, const Property& incoming) {
    if (property.virtualTarget() != incoming.virtualTarget()) {
        property.setVirtualTarget(incoming.virtualTarget());
        ++result_.propertyFlagChanges;
    }
    if (property.secondaryName() != incoming.secondaryName()) {
        property.setSecondaryName(incoming.secondaryName());
        ++result_.propertyFlagChanges;
    }
}

void SchemaSync::syncPropertyIndex(Entity& entity, const std::shared_ptr<Property>& property,
                                   const Property& newProperty) {
    if (sameIndex(*property, newProperty)) return;
    if (property->isIndexed()) removeIndex(entity, *property);
    property->setHnswOptions(newProperty.hnswOptions());
    if (!newProperty.isIndexed()) return;
    CHECK_STATE_TEXT_AT(711, newProperty.indexId() <= catalog_->lastIndexId, __func__,
                        "newProperty.indexId() <= catalog.lastIndexId()");
    property->setIndex(newProperty.indexId(), newProperty.indexUid(), newProperty.flags());
    if (newProperty.type() == PropertyType::FloatVector) {
        CHECK_STATE_TEXT_AT(716, newProperty.hnswOptions(), __func__, "newProperty.hnswOptions_");
    }
    addIndex(entity, property);
    // The graph of vectors is not kept yet, so that there is nothing to fill.
    if (!property->hnswOptions()) host_.rebuildIndex(entity, *property);
}

void SchemaSync::addProperty(Entity& entity, const std::shared_ptr<Property>& property) {
    if (property->hasFlag(kPropertyIdCompanion)) {
        throwSchema("Cannot add an ID companion property to an existing entity: ",
                    property->name(),
                    "; you need to remove the ID companion or introduce a new type.");
    }
    entity.addProperty(property);
    entity.assignIdsForProperty(*property, *catalog_);
    if (property->isIndexed()) addIndex(entity, property);
    ++result_.propertiesAdded;
}

void SchemaSync::removeProperty(Entity& entity, Property& property) {
    if (property.hasFlag(kPropertyIdCompanion)) {
        throwSchema("Cannot remove an ID companion property; please restore ", property.name(),
                    " in entity ", entity.name());
    }
    if (property.isIndexed()) removeIndex(entity, property);
    entity.removeProperty(property);
    ++result_.propertiesRemoved;
}

void SchemaSync::addIndex(Entity& entity, const std::shared_ptr<Property>& property) {
    existing_->addIndex(entity, property);
    ++result_.indexesAdded;
    if (property->hnswOptions()) ++result_.hnswIndexesAdded;
}

void SchemaSync::removeIndex(Entity& entity, Property& property) {
    catalogStore_.checkWritable();
    const uint32_t indexId = property.indexId();
    if (const Index* index = entity.findIndexById(indexId)) host_.removeIndexData(*index);
    if (!existing_->removeIndex(entity, indexId)) {
        logLine("%s [WARN ] Index %zu not removed from index\n", logTimestamp(),
                static_cast<size_t>(indexId));
    }
    property.removeIndex();
    ++result_.indexesRemoved;
}

void SchemaSync::syncRelations(Entity& entity, const Entity& incoming) {
    const std::vector<std::shared_ptr<Relation>> storedRelations = entity.relations();
    for (const auto& relation : incoming.relations()) {
        const Relation* stored = entity.findRelationByUid(relation->uid());
        if (stored) {
            verifySameId(stored->id(), relation->id(), relation->uid());
            verifySameId(stored->targetEntityId(), relation->targetEntityId(), relation->uid());
        } else {
            entity.addRelation(relation);
            ++result_.relationsAdded;
        }
    }
    for (const auto& relation : storedRelations) {
        if (incoming.findRelationByUid(relation->uid())) continue;
        catalogStore_.checkWritable();
        host_.removeRelationData(*relation);
        entity.removeRelation(*relation);
        ++result_.relationsRemoved;
    }
}

}  // namespace quillmere
