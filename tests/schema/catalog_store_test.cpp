#include "schema/catalog_store.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "core/error.h"
#include "core/flatbuffer_check.h"
#include "memory_schema_host.h"
#include "model_table.h"
#include "schema/entity_record.h"
#include "schema/schema_sync.h"
#include "support/expect_throw.h"
#include "support/log_capture.h"

namespace quillmere {
namespace {

using flatbuffers::Table;
using Tables = flatbuffers::Vector<flatbuffers::Offset<Table>>;

// A host with the library's schema, vectors on its pages included.
class CatalogStoreTest : public ::testing::Test {
protected:
    CatalogStoreTest() {
        ModelTable spec = libraryModel();
        spec.fourthLastId = {7, 777};
        EntitySpec& book = spec.entity("Book");
        book.externalName = "tome";
        book.property("pages").secondaryName = "second";
        book.add({.name = "vector",
                  .type = PropertyType::FloatVector,
                  .id = {5, 205},
                  .flags = kPropertyIndexed,
                  .index = {3, 903},
                  .hnsw = HnswOptions{.neighborsPerNode = 5, .dimensions = 2}});
        spec.lastIndexId = {3, 903};
        SchemaSync(host_).syncSchema(spec.build());
    }

    // Rewrites a number of a record in place.
    template <class T>
    void set(uint64_t element, uint16_t voffset, T value) {
        Bytes record = host_.element(element);
        auto& table = const_cast<Table&>(rootTable(record.data()));
        ASSERT_TRUE(table.SetField<T>(voffset, value));
        host_.writeElement(element, record.data(), record.size());
    }
    std::shared_ptr<Schema> read() {
        return store_.readDefaultSchemaForStore(true, catalog_);
    }
    template <class E>
    std::string readFailure() {
        return messageOf<E>([&] { read(); });
    }

