#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "capi/query_fixture.h"

namespace quillmere {
namespace {

using ::testing::ElementsAre;

class QueryPropTest : public QueryTest {
protected:
    PropPtr prop(uint32_t propertyId, int64_t ageFrom = 0) {
        PropPtr made(qmr_query_prop(customersFrom(ageFrom).get(), propertyId));
        EXPECT_TRUE(made) << qmr_last_error_message();
        return made;  // the handle of its query is closed already
    }
    static uint64_t count(const PropPtr& prop) {
        uint64_t count = ~uint64_t{0};
        EXPECT_EQ(QMR_SUCCESS, qmr_query_prop_count(prop.get(), &count));
        return count;
    }
    // Takes the array.
    template <class Array>
    static auto values(Array* array, void (*free)(Array*)) {
        std::vector<std::decay_t<decltype(array->items[0])>> copy;
        EXPECT_TRUE(array) << qmr_last_error_message();
        if (array) copy.assign(array->items, array->items + array->count);
        free(array);
        return copy;
    }
    static std::vector<std::string> strings(const PropPtr& prop, const char* ifNull = nullptr) {
        QMR_string_array* const array = qmr_query_prop_find_strings(prop.get(), ifNull);
        std::vector<std::string> copy;
        EXPECT_TRUE(array) << qmr_last_error_message();
        if (array) copy.assign(array->items, array->items + array->count);
        qmr_string_array_free(array);
        return copy;
    }
};

TEST_F(QueryPropTest, CountsValuesAndDistinctOnes) {
    const PropPtr points = prop(kPoints);
    EXPECT_EQ(3u, count(points));
    EXPECT_EQ(QMR_SUCCESS, qmr_query_prop_distinct(points.get(), true));
    EXPECT_EQ(2u, count(points));

    const PropPtr names = prop(kName);
    EXPECT_EQ(QMR_SUCCESS, qmr_query_prop_distinct(names.get(), true));
    EXPECT_EQ(4u, count(names)) << "case-sensitive at the start";
    EXPECT_EQ(QMR_SUCCESS, qmr_query_prop_distinct_case(names.get(), true, false));
    EXPECT_EQ(3u, count(names));
    EXPECT_EQ(QMR_ERROR_PROPERTY_TYPE_MISMATCH,
              qmr_query_prop_distinct_case(points.get(), true, false));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_PROPERTY_TYPE_MISMATCH,
                            "Please use the regular 'distinct' instead (without case "
                            "sensitivity). Property \"points\" is of type Long"));
}

TEST_F(QueryPropTest, AggregatesGiveTheValueAndHowManyWentIn) {
    struct Doubles {
        qmr_err (*run)(QMR_query_prop*, double*, int64_t*);
        double expected;
    };
    const PropPtr weight = prop(kWeight, 30);
    for (const Doubles& test : {Doubles{qmr_query_prop_avg, 70.25}, {qmr_query_prop_sum, 210.75},
                                {qmr_query_prop_min, 60.5}, {qmr_query_prop_max, 80.25}}) {
        double value = 0;
        int64_t count = 0;
        EXPECT_EQ(QMR_SUCCESS, test.run(weight.get(), &value, &count));
        EXPECT_EQ(test.expected, value);
        EXPECT_EQ(3, count);
        EXPECT_EQ(QMR_SUCCESS, test.run(weight.get(), &value, nullptr));
    }
    struct Integers {
        qmr_err (*run)(QMR_query_prop*, int64_t*, int64_t*);
        int64_t expected;
    };
    const PropPtr points = prop(kPoints);
    const PropPtr nothing = prop(kPoints, 50);
    for (const Integers& test :
         {Integers{qmr_query_prop_avg_int, 8}, {qmr_query_prop_sum_int, 23},
          {qmr_query_prop_min_int, 7}, {qmr_query_prop_max_int, 9}}) {
        int64_t value = 0;
        int64_t count = 0;
        EXPECT_EQ(QMR_SUCCESS, test.run(points.get(), &value, &count));
        EXPECT_EQ(test.expected, value);
        EXPECT_EQ(3, count);
        EXPECT_EQ(QMR_SUCCESS, test.run(nothing.get(), &value, &count));
        EXPECT_EQ(0, value);
        EXPECT_EQ(0, count);
        EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, test.run(prop(kName).get(), &value, &count));
    }
    double none = 0;
    EXPECT_EQ(QMR_SUCCESS, qmr_query_prop_avg(nothing.get(), &none, nullptr));
    EXPECT_TRUE(std::isnan(none));
}

