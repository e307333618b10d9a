#include <cmath>

#include "core/error.h"
#include "query/comparator.h"
#include "query/thing_fixture.h"
#include "schema/relation.h"
#include "support/log_capture.h"

namespace quillmere {
namespace {

using Strings = std::vector<std::string_view>;
using Int32s = std::vector<int32_t>;
using Int64s = std::vector<int64_t>;
constexpr int64_t kOne = 1;

class BuilderTest : public ThingTest {
protected:
    // What the factory says about this property; the builder stays as it was.
    template <class E, class Make>
    std::string failureOf(const char* name, Make&& make) {
        QueryBuilder builder = makeBuilder();
        const std::string message = messageOf<E>([&] { make(builder, property(name)); });
        EXPECT_TRUE(builder.allConditions().empty());
        return message;
    }
    template <class Make>
    std::string illegal(const char* name, Make&& make) {
        return failureOf<IllegalArgumentException>(name, make);
    }
    template <class Make>
    std::string mismatch(const char* name, Make&& make) {
        return failureOf<PropertyTypeMismatchException>(name, make);
    }
    template <class Make>
    std::string overflow(const char* name, Make&& make) {
        return failureOf<NumericOverflowException>(name, make);
    }
};

TEST_F(BuilderTest, NumbersAreRefusedByOtherTypes) {
    const auto equal = [](auto& b, auto& p) { b.equal(p, kOne); };
    const auto notEqual = [](auto& b, auto& p) { b.notEqual(p, kOne); };
    const auto less = [](auto& b, auto& p) { b.less(p, kOne, true); };
    const auto lessDouble = [](auto& b, auto& p) { b.less(p, 1.0, true); };
    const auto between = [](auto& b, auto& p) { b.between(p, kOne, kOne); };
    const auto betweenDouble = [](auto& b, auto& p) { b.between(p, 1.0, 1.0); };

    for (const char* const name : {"Float", "Double", "FloatVector", "DoubleVector"}) {
        EXPECT_EQ(illegal(name, equal),
                  "The query condition 'equal' is unsupported for floating point types, please use "
                  "'between' instead." + property(name).text());
        EXPECT_EQ(illegal(name, notEqual),
                  "The query condition 'notEqual' is unsupported for floating point types, please "
                  "use a combination of 'less' and 'greater' instead." + property(name).text());
    }
    EXPECT_EQ(illegal("String", equal), "Property is not a integer scalar type: String");
    EXPECT_EQ(illegal("Flex", notEqual), "Property is not a integer scalar type: Flex");
    EXPECT_EQ(illegal("StringVector", equal), "Property is not a integer vector: StringVector");
    EXPECT_EQ(illegal("Bool", less), "Property is not a integer scalar type: Bool");
    EXPECT_EQ(illegal("Int", lessDouble), "Property is not a floating point scalar type: Int");
    EXPECT_EQ(illegal("IntVector", lessDouble),
              "Property is not a floating point vector: IntVector");
    for (const char* const name : {"Bool", "String", "IntVector"}) {
        EXPECT_EQ(illegal(name, between), std::string("Property is not a integer scalar type: ") +
                                              propertyTypeName(property(name).type()));
    }
    EXPECT_EQ(illegal("FloatVector", betweenDouble),
              "Property is not a floating point scalar type: FloatVector");
}

TEST_F(BuilderTest, NumbersThatDoNotFitAreRefused) {
    const auto equalTo = [](int64_t v) { return [v](auto& b, auto& p) { b.equal(p, v); }; };
    constexpr const char* kMiddle =
        " can not be cast to the target type because it would result in ";
    EXPECT_EQ(overflow("Byte", equalTo(128)),
              std::string("Numeric overflow: 128") + kMiddle + "-128");
    EXPECT_EQ(overflow("UByte", equalTo(-1)), std::string("Numeric overflow: -1") + kMiddle + "255");
    EXPECT_EQ(overflow("CharVector", equalTo(1 << 16)),
              std::string("Numeric overflow: 65536") + kMiddle + "0");
    EXPECT_EQ(overflow("UInt", equalTo(1ll << 32)),
              std::string("Numeric overflow: 4294967296") + kMiddle + "0");
    EXPECT_EQ(overflow("Int", [](auto& b, auto& p) { b.between(p, kOne, int64_t{1} << 31); }),
              std::string("Numeric overflow: 2147483648") + kMiddle + "-2147483648");
}

TEST_F(BuilderTest, TextIsRefusedByOtherTypes) {
    const auto compared = [](const std::string& type) {
        return "Property \"" + type + "\" is of type " + type +
               " and cannot be compared to a value of type String";
    };
    EXPECT_EQ(mismatch("Int", [](auto& b, auto& p) { b.equal(p, "x", true); }), compared("Int"));
    EXPECT_EQ(mismatch("Flex", [](auto& b, auto& p) { b.notEqual(p, "x", true); }),
              compared("Flex"));
    EXPECT_EQ(mismatch("StringVector", [](auto& b, auto& p) { b.equal(p, "x", true); }),
              compared("StringVector"));
    EXPECT_EQ(mismatch("Long", [](auto& b, auto& p) { b.greater(p, "x", true, true); }),
              compared("Long"));
    EXPECT_EQ(mismatch("Flex", [](auto& b, auto& p) { b.startsWith(p, "x", true); }),
              compared("Flex"));
    EXPECT_EQ(illegal("Flex", [](auto& b, auto& p) { b.contains(p, "x", true); }),
              "Property type is neither a string nor array of strings: Flex");
    EXPECT_EQ(illegal("String", [](auto& b, auto& p) { b.containsElement(p, "x", true); }),
              "Property type is not a container type that can contain a string: String");
}

TEST_F(BuilderTest, ExactTypesAreNamed) {
    const auto expected = [](const std::string& type, const std::string& wanted) {
        return "Property \"" + type + "\" is of type " + type +
               ", but we expected a property of type " + wanted + " in this context.";
    };
    EXPECT_EQ(mismatch("Long", [](auto& b, auto& p) { b.in(p, Int32s{1}, false); }),
              expected("Long", "Int"));
    EXPECT_EQ(mismatch("Int", [](auto& b, auto& p) { b.in(p, Int64s{1}, true); }),
              expected("Int", "Long"));
    EXPECT_EQ(mismatch("Flex", [](auto& b, auto& p) { b.in(p, Strings{"x"}, true); }),
              expected("Flex", "String"));
    EXPECT_EQ(mismatch("String", [](auto& b, auto& p) { b.containsKeyValue(p, "k", "v", true); }),
              expected("String", "Flex"));
    EXPECT_EQ(mismatch("String", [](auto& b, auto& p) { b.equalBytes(p, "x", 1); }),
              expected("String", "ByteVector"));
    EXPECT_EQ(mismatch("Flex", [](auto& b, auto& p) { b.lessBytes(p, "x", 1, true); }),
              expected("Flex", "ByteVector"));
}

TEST_F(BuilderTest, ARelationCountNeedsARelationToTheEntity) {
    EXPECT_EQ(illegal("Long", [](auto& b, auto& p) { b.relationCount(p, 1); }),
              "Illegal query condition: for relation counts, the given property (Long) must be of "
              "type relation but was not.");
    QueryBuilder parts(*parts_, schema_, true, 0);
    EXPECT_EQ(messageOf<IllegalArgumentException>(
                  [&] { parts.relationCount(partProperty("thing"), 1); }),
              "Illegal query condition: for relation counts, the given property (thing) must target "
              "the queries type but does not.");
}

TEST_F(BuilderTest, AConditionOnAnotherEntityIsRefused) {
    QueryBuilder builder = makeBuilder();
    EXPECT_EQ(messageOf<IllegalArgumentException>(
                  [&] { builder.equal(partProperty("number"), kOne); }),
              "Property \"number\" (ID 3, type Int) is not part of Entity \"Thing\" (ID 1)");
    EXPECT_EQ(messageOf<ArgumentNullException>([&] { builder.addCondition(nullptr); }),
              "Argument \"condition\" must not be null (L485)");
}

TEST_F(BuilderTest, AConditionIsCombinedOnce) {
    QueryBuilder b = makeBuilder();
    QueryCondition& a = b.equal(property("Int"), 1);
    QueryCondition& c = b.equal(property("Int"), 2);
    const char* const unavailable = "Condition unavailable in builder";
    EXPECT_EQ(messageOf<IllegalStateException>([&] { b.any({&a, &a}); }), unavailable);
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { b.all({&a, nullptr}); }),
              "Argument condition \"condition\" not met (L74)");
    b.any({&a, &c});  // the failures took nothing away
    EXPECT_EQ(messageOf<IllegalStateException>([&] { b.all({&c}); }), unavailable);
    QueryBuilder other = makeBuilder();
    QueryCondition& foreign = other.equal(property("Int"), 3);
    EXPECT_EQ(messageOf<IllegalStateException>([&] { b.all({&foreign}); }), unavailable);
    EXPECT_EQ(b.build()->describeParameters(), "(Int == 1\n OR Int == 2)");
}

