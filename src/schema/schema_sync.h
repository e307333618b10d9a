#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "schema/catalog_store.h"

namespace quillmere {

class Entity;
struct Model;
class Property;
class Schema;
class SchemaHost;

// What a synchronisation changed.
struct SchemaSyncResult {
    uint32_t entitiesAdded = 0;
    uint32_t entitiesRenamed = 0;
    uint32_t entitiesRemoved = 0;
    uint32_t entityFlagChanges = 0;  // and changes of external names
    uint32_t propertiesAdded = 0;
    uint32_t propertiesRenamed = 0;
    uint32_t propertiesRemoved = 0;
    uint32_t propertiesReordered = 0;  // entities with a new order of properties
    uint32_t propertyFlagChanges = 0;  // and changes of secondary names and virtual targets
    uint32_t relationsAdded = 0;
    uint32_t relationsRemoved = 0;
    uint32_t indexesAdded = 0;
    uint32_t indexesRemoved = 0;
    uint32_t hnswIndexesAdded = 0;  // these count as indexes added, too

    bool any() const { return *this != SchemaSyncResult{}; }
    // "entities added: 1, properties renamed: 2": what is not 0.
    std::string text() const;
    bool operator==(const SchemaSyncResult&) const = default;
};

// Brings the schema in a database to the data model of an application. Elements are matched by UID;
// model and database refuse each other rather than guess. Data changes only where whole entities,
// relations and indexes come or go.
//
// Lives on the host's write transaction and its thread, for one synchronisation. Most failures are
// SchemaExceptions; after one the transaction must be aborted, as parts may have been written.
class SchemaSync {
public:
    explicit SchemaSync(SchemaHost& host) : host_(host), catalogStore_(host) {}

    // Writes nothing if the database has this very schema. On success the host may keep the schema
    // that it was given for the duration, on failure it has the former one back.
    SchemaSyncResult syncSchema(const Bytes& modelBytes);

private:
    void createSchema(const Model& model);
    void updateSchema(const Model& model, Catalog& catalog);
    void updateEntities(const Model& model, Catalog& catalog, bool catalogChanged);
    void updateHashesAndWriteCatalog(const Model& model, Catalog& catalog);

    void syncEntities(const Schema& incoming);
    void removeEntities(const std::vector<Entity*>& entities);
    void renameEntity(Entity& entity, const std::string& newName);
    void addEntity(const std::shared_ptr<Entity>& entity);
    void writeEntity(const Entity& entity);
    bool syncEntity(Entity& entity, const Entity& incoming);
    void syncEntityFlags(Entity& entity, const Entity& incoming);
    bool syncLastPropertyId(Entity& entity, const Entity& incoming);
    void syncProperties(Entity& entity, const Entity& incoming);
    void syncProperty(Entity& entity, const std::shared_ptr<Property>& property,
                      const Property& incoming);
    void syncPropertyFlags(const Entity& entity, Property& property, const Property& incoming);
    void syncPropertyNames(Property& property, const Property& incoming);
    void syncPropertyIndex(Entity& entity, const std::shared_ptr<Property>& property,
                           const Property& newProperty);
    void addProperty(Entity& entity, const std::shared_ptr<Property>& property);
    void removeProperty(Entity& entity, Property& property);
    void addIndex(Entity& entity, const std::shared_ptr<Property>& property);
    void removeIndex(Entity& entity, Property& property);
    void syncRelations(Entity& entity, const Entity& incoming);

    SchemaHost& host_;
    CatalogStore catalogStore_;
    Catalog* catalog_ = nullptr;        // while entities are synchronised
    std::shared_ptr<Schema> existing_;  // the stored schema, changed step by step
    bool entityWritten_ = false;
    SchemaSyncResult result_;
};

}  // namespace quillmere
