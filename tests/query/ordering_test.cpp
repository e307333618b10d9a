#include <cmath>
#include <limits>

#include "query/comparator.h"
#include "query/ordered_matches.h"
#include "query/query_test.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

using testing::ElementsAre;

constexpr uint32_t kInt = 2;
constexpr uint32_t kDouble = 3;
constexpr uint32_t kText = 4;
constexpr uint32_t kOwner = 5;
constexpr uint32_t kUnsigned = 6;

class Ordering : public QueryTest {
protected:
    void SetUp() override {
        open(std::move(SchemaSpec()
                           .entity(1, "Thing")
                           .property(kInt, "int", PropertyType::Int)
                           .property(kDouble, "double", PropertyType::Double)
                           .property(kText, "text", PropertyType::String)
                           .toOne(kOwner, "owner", 1)
                           .property(kUnsigned, "unsigned", PropertyType::Int, kPropertyUnsigned)));
    }
};

TEST_F(Ordering, TheFirstOrderIsThePrimaryKey) {
    put(1, {{kInt, 2}, {kText, "a"}});
    put(2, {{kInt, 1}, {kText, "b"}});
    put(3, {{kInt, 1}, {kText, "a"}});
    put(4, {{kInt, 2}, {kText, "A"}});
    const auto ordered = query([&](QueryBuilder& b) {
        b.order(prop(kInt), kOrderDescending);
        b.order(prop(kText), 0);
    });
    EXPECT_THAT(idsOf(*ordered), ElementsAre(1, 4, 3, 2));
    EXPECT_THAT(orderedBy(kText), ElementsAre(1, 3, 4, 2));
    EXPECT_THAT(orderedBy(kText, kOrderCaseSensitive), ElementsAre(4, 1, 3, 2));
    EXPECT_THAT(orderedBy(kText, kOrderDescending), ElementsAre(2, 1, 3, 4));
}

TEST_F(Ordering, NullsOfIntegersCountAsAnExtremeOrAsZero) {
    put(1, {{kInt, 5}});
    put(2);
    put(3, {{kInt, -5}});
    put(4, {{kInt, 0}});
    put(5, {{kInt, std::numeric_limits<int32_t>::min()}});
    put(6, {{kInt, std::numeric_limits<int32_t>::max()}});
    EXPECT_THAT(orderedBy(kInt), ElementsAre(2, 5, 3, 4, 1, 6));
    EXPECT_THAT(orderedBy(kInt, kOrderNullsLast), ElementsAre(5, 3, 4, 1, 6, 2));
    EXPECT_THAT(orderedBy(kInt, kOrderNullsZero), ElementsAre(5, 3, 2, 4, 1, 6));
    // As unsigned, negative numbers are the largest.
    EXPECT_THAT(orderedBy(kInt, kOrderUnsigned), ElementsAre(2, 4, 1, 6, 5, 3));
    // The position among equals stays, the order of values turns round.
    EXPECT_THAT(orderedBy(kInt, kOrderDescending), ElementsAre(6, 1, 4, 3, 2, 5));
    EXPECT_THAT(orderedBy(kInt, kOrderDescending | kOrderNullsLast),
                ElementsAre(6, 2, 1, 4, 3, 5));
}

TEST_F(Ordering, NullsOfFloatsStandBehindNegativeValuesAndZero) {
    put(1, {{kDouble, 0.0}});
    put(2);
    put(3, {{kDouble, -1.0}});
    put(4, {{kDouble, 1.0}});
    put(5, {{kDouble, double{INFINITY}}});
    EXPECT_THAT(orderedBy(kDouble), ElementsAre(3, 1, 2, 4, 5));
    EXPECT_THAT(orderedBy(kDouble, kOrderNullsLast), ElementsAre(3, 1, 4, 2, 5));
    EXPECT_THAT(orderedBy(kDouble, kOrderNullsZero), ElementsAre(3, 1, 2, 4, 5));
}