TEST_F(BuilderTest, WhatIsNotCombinedIsAllRequired) {
    QueryBuilder b = makeBuilder();
    QueryCondition& a = b.equal(property("Int"), 1);
    b.isNull(property("Long"));
    b.any({&a});
    b.notNull(property("Byte"));
    const auto query = b.build();
    EXPECT_EQ(query->describeParameters(), "(Long is null\n AND (Int == 1)\n AND Byte is not null)");
    // What is left is an empty builder.
    EXPECT_TRUE(b.allConditions().empty());
    EXPECT_EQ(b.build()->describeParameters(), "TRUE");
}

TEST_F(BuilderTest, UnknownOrderFlagsFailAtTheCall) {
    QueryBuilder b = makeBuilder();
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { b.order(property("Int"), 32 | 64 | 1); }),
              "Unknown order flags: 96");
    b.order(property("Int"), kOrderAllFlags & ~uint32_t{kOrderNullsZero});
    EXPECT_TRUE(b.build()->ordered());
}

TEST_F(BuilderTest, AnOrderThatCanNotBeFailsTheBuildAndLosesNothing) {
    QueryBuilder b = makeBuilder();
    b.equal(property("Int"), 1);
    b.order(property("Relation"), 0);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(messageOf<Exception>([&] { b.build(); }),
                  "Order: Unsupported type for property Relation");
        EXPECT_EQ(b.allConditions().size(), 1u);
    }
}