    MemorySchemaHost host_;
    CatalogStore store_{host_};
    std::optional<Catalog> catalog_;
};

using Numbers = std::vector<std::pair<uint16_t, uint32_t>>;  // by place in the vtable

void expectNumbers(const Table& table, const Numbers& expected) {
    for (const auto& [voffset, number] : expected) {
        EXPECT_EQ(table.GetField<uint32_t>(voffset, 0), number) << voffset;
    }
}

std::string textAt(const Table& table, uint16_t voffset) {
    return table.GetPointer<const flatbuffers::String*>(voffset)->str();
}

TEST_F(CatalogStoreTest, WritesTheFieldsAtTheirPlaces) {
    const Bytes catalog = host_.element(0);
    EXPECT_EQ(catalog.size() % 4, 0u);
    const Table& table = rootTable(catalog.data());
    expectNumbers(table, {{8, 2}, {10, 1}, {18, 3}, {20, 0}, {22, 3}, {24, 7}, {26, 1}});
    EXPECT_TRUE(table.CheckField(12));
    const auto created = table.GetField<uint64_t>(14, 0);
    EXPECT_GT(created, 1'600'000'000'000'000'000u);
    EXPECT_GE(table.GetField<uint64_t>(16, 0), created);
    for (const uint16_t hash : {28, 30, 32}) {
        EXPECT_EQ(table.GetPointer<const flatbuffers::Vector<uint8_t>*>(hash)->size(), 16u);
    }
    const Table& schema = *table.GetPointer<const Tables*>(4)->Get(0);
    EXPECT_EQ(textAt(schema, 4), "default");
    expectNumbers(schema, {{6, 1}});
    EXPECT_EQ(schema.GetField<uint64_t>(8, 0), 1u);

    const Bytes record = host_.element(2);
    EXPECT_EQ(record.size() % 4, 0u);
    const Table& entity = rootTable(record.data());
    EXPECT_EQ(entity.GetField<uint64_t>(4, 0), 200u);
    expectNumbers(entity,
                  {{6, 2}, {8, 1}, {16, 0}, {18, 1}, {20, 1}, {22, 5}, {24, 1}, {26, 0}});
    EXPECT_EQ(textAt(entity, 10), "Book");
    EXPECT_EQ(textAt(entity, 30), "tome");

    const auto& properties = *entity.GetPointer<const Tables*>(12);
    const Table& author = *properties.Get(3);
    EXPECT_EQ(author.GetField<uint64_t>(4, 0), 204u);
    expectNumbers(author, {{6, 4}, {8, 2}, {10, 1}, {12, 2},
                           {22, kPropertyIndexed | kPropertyIndexSkipZero}});
    EXPECT_EQ(author.GetField<uint64_t>(14, 0), 902u);
    EXPECT_EQ(textAt(author, 16), "authorId");
    EXPECT_EQ(author.GetField<uint16_t>(18, 0), 11u);
    EXPECT_EQ(author.GetField<uint16_t>(20, 0), 10u);
    EXPECT_EQ(textAt(*properties.Get(2), 26), "second");
    expectNumbers(*properties.Get(4)->GetPointer<const Table*>(30), {{6, 5}});

    const Table& relation = *entity.GetPointer<const Tables*>(14)->Get(0);
    expectNumbers(relation, {{4, 1}, {8, 2}, {10, 3}});
    EXPECT_EQ(relation.GetField<uint64_t>(6, 0), 801u);
}

TEST_F(CatalogStoreTest, ReadsBackWhatWasWritten) {
    const auto schema = read();
    EXPECT_EQ(schema->id(), 1u);
    ASSERT_EQ(schema->entities().size(), 3u);
    const Entity& book = *schema->findEntityByName("Book");
    EXPECT_EQ(book.externalName(), "tome");
    EXPECT_EQ(book.idProperty().flatOffset(), 4u);
    EXPECT_TRUE(book.findPropertyByName("title")->hasFlag(kPropertyIndexHash));
    EXPECT_EQ(book.findPropertyByName("vector")->hnswOptions()->neighborsPerNode, 5u);
    EXPECT_EQ(schema->indexById(3).type(), IndexType::Hnsw);
    EXPECT_EQ(schema->findEntityById(1)->incomingToOne().size(), 1u);
    for (const auto& entity : schema->entities()) {
        const Bytes rebuilt = buildEntityRecord(*entity);
        EXPECT_TRUE(rebuilt.equals(host_.element(entity->id()))) << entity->name();
    }
    EXPECT_TRUE(catalog_->build().equals(host_.element(0)));
}

TEST_F(CatalogStoreTest, MissesACatalogOnRequest) {
    host_.elements.clear();
    EXPECT_FALSE(store_.readCatalogOnly());
    EXPECT_EQ(store_.readDefaultSchemaForStore(false, catalog_), nullptr);
    EXPECT_FALSE(catalog_);
    EXPECT_EQ(readFailure<IllegalStateException>(), "No DB catalog present");
}

TEST_F(CatalogStoreTest, RefusesVersionsAndNumbersThatCanNotBe) {
    enum { kCatalog = 0, kBook = 2 };
    const auto good = host_.elements;
    const auto failure = [&]<class E>(E*, uint64_t element, uint16_t voffset, uint32_t number) {
        set<uint32_t>(element, voffset, number);
        const std::string text = readFailure<E>();
        host_.elements = good;
        return text;
    };
    const auto refused = [&](uint64_t element, uint16_t voffset, uint32_t number) {
        return failure(static_cast<SchemaException*>(nullptr), element, voffset, number);
    };
    const auto corrupt = [&](uint64_t element, uint16_t voffset, uint32_t number) {
        return failure(static_cast<DbFileCorruptException*>(nullptr), element, voffset, number);
    };
    EXPECT_EQ(refused(kCatalog, 10, 3),
              "Please update, this file requires a minimum meta schema version of 3");
    EXPECT_EQ(refused(kCatalog, 8, 1), "Upgrading is not supported from meta schema version 1");
    EXPECT_EQ(corrupt(kCatalog, 8, 0), "Catalog: no meta schema version(s) available");
    EXPECT_EQ(corrupt(kCatalog, 18, 0), "Schema catalog contains invalid entity ID");
    EXPECT_EQ(corrupt(kCatalog, 22, 0x1000000), "Schema catalog contains invalid index ID");
    EXPECT_EQ(refused(kBook, 20, 2),
              "Please update, this file requires a minimum meta schema version of 2");
    EXPECT_EQ(corrupt(kBook, 20, 0), "Entity: No meta schema version(s) available");
    EXPECT_EQ(corrupt(kBook, 6, 0), "No schema entity ID for key 2");
    EXPECT_EQ(corrupt(kBook, 6, 0x1000000), "Invalid entity ID for key 2");
    EXPECT_EQ(corrupt(kBook, 6, 4), "Invalid entity ID larger than last ID for key 2");
    EXPECT_EQ(corrupt(kBook, 6, 1), "Invalid entity ID does not match key 2");
    set<uint32_t>(kCatalog, 8, 3);  // a later version that still lets us read
    EXPECT_NO_THROW(read());

    const Bytes book = host_.element(kBook);
    host_.writeElement(kBook, book.data(), 16);
    EXPECT_EQ(readFailure<DbFileCorruptException>(),
              "Schema entity could not be verified for key 2");
    host_.writeElement(kCatalog, book.data(), 8);
    EXPECT_EQ(readFailure<DbFileCorruptException>(), "Schema catalog could not be verified");
}

TEST_F(CatalogStoreTest, PassesOverOtherSchemasAndLaterElements) {
    set<uint32_t>(2, 8, 5);  // the book belongs to another schema
    const Bytes shelf = host_.element(3);
    host_.writeElement(0x1000000, shelf.data(), shelf.size());
    const LogCapture log;
    EXPECT_EQ(read()->entities().size(), 2u);
    EXPECT_TRUE(
        log.contains(" [WARN ] Found additional unknown schema elements, ignoring...\n"));
    EXPECT_EQ(store_.readAll().count(0x1000000), 1u);
}

TEST_F(CatalogStoreTest, CopiesACatalog) {
    const CatalogStore::Elements elements = store_.readAll();
    EXPECT_EQ(elements.size(), 4u);
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { store_.writeAll(elements); }),
              "Schema partition must be empty");
    MemorySchemaHost other;
    CatalogStore otherStore(other);
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { otherStore.writeAll({}); }),
              "Empty catalog");
    CatalogStore::Elements unpadded = elements;
    unpadded[2] = Bytes::copyOf(unpadded[2].data(), unpadded[2].size() - 1);
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { otherStore.writeAll(unpadded); }),
              "Size not padded");
    other.elements.clear();
    EXPECT_EQ(messageOf<IllegalStateException>([&] {
                  otherStore.writeAll({{0, elements.at(0)}, {1u << 25, elements.at(1)}});
              }),
              "State condition failed in writeAll:283: id < (1 << 25)");
    other.elements.clear();
    EXPECT_THROW(otherStore.writeAll({{0, elements.at(0)}, {1, elements.at(2)}}),
                 DbFileCorruptException);
    other.elements.clear();
    otherStore.writeAll(elements);
    EXPECT_EQ(other.elements, host_.elements);
}

