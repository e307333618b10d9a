#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "schema/lookup.h"
#include "schema/property.h"

namespace quillmere {

class Catalog;
class Index;
class Relation;
class Schema;

// An ID with its UID: "id:uid" in messages.
struct IdUid {
    uint32_t id = 0;
    uint64_t uid = 0;

    bool empty() const { return id == 0 && uid == 0; }
    bool operator==(const IdUid&) const = default;
    std::string text() const;
};

// One entity of a schema. Owned by its schema through shared pointers; immutable once the schema is
// attached to a store. Pointers to properties, indexes and relations live as long as the entity.
class Entity {
public:
    Entity(uint32_t id, uint64_t uid, std::string name);
    ~Entity();
    Entity(const Entity&) = delete;
    Entity& operator=(const Entity&) = delete;

    uint32_t id() const { return id_; }
    uint64_t uid() const { return uid_; }
    uint32_t flags() const { return flags_; }
    bool hasFlag(EntityFlags flag) const { return (flags_ & flag) != 0; }
    uint32_t schemaId() const { return schemaId_; }
    const IdUid& lastPropertyId() const { return lastPropertyId_; }
    uint32_t metaVersion() const { return metaVersion_; }
    uint32_t minMetaVersion() const { return minMetaVersion_; }
    uint32_t carriedValue() const { return carriedValue_; }  // kept for the catalog, no meaning
    const std::string& name() const { return name_; }
    // "Entity "Note" (ID 1)", for messages.
    std::string text() const;
    const std::string& externalName() const { return externalName_; }

    const std::vector<std::shared_ptr<Property>>& properties() const { return properties_; }
    const std::vector<std::shared_ptr<Index>>& indexes() const { return indexes_; }
    const std::vector<std::shared_ptr<Relation>>& relations() const { return relations_; }

    // Null if there is none.
    const Property* findPropertyById(uint32_t id) const;
    const Property* findPropertyByUid(uint64_t uid) const;
    const Property* findPropertyByName(std::string_view name) const;
    const Property* findPropertyByFlatOffset(uint16_t offset) const;
    // Throws if there is none: "Property ID ... not found in entity ...".
    const Property& propertyById(uint32_t id) const;
    const Index* findIndexById(uint32_t id) const;
    const Index* findIndexByUid(uint64_t uid) const;
    const Relation* findRelationById(uint32_t id) const;
    const Relation* findRelationByUid(uint64_t uid) const;

    const Property& idProperty() const { return *idProperty_; }  // set after finish()
    const Property* idCompanion() const { return idCompanion_; }        // null if there is none
    const Property* expirationTime() const { return expirationTime_; }  // the same; set by a link
    // Throws SchemaException if there is none.
    const Property& expirationTimeProperty() const;

    // What targets this entity from elsewhere or from itself; set up when the schema is linked.
    const std::vector<const Property*>& incomingToOne() const { return incomingToOne_; }
    const std::vector<const Relation*>& incomingRelations() const { return incomingRelations_; }

    // --- building and migrating -------------------------------------------------------------
    void setFlags(uint32_t flags) { flags_ = flags; }
    void setName(std::string name) { name_ = std::move(name); }
    void setExternalName(std::string name) { externalName_ = std::move(name); }
    void setSchemaId(uint32_t id) { schemaId_ = id; }
    void setLastPropertyId(IdUid last) { lastPropertyId_ = last; }
    void setMetaVersions(uint32_t version, uint32_t minimum);
    void setCarriedValue(uint32_t value) { carriedValue_ = value; }

    void addProperty(std::shared_ptr<Property> property);
    void removeProperty(const Property& property);
    void renameProperty(Property& property, const std::string& newName);
    void addRelation(std::shared_ptr<Relation> relation);
    void removeRelation(const Relation& relation);
    // Takes the order of properties from another definition of the same entity; false if it was
    // that already.
    bool reorderProperties(const Entity& like);
    // Gives this entity and its properties their places in the stored schema.
    void assignIds(const Catalog& catalog, uint32_t schemaId);
    void assignIdsForProperty(Property& property, const Catalog& catalog);
    // Validates, makes the Index objects and sets up the lookups. Throws SchemaException.
    void finish();

private:
    friend class Schema;

    void findSpecialProperties();
    void findExpirationTime();
    void buildLookups();
    void createIndexes();
    const std::shared_ptr<Index>& createIndex(const std::shared_ptr<Property>& property);
    void removeIndex(uint32_t indexId);

    uint32_t id_;
    uint64_t uid_;
    uint32_t flags_ = 0;
    uint32_t schemaId_ = 0;
    IdUid lastPropertyId_;
    uint32_t metaVersion_ = 0;
    uint32_t minMetaVersion_ = 0;
    uint32_t carriedValue_ = 0;
    std::string name_;
    std::string externalName_;
    std::vector<std::shared_ptr<Property>> properties_;
    Lookup<std::string, Property> byName_;
    Lookup<uint32_t, Property> byId_;
    Lookup<uint64_t, Property> byUid_;
    Lookup<uint16_t, Property> byFlatOffset_;
    std::vector<std::shared_ptr<Index>> indexes_;
    std::vector<std::shared_ptr<Relation>> relations_;
    // Others may still point to what was removed, e.g. backlinks until the schema is linked again.
    std::vector<std::shared_ptr<Property>> removedProperties_;
    std::vector<std::shared_ptr<Relation>> removedRelations_;
    Property* idProperty_ = nullptr;
    Property* idCompanion_ = nullptr;
    Property* expirationTime_ = nullptr;
    std::vector<const Property*> incomingToOne_;
    std::vector<const Relation*> incomingRelations_;
};

}  // namespace quillmere
