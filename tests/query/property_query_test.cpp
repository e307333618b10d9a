#include <chrono>
#include <cmath>
#include <limits>

#include "query/query_test.h"
#include "store/expired_objects.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

constexpr uint32_t kInt = 2;
constexpr uint32_t kIndexedInt = 3;
constexpr uint32_t kLong = 4;
constexpr uint32_t kUnsigned = 5;  // Long, indexed
constexpr uint32_t kDouble = 6;
constexpr uint32_t kText = 7;
constexpr uint32_t kBool = 9;
constexpr uint32_t kExpires = 2;  // of the other entities
constexpr int64_t kMaxLong = std::numeric_limits<int64_t>::max();
constexpr int64_t kMinLong = std::numeric_limits<int64_t>::min();
constexpr double kMaxDouble = std::numeric_limits<double>::max();

class PropertyQueries : public QueryTest {
protected:
    void SetUp() override {
        TestSchema spec;
        spec.entity(1, "Thing")
            .property(kInt, "int", PropertyType::Int)
            .property(kIndexedInt, "indexed", PropertyType::Int, kPropertyIndexed)
            .property(kLong, "long", PropertyType::Long)
            .property(kUnsigned, "unsigned", PropertyType::Long,
                      kPropertyUnsigned | kPropertyIndexed)
            .property(kDouble, "double", PropertyType::Double)
            .property(kText, "text", PropertyType::String)
            .property(kBool, "bool", PropertyType::Bool)
            .entity(2, "Milli")
            .property(kExpires, "expires", PropertyType::Date, kPropertyExpirationTime)
            .entity(3, "Nano")
            .property(kExpires, "expires", PropertyType::DateNano,
                      kPropertyExpirationTime | kPropertyIndexed);
        open(std::move(spec));
    }

    // One object per value, with IDs from 1.
    template <class T>
    void fill(uint32_t propertyId, const std::vector<T>& values) {
        uint64_t id = 0;
        for (const T& value : values) put(++id, {{propertyId, value}});
        put(++id);  // null
    }
    PropertyQuery of(uint32_t propertyId) { return PropertyQuery(*query_, prop(propertyId)); }
    std::unique_ptr<Query>& everything() { return query_ = all(); }
    template <class Operation>
    auto ask(uint32_t propertyId, Operation&& operation) {
        everything();
        PropertyQuery property = of(propertyId);
        return (property.*operation)(objects());
    }
    double sum(uint32_t id) { return ask(id, &PropertyQuery::sumDouble).value; }
    double average(uint32_t id) { return ask(id, &PropertyQuery::avgDouble).value; }
    template <class Operation>
    std::string refusal(uint32_t propertyId, Operation&& operation) {
        return messageOf<IllegalStateException>([&] { ask(propertyId, operation); });
    }

    std::unique_ptr<Query> query_;
};

TEST_F(PropertyQueries, LongSumsMayLeaveTheRangeOnTheWay) {
    fill<int64_t>(kLong, {kMaxLong, kMaxLong, kMinLong, kMinLong, 5});
    EXPECT_EQ(3, ask(kLong, &PropertyQuery::sumInt).value);
    EXPECT_EQ(5, ask(kLong, &PropertyQuery::sumInt).count);
    EXPECT_EQ(3.0, sum(kLong));
    EXPECT_DOUBLE_EQ(0.6, average(kLong));
    EXPECT_EQ(1, ask(kLong, &PropertyQuery::avgInt).value);
    put(3);
    EXPECT_EQ("Numeric overflow: 9223372036854775811 high: 0",
              messageOf<NumericOverflowException>([&] { ask(kLong, &PropertyQuery::sumInt); }));
    EXPECT_EQ(9223372036854775811.0, sum(kLong));
}

TEST_F(PropertyQueries, UnsignedSumsMustFitASignedResult) {
    fill<int64_t>(kUnsigned, {-1, 0});
    const auto failure = [&] {
        return messageOf<NumericOverflowException>(
            [&] { ask(kUnsigned, &PropertyQuery::sumInt); });
    };
    EXPECT_EQ("Numeric overflow: 18446744073709551615 conversion to signed int -1", failure());
    EXPECT_EQ(9223372036854775808.0, average(kUnsigned));
    EXPECT_EQ(18446744073709551615.0, sum(kUnsigned));
    put(7, {{kUnsigned, int64_t{2}}});
    EXPECT_EQ("Numeric overflow: 18446744073709551615 + 2", failure());
    put(1);
    EXPECT_EQ(2, ask(kUnsigned, &PropertyQuery::sumInt).value);
}

