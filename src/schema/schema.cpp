#include "schema/schema.h"

#include <algorithm>
#include <utility>

#include "core/checks.h"
#include "core/error.h"

namespace quillmere {

Schema::Schema(uint32_t id, std::string name) : id_(id), name_(std::move(name)) {}

Entity* Schema::findEntityById(uint32_t id) const { return findOrNull(byId_, id); }
Entity* Schema::findEntityByUid(uint64_t uid) const { return findOrNull(byUid_, uid); }
Entity* Schema::findEntityByName(std::string_view name) const { return findOrNull(byName_, name); }
const Index* Schema::findIndexById(uint32_t id) const { return findOrNull(indexes_, id); }
const Relation* Schema::findRelationById(uint32_t id) const { return findOrNull(relations_, id); }

const Index* Schema::findIndexByUid(uint64_t uid) const {
    const auto found = std::ranges::find_if(
        indexes_, [&](const auto& element) { return element.second->uid() == uid; });
    return found == indexes_.end() ? nullptr : found->second;
}

Entity* Schema::findTarget(const Property& property) const {
    return property.targetEntityId() != 0 ? findEntityById(property.targetEntityId())
                                          : findEntityByName(property.targetEntityName());
}

const Entity& Schema::entityById(uint32_t id) const {
    const Entity* entity = findEntityById(id);
    if (!entity) throwSchema("Entity type ID not found in schema: ", std::to_string(id));
    return *entity;
}

const Index& Schema::indexById(uint32_t id) const {
    const Index* index = findIndexById(id);
    if (!index) throwSchema("No index found for ID ", std::to_string(id));
    return *index;
}

void Schema::addEntity(std::shared_ptr<Entity> entity) {
    if (byName_.contains(entity->name())) {
        throwSchema("Entity name already exists: ", entity->name());
    }
    if (byId_.contains(entity->id())) {
        throwSchema("Entity ID already exists: ", std::to_string(entity->id()));
    }
    if (byUid_.contains(entity->uid())) {
        throwSchema("Entity UID already exists: ", std::to_string(entity->uid()));
    }
    byName_.emplace(entity->name(), entity.get());
    byId_.emplace(entity->id(), entity.get());
    byUid_.emplace(entity->uid(), entity.get());
    entities_.push_back(std::move(entity));
}

void Schema::removeEntity(Entity& entity) {
    const auto found = std::ranges::find(entities_, &entity, &std::shared_ptr<Entity>::get);
    if (found == entities_.end()) {
        throwSchema("Entity ", entity.name(), " not found in schema");
    }
    const bool uidErased = byUid_.erase(entity.uid()) == 1;
    CHECK_STATE_AT(107, uidErased);
    const bool idErased = byId_.erase(entity.id()) == 1;
    CHECK_STATE_AT(111, idErased);
    const bool nameErased = byName_.erase(entity.name()) == 1;
    CHECK_STATE_AT(115, nameErased);
    for (const auto& index : entity.indexes()) {
        const bool indexErased = indexes_.erase(index->id()) == 1;
        CHECK_STATE_AT(119, indexErased);
    }
    for (const auto& relation : entity.relations()) relations_.erase(relation->id());

    removed_.push_back(*found);
    entities_.erase(found);
    for (const auto& other : entities_) {
        std::erase_if(other->incomingToOne_, [&](const Property* property) {
            return property->entityId() == entity.id();
        });
        std::erase_if(other->incomingRelations_, [&](const Relation* relation) {
            return relation->sourceEntityId() == entity.id();
        });
    }
}

void Schema::renameEntity(Entity& entity, const std::string& newName) {
    if (findEntityByName(newName)) {
        throwSchema("Cannot rename entity ", entity.name(), " to ", newName,
                    ": entity already exists");
    }
    if (findEntityByName(entity.name()) != &entity) {
        throwSchema("Entity ", entity.name(), " does not match given entity");
    }
    byName_.erase(entity.name());
    entity.setName(newName);
    byName_.emplace(newName, &entity);
}

void Schema::addIndex(Entity& entity, const std::shared_ptr<Property>& property) {
    Index* index = entity.createIndex(property).get();
    if (!indexes_.emplace(index->id(), index).second) {
        throwSchema("Index ID collision: ", std::to_string(index->id()));
    }
}

bool Schema::removeIndex(Entity& entity, uint32_t indexId) {
    const bool known = indexes_.erase(indexId) == 1;
    entity.removeIndex(indexId);
    return known;
}

void Schema::linkProperty(Property& property) {
    if (!property.isRelation()) return;
    const uint32_t id = property.targetEntityId();
    if (id == 0 && property.targetEntityName().empty()) {
        throwSchema("Has no target entity ID: ", property.name());
    }
    Entity* target = findTarget(property);
    if (!target) {
        throwSchema("Property ", property.name(), " references unknown entity ",
                    id != 0 ? std::to_string(id) : property.targetEntityName());
    }
    property.setTargetEntityId(target->id());
    target->incomingToOne_.push_back(&property);
}

void Schema::linkRelation(Relation& relation) {
    if (!relations_.emplace(relation.id(), &relation).second) {
        throwSchema("Relation with same ID already exists: ", std::to_string(relation.id()));
    }
    Entity* target = findEntityById(relation.targetEntityId());
    if (!target) throwSchema("No entity type found for relation target: ", relation.text());
    target->incomingRelations_.push_back(&relation);
}

void Schema::link() {
    indexes_.clear();
    relations_.clear();
    for (const auto& entity : entities_) {
        entity->incomingToOne_.clear();
        entity->incomingRelations_.clear();
    }
    for (const auto& entity : entities_) {
        entity->findExpirationTime();
        for (const auto& property : entity->properties()) linkProperty(*property);
        for (const auto& relation : entity->relations()) linkRelation(*relation);
        for (const auto& index : entity->indexes()) {
            if (!indexes_.emplace(index->id(), index.get()).second) {
                throwSchema("Index ID collision: ", std::to_string(index->id()));
            }
        }
    }
}

}  // namespace quillmere
