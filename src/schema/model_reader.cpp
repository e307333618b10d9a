#include "schema/model_reader.h"

#include <string>
#include <utility>

#include "core/checks.h"
#include "core/error.h"
#include "core/flatbuffer_check.h"
#include "schema/flat_table.h"
#include "schema/hnsw_table.h"
#include "schema/model_format.h"
#include "schema/schema.h"

namespace quillmere {

using namespace model_format;
using flatbuffers::Table;
using flatbuffers::Verifier;

namespace {

bool verifyIdUid(const Verifier& verifier, const Table& table, uint32_t field) {
    return verifyStruct(verifier, table, field, sizeof(IdUidField), alignof(IdUidField));
}

bool verifyProperty(Verifier& verifier, const Table& table) {
    return verifyIdUid(verifier, table, kPropertyIdUid) &&
           verifyText(verifier, table, kPropertyName) &&
           verifyScalar<uint16_t>(verifier, table, kPropertyType) &&
           verifyScalar<uint32_t>(verifier, table, kPropertyFlagsWord) &&
           verifyIdUid(verifier, table, kPropertyIndex) &&
           verifyText(verifier, table, kPropertyTargetEntity) &&
           verifyText(verifier, table, kPropertyVirtualTarget) &&
           verifyText(verifier, table, kPropertySecondaryName) &&
           verifySubTable(verifier, table, kPropertyHnsw, verifyHnswTable) &&
           verifyScalar<uint16_t>(verifier, table, kPropertySmallValue);
}

bool verifyRelation(Verifier& verifier, const Table& table) {
    return verifyIdUid(verifier, table, kRelationId) &&
           verifyIdUid(verifier, table, kRelationTarget);
}

bool verifyEntity(Verifier& verifier, const Table& table) {
    return verifyIdUid(verifier, table, kEntityId) && verifyText(verifier, table, kEntityName) &&
           verifySubTables(verifier, table, kEntityProperties, verifyProperty) &&
           verifyIdUid(verifier, table, kEntityLastPropertyId) &&
           verifySubTables(verifier, table, kEntityRelations, verifyRelation) &&
           verifyScalar<uint32_t>(verifier, table, kEntityFlags) &&
           verifyText(verifier, table, kEntityExternalName);
}

bool verifyModel(Verifier& verifier, const Table& table) {
    return verifyScalar<uint32_t>(verifier, table, kModelVersionField) &&
           verifyText(verifier, table, kModelName) &&
           verifyScalar<uint64_t>(verifier, table, kModelUserVersion) &&
           verifySubTables(verifier, table, kModelEntities, verifyEntity) &&
           verifyIdUid(verifier, table, kModelLastEntityId) &&
           verifyIdUid(verifier, table, kModelLastIndexId) &&
           verifyIdUid(verifier, table, kModelFourthLastId) &&
           verifyIdUid(verifier, table, kModelLastRelationId) &&
           verifyBytes(verifier, table, kModelHash);
}

IdUid readIdUid(const Table& table, uint32_t field) {
    const auto* const value = table.GetStruct<const IdUidField*>(fieldOffset(field));
    return value ? value->value() : IdUid{};
}

std::shared_ptr<Property> readProperty(const Table& table) {
    const IdUid id = readIdUid(table, kPropertyIdUid);
    const IdUid index = readIdUid(table, kPropertyIndex);
    auto property = std::make_shared<Property>(
        id.id, id.uid, readText(table, kPropertyName),
        static_cast<PropertyType>(readScalar<uint16_t>(table, kPropertyType)),
        readScalar<uint32_t>(table, kPropertyFlagsWord));
    property->setIndexIds(index.id, index.uid);
    property->setTargetEntityName(readText(table, kPropertyTargetEntity));
    property->setVirtualTarget(readText(table, kPropertyVirtualTarget));
    property->setSecondaryName(readText(table, kPropertySecondaryName));
    const auto* const hnsw = table.GetPointer<const Table*>(fieldOffset(kPropertyHnsw));
    if (hnsw) property->setHnswOptions(readHnswTable(*hnsw));
    return property;
}

std::shared_ptr<Relation> readRelation(const Table& table, const Entity& entity) {
    const IdUid id = readIdUid(table, kRelationId);
    const IdUid target = readIdUid(table, kRelationTarget);
    CHECK_STATE_TEXT_AT(20, id.id, "Relation", "modelRelation.id()");
    CHECK_STATE_TEXT_AT(21, target.id, "Relation", "modelRelation.targetEntityId()");
    CHECK_STATE_TEXT_AT(22, entity.id(), "Relation", "entity.id()");
    return std::make_shared<Relation>(id.id, id.uid, entity.id(), target.id);
}

std::string pairText(const Property* property) {
    return property ? IdUid{property->id(), property->uid()}.text() : "n/a";
}

// The last property may have been removed; if it is there, it must have both the ID and the UID.
void checkLastPropertyId(const Entity& entity) {
    const IdUid& last = entity.lastPropertyId();
    const Property* byId = entity.findPropertyById(last.id);
    const Property* byUid = entity.findPropertyByUid(last.uid);
    if (byId != byUid) {
        throwSchema("Last property ID:UID ", last.text(), " is inconsistent for ", entity.name(),
                    ": ", pairText(byId), " vs. ", pairText(byUid));
    }
}

std::shared_ptr<Entity> readEntity(const Table& table) {
    const std::string name = readText(table, kEntityName);
    const IdUid id = readIdUid(table, kEntityId);
    const IdUid lastPropertyId = readIdUid(table, kEntityLastPropertyId);
    if (name.empty()) throwSchema("Model entity has no name");
    if (id.id == 0) throwSchema("Model entity has no ID: ", name);
    if (id.uid == 0) throwSchema("Model entity has no UID: ", name);
    if (lastPropertyId.id == 0) throwSchema("Model entity has no last property ID: ", name);

    auto entity = std::make_shared<Entity>(id.id, id.uid, name);
    entity->setFlags(readScalar<uint32_t>(table, kEntityFlags));
    entity->setExternalName(readText(table, kEntityExternalName));
    entity->setLastPropertyId(lastPropertyId);
    forEachTable(table, kEntityProperties,
                 [&](const Table& property) { entity->addProperty(readProperty(property)); });
    if (entity->properties().empty()) {
        throwSchema("Model entity must have at least one property: ", name);
    }
    checkLastPropertyId(*entity);
    forEachTable(table, kEntityRelations, [&](const Table& relation) {
        entity->addRelation(readRelation(relation, *entity));
    });
    entity->finish();
    return entity;
}

}  // namespace

std::optional<Model> readModel(const Bytes& modelBytes) {
    const Bytes aligned = alignedForTables(modelBytes);
    if (!verifyFlatBuffer(aligned.data(), aligned.size(), verifyModel)) return std::nullopt;
    const Table& table = rootTable(aligned.data());

    if (!table.CheckField(fieldOffset(kModelUserVersion))) {
        throwSchema("Model without user version");
    }
    const auto version = readScalar<uint32_t>(table, kModelVersionField);
    if (version != kModelVersion) {
        throwSchema("Unexpected model version: ", std::to_string(version));
    }
    const std::span<const uint8_t> hash = readBytesField(table, kModelHash);
    if (hash.data() && hash.size() != kHashSize) {
        throwSchema("Unexpected hash size: ", std::to_string(hash.size()));
    }
    if (readTextField(table, kModelName).empty()) throwSchema("Model without name");

    Model model;
    model.userVersion = readScalar<uint64_t>(table, kModelUserVersion);
    model.lastEntityId = readIdUid(table, kModelLastEntityId);
    model.lastIndexId = readIdUid(table, kModelLastIndexId);
    model.fourthLastId = readIdUid(table, kModelFourthLastId);
    model.lastRelationId = readIdUid(table, kModelLastRelationId);
    if (!hash.empty()) model.hash = Bytes::copyOf(hash.data(), hash.size());
    model.schema = std::make_shared<Schema>();
    forEachTable(table, kModelEntities,
                 [&](const Table& entity) { model.schema->addEntity(readEntity(entity)); });
    return model;
}

}  // namespace quillmere
