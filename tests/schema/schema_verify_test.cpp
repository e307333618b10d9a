#include "schema/schema_verify.h"

#include <gtest/gtest.h>

#include "core/error.h"
#include "memory_schema_host.h"
#include "model_table.h"
#include "schema/schema_sync.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

using M = ModelTable;

struct Case {
    void (*change)(M&);
    const char* refusal;
};

PropertySpec& bookProperty(M& model, const char* name) {
    return model.entity("Book").property(name);
}
std::vector<RelationSpec>& bookRelations(M& model) {
    return model.entity("Book").relations;
}

// A property of the given kind on the author, beside those of the library.
PropertySpec& addProperty(M& model, PropertyType type, uint32_t flags) {
    PropertySpec& property =
        model.entity("Author").add({.name = "extra", .type = type, .id = {3, 103}, .flags = flags});
    if (flags & kPropertyIndexed) property.index = model.lastIndexId = {3, 903};
    return property;
}
void addSecond(M& model, PropertyType type, uint32_t flags) {
    addProperty(model, type, flags);
    model.entity("Author").add({.name = "more", .type = type, .id = {4, 104}, .flags = flags});
}
void addEntity(M& model, const char* name, IdUid id) {
    EntitySpec entity{.name = name, .id = id, .properties = {idProperty(401)}};
    entity.lastPropertyId = {1, 401};
    model.entities.push_back(entity);
}

void open(const M& model) {
    MemorySchemaHost host;
    SchemaSync(host).syncSchema(model.build());
}
std::string refusal(void (*change)(M&)) {
    M model = libraryModel();
    change(model);
    return messageOf<SchemaException>([&] { open(model); });
}
template <size_t kCount>
void expectRefusals(const Case (&cases)[kCount]) {
    for (const Case& test : cases) EXPECT_EQ(refusal(test.change), test.refusal);
}

TEST(Models, MayHaveGoodNamesOnly) {
    const auto openNamed = [](const char* name) {
        M model = libraryModel();
        model.entity("Shelf").property("name").name = name;
        open(model);
    };
    for (const char* good : {"name", "_a", "z9", "A_", "_"}) EXPECT_NO_THROW(openNamed(good));
    for (const char* bad : {"a b", "a:", "a@", "a[", "a^", "a`", "a{", "a/", "a\xC3\xA4"}) {
        EXPECT_EQ(messageOf<SchemaException>([&] { openNamed(bad); }),
                  std::string("Name has illegal character: ") + bad);
    }
    EXPECT_EQ(messageOf<SchemaException>([&] { openNamed("1a"); }),
              "Name has illegal first character: 1a");
}

TEST(Models, MustBeComplete) {
    expectRefusals({
        {[](M& m) { m.userVersion = 0; }, "Model without user version"},
        {[](M& m) { m.version = 3; }, "Unexpected model version: 3"},
        {[](M& m) { m.hash = Bytes::copyOf("123456789012345", 15); }, "Unexpected hash size: 15"},
        {[](M& m) { m.name.clear(); }, "Model without name"},
        {[](M& m) { m.entities.clear(); }, "No entities in schema"},
        {[](M& m) { m.entity("Book").name.clear(); }, "Model entity has no name"},
        {[](M& m) { m.entity("Book").id.id = 0; }, "Model entity has no ID: Book"},
        {[](M& m) { m.entity("Book").id.uid = 0; }, "Model entity has no UID: Book"},
        {[](M& m) { m.entity("Book").lastPropertyId.id = 0; },
         "Model entity has no last property ID: Book"},
        {[](M& m) { m.entity("Book").properties.clear(); },
         "Model entity must have at least one property: Book"},
        {[](M& m) { m.entity("Book").lastPropertyId = {4, 77}; },
         "Last property ID:UID 4:77 is inconsistent for Book: 4:204 vs. n/a"},
        {[](M& m) { m.entity("Book").lastPropertyId = {9, 203}; },
         "Last property ID:UID 9:203 is inconsistent for Book: n/a vs. 3:203"},
        {[](M& m) { bookProperty(m, "pages").name.clear(); }, "Property without name"},
        {[](M& m) { bookProperty(m, "id").flags = 0; },
         "Entity does not specify an ID property: Book"},
        {[](M& m) { bookProperty(m, "title").index = {}; },
         "No index ID/UID assigned for indexed property: title"},
    });
    M removed = libraryModel();
    removed.entity("Book").lastPropertyId = {9, 999};  // of a property that it had once
    EXPECT_NO_THROW(open(removed));
    removed.entity("Book").relations[0].target = {};
    EXPECT_EQ(messageOf<IllegalStateException>([&] { open(removed); }),
              "State condition failed in Relation:21: modelRelation.targetEntityId()");
}