TEST_F(PropertyQueries, FloatSumsAreCompensatedAndAveragesSurviveAnOverflow) {
    fill<double>(kDouble, {1e100, 1.0, -1e100, 0.5});
    EXPECT_EQ(1.5, sum(kDouble));
    EXPECT_EQ(0.375, average(kDouble));
    fill<double>(kDouble, {kMaxDouble, kMaxDouble, -kMaxDouble, kMaxDouble});
    EXPECT_TRUE(std::isinf(sum(kDouble)));
    EXPECT_DOUBLE_EQ(kMaxDouble / 2, average(kDouble));
    fill<double>(kDouble, {1, INFINITY, 2, 3});
    EXPECT_EQ(INFINITY, average(kDouble));
    fill<double>(kDouble, {1, INFINITY, 2, -INFINITY});
    EXPECT_TRUE(std::isnan(average(kDouble)));
    EXPECT_TRUE(std::isnan(sum(kDouble)));
}

TEST_F(PropertyQueries, ANanEndsASumAndIsNoExtreme) {
    fill<double>(kDouble, {1, std::nan(""), 3, 4});
    const auto result = ask(kDouble, &PropertyQuery::sumDouble);
    EXPECT_TRUE(std::isnan(result.value));
    EXPECT_EQ(2, result.count);
    EXPECT_TRUE(std::isnan(average(kDouble)));
    EXPECT_EQ(1.0, ask(kDouble, &PropertyQuery::minDouble).value);
    EXPECT_EQ(4.0, ask(kDouble, &PropertyQuery::maxDouble).value);
    EXPECT_EQ(4, ask(kDouble, &PropertyQuery::maxDouble).count);
    fill<double>(kDouble, {0.0, -0.0, std::nan(""), std::nan("")});
    EXPECT_EQ(3u, (everything(), of(kDouble).countDistinct(objects())));
}

TEST_F(PropertyQueries, ExtremesComeFromAnIndexThatHoldsNoNegativeValue) {
    EXPECT_EQ(0, ask(kIndexedInt, &PropertyQuery::maxInt).count);
    EXPECT_TRUE(std::isnan(ask(kDouble, &PropertyQuery::maxDouble).value));
    fill<int32_t>(kIndexedInt, {5, 3, 9});
    EXPECT_EQ(3, ask(kIndexedInt, &PropertyQuery::minInt).value);
    const auto greatest = ask(kIndexedInt, &PropertyQuery::maxInt);
    EXPECT_EQ(9, greatest.value);
    EXPECT_EQ(-1, greatest.count);
    EXPECT_EQ(1u, query_->lastLookupCount());

    put(20, {{kIndexedInt, -4}});
    const auto least = ask(kIndexedInt, &PropertyQuery::minInt);
    EXPECT_EQ(-4, least.value);
    EXPECT_EQ(4, least.count);
    EXPECT_EQ(9, ask(kIndexedInt, &PropertyQuery::maxInt).value);
    EXPECT_EQ(0u, query_->lastLookupCount());

    put(21, {{kUnsigned, int64_t{-2}}});
    put(uint64_t{1} << 35, {{kUnsigned, int64_t{7}}});
    EXPECT_EQ(7, ask(kUnsigned, &PropertyQuery::minInt).value);
    EXPECT_EQ(-2, ask(kUnsigned, &PropertyQuery::maxInt).value);  // the bits of the largest
}

TEST_F(PropertyQueries, CountsManyDistinctValues) {
    for (int32_t i = 0; i < 5000; ++i) put(static_cast<uint64_t>(i) + 1, {{kInt, i % 3000 << 12}});
    everything();
    EXPECT_EQ(3000u, of(kInt).countDistinct(objects()));
    const auto values = of(kInt).findScalars<int32_t>(objects(), true, nullptr);
    EXPECT_EQ(3000u, values.size());
    EXPECT_EQ(2999 << 12, values.back());
}

TEST_F(PropertyQueries, FindsOneTextOrFails) {
    put(1);
    put(2, {{kText, "a"}});
    put(3, {{kText, "A"}});
    everything();
    const auto find = [&](bool unique, bool distinct, bool caseSensitive, const char* null) {
        return of(kText).findString(objects(), unique, distinct, caseSensitive, null);
    };
    EXPECT_EQ("a", find(false, false, true, nullptr));
    EXPECT_EQ("none", find(false, false, true, "none"));
    EXPECT_EQ("a", find(true, true, false, nullptr));
    for (const bool distinct : {false, true}) {
        EXPECT_EQ("Query does not have a unique string result (more than one result)!",
                  messageOf<Exception>([&] { find(true, distinct, distinct, nullptr); }));
    }
    query_ = query([&](QueryBuilder& b) { b.isNull(prop(kText)); });
    EXPECT_EQ(std::nullopt, find(true, false, true, nullptr));
}

