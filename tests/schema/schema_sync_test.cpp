#include "schema/schema_sync.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "core/error.h"
#include "memory_schema_host.h"
#include "model_table.h"
#include "schema/model_reader.h"
#include "schema/schema_hash.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

constexpr const char* kAdvice =
    "). Consider creating a new property instead. "
    "Please check the docs on data model migration and UIDs.";

// A store with the library's schema; a test changes `spec_` and brings the store to it.
class SchemaSyncTest : public ::testing::Test {
protected:
    SchemaSyncTest() { sync(); }

    SchemaSyncResult sync() { return SchemaSync(host_).syncSchema(spec_.build()); }

    // The message of the refusal. What was written by then goes, as with an aborted transaction.
    template <class E = SchemaException>
    std::string refusal() {
        const auto elements = host_.elements;
        host_.setSchema(nullptr);
        const std::string message = messageOf<E>([&] { sync(); });
        EXPECT_EQ(host_.schema(), nullptr);
        host_.elements = elements;
        return message;
    }
    // The same after a change, which is taken back.
    template <class Change>
    std::string refusalOf(const Change& change) {
        const ModelTable before = spec_;
        change();
        const std::string message = refusal();
        spec_ = before;
        return message;
    }

    std::shared_ptr<Schema> stored() {
        return CatalogStore(host_).readDefaultSchemaForStore(true, catalog_);
    }
    const Property& storedProperty(const std::string& entity, const std::string& name) {
        schema_ = stored();
        return *schema_->findEntityByName(entity)->findPropertyByName(name);
    }
    EntitySpec& book() { return spec_.entity("Book"); }
    PropertySpec& pages() { return book().property("pages"); }
    Bytes hashOfSpec() const {
        const auto model = readModel(spec_.build());
        model->schema->link();
        Catalog catalog = Catalog::create(*model);
        catalog.defaultSchema = model->schema;
        return schemaHash(catalog, kBindingHash);
    }

    MemorySchemaHost host_;
    ModelTable spec_ = libraryModel();
    std::optional<Catalog> catalog_;
    std::shared_ptr<Schema> schema_;
};

TEST_F(SchemaSyncTest, CreatesTheSchemaOfAnEmptyStore) {
    host_.elements.clear();
    spec_.hash = hashOfSpec();
    const SchemaSyncResult result = sync();
    EXPECT_EQ(result.entitiesAdded, 3u);
    EXPECT_EQ(stored()->entities().size(), 3u);
    EXPECT_EQ(catalog_->lastEntityId, 3u);
    EXPECT_EQ(catalog_->lastIndexId, 2u);
    EXPECT_EQ(catalog_->lastRelationId, 1u);
    EXPECT_TRUE(catalog_->bindingHash.equals(spec_.hash));
    EXPECT_NE(catalog_->randomValue, 0u);
}

TEST_F(SchemaSyncTest, WritesNothingForTheSameModel) {
    const int writes = host_.writes;
    EXPECT_FALSE(sync().any());
    std::ranges::reverse(spec_.entities);
    EXPECT_FALSE(sync().any());
    spec_.hash = hashOfSpec();
    EXPECT_FALSE(sync().any());
    EXPECT_EQ(host_.writes, writes);
    host_.readOnly_ = true;
    EXPECT_FALSE(sync().any());
    spec_.hash.clear();
    const ModelTable stored = spec_;
    const auto refuseChange = [&](void (*change)(ModelTable&)) {
        spec_ = stored;
        change(spec_);
        EXPECT_EQ(refusal<IllegalStateException>(),
                  "Can not update schema when opening in read-only mode");
    };
    refuseChange([](ModelTable& m) { m.entity("Shelf").name = "Rack"; });
    refuseChange([](ModelTable& m) { m.lastEntityId = {4, 400}; });
    refuseChange([](ModelTable& m) { m.entity("Book").relations.clear(); });
    refuseChange([](ModelTable& m) { m.entity("Book").remove("authorId"); });
    refuseChange([](ModelTable& m) {
        m.entity("Book").relations.clear();
        std::erase_if(m.entities, [](const EntitySpec& e) { return e.name == "Shelf"; });
    });
    EXPECT_TRUE(host_.removals.empty()) << "refused before data is touched";
}

