#include "schema/schema_sync.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>

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

using M = ModelTable;

EntitySpec& bookOf(M& model) {
    return model.entity("Book");
}
// The shelves go, and with them the relation to them.
void removeShelves(M& model) {
    bookOf(model).relations.clear();
    std::erase_if(model.entities, [](const EntitySpec& e) { return e.name == "Shelf"; });
}
void removeAuthors(M& model, IdUid lastPropertyId = {4, 204}) {
    bookOf(model).remove("authorId");
    bookOf(model).lastPropertyId = lastPropertyId;
}

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
    struct Case {
        void (*change)(M&);
        const char* refusal;
    };
    // Each change is taken back.
    template <class E = SchemaException>
    void expectRefusals(std::initializer_list<Case> cases) {
        const ModelTable before = spec_;
        for (const Case& test : cases) {
            test.change(spec_);
            EXPECT_EQ(refusal<E>(), test.refusal);
            spec_ = before;
        }
    }

    std::shared_ptr<Schema> stored() {
        return CatalogStore(host_).readDefaultSchemaForStore(true, catalog_);
    }
    const Property& storedProperty(const std::string& entity, const std::string& name) {
        schema_ = stored();
        return *schema_->findEntityByName(entity)->findPropertyByName(name);
    }
    EntitySpec& book() { return bookOf(spec_); }
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

TEST_F(SchemaSyncTest, CreatesASchemaAndWritesNothingForTheSameModel) {
    host_.elements.clear();
    EXPECT_EQ(sync(), SchemaSyncResult{.entitiesAdded = 3});
    EXPECT_EQ(stored()->entities().size(), 3u);
    EXPECT_EQ(catalog_->lastEntityId, 3u);
    EXPECT_EQ(catalog_->lastIndexId, 2u);
    EXPECT_EQ(catalog_->lastRelationId, 1u);
    EXPECT_TRUE(catalog_->bindingHash.equals(hashOfSpec()));
    EXPECT_NE(catalog_->randomValue, 0u);
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
    const char* const text = "Can not update schema when opening in read-only mode";
    expectRefusals<IllegalStateException>({
        {[](M& m) { m.entity("Shelf").name = "Rack"; }, text},
        {[](M& m) { m.lastEntityId = {4, 400}; }, text},
        {[](M& m) { bookOf(m).relations.clear(); }, text},
        {[](M& m) { removeAuthors(m); }, text},
        {removeShelves, text},
    });
    EXPECT_TRUE(host_.removals.empty()) << "refused before data is touched";
}

TEST_F(SchemaSyncTest, RefusesBytesThatAreNoModelOrHaveAnotherHash) {
    const auto elements = host_.elements;
    EXPECT_THROW(SchemaSync(host_).syncSchema(Bytes()), IllegalArgumentException);
    EXPECT_EQ(messageOf<SchemaException>([&] { SchemaSync(host_).syncSchema(Bytes("nope", 4)); }),
              "Could not sync the incoming data model. Verification of the model object (4 bytes) "
              "failed; does it originate from another version?");
    EXPECT_EQ(host_.elements, elements);
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

    std::erase_if(spec_.entities, [](const EntitySpec& e) { return e.id.id >= 3; });
    book().relations = {{.id = {2, 802}, .target = {1, 100}}};
    spec_.lastRelationId = {2, 802};
    result = sync();
    EXPECT_EQ(result, (SchemaSyncResult{.entitiesRemoved = 2,
                                        .relationsAdded = 1,
                                        .relationsRemoved = 1}));
    EXPECT_EQ(host_.removals, (std::vector<std::string>{"objects of Rack", "objects of Reader",
                                                        "relation 1"}));
    EXPECT_FALSE(host_.elements.contains(3));
    EXPECT_EQ(stored()->entities().size(), 2u);
    EXPECT_EQ(stored()->findRelationById(1), nullptr);
    EXPECT_EQ(stored()->findEntityByName("Author")->incomingRelations().size(), 1u);
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
    removeShelves(spec_);
    SchemaSync(host).syncSchema(spec_.build());
    EXPECT_EQ(host.removals.size(), 2u);
    // What stays with the host refers to living elements only.
    EXPECT_EQ(host.schema()->findEntityByName("Author")->incomingToOne()[0]->name(), "authorId");
}

