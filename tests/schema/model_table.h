#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "schema/entity.h"
#include "schema/hnsw_table.h"
#include "schema/model_format.h"

namespace quillmere {

// A data model as plain values that a test can change before it makes model bytes of them. It
// writes them by itself, so that it also makes what ModelBuilder refuses or cannot express.
struct PropertySpec {
    std::string name = {};
    PropertyType type = PropertyType::Unknown;
    IdUid id = {};
    uint32_t flags = 0;
    IdUid index = {};
    std::string target = {};
    std::string virtualTarget = {};
    std::string secondaryName = {};
    std::optional<HnswOptions> hnsw = {};
};

struct RelationSpec {
    IdUid id = {};
    IdUid target = {};
};

struct EntitySpec {
    std::string name = {};
    IdUid id = {};
    std::vector<PropertySpec> properties = {};
    IdUid lastPropertyId = {};
    std::vector<RelationSpec> relations = {};
    uint32_t flags = 0;
    std::string externalName = {};

    PropertySpec& property(const std::string& wanted) {
        for (PropertySpec& property : properties) {
            if (property.name == wanted) return property;
        }
        throw std::out_of_range(wanted);
    }
    PropertySpec& add(PropertySpec property) {
        lastPropertyId = property.id;
        return properties.emplace_back(std::move(property));
    }
    void remove(const std::string& wanted) {
        std::erase_if(properties, [&](const PropertySpec& p) { return p.name == wanted; });
    }
};

struct ModelTable {
    std::vector<EntitySpec> entities;
    IdUid lastEntityId;
    IdUid lastIndexId;
    IdUid fourthLastId;
    IdUid lastRelationId;
    std::string name = "default";
    uint32_t version = 2;
    uint64_t userVersion = 1;
    Bytes hash;

    EntitySpec& entity(const std::string& wanted) {
        for (EntitySpec& entity : entities) {
            if (entity.name == wanted) return entity;
        }
        throw std::out_of_range(wanted);
    }
    Bytes build() const;
};

inline void writeIdUid(TableWriter& table, uint32_t field, const IdUid& value) {
    if (!value.empty()) table.structure(field, model_format::IdUidField(value));
}

inline TableOffset writeSpec(flatbuffers::FlatBufferBuilder& builder,
                             const PropertySpec& property) {
    using namespace model_format;
    const auto name = createText(builder, property.name);
    const auto target = createText(builder, property.target);
    const auto virtualTarget = createText(builder, property.virtualTarget);
    const auto secondaryName = createText(builder, property.secondaryName);
    const auto hnsw = property.hnsw ? writeHnswTable(builder, *property.hnsw) : TableOffset();
    TableWriter table(builder);
    writeIdUid(table, kPropertyIdUid, property.id);
    table.offset(kPropertyName, name);
    table.scalar(kPropertyType, static_cast<uint16_t>(property.type));
    table.scalar(kPropertyFlagsWord, property.flags);
    writeIdUid(table, kPropertyIndex, property.index);
    table.offset(kPropertyTargetEntity, target);
    table.offset(kPropertyVirtualTarget, virtualTarget);
    table.offset(kPropertySecondaryName, secondaryName);
    table.offset(kPropertyHnsw, hnsw);
    return table.finish();
}

inline TableOffset writeSpec(flatbuffers::FlatBufferBuilder& builder,
                             const RelationSpec& relation) {
    using namespace model_format;
    TableWriter table(builder);
    writeIdUid(table, kRelationId, relation.id);
    writeIdUid(table, kRelationTarget, relation.target);
    return table.finish();
}

template <class Spec>
auto writeSpecs(flatbuffers::FlatBufferBuilder& builder, const std::vector<Spec>& specs) {
    std::vector<TableOffset> tables;
    for (const Spec& spec : specs) tables.push_back(writeSpec(builder, spec));
    return createTables(builder, tables);
}

inline TableOffset writeSpec(flatbuffers::FlatBufferBuilder& builder, const EntitySpec& entity) {
    using namespace model_format;
    const auto name = createText(builder, entity.name);
    const auto externalName = createText(builder, entity.externalName);
    const auto properties = writeSpecs(builder, entity.properties);
    const auto relations = writeSpecs(builder, entity.relations);
    TableWriter table(builder);
    writeIdUid(table, kEntityId, entity.id);
    table.offset(kEntityName, name);
    table.offset(kEntityProperties, properties);
    writeIdUid(table, kEntityLastPropertyId, entity.lastPropertyId);
    table.offset(kEntityRelations, relations);
    table.scalar(kEntityFlags, entity.flags);
    table.offset(kEntityExternalName, externalName);
    return table.finish();
}

inline Bytes ModelTable::build() const {
    using namespace model_format;
    flatbuffers::FlatBufferBuilder builder;
    const auto nameOffset = createText(builder, name);
    const auto entitiesOffset = writeSpecs(builder, entities);
    const auto hashOffset = hash.empty() ? 0 : builder.CreateVector(hash.data(), hash.size());
    TableWriter table(builder);
    table.scalar(kModelVersionField, version);
    table.offset(kModelName, nameOffset);
    table.scalar(kModelUserVersion, userVersion);
    table.offset(kModelEntities, entitiesOffset);
    writeIdUid(table, kModelLastEntityId, lastEntityId);
    writeIdUid(table, kModelLastIndexId, lastIndexId);
    writeIdUid(table, kModelFourthLastId, fourthLastId);
    writeIdUid(table, kModelLastRelationId, lastRelationId);
    table.offset(kModelHash, hashOffset);
    return finishedBytes(builder, table.finish());
}

inline PropertySpec idProperty(uint64_t uid) {
    return {.name = "id", .type = PropertyType::Long, .id = {1, uid}, .flags = kPropertyId};
}

// Books with a unique indexed title, a to-one relation to their author and a many-to-many relation
// to shelves; authors and shelves with an ID and a name.
inline ModelTable libraryModel() {
    ModelTable model;
    EntitySpec author{.name = "Author", .id = {1, 100}, .properties = {idProperty(101)}};
    author.add({.name = "name", .type = PropertyType::String, .id = {2, 102}});
    EntitySpec book{.name = "Book", .id = {2, 200}, .properties = {idProperty(201)}};
    book.add({.name = "title",
              .type = PropertyType::String,
              .id = {2, 202},
              .flags = kPropertyUnique,
              .index = {1, 901}});
    book.add({.name = "pages", .type = PropertyType::Int, .id = {3, 203}});
    book.add({.name = "authorId",
              .type = PropertyType::Relation,
              .id = {4, 204},
              .flags = kPropertyIndexed | kPropertyIndexSkipZero,
              .index = {2, 902},
              .target = "Author"});
    book.relations = {{.id = {1, 801}, .target = {3, 300}}};
    EntitySpec shelf{.name = "Shelf", .id = {3, 300}, .properties = {idProperty(301)}};
    shelf.add({.name = "name", .type = PropertyType::String, .id = {2, 302}});
    model.entities = {author, book, shelf};
    model.lastEntityId = {3, 300};
    model.lastIndexId = {2, 902};
    model.lastRelationId = {1, 801};
    return model;
}

}  // namespace quillmere