TEST_F(SchemaSyncTest, RefusesBytesThatAreNoModel) {
    const auto elements = host_.elements;
    EXPECT_THROW(SchemaSync(host_).syncSchema(Bytes()), IllegalArgumentException);
    EXPECT_EQ(messageOf<SchemaException>([&] { SchemaSync(host_).syncSchema(Bytes("nope", 4)); }),
              "Could not sync the incoming data model. Verification of the model object (4 bytes) "
              "failed; does it originate from another version?");
    EXPECT_EQ(refusalOf([&] { spec_.entities.clear(); }), "No entities in schema");
    EXPECT_EQ(host_.elements, elements);
}

TEST_F(SchemaSyncTest, ComparesTheModelHash) {
    const std::string good = hashOfSpec().toHex(4);
    spec_.hash = Bytes::copyOf("0123456789abcdef", 16);
    EXPECT_EQ(refusal(), "The incoming schema model hash 30313233343536373839616263646566 does "
                         "not match the calculated one starting with " + good);
}

TEST_F(SchemaSyncTest, AddsRenamesAndRemovesEntities) {
    spec_.entity("Shelf").name = "Rack";
    EntitySpec reader{.name = "Reader", .id = {4, 400}, .properties = {idProperty(401)}};
    reader.lastPropertyId = {1, 401};
    spec_.entities.push_back(reader);
    spec_.lastEntityId = {4, 400};
    SchemaSyncResult result = sync();
    EXPECT_EQ(result, (SchemaSyncResult{.entitiesAdded = 1, .entitiesRenamed = 1}));
    EXPECT_EQ(stored()->findEntityByName("Rack")->id(), 3u);
    EXPECT_EQ(stored()->findEntityByName("Reader")->idProperty().flatOffset(), 4u);
    EXPECT_EQ(catalog_->lastEntityId, 4u);
    EXPECT_TRUE(catalog_->bindingHash.equals(hashOfSpec()));

    // The shelves go, and with them the relation to them.
    std::erase_if(spec_.entities, [](const EntitySpec& e) { return e.id.id >= 3; });
    book().relations.clear();
    spec_.lastEntityId = {4, 400};
    result = sync();
    EXPECT_EQ(result, (SchemaSyncResult{.entitiesRemoved = 2, .relationsRemoved = 1}));
    EXPECT_EQ(host_.removals, (std::vector<std::string>{"objects of Rack", "objects of Reader",
                                                        "relation 1"}));
    EXPECT_FALSE(host_.elements.contains(3));
    EXPECT_EQ(stored()->entities().size(), 2u);
}

TEST_F(SchemaSyncTest, KeepsTheSchemaInPlaceWhileDataGoes) {
    struct Watch : MemorySchemaHost {
        void removeAllObjects(const Entity& entity) override {
            EXPECT_EQ(entity.findPropertyByName("id"), &entity.idProperty());
            EXPECT_NE(schema()->findEntityByName("Book"), nullptr);
            MemorySchemaHost::removeAllObjects(entity);
        }
    } host;
    SchemaSync(host).syncSchema(spec_.build());
    book().relations.clear();
    spec_.entities.pop_back();
    spec_.lastEntityId = {3, 300};
    SchemaSync(host).syncSchema(spec_.build());
    EXPECT_EQ(host.removals.size(), 2u);
    // What stays with the host refers to living elements only.
    EXPECT_EQ(host.schema()->findEntityByName("Author")->incomingToOne()[0]->name(), "authorId");
}

TEST_F(SchemaSyncTest, RefusesIdsThatGoBack) {
    EXPECT_EQ(refusalOf([&] {
                  book().relations.clear();
                  spec_.entities.pop_back();
                  spec_.lastEntityId = {2, 200};
              }),
              "DB's last entity ID 3 is higher than 2 from model");
    EXPECT_EQ(refusalOf([&] {
                  book().remove("authorId");
                  book().lastPropertyId = {4, 204};
                  spec_.lastIndexId = {1, 901};
              }),
              "DB's last index ID 2 is higher than 1 from model");
    EXPECT_EQ(refusalOf([&] {
                  book().relations.clear();
                  spec_.lastRelationId = {};
              }),
              "DB's last relation ID 1 is higher than 0 from model");
    EXPECT_EQ(refusalOf([&] {
                  book().remove("authorId");
                  book().lastPropertyId = {3, 203};
              }),
              "DB's last property ID 4 is higher than the incoming one 3 in entity Book");
}

