#include "schema/schema_verify.h"

#include <string>
#include <string_view>
#include <unordered_set>

#include "core/checks.h"
#include "core/error.h"
#include "core/hash.h"
#include "kv/partition.h"
#include "schema/model_reader.h"
#include "schema/schema.h"

namespace quillmere {
namespace {

// The flags that a property with the ID flag may have.
constexpr uint32_t kIdPropertyFlags = kPropertyId | kPropertyNullableScalar | kPropertyIdOptionA |
                                      kPropertyIdSelfAssignable;
static_assert(kIdPropertyFlags == 0xC3);

std::string versus(const IdUid& a, const IdUid& b) { return a.text() + " vs. " + b.text(); }

// --- the schema in itself -------------------------------------------------------------------

// ASCII letters, digits and '_', with no digit in front.
void verifyName(std::string_view name) {
    if (name.empty()) throwSchema("Name may not be empty");
    for (const char c : name) {
        const bool isDigit = c >= '0' && c <= '9';
        const bool isLetter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        if (!isDigit && !isLetter && c != '_') throwSchema("Name has illegal character: ", name);
    }
    if (name.front() < 'A') throwSchema("Name has illegal first character: ", name);
}

void verifyToOneRelation(const Schema& schema, const Entity& entity, const Property& property) {
    const std::string& name = property.name();
    if (property.targetEntityId() == 0 && property.targetEntityName().empty()) {
        throwSchema("Has no target entity ID: ", name);
    }
    const Entity* target = schema.findTarget(property);
    if (!target) throwSchema("No entity found for relation target: ", name);
    if (!property.hasFlag(kPropertyIndexed) || !property.hasFlag(kPropertyIndexSkipZero)) {
        throwSchema("Illegal flags for a relation property: ", name);
    }
    if (entity.hasFlag(kEntitySyncEnabled) != target->hasFlag(kEntitySyncEnabled)) {
        throwSchema("Relations are not allowed between synced and local-only entity types: ",
                    entity.name(), " vs. ", target->name(), " based on property ", name);
    }
}

void verifyVirtual(const Property& property) {
    const bool isVirtual = property.hasFlag(kPropertyVirtual);
    if (isVirtual && !property.isRelation()) {
        throwSchema("Virtual properties are only supported for type relation: ", property.name());
    }
    if (isVirtual && property.virtualTarget().empty()) {
        throwSchema("Virtual property without a virtual target: ", property.name());
    }
    if (!isVirtual && !property.virtualTarget().empty()) {
        throwSchema("Non-virtual property has a virtual target: ", property.name());
    }
}

void verifyProperty(const Schema& schema, const Entity& entity, const Property& property) {
    verifyName(property.name());
    propertyTypeSize(property.type());  // refuses unknown types
    if (property.hasFlag(kPropertyId)) {
        const uint32_t extra = property.flags() & ~kIdPropertyFlags;
        if (extra != 0) {
            throwSchema("Incompatible flags for ID property ", property.name(), " (",
                        entity.name(), "): ", std::to_string(extra));
        }
    }
    if (property.isRelation()) verifyToOneRelation(schema, entity, property);
    verifyVirtual(property);
    if (property.hasFlag(kPropertyExpirationTime) && !isDateType(property.type())) {
        throwSchema("Expiration time is only supported for properties of type date: ",
                    property.name());
    }
}

void verifyIndex(const Index& index) {
    if (index.properties().size() != 1) throwSchema("Index without single property present");
    const Property& property = index.property();
    const std::string& name = property.name();
    switch (property.type()) {
        case PropertyType::Float:
        case PropertyType::Double:
            throwSchema("Indexing of float and double is currently unavailable. ",
                        "Please remove the index on ", name);
        case PropertyType::ByteVector:
            throwSchema("Indexing of byte arrays is not yet supported. ",
                        "Please remove the index on ", name);
        case PropertyType::StringVector:
            throwSchema("Indexing of string arrays is not yet supported. ",
                        "Please remove the index on ", name);
        default:
            break;
    }
    if (index.type() == IndexType::Hnsw) {
        if (property.type() != PropertyType::FloatVector) {
            throwSchema("HNSW index is only allowed for float vector properties: ", name);
        }
    } else if (index.type() != IndexType::Value && property.type() != PropertyType::String) {
        throwSchema("Only string types may have non-value index types for now: ", name);
    }
}

void verifyRelation(const Schema& schema, const Relation& relation) {
    if (relation.sourceEntityId() == 0 || relation.targetEntityId() == 0) {
        throwSchema("Undefined entity type ID(s): ", relation.text());
    }
    if (!schema.findEntityById(relation.sourceEntityId())) {
        throwSchema("No entity type found for relation source: ", relation.text());
    }
    if (!schema.findEntityById(relation.targetEntityId())) {
        throwSchema("No entity type found for relation target: ", relation.text());
    }
}

void verifyEntity(const Schema& schema, const Entity& entity) {
    verifyName(entity.name());
    if (entity.hasFlag(kEntitySharedGlobalIds) && !entity.hasFlag(kEntitySyncEnabled)) {
        throwSchema("Shared global IDs are only available for entities that are enabled for sync: ",
                    entity.name());
    }
    for (const auto& property : entity.properties()) verifyProperty(schema, entity, *property);
    for (const auto& index : entity.indexes()) verifyIndex(*index);
    for (const auto& relation : entity.relations()) verifyRelation(schema, *relation);
}

// --- the bookkeeping of a model -------------------------------------------------------------

// Walks a model once and remembers what was used.
class IdVerifier {
public:
    explicit IdVerifier(const Model& model) : model_(model) {}

