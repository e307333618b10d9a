#include <limits>

#include "core/error.h"
#include "query/query_parameters.h"
#include "query/thing_fixture.h"

namespace quillmere {
namespace {

using Strings = std::vector<std::string_view>;
using Int32s = std::vector<int32_t>;
using Int64s = std::vector<int64_t>;

class ParameterTest : public ThingTest {
protected:
    static QueryConditionWithProperty& asProperty(QueryCondition& condition) {
        return static_cast<QueryConditionWithProperty&>(condition);
    }
    // The description after a change.
    template <class Change>
    std::string after(QueryCondition& condition, Change&& change) {
        change(asProperty(condition));
        return condition.describe(0);
    }
    // A failure leaves the value as it was.
    template <class E = IllegalArgumentException, class Change>
    std::string failureOf(QueryCondition& condition, Change&& change) {
        const std::string before = condition.describe(0);
        const std::string message = messageOf<E>([&] { change(asProperty(condition)); });
        EXPECT_EQ(condition.describe(0), before);
        return message;
    }

    void SetUp() override {
        ThingTest::SetUp();
        builder_ = std::make_unique<QueryBuilder>(*things_, schema_, true, 0);
    }
    QueryBuilder& builder() { return *builder_; }

private:
    std::unique_ptr<QueryBuilder> builder_;
};

TEST_F(ParameterTest, ANewTextIsSearchedAndANewSetIsLookedUp) {
    QueryCondition& contains = builder().contains(property("String"), "first", false);
    setStringParam(asProperty(contains), "SECOND");
    EXPECT_TRUE(check(contains, {{"String", std::string("the second one")}}));
    EXPECT_FALSE(check(contains, {{"String", std::string("the first one")}}));
    QueryCondition& vector = builder().less(property("FloatVector"), 1.0, false);
    setNumberParam(asProperty(vector), 0.25);
    EXPECT_EQ(vector.describe(0), "FloatVector < 0.250000");
    QueryCondition& in = builder().in(property("String"), Strings{"a"}, true);
    setStringsParam(asProperty(in), {"longer"});
    EXPECT_TRUE(check(in, {{"String", std::string("longer")}}));
    EXPECT_FALSE(check(in, {{"String", std::string("a")}}));
}

TEST_F(ParameterTest, AnotherKindOfValueIsRefused) {
    QueryBuilder& b = builder();
    QueryCondition& number = b.equal(property("Int"), 1);
    QueryCondition& text = b.equal(property("String"), "a", true);
    QueryCondition& null = b.isNull(property("Int"));
    const std::string other = "Parameter type does not match with condition";
    EXPECT_EQ(failureOf(number, [](auto& c) { setStringParam(c, "x"); }),
              "Property condition does not expect parameter of type string (op: ==)");
    EXPECT_EQ(failureOf(text, [](auto& c) { setTwoStringsParam(c, "x", "y"); }),
              "Property condition does not expect 2 parameters of type string (op: ==)");
    EXPECT_EQ(failureOf(text, [](auto& c) { setNumberParam(c, int64_t{1}); }), other);
    EXPECT_EQ(failureOf(null, [](auto& c) { setNumberParam(c, 1.0); }), other);
    EXPECT_EQ(failureOf(number, [](auto& c) { setTwoNumbersParam(c, int64_t{1}, int64_t{2}); }),
              other);
    EXPECT_EQ(failureOf(number, [](auto& c) { setTwoNumbersParam(c, 1.0, 2.0); }), other);
    EXPECT_EQ(failureOf(number, [](auto& c) { setIntegersParam(c, Int32s{1}); }), other);
    EXPECT_EQ(failureOf(text, [](auto& c) { setStringsParam(c, {"x"}); }), other);
    EXPECT_EQ(failureOf(text, [](auto& c) { setBytesParam(c, "x", 1); }), other);
    EXPECT_EQ(failureOf(number, [](auto& c) { setFloatVectorParam(c, {}); }), other);
}

TEST_F(ParameterTest, APropertyOfAnotherTypeIsRefused) {
    QueryBuilder& b = builder();
    EXPECT_EQ(failureOf(b.equal(property("Flex"), "a", true),
                        [](auto& c) { setStringParam(c, "x"); }),
              "Param type does not match with condition");
    EXPECT_EQ(failureOf<PropertyTypeMismatchException>(
                  b.in(property("ByteVector"), Strings{"a"}, true),
                  [](auto& c) { setStringsParam(c, {"x"}); }),
              "Wrong query parameter type. Property \"ByteVector\" is of type ByteVector, but we "
              "expected a property of type String in this context.");
    EXPECT_EQ(failureOf(b.in(property("Int"), Int32s{1}, false),
                        [](auto& c) { setIntegersParam(c, Int64s{1}); }),
              "The given integer values are of size 8 but the condition expects values of size 4");
    EXPECT_EQ(failureOf(b.in(property("Long"), Int64s{1}, false),
                        [](auto& c) { setIntegersParam(c, Int32s{1}); }),
              "The given integer values are of size 4 but the condition expects values of size 8");
}

TEST_F(ParameterTest, ANumberThatTheTypeCanNotHoldIsRefused) {
    QueryBuilder& b = builder();
    using Overflow = NumericOverflowException;
    const std::string middle = " can not be cast to the target type because it would result in ";
    const auto set = [](auto value) { return [value](auto& c) { setNumberParam(c, value); }; };
    QueryCondition& byte = b.equal(property("Byte"), 1);
    EXPECT_EQ(failureOf<Overflow>(byte, set(int64_t{200})),
              "Numeric overflow: 200" + middle + "-56");
    EXPECT_EQ(failureOf<Overflow>(byte, set(2.5)), "Numeric overflow: 2.500000" + middle + "2");
    EXPECT_EQ(failureOf<Overflow>(byte, set(1e300)).substr(0, 17), "Numeric overflow:");
    EXPECT_EQ(failureOf<Overflow>(byte, set(std::numeric_limits<double>::quiet_NaN())),
              "Numeric overflow: nan" + middle + "0");
    QueryCondition& single = b.less(property("Float"), 1.0, false);
    EXPECT_EQ(failureOf<Overflow>(single, set(int64_t{16777217})),
              "Numeric overflow: 16777217" + middle + "16777216.000000");
    EXPECT_EQ(after(single, set(int64_t{16777218})), "Float < 16777218.000000");
    EXPECT_EQ(after(single, set(0.1)), "Float < 0.100000");
    // The ends of the integers, where a conversion back would not be defined.
    QueryCondition& whole = b.equal(property("Long"), 1);
    const double end = 9223372036854775808.0;
    EXPECT_EQ(after(whole, set(-end)), "Long == -9223372036854775808");
    EXPECT_EQ(failureOf<Overflow>(whole, set(end)),
              "Numeric overflow: 9223372036854775808.000000" + middle + "9223372036854775807");
    QueryCondition& unsignedWhole = b.equal(property("ULong"), 1);
    EXPECT_EQ(after(unsignedWhole, set(end)), "ULong == 9223372036854775808");
    EXPECT_EQ(failureOf<Overflow>(unsignedWhole, set(2 * end)).substr(0, 17), "Numeric overflow:");
    EXPECT_EQ(failureOf<Overflow>(unsignedWhole, set(-1.0)),
              "Numeric overflow: -1.000000" + middle + "0");
    failureOf<Overflow>(single, set(std::numeric_limits<int64_t>::max()));
    EXPECT_EQ(after(single, set(std::numeric_limits<int64_t>::min())),
              "Float < -9223372036854775808.000000");
    QueryCondition& range = b.between(property("Byte"), int64_t{1}, int64_t{2});
    failureOf<Overflow>(range, [](auto& c) { setTwoNumbersParam(c, int64_t{0}, int64_t{128}); });
}

TEST_F(ParameterTest, AConditionIsFoundByPropertyOrAlias) {
    QueryBuilder b(*parts_, schema_, true, 0);
    QueryCondition& first = b.greater(partProperty("number"), int64_t{1}, false);
    QueryCondition& second = b.less(partProperty("number"), int64_t{9}, false);
    asProperty(second).setAlias("upper");
    QueryBuilder& link = b.link(things_, &partProperty("thing"), false);
    QueryCondition& linked = link.equal(property("Int"), 5);
    asProperty(linked).setAlias("linked");
    const auto query = b.build();
    EXPECT_EQ(&query->findCondition(kParts, 3), &first);
    EXPECT_EQ(&query->findCondition("upper"), &second);
    EXPECT_EQ(&query->findCondition("linked"), &linked);
    EXPECT_EQ(&query->findCondition(kThings, property("Int").id()), &linked);
    EXPECT_EQ(paramSize(query->findCondition("linked")), 4u);

    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { query->findCondition("none"); }),
              "Parameter alias unavailable: none");
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { query->findCondition(0, 3); }),
              "Argument condition \"entityId\" not met (L666)");
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { query->findCondition(2, 0); }),
              "Argument condition \"propertyId\" not met (L667)");
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { query->findCondition(2, 2); }),
              "Query condition not found for entity 2 property 2");
}