TEST_F(CatalogStoreTest, RefusesIncompleteEntitiesAndReadOnlyStores) {
    Entity entity(4, 400, "New");
    entity.addProperty(std::make_shared<Property>(1, 401, "id", PropertyType::Long, kPropertyId));
    EXPECT_EQ(messageOf<SchemaException>([&] { store_.writeEntity(entity); }),
              "Cannot write entity: New is incomplete");
    entity.setSchemaId(1);
    EXPECT_EQ(messageOf<SchemaException>([&] { store_.writeEntity(entity); }),
              "Cannot write entity New: property id is incomplete");
    EXPECT_EQ(messageOf<SchemaException>([&] { store_.removeEntity(entity); }),
              "Entity schema could not be removed");
    host_.readOnly_ = true;
    const auto schema = read();
    EXPECT_EQ(messageOf<IllegalStateException>(
                  [&] { store_.writeEntity(*schema->entities()[0]); }),
              "Can not update schema when opening in read-only mode");
    EXPECT_THROW(store_.writeEntity(entity), IllegalStateException) << "before it is looked at";
    EXPECT_THROW(store_.writeCatalog(*catalog_), IllegalStateException);
}

// A flipped byte may hit a name or a hash, which nothing contradicts; whatever is taken must be a
// whole schema.
TEST_F(CatalogStoreTest, SurvivesDamageToEveryByte) {
    const auto good = host_.elements;
    int refused = 0;
    for (const auto& [id, record] : good) {
        for (size_t at = 1; at < record.size(); ++at) {
            for (const uint8_t mask : {0x01, 0x80, 0xFF}) {
                host_.elements = good;
                host_.elements[id][at] = static_cast<char>(record[at] ^ mask);
                try {
                    for (const auto& entity : read()->entities()) {
                        EXPECT_FALSE(entity->name().empty());
                        EXPECT_TRUE(entity->idProperty().hasFlag(kPropertyId));
                        buildEntityRecord(*entity);
                    }
                } catch (const Exception&) {
                    ++refused;
                }
            }
        }
    }
    EXPECT_GT(refused, 0);
}

}  // namespace
}  // namespace quillmere