    void run() {
        verifyLastIds();
        for (const auto& entity : model_.schema->entities()) verifyEntity(*entity);
        const Entity* last = model_.schema->findEntityById(model_.lastEntityId.id);
        if (last && last->uid() != model_.lastEntityId.uid) {
            throwSchema("Inconsistent last entity UID: ",
                        versus(model_.lastEntityId, {last->id(), last->uid()}));
        }
    }

private:
    template <class T>
    using Set = std::unordered_set<T, FnvHash<T>>;

    void verifyLastIds() const {
        verifyEntityId(model_.lastEntityId.id);
        if (model_.lastIndexId.id > kMaxPartitionId) {
            throwSchema("Illegal last index ID ", std::to_string(model_.lastIndexId.id));
        }
        if (model_.lastRelationId.id > kMaxPartitionId) {
            throwSchema("Illegal last relation ID ", std::to_string(model_.lastRelationId.id));
        }
    }

    static void verifyEntityId(uint32_t id) {
        if (!isPartitionId(id)) throwSchema("Illegal entity schema ID ", std::to_string(id));
    }

    void takeUid(uint64_t uid, const char* where, const std::string& name) {
        if (!uids_.insert(uid).second) {
            throwSchema("Duplicate UID ", std::to_string(uid), where, name);
        }
    }

    void verifyEntity(const Entity& entity) {
        verifyEntityId(entity.id());
        if (entity.uid() == 0) throwSchema("Entity has no UID: ", entity.name());
        if (entity.lastPropertyId().id == 0) {
            throwSchema("Entity no last property ID: ", entity.name());
        }
        if (entity.id() > model_.lastEntityId.id) {
            throwSchema("Last entity ID ", std::to_string(model_.lastEntityId.id),
                        " is lower than ID ", std::to_string(entity.id()), " of entity ",
                        entity.name());
        }
        takeUid(entity.uid(), " found in entity ", entity.name());
        for (const auto& property : entity.properties()) verifyProperty(*property);
        for (const auto& relation : entity.relations()) verifyRelation(entity, *relation);
    }

    void verifyProperty(const Property& property) {
        const std::string& name = property.name();
        if (property.id() == 0) throwSchema("Property has no ID: ", name);
        if (property.uid() == 0) throwSchema("Property has no UID: ", name);
        takeUid(property.uid(), " found in property ", name);
        if (property.isIndexed()) {
            verifyIndex(property);
        } else if (property.indexId() != 0 || property.indexUid() != 0) {
            throwSchema("Property is not indexed but has an index ID/UID: ", name);
        }
        if (property.isRelation() && !model_.schema->findTarget(property)) {
            throwSchema("No target entity available for ", name);
        }
    }