TEST_F(SchemaSyncTest, RaisesLastIdsAlone) {
    spec_.lastEntityId = {5, 500};
    spec_.lastIndexId = {6, 600};
    spec_.lastRelationId = {7, 700};
    spec_.fourthLastId = {8, 800};
    book().lastPropertyId = {9, 900};
    EXPECT_FALSE(sync().any());
    EXPECT_EQ(stored()->findEntityByName("Book")->lastPropertyId().id, 9u);
    EXPECT_EQ(catalog_->lastEntityId, 5u);
    EXPECT_EQ(catalog_->lastIndexId, 6u);
    EXPECT_EQ(catalog_->lastRelationId, 7u);
    EXPECT_EQ(catalog_->fourthLastId, 8u);
    EXPECT_TRUE(catalog_->bindingHash.equals(hashOfSpec()));
}

TEST_F(SchemaSyncTest, RefusesIdsAndUidsThatDiverged) {
    EXPECT_EQ(refusalOf([&] {
                  spec_.entity("Shelf").id.uid = 999;
                  spec_.lastEntityId.uid = 999;
              }),
              "Incoming entity ID 3:999 does not match existing UID 300");
    EXPECT_EQ(refusalOf([&] {
                  spec_.entity("Shelf").id.id = 4;
                  book().relations[0].target.id = 4;
                  spec_.lastEntityId = {4, 300};
              }),
              "Incoming entity ID 4:300 does not match with any existing ID, "
              "but its UID matches 3");
    EXPECT_EQ(refusalOf([&] { pages().id.uid = 999; }),
              "Incoming property ID 3:999 does not match existing UID 203");
    EXPECT_EQ(refusalOf([&] {
                  pages().id.id = 5;
                  book().lastPropertyId = {5, 203};
              }),
              "Incoming property ID 5:203 does not match with any existing ID, "
              "but its UID matches 3");
    EXPECT_EQ(refusalOf([&] { book().property("title").index.uid = 999; }),
              "Incoming index ID 1:999 does not match existing UID 901");
    EXPECT_EQ(refusalOf([&] {
                  book().property("title").index.id = 3;
                  spec_.lastIndexId = {3, 901};
              }),
              "Incoming index ID 3:901 does not match with any existing ID, "
              "but its UID matches 1");
    EXPECT_EQ(refusalOf([&] { book().relations[0].target = {1, 100}; }),
              "Conflicting Schema IDs 3 vs. 1 for UID 801");
    EXPECT_EQ(refusalOf([&] {
                  book().relations[0].id.uid = 999;
                  spec_.lastRelationId.uid = 999;
              }),
              "Relation with same ID already exists: 1");
}

TEST_F(SchemaSyncTest, RefusesAnIndexThatMovedToAnotherEntity) {
    const auto move = [&](IdUid index) {
        return refusalOf([&] {
            PropertySpec& title = book().property("title");
            title.flags = 0;
            title.index = {};
            PropertySpec& name = spec_.entity("Shelf").property("name");
            name.flags = kPropertyIndexed;
            name.index = index;
            if (index.id > 2) spec_.lastIndexId = index;
        });
    };
    EXPECT_EQ(move({1, 901}), "Incoming index ID 1 was not found in entity Shelf, but in Book");
    EXPECT_EQ(move({3, 901}),
              "Incoming index UID 901 was not found via ID in entity Shelf, but in Book");
}

TEST_F(SchemaSyncTest, AddsRenamesReordersAndRemovesProperties) {
    pages().name = "sheets";
    book().remove("authorId");
    book().add({.name = "isbn",
                .type = PropertyType::Long,
                .id = {5, 205},
                .flags = kPropertyUnique,
                .index = {3, 903}});
    spec_.lastIndexId = {3, 903};
    std::swap(book().properties[1], book().properties[3]);
    const SchemaSyncResult result = sync();
    EXPECT_EQ(result, (SchemaSyncResult{.propertiesAdded = 1,
                                        .propertiesRenamed = 1,
                                        .propertiesRemoved = 1,
                                        .propertiesReordered = 1,
                                        .indexesAdded = 1,
                                        .indexesRemoved = 1}));
    EXPECT_EQ(host_.removals, std::vector<std::string>{"index 2"});
    const Entity& stored = *this->stored()->findEntityByName("Book");
    EXPECT_EQ(stored.properties()[1]->name(), "isbn");
    EXPECT_EQ(stored.findPropertyByName("isbn")->flatOffset(), 12u);
    EXPECT_EQ(stored.findPropertyByName("sheets")->flatOffset(), 8u);
    EXPECT_TRUE(catalog_->bindingHash.equals(hashOfSpec()));
    EXPECT_FALSE(sync().any());
}

