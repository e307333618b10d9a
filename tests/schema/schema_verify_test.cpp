#include "schema/schema_verify.h"

#include <gtest/gtest.h>

#include "core/error.h"
#include "model_table.h"
#include "schema/model_reader.h"
#include "schema/schema.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

using Change = void (*)(ModelTable&);

ModelTable changed(Change change) {
    ModelTable spec = libraryModel();
    change(spec);
    return spec;
}

std::string schemaFailure(Change change) {
    const auto model = readModel(changed(change).build());
    return messageOf<SchemaException>([&] { verifySchema(*model->schema); });
}

std::string idFailure(Change change) {
    const auto model = readModel(changed(change).build());
    verifySchema(*model->schema);
    return messageOf<SchemaException>([&] { verifyModelIds(*model); });
}

PropertySpec& bookProperty(ModelTable& model, const char* name) {
    return model.entity("Book").property(name);
}

// A property of the given kind on the author, beside those of the library.
void addProperty(ModelTable& model, PropertyType type, uint32_t flags) {
    PropertySpec& property =
        model.entity("Author").add({.name = "extra", .type = type, .id = {3, 103}, .flags = flags});
    if (flags & (kPropertyIndexed | kPropertyUnique)) {
        property.index = {3, 903};
        model.lastIndexId = {3, 903};
    }
}

TEST(SchemaVerify, TakesGoodNamesOnly) {
    const auto model = readModel(libraryModel().build());
    EXPECT_NO_THROW(verifySchema(*model->schema));
    const auto failure = [](const char* name) -> std::string {
        ModelTable spec = libraryModel();
        spec.entity("Shelf").property("name").name = name;
        const auto model = readModel(spec.build());
        try {
            verifySchema(*model->schema);
            return "";
        } catch (const SchemaException& e) {
            return e.what();
        }
    };
    for (const char* good : {"_a", "z9", "A_", "_"}) EXPECT_EQ(failure(good), "");
    for (const char* bad : {"a b", "a:", "a@", "a[", "a^", "a`", "a{", "a/", "a\xC3\xA4"}) {
        EXPECT_EQ(failure(bad), std::string("Name has illegal character: ") + bad);
    }
    EXPECT_EQ(failure("1a"), "Name has illegal first character: 1a");
    EXPECT_EQ(schemaFailure([](ModelTable& m) { m.entity("Shelf").name = "a-b"; }),
              "Name has illegal character: a-b");
}

TEST(SchemaVerify, ChecksFlags) {
    EXPECT_EQ(schemaFailure([](ModelTable& m) { m.entity("Shelf").flags = 4; }),
              "Shared global IDs are only available for entities that are enabled for sync: Shelf");
    EXPECT_EQ(schemaFailure([](ModelTable& m) {
                  bookProperty(m, "id").flags = kPropertyId | kPropertyNotNull | kPropertyUnsigned;
              }),
              "Incompatible flags for ID property id (Book): 8196");
    EXPECT_EQ(schemaFailure([](ModelTable& m) {
                  addProperty(m, PropertyType::Int, kPropertyExpirationTime);
              }),
              "Expiration time is only supported for properties of type date: extra");
    EXPECT_EQ(schemaFailure([](ModelTable& m) { m.entity("Author").flags = 2; }),
              "Relations are not allowed between synced and local-only entity types: "
              "Book vs. Author based on property authorId");
}

TEST(SchemaVerify, ChecksRelations) {
    EXPECT_EQ(schemaFailure([](ModelTable& m) { bookProperty(m, "authorId").target.clear(); }),
              "Has no target entity ID: authorId");
    EXPECT_EQ(schemaFailure([](ModelTable& m) { bookProperty(m, "authorId").target = "Nobody"; }),
              "No entity found for relation target: authorId");
    EXPECT_EQ(schemaFailure([](ModelTable& m) {
                  bookProperty(m, "authorId").flags = kPropertyIndexed;
              }),
              "Illegal flags for a relation property: authorId");
    EXPECT_EQ(schemaFailure([](ModelTable& m) {
                  m.entity("Book").relations[0].target = {9, 999};
              }),
              "No entity type found for relation target: Relation 1 (from entity 2 to 9)");
    EXPECT_EQ(schemaFailure([](ModelTable& m) { bookProperty(m, "pages").flags = 0x400; }),
              "Virtual properties are only supported for type relation: pages");
    EXPECT_EQ(schemaFailure([](ModelTable& m) { bookProperty(m, "authorId").flags |= 0x400; }),
              "Virtual property without a virtual target: authorId");
    EXPECT_EQ(schemaFailure([](ModelTable& m) { bookProperty(m, "pages").virtualTarget = "x"; }),
              "Non-virtual property has a virtual target: pages");
}