TEST(Models, HaveElementsThatGoTogether) {
    expectRefusals({
        {[](M& m) { addProperty(m, PropertyType::Int, kPropertyId); },
         "ID property must be of type long: extra"},
        {[](M& m) { addProperty(m, PropertyType::Long, kPropertyId); },
         "Only one ID property allowed; entity: Author"},
        {[](M& m) { addProperty(m, PropertyType::Long, kPropertyIdCompanion); },
         "ID companion property must be one of the date types: extra"},
        {[](M& m) { addSecond(m, PropertyType::Date, kPropertyIdCompanion); },
         "Only one ID companion property allowed; entity: Author"},
        {[](M& m) { addSecond(m, PropertyType::Date, kPropertyExpirationTime); },
         "Entity Author has more than one expiration time property: extra and more"},
        {[](M& m) { addProperty(m, PropertyType::Double, kPropertyUnsigned); },
         "Floating point types cannot be unsigned"},
        {[](M& m) { m.entity("Shelf").name = "a-b"; }, "Name has illegal character: a-b"},
        {[](M& m) { m.entity("Shelf").flags = kEntitySharedGlobalIds; },
         "Shared global IDs are only available for entities that are enabled for sync: Shelf"},
        {[](M& m) { bookProperty(m, "id").flags |= kPropertyNotNull | kPropertyUnsigned; },
         "Incompatible flags for ID property id (Book): 8196"},
        {[](M& m) { addProperty(m, PropertyType::Int, kPropertyExpirationTime); },
         "Expiration time is only supported for properties of type date: extra"},
        {[](M& m) { m.entity("Author").flags = kEntitySyncEnabled; },
         "Relations are not allowed between synced and local-only entity types: "
         "Book vs. Author based on property authorId"},

        {[](M& m) { bookProperty(m, "authorId").target.clear(); },
         "Has no target entity ID: authorId"},
        {[](M& m) { bookProperty(m, "authorId").target = "Nobody"; },
         "No entity found for relation target: authorId"},
        {[](M& m) { bookProperty(m, "authorId").flags = kPropertyIndexed; },
         "Illegal flags for a relation property: authorId"},
        {[](M& m) { bookRelations(m)[0].target = {9, 999}; },
         "No entity type found for relation target: Relation 1 (from entity 2 to 9)"},
        {[](M& m) { bookProperty(m, "pages").flags = kPropertyVirtual; },
         "Virtual properties are only supported for type relation: pages"},
        {[](M& m) { bookProperty(m, "authorId").flags |= kPropertyVirtual; },
         "Virtual property without a virtual target: authorId"},
        {[](M& m) { bookProperty(m, "pages").virtualTarget = "x"; },
         "Non-virtual property has a virtual target: pages"},

        {[](M& m) { addProperty(m, PropertyType::Double, kPropertyIndexed); },
         "Indexing of float and double is currently unavailable. Please remove the index on extra"},
        {[](M& m) { addProperty(m, PropertyType::ByteVector, kPropertyIndexed); },
         "Indexing of byte arrays is not yet supported. Please remove the index on extra"},
        {[](M& m) { addProperty(m, PropertyType::StringVector, kPropertyIndexed); },
         "Indexing of string arrays is not yet supported. Please remove the index on extra"},
        {[](M& m) { addProperty(m, PropertyType::Int, kPropertyIndexed | kPropertyIndexHash); },
         "Only string types may have non-value index types for now: extra"},
        {[](M& m) {
             addProperty(m, PropertyType::DoubleVector, kPropertyIndexed).hnsw =
                 HnswOptions{.dimensions = 2};
         },
         "HNSW index is only allowed for float vector properties: extra"},
    });
    M unknown = libraryModel();
    addProperty(unknown, PropertyType{99}, 0);
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { open(unknown); }),
              "Unknown property type: 99");
}