TEST_F(ParameterTest, AQueryTellsItsEntityUntilTheSchemaIsGone) {
    const auto query = makeBuilder().build();
    EXPECT_EQ(query->describe(), "Query for entity Thing with 1 conditions");
    store_.reset();
    schema_.reset();
    EXPECT_EQ(query->describe(), "Query for entity <deleted entity type> with 1 conditions");
    const char* const gone =
        "Query cannot be used after entity type was deleted (e.g. store was closed)";
    EXPECT_EQ(messageOf<IllegalStateException>([&] { query->describeParameters(); }), gone);
    EXPECT_EQ(messageOf<IllegalStateException>([&] { query->findCondition("x"); }), gone);
    EXPECT_EQ(messageOf<IllegalStateException>([&] { query->clone(); }), gone);
}

// --- clones -------------------------------------------------------------------------------------

TEST_F(ParameterTest, ACloneHasTheSameConditionsOfEveryFamily) {
    QueryBuilder& b = builder();
    const Property& text = property("String");
    QueryCondition& any = b.any({&b.equal(property("Int"), 1), &b.isNull(property("Long")),
                                 &b.notNull(property("Byte")), &b.equal(property("IntVector"), 2)});
    b.all({&any, &b.between(property("Float"), 1.0, 2.0), &b.in(property("Int"), Int32s{1}, true)});
    b.in(property("Relation"), Int64s{3}, false);
    b.startsWith(text, "a", true);
    b.contains(text, "b", false);
    b.in(text, Strings{"c"}, false);
    b.containsElement(property("StringVector"), "d", true);
    b.equalBytes(property("ByteVector"), "e", 1);
    b.equal(property("Flex"), "f", true);
    b.containsElement(property("Flex"), "g", true);
    b.containsKeyValue(property("Flex"), "h", "i", true);
    b.relationCount(partProperty("thing"), 2);
    const auto query = b.build();
    const auto clone = query->clone();
    EXPECT_EQ(clone->describe(), query->describe());
    EXPECT_EQ(clone->describeParameters(), query->describeParameters());
    EXPECT_EQ(makeBuilder().build()->clone()->describeParameters(), "TRUE");
}