TEST_F(Ordering, NullsOfTextStayOnTheirSideWhateverTheDirection) {
    put(1, {{kText, "b"}});
    put(2);
    put(3, {{kText, ""}});
    put(4, {{kText, std::string("b\0z", 3)}});
    EXPECT_THAT(orderedBy(kText), ElementsAre(2, 3, 1, 4));
    EXPECT_THAT(orderedBy(kText, kOrderCaseSensitive), ElementsAre(2, 3, 1, 4));
    EXPECT_THAT(orderedBy(kText, kOrderDescending), ElementsAre(2, 1, 4, 3));
    EXPECT_THAT(orderedBy(kText, kOrderNullsLast | kOrderDescending), ElementsAre(1, 4, 3, 2));
}

TEST_F(Ordering, ManyNansHarmNothing) {
    std::vector<double> values = {3, 1, 2, -1, INFINITY};
    for (uint64_t id = 1; id <= 400; ++id) {
        put(id, {{kDouble, id % 3 == 0 ? values[id % values.size()] : std::nan("")}});
    }
    for (const uint64_t limit : {uint64_t{0}, uint64_t{10}, uint64_t{150}}) {
        const Ids ids = orderedBy(kDouble, 0, 0, limit);
        EXPECT_EQ(limit == 0 ? 400 : limit, ids.size());
        EXPECT_EQ(ids.size(), std::set<uint64_t>(ids.begin(), ids.end()).size());
    }
}

TEST_F(Ordering, KeepsNoMoreThanOffsetAndLimit) {
    for (int32_t id = 1; id <= 300; ++id) put(static_cast<uint64_t>(id), {{kInt, id * 7 % 300}});
    const Ids all = orderedBy(kInt);
    EXPECT_EQ(300u, all.size());
    EXPECT_EQ(Ids(all.begin() + 5, all.begin() + 15), orderedBy(kInt, 0, 5, 10));
    EXPECT_EQ(Ids(all.begin() + 290, all.end()), orderedBy(kInt, 0, 290, 0));
    EXPECT_EQ(Ids(), orderedBy(kInt, 0, 300, 10));
    EXPECT_EQ(Ids(all.begin(), all.begin() + 1), orderedBy(kInt, 0, 0, 1));
    // Ordered or not: all matches are counted, and a removal takes all.
    const auto ordered = query([&](QueryBuilder& b) { b.order(prop(kInt), 0); });
    EXPECT_EQ(300u, ordered->count(objects()));
    Bytes first;
    ASSERT_TRUE(ordered->findFirst(objects(), first));
    EXPECT_EQ(all.front(), objectValue<uint64_t>(first.data(), 1));
}

TEST_F(Ordering, RefusesTypesAndFlagsThatHaveNoOrder) {
    const auto failure = [&]<class E>(E*, uint32_t propertyId, uint32_t flags) {
        return messageOf<E>([&] { makeComparator(prop(propertyId), flags, nullptr); });
    };
    Exception* plain = nullptr;
    IllegalArgumentException* argument = nullptr;
    EXPECT_EQ("Order: Unsupported type for property owner", failure(plain, kOwner, 0));
    EXPECT_EQ("Only one of the NULLS order flags may be used",
              failure(argument, kInt, kOrderNullsLast | kOrderNullsZero));
    EXPECT_EQ("NULLS_ZERO order flag is not supported for strings",
              failure(argument, kText, kOrderNullsZero));
}

TEST_F(Ordering, PropertyFlagsMakeAnOrderUnsigned) {
    put(1, {{kUnsigned, -1}});
    put(2, {{kUnsigned, 1}});
    put(uint64_t{0xFFFFFFFFFFFFFFF0});
    EXPECT_THAT(orderedBy(kUnsigned), ElementsAre(0xFFFFFFFFFFFFFFF0, 2, 1));
    EXPECT_THAT(orderedBy(1), ElementsAre(1, 2, 0xFFFFFFFFFFFFFFF0));
}

}  // namespace
}  // namespace quillmere
