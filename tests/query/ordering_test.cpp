#include <cmath>

#include "query/comparator.h"
#include "query/query_test.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

using testing::ElementsAre;

constexpr uint32_t kInt = 2;
constexpr uint32_t kDouble = 3;
constexpr uint32_t kText = 4;
constexpr uint32_t kOwner = 5;

class Ordering : public QueryTest {
protected:
    void SetUp() override {
        open(std::move(TestSchema()
                           .entity(1, "Thing")
                           .property(kInt, "int", PropertyType::Int)
                           .property(kDouble, "double", PropertyType::Double)
                           .property(kText, "text", PropertyType::String)
                           .toOne(kOwner, "owner", 1)));
    }
};

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

TEST_F(Ordering, IdsAreUnsigned) {
    for (const uint64_t id : {uint64_t{2}, ~uint64_t{0} - 1, uint64_t{1}}) put(id);
    EXPECT_THAT(orderedBy(1), ElementsAre(1, 2, ~uint64_t{0} - 1));
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

}  // namespace
}  // namespace quillmere