TEST_F(ParameterTest, AClonesValuesAreItsOwn) {
    QueryBuilder b(*parts_, schema_, true, 0);
    asProperty(b.equal(partProperty("number"), int64_t{1})).setAlias("number");
    asProperty(b.link(things_, &partProperty("thing"), false)
                   .contains(property("String"), "old", false))
        .setAlias("linked");
    auto query = b.build();
    const auto clone = query->clone();
    setNumberParam(clone->findCondition("number"), int64_t{2});
    setStringParam(clone->findCondition("linked"), "new");
    EXPECT_EQ(query->describeParameters(),
              "number == 1\n| Link Thing via thing with conditions: String contains(i) \"old\"");
    const std::string changed =
        "number == 2\n| Link Thing via thing with conditions: String contains(i) \"new\"";
    EXPECT_EQ(clone->describeParameters(), changed);
    query.reset();
    EXPECT_EQ(clone->clone()->describeParameters(), changed);
}

TEST_F(ParameterTest, ACloneGoesByTheNumberOfItsSource) {
    const auto query = makeBuilder().build();
    const auto clone = query->clone();
    EXPECT_EQ(clone->number(), query->number());
    EXPECT_EQ(makeBuilder().build()->number(), query->number() + 1);  // the clone took none
}

}  // namespace
}  // namespace quillmere