TEST_F(SchemaSyncTest, RefusesRenamesToNamesInUse) {
    EXPECT_EQ(refusalOf([&] { std::swap(pages().name, book().property("title").name); }),
              "Property cannot be renamed: another property already exists with the name pages");
    EXPECT_EQ(refusalOf([&] {
                  book().property("authorId").target = "Shelf";
                  std::swap(spec_.entity("Author").name, spec_.entity("Shelf").name);
              }),
              "Cannot rename entity Author to Shelf: entity already exists");
}

TEST_F(SchemaSyncTest, RefusesAnotherType) {
    pages().type = PropertyType::Long;
    EXPECT_EQ(refusal(), std::string("Existing pages of entity Book is not compatible with the "
                                     "new type Long (0") + kAdvice);
    pages().type = PropertyType::Int;
    book().property("authorId").target = "Shelf";
    EXPECT_EQ(refusal(), std::string("Existing authorId of entity Book is not compatible with the "
                                     "new type Relation (520") + kAdvice);
}

TEST_F(SchemaSyncTest, ChangesPropertyFlagsWithinLimits) {
    pages().flags = kPropertyNullableScalar | kPropertyUnsigned;
    EXPECT_EQ(sync(), SchemaSyncResult{.propertyFlagChanges = 1});
    EXPECT_EQ(storedProperty("Book", "pages").flags(), pages().flags);
    pages().flags = kPropertyReserved;
    EXPECT_EQ(refusal(), std::string("Cannot change the following flags for pages (Book) from "
                                     "8194 to 16 (problematic flags: 16") + kAdvice);
    pages().flags = kPropertyNotNull;
    EXPECT_EQ(refusal(), std::string("Cannot change the following flags for pages (Book) from "
                                     "8194 to 4 (problematic flags: 4") + kAdvice);
    host_.elements.clear();
    sync();
    pages().flags = 0;  // NOT_NULL may go
    EXPECT_EQ(sync().propertyFlagChanges, 1u);
}

TEST_F(SchemaSyncTest, GuardsIdCompanions) {
    PropertySpec date{.name = "date",
                      .type = PropertyType::Date,
                      .id = {5, 205},
                      .flags = kPropertyIdCompanion};
    book().add(date);
    EXPECT_EQ(refusal(), "Cannot add an ID companion property to an existing entity: date; you "
                         "need to remove the ID companion or introduce a new type.");
    host_.elements.clear();
    sync();
    book().remove("date");
    EXPECT_EQ(refusal(),
              "Cannot remove an ID companion property; please restore date in entity Book");
}

TEST_F(SchemaSyncTest, ChangesEntityFlagsWithinLimits) {
    EXPECT_EQ(refusalOf([&] { spec_.entity("Shelf").flags = kEntitySyncEnabled; }),
              "Turning an existing local entity type into a synced one is not allowed: Shelf");
    EXPECT_EQ(refusalOf([&] { spec_.entity("Shelf").flags = 0x8; }),
              "Flags of Shelf are not compatible to the previous definition");
    spec_.entity("Shelf").flags = kEntityFlag1;
    EXPECT_EQ(sync(), SchemaSyncResult{.entityFlagChanges = 1});
    EXPECT_EQ(stored()->findEntityByName("Shelf")->flags(), 1u);

    host_.elements.clear();
    spec_.entity("Shelf").flags = kEntitySyncEnabled;
    sync();
    spec_.entity("Shelf").flags = 0;
    EXPECT_EQ(sync().entityFlagChanges, 1u);
}