TEST_F(QueryPropTest, AggregatesRefuseDistinctAndLeaveTheResultsAlone) {
    const PropPtr points = prop(kPoints);
    qmr_query_prop_distinct(points.get(), true);
    double number = 1.5;
    int64_t integer = 15;
    int64_t count = 16;
    for (const auto run : {qmr_query_prop_avg, qmr_query_prop_sum, qmr_query_prop_min,
                           qmr_query_prop_max}) {
        EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, run(points.get(), &number, &count));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT,
                                "This method doesn't support 'distinct'"));
    }
    for (const auto run : {qmr_query_prop_avg_int, qmr_query_prop_sum_int, qmr_query_prop_min_int,
                           qmr_query_prop_max_int}) {
        EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, run(points.get(), &integer, &count));
    }
    EXPECT_EQ(1.5, number);
    EXPECT_EQ(15, integer);
    EXPECT_EQ(16, count);
}

TEST_F(QueryPropTest, FindsValuesWithAndWithoutAReplacementOfNull) {
    const PropPtr points = prop(kPoints);
    const int64_t ifNull = -1;
    EXPECT_THAT(values(qmr_query_prop_find_int64s(points.get(), nullptr), qmr_int64_array_free),
                ElementsAre(7, 9, 7));
    EXPECT_THAT(values(qmr_query_prop_find_int64s(points.get(), &ifNull), qmr_int64_array_free),
                ElementsAre(7, 9, -1, 7));
    qmr_query_prop_distinct(points.get(), true);
    EXPECT_EQ(2u, values(qmr_query_prop_find_int64s(points.get(), nullptr), qmr_int64_array_free)
                      .size());
    EXPECT_THAT(values(qmr_query_prop_find_int32s(prop(kAge).get(), nullptr),
                       qmr_int32_array_free),
                ElementsAre(30, 40, 50, 20));
    EXPECT_THAT(values(qmr_query_prop_find_doubles(prop(kWeight, 40).get(), nullptr),
                       qmr_double_array_free),
                ElementsAre(80.25, 70));
    const int8_t tierIfNull = 9;
    EXPECT_THAT(values(qmr_query_prop_find_int8s(prop(kTier).get(), &tierIfNull),
                       qmr_int8_array_free),
                ElementsAre(1, -2, 9, 1));
    const int16_t visitsIfNull = 9;
    EXPECT_THAT(values(qmr_query_prop_find_int16s(prop(kVisits).get(), &visitsIfNull),
                       qmr_int16_array_free),
                ElementsAre(300, -1, 9, 300));
    const float ratingIfNull = 9;
    const PropPtr ratings = prop(kRating);
    EXPECT_THAT(values(qmr_query_prop_find_floats(ratings.get(), &ratingIfNull),
                       qmr_float_array_free),
                ElementsAre(0.5f, -1.5f, 9.0f, 0.5f));
    qmr_query_prop_distinct(ratings.get(), true);
    EXPECT_THAT(values(qmr_query_prop_find_floats(ratings.get(), nullptr), qmr_float_array_free),
                ElementsAre(0.5f, -1.5f));
    const PropPtr names = prop(kName);
    EXPECT_THAT(strings(names), ElementsAre("Ann", "bob", "Cid", "ann"));
    qmr_query_prop_distinct_case(names.get(), true, false);
    EXPECT_THAT(strings(names), ElementsAre("Ann", "bob", "Cid"));
    EXPECT_THAT(strings(prop(kData, 40), "none"), ElementsAre("none", "\x01\x02"));
}

TEST_F(QueryPropTest, ListsOfAnotherWidthAreRefused) {
    const PropPtr weight = prop(kWeight);
    const auto expectRefused = [&](auto find) {
        EXPECT_EQ(nullptr, find(weight.get(), nullptr));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_PROPERTY_TYPE_MISMATCH, "is of type Double"));
    };
    expectRefused(qmr_query_prop_find_strings);
    expectRefused(qmr_query_prop_find_floats);
    expectRefused(qmr_query_prop_find_int64s);
    expectRefused(qmr_query_prop_find_int32s);
    expectRefused(qmr_query_prop_find_int16s);
    expectRefused(qmr_query_prop_find_int8s);
}

TEST_F(QueryPropTest, SharesTheValuesOfItsQueryButNotItsWindow) {
    const QueryPtr query = customersFrom(40);
    const PropPtr ages(qmr_query_prop(query.get(), kAge));
    EXPECT_EQ(2u, count(ages));
    qmr_query_param_int(query.get(), 0, kAge, 50);
    qmr_query_offset_limit(query.get(), 5, 1);
    EXPECT_EQ(1u, count(ages));
    EXPECT_EQ(nullptr, qmr_query_prop(query.get(), 99));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_SCHEMA, "Property ID 99 not found"));
}

}  // namespace
}  // namespace quillmere