TEST(Models, HaveUniqueIdsThatFitTheLastIds) {
    expectRefusals({
        {[](M& m) { m.lastEntityId = {}; }, "Illegal entity schema ID 0"},
        {[](M& m) { m.lastEntityId.id = 0x1000000; }, "Illegal entity schema ID 16777216"},
        {[](M& m) { m.lastIndexId.id = 0x1000000; }, "Illegal last index ID 16777216"},
        {[](M& m) { m.lastRelationId.id = 0x1000000; }, "Illegal last relation ID 16777216"},
        {[](M& m) { m.lastEntityId.id = 2; },
         "Last entity ID 2 is lower than ID 3 of entity Shelf"},
        {[](M& m) { m.lastEntityId.uid = 5; }, "Inconsistent last entity UID: 3:5 vs. 3:300"},
        {[](M& m) { m.lastIndexId = {1, 901}; },
         "Property's index ID 2 is higher than last index ID 1"},
        {[](M& m) { m.lastIndexId.uid = 5; }, "Inconsistent last index UID: 2:902 vs. 2:5"},
        {[](M& m) { m.lastRelationId = {}; }, "Relation ID higher than last relation ID 0"},
        {[](M& m) { m.lastRelationId.uid = 5; }, "Inconsistent last relation UID: 1:801 vs. 1:5"},

        {[](M& m) { bookProperty(m, "pages").name = "title"; }, "Property already exists: title"},
        {[](M& m) { bookProperty(m, "pages").id = {2, 203}; },
         "Property with same ID already exists: pages"},
        {[](M& m) { bookProperty(m, "pages").id.uid = 202; }, "Property UID already exists: pages"},
        {[](M& m) { bookProperty(m, "authorId").index = {1, 905}; }, "Index ID collision: 1"},
        {[](M& m) { addEntity(m, "Shelf", {4, 400}); }, "Entity name already exists: Shelf"},
        {[](M& m) { addEntity(m, "New", {3, 400}); }, "Entity ID already exists: 3"},
        {[](M& m) { addEntity(m, "New", {4, 300}); }, "Entity UID already exists: 300"},
        {[](M& m) { bookProperty(m, "pages").id.uid = 102; },
         "Duplicate UID 102 found in property pages"},
        {[](M& m) { m.entity("Shelf").id.uid = m.lastEntityId.uid = 203; },
         "Duplicate UID 203 found in entity Shelf"},
        {[](M& m) { bookProperty(m, "title").index.uid = 100; },
         "Duplicate UID 100 found in index for property title"},
        {[](M& m) { bookRelations(m)[0].id.uid = 100; },
         "Duplicate UID 100 found in relation Relation 1 (from entity 2 to 3)"},
        {[](M& m) { m.entity("Shelf").relations = {{.id = {1, 802}, .target = {3, 300}}}; },
         "Duplicate relation ID: 1"},
        {[](M& m) { addProperty(m, PropertyType::Int, kPropertyIndexed).index.id = 1; },
         "Duplicate index ID 1 found for property title"},
        {[](M& m) { bookProperty(m, "pages").id.uid = 0; }, "Property has no UID: pages"},
        {[](M& m) { bookProperty(m, "pages").index = {1, 905}; },
         "Property is not indexed but has an index ID/UID: pages"},
    });
}

}  // namespace
}  // namespace quillmere