    void verifyIndex(const Property& property) {
        const IdUid index{property.indexId(), property.indexUid()};
        const IdUid& last = model_.lastIndexId;
        if (index.id == 0 || index.uid == 0) {
            throwSchema("Property is indexed but has no index ID/UID: ", property.name());
        }
        if (index.id > last.id) {
            throwSchema("Property's index ID ", std::to_string(index.id),
                        " is higher than last index ID ", std::to_string(last.id));
        }
        if (index.id == last.id && index.uid != last.uid) {
            throwSchema("Inconsistent last index UID: ", versus(index, last));
        }
        if (!indexIds_.insert(index.id).second) {
            throwSchema("Duplicate index ID ", std::to_string(index.id), " found for property ",
                        property.name());
        }
        takeUid(index.uid, " found in index for property ", property.name());
    }

    void verifyRelation(const Entity& entity, const Relation& relation) {
        const IdUid id{relation.id(), relation.uid()};
        const IdUid& last = model_.lastRelationId;
        if (!relationIds_.insert(id.id).second) {
            throwSchema("Duplicate relation ID: ", std::to_string(id.id));
        }
        takeUid(id.uid, " found in relation ", relation.text());
        if (id.id > last.id) {
            throwSchema("Relation ID higher than last relation ID ", std::to_string(last.id));
        }
        if (id.id == last.id && id.uid != last.uid) {
            throwSchema("Inconsistent last relation UID: ", versus(id, last));
        }
        if (relation.sourceEntityId() != entity.id()) {
            throwSchema("Relation's source ID does not match entity ID ",
                        std::to_string(entity.id()));
        }
    }

    const Model& model_;
    Set<uint64_t> uids_;
    Set<uint32_t> indexIds_;
    Set<uint32_t> relationIds_;
};

// --- incoming against stored ----------------------------------------------------------------

// `byId` and `byUid` are the stored elements with the incoming ID and UID, or null. `site` is the
// number of the check on the stored element's UID.
template <class Element>
void verifyIdentity(const char* kind, const IdUid& incoming, const Element* byId,
                    const Element* byUid, int site) {
    if (incoming.id == 0) throwSchema("Incoming ", kind, " ID is empty");
    const std::string what = std::string("Incoming ") + kind + " ID " + incoming.text();
    if (byId) {
        const uint64_t existingUid = byId->uid();
        CHECK_STATE_TEXT_AT(site, existingUid, "verifyIncoming", "existingUid");
        if (existingUid != incoming.uid) {
            throwSchema(what, " does not match existing UID ", std::to_string(existingUid));
        }
    } else if (byUid) {
        throwSchema(what, " does not match with any existing ID, but its UID matches ",
                    std::to_string(byUid->id()));
    }
}

// `existing` is the stored form of the entity, or null for one that is new.
void verifyIncomingIndex(const Index& index, const Entity& entity, const Entity* existing,
                         const Schema& existingSchema) {
    const Index* byId = existing ? existing->findIndexById(index.id()) : nullptr;
    const Index* byUid = existing ? existing->findIndexByUid(index.uid()) : nullptr;
    verifyIdentity("index", {index.id(), index.uid()}, byId, byUid, 1037);
    if (byId) return;
    if (const Index* other = existingSchema.findIndexById(index.id())) {
        throwSchema("Incoming index ID ", std::to_string(index.id()),
                    " was not found in entity ", entity.name(), ", but in ",
                    existingSchema.entityById(other->entityId()).name());
    }
    if (const Index* other = existingSchema.findIndexByUid(index.uid())) {
        throwSchema("Incoming index UID ", std::to_string(index.uid()),
                    " was not found via ID in entity ", entity.name(), ", but in ",
                    existingSchema.entityById(other->entityId()).name());
    }
}

}  // namespace

void verifySchema(const Schema& schema) {
    for (const auto& entity : schema.entities()) verifyEntity(schema, *entity);
}

void verifyModelIds(const Model& model) { IdVerifier(model).run(); }

void verifyIncoming(const Schema& incoming, const Schema& existing) {
    for (const auto& entity : incoming.entities()) {
        const Entity* stored = existing.findEntityById(entity->id());
        verifyIdentity("entity", {entity->id(), entity->uid()}, stored,
                       existing.findEntityByUid(entity->uid()), 988);
        for (const auto& property : entity->properties()) {
            verifyIdentity("property", {property->id(), property->uid()},
                           stored ? stored->findPropertyById(property->id()) : nullptr,
                           stored ? stored->findPropertyByUid(property->uid()) : nullptr, 1012);
        }
        for (const auto& index : entity->indexes()) {
            verifyIncomingIndex(*index, *entity, stored, existing);
        }
    }
}

}  // namespace quillmere
