#include <cmath>
#include <functional>

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
    struct Refusal {
        const char* property;
        std::function<void(QueryBuilder&, const Property&)> make;
        std::string message;
    };
    // Each fails with its message and leaves the builder as it was.
    template <class E>
    void expectRefused(const std::vector<Refusal>& refusals) {
        for (const Refusal& refusal : refusals) {
            QueryBuilder builder = makeBuilder();
            EXPECT_EQ(messageOf<E>([&] { refusal.make(builder, property(refusal.property)); }),
                      refusal.message);
            EXPECT_TRUE(builder.allConditions().empty());
        }
    }
};

TEST_F(BuilderTest, NumbersAreRefusedByOtherTypes) {
    const auto equal = [](auto& b, auto& p) { b.equal(p, kOne); };
    const auto notEqual = [](auto& b, auto& p) { b.notEqual(p, kOne); };
    const auto less = [](auto& b, auto& p) { b.less(p, kOne, true); };
    const auto lessDouble = [](auto& b, auto& p) { b.less(p, 1.0, true); };
    const auto between = [](auto& b, auto& p) { b.between(p, kOne, kOne); };
    const auto betweenDouble = [](auto& b, auto& p) { b.between(p, 1.0, 1.0); };
    const std::string noEqual =
        "The query condition 'equal' is unsupported for floating point types, please use 'between' "
        "instead.";
    const std::string noNotEqual =
        "The query condition 'notEqual' is unsupported for floating point types, please use a "
        "combination of 'less' and 'greater' instead.";
    const std::string noScalar = "Property is not a integer scalar type: ";
    expectRefused<IllegalArgumentException>(
        {{"Float", equal, noEqual + property("Float").text()},
         {"DoubleVector", equal, noEqual + property("DoubleVector").text()},
         {"Double", notEqual, noNotEqual + property("Double").text()},
         {"FloatVector", notEqual, noNotEqual + property("FloatVector").text()},
         {"String", equal, noScalar + "String"},
         {"Flex", notEqual, noScalar + "Flex"},
         {"StringVector", equal, "Property is not a integer vector: StringVector"},
         {"Bool", less, noScalar + "Bool"},
         {"Int", lessDouble, "Property is not a floating point scalar type: Int"},
         {"IntVector", lessDouble, "Property is not a floating point vector: IntVector"},
         {"Bool", between, noScalar + "Bool"},
         {"String", between, noScalar + "String"},
         {"IntVector", between, noScalar + "IntVector"},
         {"FloatVector", betweenDouble,
          "Property is not a floating point scalar type: FloatVector"}});
}

TEST_F(BuilderTest, NumbersThatDoNotFitAreRefused) {
    const auto equalTo = [](int64_t v) { return [v](auto& b, auto& p) { b.equal(p, v); }; };
    const std::string start = "Numeric overflow: ";
    const std::string middle = " can not be cast to the target type because it would result in ";
    expectRefused<NumericOverflowException>(
        {{"Byte", equalTo(128), start + "128" + middle + "-128"},
         {"UByte", equalTo(-1), start + "-1" + middle + "255"},
         {"CharVector", equalTo(1 << 16), start + "65536" + middle + "0"},
         {"UInt", equalTo(1ll << 32), start + "4294967296" + middle + "0"},
         {"Int", [](auto& b, auto& p) { b.between(p, kOne, int64_t{1} << 31); },
          start + "2147483648" + middle + "-2147483648"}});
}

TEST_F(BuilderTest, TextAndBytesAreRefusedByOtherTypes) {
    const auto compared = [](const std::string& type) {
        return "Property \"" + type + "\" is of type " + type +
               " and cannot be compared to a value of type String";
    };
    const auto expected = [](const std::string& type, const std::string& wanted) {
        return "Property \"" + type + "\" is of type " + type +
               ", but we expected a property of type " + wanted + " in this context.";
    };
    expectRefused<PropertyTypeMismatchException>(
        {{"Int", [](auto& b, auto& p) { b.equal(p, "x", true); }, compared("Int")},
         {"Flex", [](auto& b, auto& p) { b.notEqual(p, "x", true); }, compared("Flex")},
         {"StringVector", [](auto& b, auto& p) { b.equal(p, "x", true); },
          compared("StringVector")},
         {"Long", [](auto& b, auto& p) { b.greater(p, "x", true, true); }, compared("Long")},
         {"Flex", [](auto& b, auto& p) { b.startsWith(p, "x", true); }, compared("Flex")},
         {"Long", [](auto& b, auto& p) { b.in(p, Int32s{1}, false); }, expected("Long", "Int")},
         {"Int", [](auto& b, auto& p) { b.in(p, Int64s{1}, true); }, expected("Int", "Long")},
         {"Flex", [](auto& b, auto& p) { b.in(p, Strings{"x"}, true); },
          expected("Flex", "String")},
         {"String", [](auto& b, auto& p) { b.containsKeyValue(p, "k", "v", true); },
          expected("String", "Flex")},
         {"String", [](auto& b, auto& p) { b.equalBytes(p, "x", 1); },
          expected("String", "ByteVector")},
         {"Flex", [](auto& b, auto& p) { b.lessBytes(p, "x", 1, true); },
          expected("Flex", "ByteVector")}});
    expectRefused<IllegalArgumentException>(
        {{"Flex", [](auto& b, auto& p) { b.contains(p, "x", true); },
          "Property type is neither a string nor array of strings: Flex"},
         {"String", [](auto& b, auto& p) { b.containsElement(p, "x", true); },
          "Property type is not a container type that can contain a string: String"},
         {"Long", [](auto& b, auto& p) { b.relationCount(p, 1); },
          "Illegal query condition: for relation counts, the given property (Long) must be of type "
          "relation but was not."},
         {"Int", [this](auto& b, auto&) { b.equal(partProperty("number"), kOne); },
          "Property \"number\" (ID 3, type Int) is not part of Entity \"Thing\" (ID 1)"}});
    QueryBuilder parts(*parts_, schema_, true, 0);
    EXPECT_EQ(messageOf<IllegalArgumentException>(
                  [&] { parts.relationCount(partProperty("thing"), 1); }),
              "Illegal query condition: for relation counts, the given property (thing) must "
              "target the queries type but does not.");
    EXPECT_EQ(messageOf<ArgumentNullException>([&] { parts.addCondition(nullptr); }),
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
    EXPECT_EQ(query->describeParameters(),
              "(Long is null\n AND (Int == 1)\n AND Byte is not null)");
    // What is left is an empty builder.
    EXPECT_TRUE(b.allConditions().empty());
    EXPECT_EQ(b.build()->describeParameters(), "TRUE");
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
    const double rounded = std::ldexp(1, 53);
    EXPECT_FALSE(check(b.greater(property("Double"), large, false), {{"Double", rounded}}));
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
