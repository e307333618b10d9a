// What a changed model does to indexes, references and links.

#include <functional>

#include "schema/model_builder.h"
#include "store/index_test.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr uint32_t kBook = 1;
constexpr uint32_t kTitle = 2;
constexpr uint32_t kAuthorId = 3;
constexpr uint32_t kPages = 4;
constexpr uint32_t kAuthor = 2;
constexpr uint32_t kWritten = 1;  // relation of authors to books

struct LibraryModel {
    uint32_t titleFlags = 0;
    uint32_t titleIndex = 0;
    bool authors = true;

    Bytes build() const {
        ModelBuilder model;
        model.entity("Book", kBook, 101);
        model.property("id", PropertyType::Long, 1, 1001);
        model.propertyFlags(kPropertyId | kPropertyIdSelfAssignable);
        model.property("title", PropertyType::String, kTitle, 1002);
        model.propertyFlags(titleFlags);
        if (titleIndex != 0) model.propertyIndexId(titleIndex, 5000 + titleIndex);
        model.property("pages", PropertyType::Int, kPages, 1004);
        if (authors) {
            model.property("authorId", PropertyType::Relation, kAuthorId, 1003);
            model.propertyFlags(kPropertyIndexed | kPropertyIndexSkipZero);
            model.propertyRelation("Author", 1, 5001);
        }
        model.entityLastPropertyId(kPages, 1004);
        if (authors) {
            model.entity("Author", kAuthor, 102);
            model.property("id", PropertyType::Long, 1, 2001);
            model.propertyFlags(kPropertyId | kPropertyIdSelfAssignable);
            model.relation(kWritten, 6001, kBook, 101);
            model.entityLastPropertyId(1, 2001);
        }
        model.lastEntityId(2, 102);
        model.lastIndexId(9, 5009);
        model.lastRelationId(kWritten, 6001);
        model.finish();
        return Bytes::copyOf(model.data(), model.size());
    }
};

class IndexMigrationTest : public IndexTest {
protected:
    void open(const LibraryModel& model) {
        store_.reset();
        StoreOptions options;
        options.directory = dir_.storePath("db");
        options.modelBytes = model.build();
        store_ = ObjectStore::create(options);
    }
    void inWriteTx(const std::function<void(Transaction& tx)>& work) {
        const auto tx = write();
        work(*tx);
        tx->commit();
    }
    void putBooks() {
        inWriteTx([&](Transaction& tx) {
            const auto books = cursor(tx, kBook);
            for (const uint64_t id : {1, 2, 3}) {
                put(*books, id, {{kTitle, "title " + std::to_string(id)},
                                 {kPages, static_cast<int32_t>(100 * id)},
                                 {kAuthorId, uint64_t{7}}});
            }
            put(*books, 0x100000000);  // all null
        });
    }
    std::vector<std::string> faults() {
        const auto tx = read();
        return IndexChecker(*tx).faults();
    }
    std::vector<std::string> indexKeys(uint32_t indexId) {
        const auto tx = read();
        return IndexChecker(*tx).indexKeys(indexId);
    }
};

TEST_F(IndexMigrationTest, ANewIndexIsFilledAndAnOldOneEmptied) {
    open({});
    putBooks();
    open({.titleFlags = kPropertyIndexed, .titleIndex = 2});
    EXPECT_THAT(indexKeys(2), SizeIs(3));
    EXPECT_THAT(faults(), IsEmpty());
    open({.titleFlags = kPropertyIndexed | kPropertyIndexHash, .titleIndex = 4});
    EXPECT_THAT(indexKeys(2), IsEmpty());
    EXPECT_THAT(indexKeys(4), SizeIs(3));
    EXPECT_EQ(indexKeys(4).front().size(), 12u);
    EXPECT_THAT(faults(), IsEmpty());
    open({});
    EXPECT_THAT(indexKeys(4), IsEmpty());
    EXPECT_THAT(faults(), IsEmpty());
}

TEST_F(IndexMigrationTest, ARefusedMigrationLeavesTheIndexesAsTheyWere) {
    open({});
    putBooks();
    // Fills the index before it comes to the flag that may not be set.
    EXPECT_THROW(open({.titleFlags = kPropertyIndexed | kPropertyNotNull, .titleIndex = 2}),
                 SchemaException);
    open({});
    EXPECT_THAT(indexKeys(2), IsEmpty());
    EXPECT_THAT(faults(), IsEmpty());
}

TEST_F(IndexMigrationTest, ARemovedEntityTakesItsLinksAndReferencesAlong) {
    open({});
    putBooks();
    inWriteTx([&](Transaction& tx) {
        const auto authors = cursor(tx, kAuthor);
        put(*authors, 7);
        authors->relationCursor(kWritten).put(7, 1);
    });
    open({.authors = false});
    EXPECT_THAT(indexKeys(1), IsEmpty());
    const auto tx = read();
    EXPECT_THAT(IndexChecker(*tx).relationKeys(kWritten), IsEmpty());
    Bytes book;
    ASSERT_TRUE(cursor(*tx, kBook)->get(1, book));
    EXPECT_EQ(objectValue<uint64_t>(book.data(), kAuthorId), 0u);
    EXPECT_EQ(objectText(book.data(), kTitle), "title 1");
}

}  // namespace
}  // namespace quillmere
