#include "query/link_condition.h"
#include "query/query_test.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr uint32_t kBooks = 1;
constexpr uint32_t kAuthors = 2;
constexpr uint32_t kCities = 3;
constexpr uint32_t kNumber = 2;
constexpr uint32_t kAuthor = 3;     // to-one, indexed
constexpr uint32_t kUnindexed = 4;  // to-one
constexpr uint32_t kReaders = 9;    // standalone, books to authors
constexpr uint64_t kFar = uint64_t{1} << 40;

class Links : public QueryTest {
protected:
    void SetUp() override {
        TestSchema spec;
        spec.entity(kBooks, "Book")
            .property(kNumber, "pages", PropertyType::Int)
            .toOne(kAuthor, "author", kAuthors)
            .property(kUnindexed, "editor", PropertyType::Relation, 0, kAuthors)
            .relation(kReaders, kAuthors)
            .entity(kAuthors, "Author")
            .property(kNumber, "born", PropertyType::Int)
            .toOne(kAuthor, "city", kCities)
            .entity(kCities, "City")
            .property(kNumber, "size", PropertyType::Int);
        open(std::move(spec));
        put(7, {{kNumber, 70}}, kCities);
        put(1, {{kNumber, 1900}, {kAuthor, uint64_t{7}}}, kAuthors);
        put(kFar, {{kNumber, 1950}}, kAuthors);
        put(10, {{kNumber, 100}, {kAuthor, uint64_t{1}}, {kUnindexed, uint64_t{1}}});
        put(11, {{kNumber, 200}, {kAuthor, uint64_t{1}}});
        put(12, {{kNumber, 300}, {kAuthor, kFar}});
        put(13, {{kNumber, 400}, {kAuthor, uint64_t{0}}});
        put(14, {{kNumber, 500}, {kAuthor, uint64_t{99}}});  // of nobody
        put(15, {{kNumber, 600}, {kAuthor, ~uint64_t{0}}});  // of what no object can be
        endTx();
        const auto tx = write();
        const auto books = cursor(*tx, kBooks);
        RelationCursor& reads = books->relationCursor(kReaders);
        reads.put(10, kFar);
        reads.put(13, kFar);
        reads.put(13, 1);
        tx->commit();
    }
    const Entity& authors() { return entity(kAuthors); }
    const Property& authorOf() { return prop(kAuthor, kBooks); }
    const Relation* readers() { return entity(kBooks).findRelationById(kReaders); }
    void bornIn(QueryBuilder& b, int64_t year) { b.equal(prop(kNumber, kAuthors), year); }
};

TEST_F(Links, GoForwardAndBackThroughAProperty) {
    const auto byAuthor = query([&](QueryBuilder& b) {
        bornIn(b.link(&authors(), &authorOf(), false), 1900);
    });
    EXPECT_THAT(idsOf(*byAuthor), ElementsAre(10, 11));

    // Neither 0 nor an ID of nobody finds an author; two books give theirs once.
    QueryBuilder b = builder(kAuthors);
    b.link(&entity(kBooks), &authorOf(), true).less(prop(kNumber), int64_t{900}, false);
    const auto ofBooks = b.build();
    std::vector<Bytes> found;
    ofBooks->find(objects(kAuthors), found);
    EXPECT_EQ(2u, found.size());
    EXPECT_EQ(2u, ofBooks->count(objects(kAuthors)));
    EXPECT_THAT(idsOf(*ofBooks), ElementsAre(1, kFar));
}

TEST_F(Links, AreAllAskedForAndNest) {
    const auto both = query([&](QueryBuilder& b) {
        bornIn(b.link(&authors(), &authorOf(), false), 1900);
        bornIn(b.link(&authors(), readers(), false), 1950);
    });
    EXPECT_THAT(idsOf(*both), ElementsAre(10));
    EXPECT_THAT(both->describeParameters(), HasSubstr("(from entity 1 to 2)"));

    const auto fromCity = query([&](QueryBuilder& b) {
        b.link(&authors(), &authorOf(), false)
            .link(&entity(kCities), &prop(kAuthor, kAuthors), false)
            .equal(prop(kNumber, kCities), int64_t{70});
    });
    EXPECT_THAT(idsOf(*fromCity), ElementsAre(10, 11));
    EXPECT_EQ("TRUE\n| Link Author via author with conditions: TRUE\n"
              "|| Link City via city with conditions: size == 70",
              fromCity->describeParameters());
}

TEST_F(Links, ReadNoObjectToKnowTheEntriesOfAnIndex) {
    const auto forward = query(
        [&](QueryBuilder& b) { bornIn(b.link(&authors(), &authorOf(), false), 1900); });
    EXPECT_EQ(2u, forward->count(objects(kBooks)));
    EXPECT_TRUE(forward->lastAllDefinite());

    const auto narrowed = query([&](QueryBuilder& b) {
        bornIn(b.link(&authors(), &authorOf(), false), 1900);
        b.equal(prop(kNumber), int64_t{200});
    });
    EXPECT_EQ(1u, narrowed->count(objects(kBooks)));
    EXPECT_FALSE(narrowed->lastAllDefinite());
}

TEST_F(Links, AnEmptySubQueryEndsTheRun) {
    const auto nobody = query([&](QueryBuilder& b) {
        bornIn(b.link(&authors(), &authorOf(), false), 1);
        bornIn(b.link(&authors(), &prop(kUnindexed), false), 1900);  // would fail
    });
    EXPECT_THAT(idsOf(*nobody), ElementsAre());
    EXPECT_FALSE(nobody->lastAllDefinite());
}

TEST_F(Links, NeedAnIndexToGoForwardThroughAProperty) {
    const auto unindexed = query([&](QueryBuilder& b) {
        bornIn(b.link(&authors(), &prop(kUnindexed), false), 1900);
    });
    EXPECT_THAT(messageOf<IllegalStateException>([&] { idsOf(*unindexed); }),
                HasSubstr("getIndexCursor:604: propertyIsIndexed"));
    QueryBuilder b = builder(kAuthors);
    b.link(&entity(kBooks), &prop(kUnindexed), true);
    EXPECT_THAT(idsOf(*b.build()), ElementsAre(1));
}

TEST_F(Links, WithoutASubQueryCanNotDescribeThemselves) {
    const QueryConditionLink link(kAuthors, authorOf(), false);
    EXPECT_THAT(messageOf<IllegalStateException>([&] { link.describe(0); }),
                HasSubstr("describe:69: subQuery_"));
}

}  // namespace
}  // namespace quillmere