TEST_F(SchemaSyncTest, TakesOverOtherNames) {
    book().externalName = "tome";
    pages().secondaryName = "second";
    PropertySpec& author = book().property("authorId");
    author.flags |= kPropertyVirtual;
    author.virtualTarget = "target";
    // One for each name, and one for the flag of the virtual property.
    EXPECT_EQ(sync(), (SchemaSyncResult{.entityFlagChanges = 1, .propertyFlagChanges = 3}));
    EXPECT_EQ(stored()->findEntityByName("Book")->externalName(), "tome");
    EXPECT_EQ(storedProperty("Book", "pages").secondaryName(), "second");
    EXPECT_EQ(storedProperty("Book", "authorId").virtualTarget(), "target");
    stored();
    EXPECT_TRUE(catalog_->bindingHash.equals(hashOfSpec()));
}

TEST_F(SchemaSyncTest, AddsChangesAndRemovesIndexes) {
    pages().flags = kPropertyIndexed;
    pages().index = {3, 903};
    spec_.lastIndexId = {3, 903};
    EXPECT_EQ(sync(), SchemaSyncResult{.indexesAdded = 1});
    EXPECT_EQ(stored()->indexById(3).property().name(), "pages");
    EXPECT_TRUE(host_.removals.empty());
    EXPECT_EQ(host_.rebuilds, std::vector<std::string>{"Book.pages"});

    // A hash index becomes a value index under a new ID; uniqueness goes with it.
    PropertySpec& title = book().property("title");
    title.flags = kPropertyIndexed;
    title.index = {4, 904};
    spec_.lastIndexId = {4, 904};
    EXPECT_EQ(sync(), (SchemaSyncResult{.propertyFlagChanges = 1,
                                        .indexesAdded = 1,
                                        .indexesRemoved = 1}));
    EXPECT_EQ(host_.removals, std::vector<std::string>{"index 1"});
    EXPECT_EQ(stored()->indexById(4).type(), IndexType::Value);
    EXPECT_EQ(host_.rebuilds.back(), "Book.title");

    pages().flags = 0;
    pages().index = {};
    EXPECT_EQ(sync(), SchemaSyncResult{.indexesRemoved = 1});
    EXPECT_EQ(host_.removals.back(), "index 3");
    EXPECT_EQ(host_.rebuilds.size(), 2u);
    EXPECT_EQ(stored()->findIndexById(3), nullptr);
    EXPECT_TRUE(catalog_->bindingHash.equals(hashOfSpec()));
}

TEST_F(SchemaSyncTest, RemakesAnHnswIndexWhenItsOptionsChange) {
    book().add({.name = "vector",
                .type = PropertyType::FloatVector,
                .id = {5, 205},
                .flags = kPropertyIndexed,
                .index = {3, 903},
                .hnsw = HnswOptions{.dimensions = 2}});
    spec_.lastIndexId = {3, 903};
    EXPECT_EQ(sync(), (SchemaSyncResult{.propertiesAdded = 1,
                                        .indexesAdded = 1,
                                        .hnswIndexesAdded = 1}));
    EXPECT_FALSE(sync().any());
    book().property("vector").hnsw->indexingSearchCount = 200;
    EXPECT_EQ(sync(), (SchemaSyncResult{.indexesAdded = 1,
                                        .indexesRemoved = 1,
                                        .hnswIndexesAdded = 1}));
    EXPECT_EQ(storedProperty("Book", "vector").hnswOptions()->indexingSearchCount, 200u);
    book().property("vector").hnsw.reset();
    EXPECT_EQ(refusal<IllegalStateException>(),
              "State condition failed in syncPropertyIndex:716: newProperty.hnswOptions_");
}

TEST_F(SchemaSyncTest, AddsAndRemovesRelations) {
    book().relations = {{.id = {2, 802}, .target = {1, 100}}};
    spec_.lastRelationId = {2, 802};
    EXPECT_EQ(sync(), (SchemaSyncResult{.relationsAdded = 1, .relationsRemoved = 1}));
    EXPECT_EQ(host_.removals, std::vector<std::string>{"relation 1"});
    EXPECT_EQ(stored()->findRelationById(1), nullptr);
    EXPECT_EQ(stored()->findEntityByName("Author")->incomingRelations().size(), 1u);
}

}  // namespace
}  // namespace quillmere