TEST_F(BuilderTest, TheFirstOrderIsThePrimaryKey) {
    put(*things_, 1, {{"Int", int64_t{2}}, {"Long", int64_t{1}}});
    put(*things_, 2, {{"Int", int64_t{1}}, {"Long", int64_t{9}}});
    put(*things_, 3, {{"Int", int64_t{2}}, {"Long", int64_t{0}}});
    QueryBuilder b = makeBuilder();
    b.order(property("Int"), kOrderDescending);
    b.order(property("Long"), 0);
    EXPECT_EQ(findIds(*b.build()), (std::vector<uint64_t>{3, 1, 2}));
}

TEST_F(BuilderTest, ContainsOnStringVectorsIsAnOldNameOfContainsElement) {
    QueryBuilder b = makeBuilder();
    const LogCapture log;
    const QueryCondition& condition = b.contains(property("StringVector"), "x", true);
    EXPECT_TRUE(log.contains(
        " [INFO ] Please use the \"contains element\" condition instead for property "
        "\"StringVector\"; the plain \"contains\"condition is deprecated for string containers and "
        "will be removed in a future version\n"));
    EXPECT_TRUE(check(condition, {{"StringVector", std::vector<std::string>{"x"}}}));
    EXPECT_FALSE(check(condition, {{"StringVector", std::vector<std::string>{"xy"}}}));
}

TEST_F(BuilderTest, AnIntegerOnAFloatComparesAsADouble) {
    QueryBuilder b = makeBuilder();
    const int64_t large = (1ll << 53) + 1;
    EXPECT_FALSE(check(b.greater(property("Double"), large, false), {{"Double", std::ldexp(1, 53)}}));
    EXPECT_TRUE(check(b.between(property("Float"), int64_t{3}, int64_t{1}), {{"Float", 2.5}}));
}

TEST_F(BuilderTest, ALinkGoesToTheEntityOfItsRelation) {
    const Property& thing = partProperty("thing");
    const Relation relation(7, 77, kParts, kThings);
    QueryBuilder parts(*parts_, schema_, true, 0);
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { parts.link(parts_, &thing, false); }),
              "Target entity mismatch with relation property: Part vs. 1");
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { parts.link(things_, &thing, true); }),
              "Target entity mismatch with relation property: Thing vs. 2 (backlink)");
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { parts.link(parts_, &relation, false); }),
              "Target entity mismatch with relation: Part vs. 1");
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { parts.link(things_, &relation, true); }),
              "Target entity mismatch with relation: Thing vs. 2 (backlink)");
    EXPECT_EQ(messageOf<ArgumentNullException>([&] { parts.link(nullptr, &thing, false); }),
              "Argument \"targetEntity\" must not be null (L574)");
    EXPECT_EQ(messageOf<ArgumentNullException>(
                  [&] { parts.link(things_, static_cast<const Property*>(nullptr), false); }),
              "Argument \"relationProperty\" must not be null (L574)");
    EXPECT_EQ(messageOf<ArgumentNullException>(
                  [&] { parts.link(things_, static_cast<const Relation*>(nullptr), false); }),
              "Argument \"relation\" must not be null (L589)");
    parts.link(things_, &thing, false).equal(property("Int"), 5);
    const auto query = parts.build();
    EXPECT_EQ(query->describe(), "Query for entity Part with 1 conditions with properties Int with "
                                 "1 links");
    EXPECT_EQ(query->describeParameters(),
              "TRUE\n| Link Thing via thing with conditions: Int == 5");
}

TEST_F(BuilderTest, AnAliasNamesOneConditionOfTheWholeTree) {
    const auto setAlias = [](QueryCondition& condition, const char* alias) {
        static_cast<QueryConditionWithProperty&>(condition).setAlias(alias);
    };
    for (const bool inSubQuery : {false, true}) {
        QueryBuilder b(*parts_, schema_, true, 0);
        setAlias(b.equal(partProperty("number"), kOne), "same");
        if (inSubQuery) {
            QueryBuilder& link = b.link(things_, &partProperty("thing"), false);
            setAlias(link.equal(property("Int"), kOne), "same");
        } else {
            setAlias(b.equal(partProperty("number"), int64_t{2}), "same");
        }
        EXPECT_EQ(messageOf<IllegalArgumentException>([&] { b.build(); }),
                  "Query parameter alias is not unique: same");
        EXPECT_TRUE(b.allConditions().empty());
    }
}

}  // namespace
}  // namespace quillmere
