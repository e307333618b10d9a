#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "schema/entity.h"
#include "schema/index.h"
#include "schema/lookup.h"
#include "schema/relation.h"

namespace quillmere {

// The data model of a store. Immutable once attached to a store and shared by pointer between
// threads; changed only while a store opens.
class Schema {
public:
    static constexpr const char* kDefaultName = "default";
    static constexpr uint32_t kDefaultId = 1;

    explicit Schema(uint32_t id = kDefaultId, std::string name = kDefaultName);

    uint32_t id() const { return id_; }
    const std::string& name() const { return name_; }
    const std::vector<std::shared_ptr<Entity>>& entities() const { return entities_; }

    // Null if there is none.
    Entity* findEntityById(uint32_t id) const;
    Entity* findEntityByUid(uint64_t uid) const;
    Entity* findEntityByName(std::string_view name) const;
    const Index* findIndexById(uint32_t id) const;
    const Index* findIndexByUid(uint64_t uid) const;
    const Relation* findRelationById(uint32_t id) const;
    // The target of a to-one relation, by ID or, in a model, by name.
    Entity* findTarget(const Property& property) const;
    // Throw if there is none: "Entity type ID not found in schema: ", "No index found for ID ".
    const Entity& entityById(uint32_t id) const;
    const Index& indexById(uint32_t id) const;

    void addEntity(std::shared_ptr<Entity> entity);
    // REQUIRES: linked. The entity stays alive with the schema: others may still hold pointers into
    // it.
    void removeEntity(Entity& entity);
    void renameEntity(Entity& entity, const std::string& newName);
    // Makes the Index object of a property that has been given an index.
    void addIndex(Entity& entity, const std::shared_ptr<Property>& property);
    // False if the schema does not know the index.
    bool removeIndex(Entity& entity, uint32_t indexId);
    // Resolves relation targets, sets up backlinks and the maps by index and relation ID; may be
    // called again after changes. Throws SchemaException.
    void link();

private:
    void linkProperty(Property& property);
    void linkRelation(Relation& relation);

    uint32_t id_;
    std::string name_;
    std::vector<std::shared_ptr<Entity>> entities_;
    std::vector<std::shared_ptr<Entity>> removed_;
    Lookup<std::string, Entity> byName_;
    Lookup<uint32_t, Entity> byId_;
    Lookup<uint64_t, Entity> byUid_;
    Lookup<uint32_t, Index> indexes_;
    Lookup<uint32_t, Relation> relations_;
};

}  // namespace quillmere
