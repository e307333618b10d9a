#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "schema/entity.h"
#include "schema/index.h"
#include "schema/relation.h"

namespace quillmere {

// The data model of a store. Immutable once attached to a store and shared by pointer between
// threads; changed only while a store opens.
class Schema {
public:
    static constexpr const char* kDefaultName = "default";

    explicit Schema(uint32_t id = 0, std::string name = kDefaultName);

    uint32_t id() const { return id_; }
    void setId(uint32_t id) { id_ = id; }
    const std::string& name() const { return name_; }
    const std::vector<std::shared_ptr<Entity>>& entities() const { return entities_; }

    // Null if there is none.
    Entity* findEntityById(uint32_t id) const;
    Entity* findEntityByUid(uint64_t uid) const;
    Entity* findEntityByName(std::string_view name) const;
    const Index* findIndexById(uint32_t id) const;
    const Relation* findRelationById(uint32_t id) const;
    // Throw if there is none: "Entity type ID not found in schema: ", "No index found for ID ".
    const Entity& entityById(uint32_t id) const;
    const Index& indexById(uint32_t id) const;

    void addEntity(std::shared_ptr<Entity> entity);
    // The entity stays alive with the schema: others may still hold pointers into it.
    void removeEntity(Entity& entity);
    void renameEntity(Entity& entity, const std::string& newName);
    // Resolves relation targets, sets up backlinks and the maps by index and relation ID. Throws
    // SchemaException.
    void link();

private:
    uint32_t id_;
    std::string name_;
    std::vector<std::shared_ptr<Entity>> entities_;
    std::vector<std::shared_ptr<Entity>> removed_;
    std::unordered_map<std::string, Entity*> byName_;
    std::unordered_map<uint32_t, Entity*> byId_;
    std::unordered_map<uint64_t, Entity*> byUid_;
    std::unordered_map<uint32_t, Index*> indexes_;
    std::unordered_map<uint32_t, Relation*> relations_;
};

}  // namespace quillmere
