#include <flatbuffers/flexbuffers.h>

#include <functional>
#include <random>

#include "core/error.h"
#include "query/folded_search.h"
#include "query/string_condition.h"
#include "query/thing_fixture.h"
#include "support/alloc_counter.h"
#include "support/seed.h"

namespace quillmere {
namespace {

using Strings = std::vector<std::string_view>;

class ConditionTest : public ThingTest {
protected:
    std::mt19937_64 random_{testSeed()};

    size_t below(size_t end) { return random_() % end; }
    bool chance(int percent) { return static_cast<int>(below(100)) < percent; }
};

// --- text ---------------------------------------------------------------------------------------

// The rules of text, byte by byte.
class TextOracle {
public:
    TextOracle(std::string stored, std::string parameter, bool caseSensitive)
        : stored_(std::move(stored)), parameter_(std::move(parameter)),
          caseSensitive_(caseSensitive) {}

    bool holds(QueryOp op) const {
        const size_t l = stored_.size(), p = parameter_.size();
        const int common = compare(0, 0, std::min(l, p));
        const int order = common != 0 ? common : (l < p ? -1 : l > p);
        switch (op) {
            case QueryOp::Equal: return l == p && common == 0;
            case QueryOp::NotEqual: return l != p || common != 0;
            case QueryOp::Less: return order < 0;
            case QueryOp::LessOrEqual: return order <= 0;
            case QueryOp::Greater: return order > 0;
            case QueryOp::GreaterOrEqual: return order >= 0;
            case QueryOp::StartsWith: return l >= p && common == 0;
            case QueryOp::EndsWith: return l >= p && compare(l - p, 0, p) == 0;
            default: return contains();
        }
    }

private:
    int at(const std::string& text, size_t i) const {
        const auto c = static_cast<unsigned char>(text[i]);
        return !caseSensitive_ && c >= 'A' && c <= 'Z' ? c + 32 : c;
    }
    int compare(size_t from, size_t parameterFrom, size_t size) const {
        for (size_t i = 0; i < size; ++i) {
            const int x = at(stored_, from + i), y = at(parameter_, parameterFrom + i);
            if (x != y) return x < y ? -1 : 1;
            if (x == 0 && !caseSensitive_) return 0;
        }
        return 0;
    }
    bool contains() const {
        const size_t l = stored_.size(), p = parameter_.size();
        if (p == 0) return true;
        for (size_t i = 0; i + p <= l; ++i) {
            if (at(stored_, i) == at(parameter_, 0) && compare(i + 1, 1, p - 1) == 0) return true;
        }
        return false;
    }