TEST(SchemaVerify, ChecksIndexesAndTypes) {
    const std::string advice = "Please remove the index on extra";
    EXPECT_EQ(schemaFailure([](ModelTable& m) { addProperty(m, PropertyType::Double, 8); }),
              "Indexing of float and double is currently unavailable. " + advice);
    EXPECT_EQ(schemaFailure([](ModelTable& m) { addProperty(m, PropertyType::ByteVector, 8); }),
              "Indexing of byte arrays is not yet supported. " + advice);
    EXPECT_EQ(schemaFailure([](ModelTable& m) { addProperty(m, PropertyType::StringVector, 8); }),
              "Indexing of string arrays is not yet supported. " + advice);
    EXPECT_EQ(schemaFailure([](ModelTable& m) {
                  addProperty(m, PropertyType::Int, kPropertyIndexed | kPropertyIndexHash);
              }),
              "Only string types may have non-value index types for now: extra");
    EXPECT_EQ(schemaFailure([](ModelTable& m) {
                  addProperty(m, PropertyType::DoubleVector, kPropertyIndexed);
                  m.entity("Author").property("extra").hnsw = HnswOptions{.dimensions = 2};
              }),
              "HNSW index is only allowed for float vector properties: extra");
    const auto unknown = readModel(
        changed([](ModelTable& m) { addProperty(m, PropertyType{99}, 0); }).build());
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { verifySchema(*unknown->schema); }),
              "Unknown property type: 99");
}

TEST(ModelIds, MustFitTheLastIds) {
    EXPECT_NO_THROW(verifyModelIds(*readModel(libraryModel().build())));
    EXPECT_EQ(idFailure([](ModelTable& m) { m.lastEntityId = {}; }), "Illegal entity schema ID 0");
    EXPECT_EQ(idFailure([](ModelTable& m) { m.lastEntityId.id = 0x1000000; }),
              "Illegal entity schema ID 16777216");
    EXPECT_EQ(idFailure([](ModelTable& m) { m.lastIndexId.id = 0x1000000; }),
              "Illegal last index ID 16777216");
    EXPECT_EQ(idFailure([](ModelTable& m) { m.lastRelationId.id = 0x1000000; }),
              "Illegal last relation ID 16777216");
    EXPECT_EQ(idFailure([](ModelTable& m) { m.lastEntityId.id = 2; }),
              "Last entity ID 2 is lower than ID 3 of entity Shelf");
    EXPECT_EQ(idFailure([](ModelTable& m) { m.lastEntityId.uid = 5; }),
              "Inconsistent last entity UID: 3:5 vs. 3:300");
    EXPECT_EQ(idFailure([](ModelTable& m) { m.lastIndexId = {1, 901}; }),
              "Property's index ID 2 is higher than last index ID 1");
    EXPECT_EQ(idFailure([](ModelTable& m) { m.lastIndexId.uid = 5; }),
              "Inconsistent last index UID: 2:902 vs. 2:5");
    EXPECT_EQ(idFailure([](ModelTable& m) { m.lastRelationId = {}; }),
              "Relation ID higher than last relation ID 0");
    EXPECT_EQ(idFailure([](ModelTable& m) { m.lastRelationId.uid = 5; }),
              "Inconsistent last relation UID: 1:801 vs. 1:5");
}

TEST(ModelIds, AreUnique) {
    EXPECT_EQ(idFailure([](ModelTable& m) { bookProperty(m, "pages").id.uid = 102; }),
              "Duplicate UID 102 found in property pages");
    EXPECT_EQ(idFailure([](ModelTable& m) {
                  m.entity("Shelf").id.uid = 203;
                  m.lastEntityId.uid = 203;
              }),
              "Duplicate UID 203 found in entity Shelf");
    EXPECT_EQ(idFailure([](ModelTable& m) { bookProperty(m, "title").index.uid = 100; }),
              "Duplicate UID 100 found in index for property title");
    EXPECT_EQ(idFailure([](ModelTable& m) { m.entity("Book").relations[0].id.uid = 100; }),
              "Duplicate UID 100 found in relation Relation 1 (from entity 2 to 3)");
    EXPECT_EQ(idFailure([](ModelTable& m) {
                  m.entity("Shelf").relations = {{.id = {1, 802}, .target = {3, 300}}};
              }),
              "Duplicate relation ID: 1");
    EXPECT_EQ(idFailure([](ModelTable& m) {
                  addProperty(m, PropertyType::Int, kPropertyIndexed);
                  m.entity("Author").property("extra").index.id = 1;
              }),
              "Duplicate index ID 1 found for property title");
    EXPECT_EQ(idFailure([](ModelTable& m) { bookProperty(m, "pages").id.uid = 0; }),
              "Property has no UID: pages");
    EXPECT_EQ(idFailure([](ModelTable& m) { bookProperty(m, "pages").index = {1, 905}; }),
              "Property is not indexed but has an index ID/UID: pages");
}

}  // namespace
}  // namespace quillmere