TEST_F(SchemaSyncTest, RefusesIdsThatGoBack) {
    expectRefusals({
        {[](M& m) { removeShelves(m), m.lastEntityId = {2, 200}; },
         "DB's last entity ID 3 is higher than 2 from model"},
        {[](M& m) { removeAuthors(m), m.lastIndexId = {1, 901}; },
         "DB's last index ID 2 is higher than 1 from model"},
        {[](M& m) { bookOf(m).relations.clear(), m.lastRelationId = {}; },
         "DB's last relation ID 1 is higher than 0 from model"},
        {[](M& m) { removeAuthors(m, {3, 203}); },
         "DB's last property ID 4 is higher than the incoming one 3 in entity Book"},
    });
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
    expectRefusals({
        {[](M& m) { m.entity("Shelf").id.uid = m.lastEntityId.uid = 999; },
         "Incoming entity ID 3:999 does not match existing UID 300"},
        {[](M& m) {
             m.lastEntityId.id = m.entity("Shelf").id.id = bookOf(m).relations[0].target.id = 4;
         },
         "Incoming entity ID 4:300 does not match with any existing ID, but its UID matches 3"},
        {[](M& m) { bookOf(m).property("pages").id.uid = 999; },
         "Incoming property ID 3:999 does not match existing UID 203"},
        {[](M& m) { bookOf(m).lastPropertyId = bookOf(m).property("pages").id = {5, 203}; },
         "Incoming property ID 5:203 does not match with any existing ID, but its UID matches 3"},
        {[](M& m) { bookOf(m).property("title").index.uid = 999; },
         "Incoming index ID 1:999 does not match existing UID 901"},
        {[](M& m) { m.lastIndexId = bookOf(m).property("title").index = {3, 901}; },
         "Incoming index ID 3:901 does not match with any existing ID, but its UID matches 1"},
        {[](M& m) { bookOf(m).relations[0].target = {1, 100}; },
         "Conflicting Schema IDs 3 vs. 1 for UID 801"},
        {[](M& m) { bookOf(m).relations[0].id.uid = m.lastRelationId.uid = 999; },
         "Relation with same ID already exists: 1"},
    });
}

TEST_F(SchemaSyncTest, RefusesAnIndexThatMovedToAnotherEntity) {
    static const auto move = [](M& model, IdUid index) {
        PropertySpec& title = bookOf(model).property("title");
        title.flags = 0;
        title.index = {};
        PropertySpec& name = model.entity("Shelf").property("name");
        name.flags = kPropertyIndexed;
        name.index = index;
    };
    expectRefusals({
        {[](M& m) { move(m, {1, 901}); },
         "Incoming index ID 1 was not found in entity Shelf, but in Book"},
        {[](M& m) { move(m, m.lastIndexId = {3, 901}); },
         "Incoming index UID 901 was not found via ID in entity Shelf, but in Book"},
    });
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
    expectRefusals({
        {[](M& m) {
             std::swap(bookOf(m).property("pages").name, bookOf(m).property("title").name);
         },
         "Property cannot be renamed: another property already exists with the name pages"},
        {[](M& m) {
             bookOf(m).property("authorId").target = "Shelf";
             std::swap(m.entity("Author").name, m.entity("Shelf").name);
         },
         "Cannot rename entity Author to Shelf: entity already exists"},
    });
}

TEST_F(SchemaSyncTest, ChangesPropertyFlagsWithinLimitsAndNoType) {
    pages().flags = kPropertyNullableScalar | kPropertyUnsigned;
    EXPECT_EQ(sync(), SchemaSyncResult{.propertyFlagChanges = 1});
    EXPECT_EQ(storedProperty("Book", "pages").flags(), pages().flags);
    for (const uint32_t flag : {kPropertyReserved, kPropertyNotNull}) {
        pages().flags = flag;
        const std::string number = std::to_string(flag);
        EXPECT_EQ(refusal(), "Cannot change the following flags for pages (Book) from 8194 to " +
                                 number + " (problematic flags: " + number + kAdvice);
    }
    host_.elements.clear();
    sync();
    pages().flags = 0;  // NOT_NULL may go
    EXPECT_EQ(sync().propertyFlagChanges, 1u);

    pages().type = PropertyType::Long;
    EXPECT_EQ(refusal(), std::string("Existing pages of entity Book is not compatible with the "
                                     "new type Long (0") + kAdvice);
    pages().type = PropertyType::Int;
    book().property("authorId").target = "Shelf";
    EXPECT_EQ(refusal(), std::string("Existing authorId of entity Book is not compatible with the "
                                     "new type Relation (520") + kAdvice);
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
    expectRefusals({
        {[](M& m) { m.entity("Shelf").flags = kEntitySyncEnabled; },
         "Turning an existing local entity type into a synced one is not allowed: Shelf"},
        {[](M& m) { m.entity("Shelf").flags = 0x8; },
         "Flags of Shelf are not compatible to the previous definition"},
    });
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

    pages().flags = 0;
    pages().index = {};
    EXPECT_EQ(sync(), SchemaSyncResult{.indexesRemoved = 1});
    EXPECT_EQ(host_.removals, (std::vector<std::string>{"index 1", "index 3"}));
    EXPECT_EQ(host_.rebuilds, (std::vector<std::string>{"Book.pages", "Book.title"}));
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

}  // namespace
}  // namespace quillmere