    const std::string stored_, parameter_;
    const bool caseSensitive_;
};

class TextConditionTest : public ConditionTest {
protected:
    std::string randomText(size_t maxSize) {
        static constexpr char kBytes[] = {'a', 'A', 'b', 'B', 'z', 'Z', '@', '[', '`', '{',
                                          '\0', '\x80', '\xFF'};
        std::string text(below(maxSize + 1), ' ');
        // Few different bytes make for many matches.
        const size_t variety = chance(50) ? 3 : std::size(kBytes);
        for (char& c : text) c = kBytes[below(variety)];
        return text;
    }
    // Around the length at which an index cuts, or short.
    std::string randomStored() {
        if (chance(10)) return std::string(477 + below(4), 'a') + randomText(2);
        return randomText(6);
    }
};

TEST_F(TextConditionTest, EveryOperationFollowsItsRule) {
    constexpr QueryOp kOps[] = {QueryOp::Equal,   QueryOp::NotEqual,       QueryOp::Less,
                                QueryOp::LessOrEqual, QueryOp::Greater, QueryOp::GreaterOrEqual,
                                QueryOp::StartsWith,  QueryOp::EndsWith, QueryOp::Contains};
    for (int round = 0; round < 1500; ++round) {
        const std::string stored = randomStored();
        const std::string parameter = chance(20) ? stored : randomStored();
        const bool caseSensitive = chance(50);
        const char* const name = chance(50) ? "String" : "ByteVector";
        const TextOracle oracle(stored, parameter, caseSensitive);
        for (const QueryOp op : kOps) {
            const auto condition =
                makeStringCondition(property(name), op, parameter, caseSensitive);
            ASSERT_EQ(check(*condition, {{name, stored}}), oracle.holds(op))
                << testing::PrintToString(stored) << ' ' << condition->describe(0);
            EXPECT_FALSE(check(*condition, {}));
        }
    }
}

TEST_F(TextConditionTest, AFoldingSearchFindsATextAtEveryPlace) {
    for (int round = 0; round < 20000; ++round) {
        const std::string text = randomText(70);
        std::string wanted = randomText(chance(50) ? 3 : 20);
        if (chance(30)) wanted = text.substr(below(text.size() + 1), below(20));
        if (chance(50)) {
            for (char& c : wanted) c = static_cast<char>(std::toupper(static_cast<uint8_t>(c)));
        }
        ASSERT_EQ(FoldedSearch(wanted).foundIn(text),
                  TextOracle(text, wanted, false).holds(QueryOp::Contains))
            << testing::PrintToString(wanted) << " in " << testing::PrintToString(text);
    }
}

TEST_F(TextConditionTest, ASetOfStringsMatchesAsOneEqualWould) {
    for (int round = 0; round < 1500; ++round) {
        const bool caseSensitive = chance(50);
        std::vector<std::string> set(below(4));
        for (std::string& entry : set) entry = randomText(4).c_str();  // ends at a zero
        const Strings views(set.begin(), set.end());
        QueryBuilder builder = makeBuilder();
        const QueryCondition& condition = builder.in(property("String"), views, caseSensitive);
        const std::string stored = randomText(4).c_str();
        bool expected = false;
        for (const std::string& entry : set) {
            expected =
                expected || TextOracle(stored, entry, caseSensitive).holds(QueryOp::Equal);
        }
        ASSERT_EQ(check(condition, {{"String", stored}}), expected) << condition.describe(0);
        EXPECT_FALSE(check(condition, {}));
    }
    QueryBuilder b = makeBuilder();
    const QueryCondition& condition = b.in(property("String"), Strings{"ab", "four"}, false);
    EXPECT_TRUE(check(condition, {{"String", std::string("AB\0x", 4)}}));
    EXPECT_FALSE(check(condition, {{"String", std::string("AB\0", 3)}}));  // no entry is so long
}

// --- Flex data ----------------------------------------------------------------------------------

std::string flexData(const std::function<void(flexbuffers::Builder&)>& fill) {
    flexbuffers::Builder builder;
    fill(builder);
    builder.Finish();
    return {builder.GetBuffer().begin(), builder.GetBuffer().end()};
}

std::string flexMap() {
    return flexData([](auto& b) {
        b.Map([&] {
            b.String("Name", "Quill");
            b.Int("count", -42);
            b.UInt("big", ~0ull);
            b.Double("ratio", 42.0);
            b.Bool("flag", true);
            b.String("name", "other");
        });
    });
}

class FlexConditionTest : public ConditionTest {
protected:
    bool equals(const std::string& data, const char* value, bool caseSensitive = true) {
        QueryBuilder b = makeBuilder();
        return check(b.equal(property("Flex"), value, caseSensitive), {{"Flex", data}});
    }
    bool contains(const std::string& data, const char* value, bool caseSensitive = true) {
        QueryBuilder b = makeBuilder();
        return check(b.containsElement(property("Flex"), value, caseSensitive), {{"Flex", data}});
    }
    bool containsPair(const std::string& data, const char* key, const char* value,
                      bool caseSensitive = true) {
        QueryBuilder b = makeBuilder();
        return check(b.containsKeyValue(property("Flex"), key, value, caseSensitive),
                     {{"Flex", data}});
    }
};

TEST_F(FlexConditionTest, ARootEqualsItsTextOrItsDecimalDigits) {
    struct Case {
        std::function<void(flexbuffers::Builder&)> root;
        const char* value;
        bool expected;
    };
    const Case cases[] = {{[](auto& b) { b.String("Text"); }, "Text", true},
                          {[](auto& b) { b.String("Text"); }, "text", false},
                          {[](auto& b) { b.Key("key"); }, "key", true},
                          {[](auto& b) { b.Int(-300); }, "-300", true},
                          {[](auto& b) { b.Int(42); }, "042", false},
                          {[](auto& b) { b.UInt(~0ull); }, "18446744073709551615", true},
                          {[](auto& b) { b.IndirectInt(-70000); }, "-70000", true},
                          {[](auto& b) { b.IndirectUInt(7); }, "7", true},
                          {[](auto& b) { b.Double(42.0); }, "42", false},
                          {[](auto& b) { b.Bool(true); }, "1", false},
                          {[](auto& b) { b.Null(); }, "", false}};
    for (const Case& test : cases) {
        EXPECT_EQ(equals(flexData(test.root), test.value), test.expected) << test.value;
    }
    EXPECT_TRUE(equals(flexData([](auto& b) { b.String("Text"); }), "text", false));
    EXPECT_FALSE(equals("", ""));
}

TEST_F(FlexConditionTest, ContainersHaveElementsOfSomeTypes) {
    const std::string map = flexMap();
    for (const char* const key : {"Name", "count", "big", "ratio", "flag", "name"}) {
        EXPECT_TRUE(contains(map, key)) << key;
    }
    EXPECT_FALSE(contains(map, "COUNT"));
    EXPECT_TRUE(contains(map, "COUNT", false));
    EXPECT_FALSE(contains(map, "Quill"));
    const auto mixed = flexData([](auto& b) {
        b.Vector([&] {
            b.String("One");
            b.Int(2);
            b.Double(3.0);
        });
    });
    EXPECT_TRUE(contains(mixed, "ONE", false));
    EXPECT_TRUE(contains(mixed, "2"));
    EXPECT_FALSE(contains(mixed, "3"));
    const auto ints = flexData([](auto& b) { b.Vector(std::vector<int64_t>{5, -6, 1ll << 40}); });
    EXPECT_TRUE(contains(ints, "1099511627776"));
    EXPECT_FALSE(contains(ints, "6"));
    EXPECT_TRUE(contains(flexData([](auto& b) { b.TypedVector([&] { b.Key("second"); }); }),
                         "second"));
    EXPECT_FALSE(contains(flexData([](auto& b) { b.Vector([] {}); }), ""));
    const int three[] = {1, 2, 3};
    EXPECT_FALSE(contains(flexData([&](auto& b) { b.FixedTypedVector(three, 3); }), "2"));

    EXPECT_TRUE(containsPair(map, "Name", "Quill"));
    EXPECT_FALSE(containsPair(map, "Name", "other"));
    EXPECT_TRUE(containsPair(map, "NAME", "OTHER", false));  // the second key that folds so
    EXPECT_TRUE(containsPair(map, "count", "-42"));
    EXPECT_FALSE(containsPair(map, "ratio", "42"));
    EXPECT_FALSE(containsPair(map, "missing", ""));
    EXPECT_FALSE(containsPair(flexData([](auto& b) { b.String("Name"); }), "Name", "Quill"));
}

// Under the address sanitizer this finds reads outside of the object.
TEST_F(FlexConditionTest, DamagedDataIsReadWithinItsBounds) {
    const std::string map = flexMap();
    const auto touch = [&](const std::string& data) {
        for (const bool caseSensitive : {false, true}) {
            equals(data, "Quill", caseSensitive);
            contains(data, "count", caseSensitive);
            containsPair(data, "count", "-42", caseSensitive);
        }
    };
    for (size_t i = 0; i < map.size(); ++i) {
        touch(map.substr(i));
        touch(map.substr(0, i));
        for (const uint8_t byte : {0x00, 0x7F, 0x80, 0xFF, 0x27, 0x2B}) {
            std::string damaged = map;
            damaged[i] = static_cast<char>(byte);
            touch(damaged);
        }
    }
    EXPECT_TRUE(containsPair(map, "count", "-42"));
}

// --- the tree -----------------------------------------------------------------------------------

TEST_F(ConditionTest, WhatIsNoConditionOfAQuerySaysSo) {
    class Bare : public QueryCondition {
    public:
        Bare() : QueryCondition(QueryOp::Link) {}
    };
    const Bare bare;
    EXPECT_EQ(messageOf<IllegalStateException>([&] { check(bare, {}); }),
              "Illegal query condition detected with op type \"link\"");
    EXPECT_EQ(bare.describe(0), "illegal op \"link\"");
    EXPECT_EQ(messageOf<Exception>([&] { bare.clone(); }), "Cloning unavailable");
    EXPECT_STREQ(queryOpWord(static_cast<QueryOp>(-1)), "??");
    EXPECT_EQ(messageOf<IllegalStateException>([&] {
                  makeStringCondition(property("String"), QueryOp::Between, "x", true);
              }),
              "State condition failed in Given operation type isn't supported by this condition: "
              "between");
    QueryBuilder b = makeBuilder();
    EXPECT_TRUE(check(b.all({}), {}));
    EXPECT_FALSE(check(b.any({}), {}));
    const QueryCondition& count = b.relationCount(partProperty("thing"), -1);
    EXPECT_FALSE(check(count, {}));
    EXPECT_EQ(messageOf<IllegalStateException>(
                  [&] { checkBytes(count, makeObjectOf(*things_, 0, {})); }),
              "State condition failed in check:28: id != 0");
}

TEST_F(ConditionTest, ACheckAllocatesNothing) {
    const std::string text(100, 'x');
    const Values values = {
        {"Int", int64_t{5}}, {"String", text}, {"IntVector", std::vector<int64_t>{1}}};
    const ObjectBytes object = makeObjectOf(*things_, 1, values);
    QueryBuilder b = makeBuilder();
    const std::string upper(100, 'X');
    const std::vector<QueryCondition*> conditions = {
        &b.equal(property("Int"), 5),
        &b.in(property("Int"), std::vector<int32_t>{5}, false),
        &b.equal(property("IntVector"), 1),
        &b.equal(property("String"), text, true),
        &b.contains(property("String"), "XX", false),
        &b.in(property("String"), Strings{upper}, false),
        &b.in(property("String"), Strings{text}, true)};
    const QueryCondition& all = b.all(conditions);
    EXPECT_TRUE(checkBytes(all, object));
    const uint64_t before = allocationsOfThread();
    EXPECT_TRUE(checkBytes(all, object));
    EXPECT_EQ(allocationsOfThread(), before);
}

TEST_F(ConditionTest, DescriptionsTellTheValues) {
    QueryBuilder b = makeBuilder();
    const auto text = [](const QueryCondition& condition) { return condition.describe(0); };
    EXPECT_EQ(text(b.equal(property("Byte"), -5)), "Byte == -5");
    EXPECT_EQ(text(b.notEqual(property("ULong"), -1)), "ULong != 18446744073709551615");
    EXPECT_EQ(text(b.greater(property("Double"), int64_t{2}, true)), "Double >= 2.000000");
    EXPECT_EQ(text(b.equal(property("Bool"), 5)), "Bool == 1");
    EXPECT_EQ(text(b.between(property("Int"), int64_t{9}, int64_t{-3})), "Int between -3 and 9");
    EXPECT_EQ(text(b.less(property("IntVector"), int64_t{3}, false)), "IntVector < 3");
    EXPECT_EQ(text(b.isNull(property("Flex"))), "Flex is null");
    EXPECT_EQ(text(b.notNull(property("Flex"))), "Flex is not null");
    EXPECT_EQ(text(b.startsWith(property("String"), "a", true)), "String starts with \"a\"");
    EXPECT_EQ(text(b.endsWith(property("String"), "a", false)), "String ends with(i) \"a\"");
    EXPECT_EQ(text(b.in(property("String"), Strings{"b", "A"}, true)), "String in [\"A\", \"b\"]");
    EXPECT_EQ(text(b.in(property("String"), Strings{"b", "A"}, false)),
              "String in(i) [\"a\", \"b\"]");
    EXPECT_EQ(text(b.in(property("Int"), std::vector<int32_t>{7, -1}, false)), "Int in [-1|7]");
    EXPECT_EQ(text(b.in(property("Int"), std::vector<int32_t>{7}, true)), "Int not in [7]");
    EXPECT_EQ(text(b.equalBytes(property("ByteVector"), "abcdefghijklmnopqrstuvwxyz", 26)),
              "ByteVector == byte[26]\"abcdefghijklmnopqrst\"");
    EXPECT_EQ(text(b.lessBytes(property("ByteVector"), "\0\1\2\3\4\5\6\7\x8\xFF\xFE", 11, true)),
              "ByteVector <= byte[11]{0x000102030405060708ff}");
    EXPECT_EQ(text(b.containsKeyValue(property("Flex"), "k", "v", false)),
              "Flex contains \"k\"=\"v\"");
    EXPECT_EQ(text(b.containsElement(property("Flex"), "e", false)), "Flex contains(i) \"e\"");
    EXPECT_EQ(text(b.relationCount(partProperty("thing"), 2)), "Has 2 related objects via thing");
    QueryCondition& a = b.equal(property("Int"), 1);
    QueryCondition& c = b.equal(property("Int"), 2);
    QueryCondition& any = b.any({&a, &c});
    EXPECT_EQ(text(b.all({&any, &b.isNull(property("Long"))})),
              "((Int == 1\n OR Int == 2)\n AND Long is null)");
}

// --- with a store -------------------------------------------------------------------------------

TEST_F(ConditionTest, OnlyWhatAnIndexCanAnswerAsksIt) {
    QueryBuilder b = makeBuilder();
    const auto canLookup = [](const QueryCondition& condition) {
        return static_cast<const QueryConditionWithProperty&>(condition).canLookupIndex();
    };
    const Property& number = property("indexedInt");
    EXPECT_TRUE(canLookup(b.equal(number, 1)));
    EXPECT_FALSE(canLookup(b.notEqual(number, 1)));
    EXPECT_FALSE(canLookup(b.less(number, int64_t{1}, false)));
    EXPECT_FALSE(canLookup(b.in(number, std::vector<int32_t>{1}, false)));
    EXPECT_FALSE(canLookup(b.equal(property("Int"), 1)));
    for (const bool hash : {false, true}) {
        const Property& text = property(hash ? "hashedText" : "indexedText");
        EXPECT_TRUE(canLookup(b.equal(text, "a", true)));
        EXPECT_FALSE(canLookup(b.equal(text, "a", false)));
        EXPECT_EQ(canLookup(b.less(text, "a", true, true)), !hash);
        EXPECT_EQ(canLookup(b.startsWith(text, "a", true)), !hash);
        EXPECT_FALSE(canLookup(b.endsWith(text, "a", true)));
        EXPECT_FALSE(canLookup(b.contains(text, "a", true)));
        EXPECT_TRUE(canLookup(b.in(text, Strings{"a"}, true)));
        EXPECT_FALSE(canLookup(b.in(text, Strings{"a"}, false)));
    }
}

TEST_F(ConditionTest, AnEmptyStringSetOnAnIndexFindsNothingAtOnce) {
    put(*things_, 1, {{"indexedText", std::string()}});
    QueryBuilder b = makeBuilder();
    b.in(property("indexedText"), Strings{}, true);
    const auto query = b.build();
    EXPECT_TRUE(findIds(*query).empty());
    EXPECT_EQ(query->lastLookupCount(), 1u);
}

}  // namespace
}  // namespace quillmere
