#include "schema/entity.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "core/checks.h"
#include "core/error.h"
#include "kv/partition.h"
#include "schema/catalog.h"
#include "schema/index.h"
#include "schema/relation.h"

namespace quillmere {
namespace {

// The element of a list of pointers of which `get` gives `value`, or null.
template <class List, class Get, class Value>
auto findBy(const List& list, Get get, const Value& value) {
    const auto found = std::ranges::find_if(
        list, [&](const auto& element) { return ((*element).*get)() == value; });
    return found == list.end() ? nullptr : found->get();
}

template <class T>
void moveElement(std::vector<std::shared_ptr<T>>& from, const T& element,
                 std::vector<std::shared_ptr<T>>& to) {
    const auto found = std::ranges::find(from, &element, &std::shared_ptr<T>::get);
    if (found == from.end()) return;
    to.push_back(std::move(*found));
    from.erase(found);
}

// Points `slot` to the property, which must be the only one of its kind.
void takeOnly(Property*& slot, Property& property, const char* message, const Entity& entity) {
    if (slot) throwSchema(message, entity.name());
    slot = &property;
}

}  // namespace

std::string IdUid::text() const { return std::to_string(id) + ":" + std::to_string(uid); }

Entity::Entity(uint32_t id, uint64_t uid, std::string name)
    : id_(id), uid_(uid), name_(std::move(name)) {}

Entity::~Entity() = default;

std::string Entity::text() const {
    return "Entity \"" + name_ + "\" (ID " + std::to_string(id_) + ")";
}

const Property* Entity::findPropertyById(uint32_t id) const { return findOrNull(byId_, id); }
const Property* Entity::findPropertyByUid(uint64_t uid) const { return findOrNull(byUid_, uid); }
const Property* Entity::findPropertyByName(std::string_view name) const {
    return findOrNull(byName_, name);
}
const Property* Entity::findPropertyByFlatOffset(uint16_t offset) const {
    return findOrNull(byFlatOffset_, offset);
}

const Property& Entity::propertyById(uint32_t id) const {
    const Property* property = findPropertyById(id);
    if (!property) {
        throwSchema("Property ID ", std::to_string(id), " not found in entity ", name_);
    }
    return *property;
}

const Index* Entity::findIndexById(uint32_t id) const { return findBy(indexes_, &Index::id, id); }
const Index* Entity::findIndexByUid(uint64_t uid) const {
    return findBy(indexes_, &Index::uid, uid);
}
const Relation* Entity::findRelationById(uint32_t id) const {
    return findBy(relations_, &Relation::id, id);
}
const Relation* Entity::findRelationByUid(uint64_t uid) const {
    return findBy(relations_, &Relation::uid, uid);
}

const Property& Entity::expirationTimeProperty() const {
    if (!expirationTime_) throwSchema("Entity has no expiration time property: ", name_);
    return *expirationTime_;
}

void Entity::setMetaVersions(uint32_t version, uint32_t minimum) {
    metaVersion_ = version;
    minMetaVersion_ = minimum;
}

void Entity::addProperty(std::shared_ptr<Property> property) {
    if (byName_.contains(property->name())) {
        throwSchema("Property already exists: ", property->name());
    }
    if (byId_.contains(property->id())) {
        throwSchema("Property with same ID already exists: ", property->name());
    }
    if (byUid_.contains(property->uid())) {
        throwSchema("Property UID already exists: ", property->name());
    }
    byName_.emplace(property->name(), property.get());
    byId_.emplace(property->id(), property.get());
    byUid_.emplace(property->uid(), property.get());
    properties_.push_back(std::move(property));
}

void Entity::removeProperty(const Property& property) {
    const bool erasedByName = byName_.erase(property.name()) == 1;
    CHECK_STATE_AT(550, erasedByName);
    const bool erasedByUid = byUid_.erase(property.uid()) == 1;
    CHECK_STATE_AT(553, erasedByUid);
    const bool erasedById = byId_.erase(property.id()) == 1;
    CHECK_STATE_AT(557, erasedById);
    byFlatOffset_.erase(property.flatOffset());
    moveElement(properties_, property, removedProperties_);
}

void Entity::renameProperty(Property& property, const std::string& newName) {
    if (newName.empty()) {
        throwSchema("Property cannot be renamed: new name is empty for ", property.name());
    }
    const Property* other = findPropertyByName(newName);
    if (other && other != &property) {
        throwSchema("Property cannot be renamed: another property already exists with the name ",
                    newName);
    }
    byName_.erase(property.name());
    property.setName(newName);
    byName_.emplace(newName, &property);
}

void Entity::addRelation(std::shared_ptr<Relation> relation) {
    const uint32_t id = relation->id();
    CHECK_STATE_AT(388, id);
    if (findRelationById(id)) {
        throwSchema("Relation with same ID already exists: ", std::to_string(id));
    }
    relations_.push_back(std::move(relation));
}

void Entity::removeRelation(const Relation& relation) {
    moveElement(relations_, relation, removedRelations_);
}

bool Entity::reorderProperties(const Entity& like) {
    std::vector<std::shared_ptr<Property>> ordered;
    ordered.reserve(properties_.size());
    for (const auto& wanted : like.properties_) {
        const auto found = std::ranges::find(properties_, wanted->id(), &Property::id);
        if (found == properties_.end()) {
            throwSchema("Cannot reorder properties - did not find property with ID ",
                        std::to_string(wanted->id()));
        }
        ordered.push_back(*found);
    }
    for (size_t i = 0; i < ordered.size(); ++i) {
        const Property& a = *ordered[i];
        const Property& b = *like.properties_[i];
        if (a.uid() != b.uid() || a.name() != b.name()) {
            throwSchema("Property not matching after sync: ", a.name(), " vs. ", b.name());
        }
    }
    const bool changed = ordered != properties_;
    properties_ = std::move(ordered);
    return changed;
}

void Entity::assignIds(const Catalog& catalog, uint32_t schemaId) {
    CHECK_STATE_AT(483, id_);
    CHECK_STATE_AT(484, uid_);
    CHECK_STATE_TEXT_AT(485, lastPropertyId_.id, __func__, "lastPropertyId_");
    CHECK_STATE_TEXT_AT(486, id_ <= catalog.lastEntityId, __func__,
                        "id_ <= catalog.lastEntityId()");
    checkPartitionId(id_);
    schemaId_ = schemaId;
    setMetaVersions(1, 1);
    for (const auto& property : properties_) assignIdsForProperty(*property, catalog);
}

void Entity::assignIdsForProperty(Property& property, const Catalog& catalog) {
    property.setEntity(id_);
    CHECK_STATE_TEXT_AT(499, property.id(), __func__, "property->id()");
    CHECK_STATE_TEXT_AT(500, property.uid(), __func__, "property->uid()");
    if (property.isIndexed()) {
        const uint32_t indexId = property.indexId();
        CHECK_STATE_AT(502, indexId);
        CHECK_STATE_TEXT_AT(504, indexId <= catalog.lastIndexId, __func__,
                            "indexId <= catalog.lastIndexId()");
        checkPartitionId(indexId);
    }
    const uint64_t flatOffset = uint64_t{property.id()} * 2 + 2;
    CHECK_STATE_AT(508, flatOffset <= std::numeric_limits<uint16_t>::max());
    property.setFlatOffset(static_cast<uint32_t>(flatOffset));
    byFlatOffset_[property.flatOffset()] = &property;
}

const std::shared_ptr<Index>& Entity::createIndex(const std::shared_ptr<Property>& property) {
    if (findPropertyById(property->id()) != property.get()) {
        throwSchema("Cannot create index for: ", property->name());
    }
    if (property->indexId() == 0 || property->indexUid() == 0) {
        throwSchema("No index ID/UID assigned for indexed property: ", property->name());
    }
    if (findIndexById(property->indexId())) {
        throwSchema("Index ID collision: ", std::to_string(property->indexId()));
    }
    return indexes_.emplace_back(std::make_shared<Index>(id_, property));
}

void Entity::createIndexes() {
    indexes_.clear();
    for (const auto& property : properties_) {
        if (property->isIndexed()) createIndex(property);
    }
}

void Entity::removeIndex(uint32_t indexId) {
    std::erase_if(indexes_, [&](const auto& index) { return index->id() == indexId; });
}

void Entity::findSpecialProperties() {
    idProperty_ = idCompanion_ = nullptr;
    for (const auto& property : properties_) {
        property->finish();
        if (property->hasFlag(kPropertyId)) {
            if (property->type() != PropertyType::Long) {
                throwSchema("ID property must be of type long: ", property->name());
            }
            takeOnly(idProperty_, *property, "Only one ID property allowed; entity: ", *this);
        }
        if (property->hasFlag(kPropertyIdCompanion)) {
            if (!isDateType(property->type())) {
                throwSchema("ID companion property must be one of the date types: ",
                            property->name());
            }
            takeOnly(idCompanion_, *property,
                     "Only one ID companion property allowed; entity: ", *this);
        }
    }
}

void Entity::findExpirationTime() {
    expirationTime_ = nullptr;
    for (const auto& property : properties_) {
        if (!property->hasFlag(kPropertyExpirationTime)) continue;
        if (expirationTime_) {
            throwSchema("Entity ", name_, " has more than one expiration time property: ",
                        expirationTime_->name(), " and ", property->name());
        }
        expirationTime_ = property.get();
    }
}

void Entity::buildLookups() {
    byName_.clear();
    byId_.clear();
    byUid_.clear();
    byFlatOffset_.clear();
    for (const auto& property : properties_) {
        if (!byName_.emplace(property->name(), property.get()).second) {
            throwSchema("Property already exists: ", property->name());
        }
        if (!byUid_.emplace(property->uid(), property.get()).second) {
            throwSchema("Property UID already exists: ", property->name());
        }
        const uint16_t offset = property->flatOffset();
        if (!byId_.emplace(property->id(), property.get()).second ||
            (offset != 0 && !byFlatOffset_.emplace(offset, property.get()).second)) {
            throwSchema("Property ID collision: ", property->name());
        }
    }
}

void Entity::finish() {
    if (name_.empty()) throwSchema("An entity has no name");
    if (properties_.empty()) throwSchema("Entity must have at least one property: ", name_);
    findSpecialProperties();
    buildLookups();
    createIndexes();
    if (!idProperty_) throwSchema("Entity does not specify an ID property: ", name_);
}

}  // namespace quillmere