TEST_F(PropertyQueries, RefuseTypesThatTheyDoNotSupport) {
    const auto text = [&](uint32_t id) {
        return "This operation is not supported for " + prop(id).text();
    };
    EXPECT_EQ("Use double based min (e.g. `minDouble()`) instead. " + text(kDouble),
              refusal(kDouble, &PropertyQuery::minInt));
    EXPECT_EQ("Use double based max (e.g. `maxDouble()`) instead. " + text(kDouble),
              refusal(kDouble, &PropertyQuery::maxInt));
    EXPECT_EQ("Not a floating point type. " + text(kInt), refusal(kInt, &PropertyQuery::maxDouble));
    EXPECT_EQ("Please use the double based sum instead. " + text(kDouble),
              refusal(kDouble, &PropertyQuery::sumInt));
    EXPECT_EQ("Cannot calculate sum. This function is for integer types only. " + text(kText),
              refusal(kText, &PropertyQuery::sumInt));
    EXPECT_EQ("Cannot calculate sum. " + text(kText), refusal(kText, &PropertyQuery::sumDouble));
    EXPECT_EQ("Please use the double based average instead. " + text(kDouble),
              refusal(kDouble, &PropertyQuery::avgInt));
    EXPECT_EQ(text(kBool), refusal(kBool, &PropertyQuery::minInt));
    EXPECT_EQ(text(kBool), messageOf<IllegalStateException>([&] {
                  everything();
                  of(kBool).countDistinct(objects());
              }));
    everything();
    EXPECT_EQ("Cannot create property query: " + prop(kExpires, 2).text() +
                  " is not part of type Thing, which the Query was built for",
              messageOf<IllegalArgumentException>(
                  [&] { PropertyQuery(*query_, prop(kExpires, 2)); }));
}

TEST_F(PropertyQueries, LogTheirOperation) {
    const LogCapture log;
    query_ = query([&](QueryBuilder& b) { b.notNull(prop(kInt)); }, 12);
    const std::string end = " using query #" + std::to_string(query_->number()) + "\n";
    of(kInt).count(objects());
    of(kInt).sumInt(objects());
    of(kDouble).minDouble(objects());
    of(kInt).findScalars<int32_t>(objects(), true, nullptr);
    for (const char* what : {"Getting count property", "Getting sum", "Getting min double",
                             "Finding distinct scalars"}) {
        EXPECT_TRUE(log.contains("[INFO ] " + (what + end))) << what;
    }
    EXPECT_TRUE(log.contains(":\nint is not null\n"));
}

TEST_F(PropertyQueries, ExpiredObjectsAreRemovedFromOneEntityOrAll) {
    using namespace std::chrono;
    const auto now = system_clock::now().time_since_epoch();
    const int64_t millis = duration_cast<milliseconds>(now).count();
    const int64_t nanos = duration_cast<nanoseconds>(now).count();
    constexpr int64_t kHour = 3'600'000;
    const auto fillBoth = [&] {
        for (const uint32_t entityId : {2u, 3u}) {
            const int64_t unit = entityId == 2 ? 1 : 1'000'000;
            const int64_t time = entityId == 2 ? millis : nanos;
            put(1, {{kExpires, time - 1 * unit}}, entityId);
            put(2, {{kExpires, time + kHour * unit}}, entityId);
            put(3, {{kExpires, int64_t{0}}}, entityId);
            put(4, {}, entityId);
            put(5, {{kExpires, int64_t{-7}}}, entityId);
        }
        endTx();
    };
    fillBoth();
    auto tx = write();
    EXPECT_EQ(2u, removeExpiredObjects(*tx, 3));
    EXPECT_EQ(2u, removeExpiredObjects(*tx, 0));
    EXPECT_EQ(0u, removeExpiredObjects(*tx, 0));
    for (const uint32_t entityId : {2u, 3u}) EXPECT_EQ(3u, cursor(*tx, entityId)->count());
    EXPECT_EQ(std::vector<std::string>{}, IndexChecker(*tx).faults());
    EXPECT_THROW(removeExpiredObjects(*tx, 1), SchemaException);
    EXPECT_THROW(removeExpiredObjects(*tx, 77), Exception);
}

}  // namespace
}  // namespace quillmere
