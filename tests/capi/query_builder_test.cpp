#include <flatbuffers/flexbuffers.h>

#include <cstdint>
#include <vector>

#include "capi/query_fixture.h"
#include "support/log_capture.h"

namespace quillmere {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class QueryBuilderTest : public QueryTest {
protected:
    using Add = qmr_qb_cond (*)(QMR_query_builder*);

    std::vector<uint64_t> idsWith(Add add) {
        const BuilderPtr b = builder();
        EXPECT_EQ(1, add(b.get())) << qmr_last_error_message();
        return ids(b);
    }
};

TEST_F(QueryBuilderTest, EachConditionSelectsWhatItsNameSays) {
    static const int32_t ages[] = {20, 50};
    static const int64_t points[] = {7};
    static const char* const names[] = {"ann", "Cid"};
    const std::pair<Add, std::vector<uint64_t>> cases[] = {
        {[](auto* b) { return qmr_qb_null(b, kPoints); }, {3}},
        {[](auto* b) { return qmr_qb_not_null(b, kPoints); }, {1, 2, 4}},
        {[](auto* b) { return qmr_qb_equals_int(b, kAge, 40); }, {2}},
        {[](auto* b) { return qmr_qb_not_equals_int(b, kAge, 40); }, {1, 3, 4}},
        {[](auto* b) { return qmr_qb_greater_than_int(b, kAge, 40); }, {3}},
        {[](auto* b) { return qmr_qb_greater_or_equal_int(b, kAge, 40); }, {2, 3}},
        {[](auto* b) { return qmr_qb_less_than_int(b, kAge, 30); }, {4}},
        {[](auto* b) { return qmr_qb_less_or_equal_int(b, kAge, 30); }, {1, 4}},
        {[](auto* b) { return qmr_qb_between_2ints(b, kAge, 40, 30); }, {1, 2}},
        {[](auto* b) { return qmr_qb_in_int32s(b, kAge, ages, 2); }, {3, 4}},
        {[](auto* b) { return qmr_qb_not_in_int32s(b, kAge, ages, 2); }, {1, 2}},
        {[](auto* b) { return qmr_qb_in_int64s(b, kPoints, points, 1); }, {1, 4}},
        {[](auto* b) { return qmr_qb_not_in_int64s(b, kPoints, points, 1); }, {2, 3}},
        {[](auto* b) { return qmr_qb_in_int32s(b, kAge, ages, 0); }, {}},
        {[](auto* b) { return qmr_qb_greater_than_double(b, kWeight, 70); }, {2}},
        {[](auto* b) { return qmr_qb_greater_or_equal_double(b, kWeight, 70); }, {2, 3}},
        {[](auto* b) { return qmr_qb_less_than_double(b, kWeight, 60.5); }, {4}},
        {[](auto* b) { return qmr_qb_less_or_equal_double(b, kWeight, 60.5); }, {1, 4}},
        {[](auto* b) { return qmr_qb_between_2doubles(b, kWeight, 60, 75); }, {1, 3}},
        {[](auto* b) { return qmr_qb_equals_string(b, kName, "ann", true); }, {4}},
        {[](auto* b) { return qmr_qb_equals_string(b, kName, "ann", false); }, {1, 4}},
        {[](auto* b) { return qmr_qb_not_equals_string(b, kName, "ann", false); }, {2, 3}},
        {[](auto* b) { return qmr_qb_contains_string(b, kName, "n", true); }, {1, 4}},
        {[](auto* b) { return qmr_qb_starts_with_string(b, kName, "A", true); }, {1}},
        {[](auto* b) { return qmr_qb_ends_with_string(b, kName, "D", false); }, {3}},
        {[](auto* b) { return qmr_qb_greater_than_string(b, kName, "ann", true); }, {2}},
        {[](auto* b) { return qmr_qb_greater_or_equal_string(b, kName, "ann", true); }, {2, 4}},
        {[](auto* b) { return qmr_qb_less_than_string(b, kName, "Cid", true); }, {1}},
        {[](auto* b) { return qmr_qb_less_or_equal_string(b, kName, "Cid", true); }, {1, 3}},
        {[](auto* b) { return qmr_qb_any_equals_string(b, kName, "i", true); }, {3}},
        {[](auto* b) { return qmr_qb_in_strings(b, kName, names, 2, true); }, {3, 4}},
        {[](auto* b) { return qmr_qb_equals_bytes(b, kData, "\x01\x02", 2); }, {3}},
        {[](auto* b) { return qmr_qb_equals_bytes(b, kData, nullptr, 0); }, {}},
        {[](auto* b) { return qmr_qb_greater_than_bytes(b, kData, "\x01\x02", 2); }, {}},
        {[](auto* b) { return qmr_qb_greater_or_equal_bytes(b, kData, "\x01\x02", 2); }, {3}},
        {[](auto* b) { return qmr_qb_less_than_bytes(b, kData, "\x01\x02", 2); }, {}},
        {[](auto* b) { return qmr_qb_less_or_equal_bytes(b, kData, "\x01\x02", 2); }, {3}},
        {[](auto* b) { return qmr_qb_relation_count_property(b, kOrder, kCustomerId, 2); }, {1}},
    };
    for (const auto& [add, expected] : cases) {
        SCOPED_TRACE(&add - &cases[0].first);
        EXPECT_EQ(expected, idsWith(add));
    }
    EXPECT_TRUE(noLastError());
}

TEST_F(QueryBuilderTest, FlexConditionsTellKeysFromValues) {
    const auto putFlex = [this](uint64_t id, auto&& add) {
        flexbuffers::Builder flex;
        add(flex);
        flex.Finish();
        const auto& data = flex.GetBuffer();
        putCustomer(id, {{kExtra, std::string(data.begin(), data.end())}});
    };
    putFlex(5, [](auto& flex) { flex.String("key"); });
    putFlex(6, [](auto& flex) { flex.Vector([&] { flex.Int(42), flex.String("key"); }); });
    putFlex(7, [](auto& flex) { flex.Map([&] { flex.String("key", "Value"); }); });
    putFlex(8, [](auto& flex) { flex.Map([&] { flex.String("Value", "key"); }); });
    const std::pair<Add, std::vector<uint64_t>> cases[] = {
        {[](auto* b) { return qmr_qb_equals_string(b, kExtra, "KEY", false); }, {5}},
        {[](auto* b) { return qmr_qb_equals_string(b, kExtra, "KEY", true); }, {}},
        {[](auto* b) { return qmr_qb_contains_element_string(b, kExtra, "key", true); }, {6, 7}},
        {[](auto* b) {
             return qmr_qb_contains_key_value_string(b, kExtra, "key", "value", false);
         }, {7}},
        {[](auto* b) {
             return qmr_qb_contains_key_value_string(b, kExtra, "key", "value", true);
         }, {}},
    };
    for (const auto& [add, expected] : cases) {
        SCOPED_TRACE(&add - &cases[0].first);
        EXPECT_EQ(expected, idsWith(add));
    }

    const BuilderPtr b = builder();
    qmr_qb_contains_key_value_string(b.get(), kExtra, "key", "Value", true);
    qmr_qb_param_alias(b.get(), "pair");
    const QueryPtr query = build(b);
    EXPECT_THAT(ids(query), ElementsAre(7));
    EXPECT_EQ(QMR_SUCCESS, qmr_query_param_2strings(query.get(), 0, kExtra, "Value", "key"));
    EXPECT_THAT(ids(query), ElementsAre(8));
    EXPECT_EQ(QMR_SUCCESS, qmr_query_param_alias_2strings(query.get(), "pair", "key", "Value"));
    EXPECT_THAT(ids(query), ElementsAre(7));
    EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, qmr_query_param_string(query.get(), 0, kExtra, "x"));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT,
                            "does not expect parameter of type string (op: contains)"));
}

TEST_F(QueryBuilderTest, ConditionsCombineByTheirIds) {
    const BuilderPtr b = builder();
    EXPECT_EQ(kCustomer, qmr_qb_type_id(b.get()));
    qmr_qb_cond young[] = {qmr_qb_less_than_int(b.get(), kAge, 30),
                           qmr_qb_greater_than_int(b.get(), kAge, 40)};
    EXPECT_EQ(2, young[1]);
    EXPECT_EQ(3, qmr_qb_any(b.get(), young, 2));
    qmr_qb_cond both[] = {3, qmr_qb_starts_with_string(b.get(), kName, "a", true)};
    EXPECT_EQ(5, qmr_qb_all(b.get(), both, 2));
    EXPECT_THAT(ids(b), ElementsAre(4));
}

TEST_F(QueryBuilderTest, BadConditionIdsAreRefused) {
    constexpr size_t kHuge = ~size_t{0};
    struct Case {
        std::vector<qmr_qb_cond> given;
        size_t count;
        qmr_err code;
        const char* text;
    };
    const Case cases[] = {
        {{1, 0}, 2, QMR_ERROR_ILLEGAL_ARGUMENT, "No condition ID on index 1"},
        {{3}, 1, QMR_ERROR_ILLEGAL_ARGUMENT, "No condition with ID 3"},
        {{-1}, 1, QMR_ERROR_ILLEGAL_ARGUMENT, "No condition with ID -1"},
        {{1, 1}, 2, QMR_ERROR_ILLEGAL_STATE, "Condition unavailable in builder"},
        {{1, 2, 1}, kHuge, QMR_ERROR_ILLEGAL_STATE, "Condition unavailable in builder"},
    };
    for (const Case& test : cases) {
        const BuilderPtr b = builder();
        qmr_qb_null(b.get(), kName);
        qmr_qb_null(b.get(), kAge);
        EXPECT_EQ(0, qmr_qb_any(b.get(), test.given.data(), test.count));
        EXPECT_TRUE(lastErrorIs(test.code, test.text));
        EXPECT_EQ(test.code, qmr_qb_error_code(b.get()));
    }
    const BuilderPtr b = builder();
    EXPECT_EQ(0, qmr_qb_all(b.get(), nullptr, 0));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT,
                            "Argument \"conditions\" must not be null (L394)"));
}

TEST_F(QueryBuilderTest, TheFirstFailureStaysAndStopsAllFurtherCalls) {
    const BuilderPtr b = builder();
    EXPECT_EQ(QMR_SUCCESS, qmr_qb_error_code(b.get()));
    EXPECT_STREQ("", qmr_qb_error_message(b.get()));
    EXPECT_EQ(1, qmr_qb_equals_int(b.get(), kAge, 1));
    EXPECT_EQ(0, qmr_qb_equals_int(b.get(), kAge, int64_t{1} << 40));
    EXPECT_EQ(QMR_ERROR_NUMERIC_OVERFLOW, qmr_last_error_code());
    const std::string text = qmr_last_error_message();
    qmr_last_error_clear();

    EXPECT_EQ(0, qmr_qb_equals_int(b.get(), kAge, 1));
    EXPECT_EQ(0, qmr_qb_equals_int(b.get(), 99, 1));
    EXPECT_EQ(0, qmr_qb_all(b.get(), nullptr, 0));
    EXPECT_EQ(nullptr, qmr_qb_link_standalone(b.get(), kFavourites));
    EXPECT_EQ(QMR_ERROR_NUMERIC_OVERFLOW, qmr_qb_order(b.get(), kAge, 0));
    EXPECT_TRUE(noLastError()) << "calls that did nothing";
    EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, qmr_qb_param_alias(b.get(), "a"));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE,
                            "State condition failed: \"builder->lastCondition_\" (L383)"));

    EXPECT_EQ(QMR_ERROR_NUMERIC_OVERFLOW, qmr_qb_error_code(b.get()));
    EXPECT_EQ(text, qmr_qb_error_message(b.get()));
    EXPECT_EQ(nullptr, qmr_query(b.get()));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_NUMERIC_OVERFLOW, text));
}

TEST_F(QueryBuilderTest, AliasesGoToTheLastConditionOnAProperty) {
    const BuilderPtr b = builder();
    const qmr_qb_cond either[] = {qmr_qb_null(b.get(), kName), qmr_qb_null(b.get(), kAge)};
    EXPECT_EQ(QMR_SUCCESS, qmr_qb_param_alias(b.get(), "age"));
    EXPECT_EQ(3, qmr_qb_any(b.get(), either, 2));
    EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, qmr_qb_param_alias(b.get(), "any"));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "\"condition.withProperty()\" (L385)"));
    EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, qmr_qb_error_code(b.get())) << "kept as the first one";

    const BuilderPtr twice = builder();
    for (int i = 0; i < 2; ++i) {
        qmr_qb_equals_int(twice.get(), kAge, i);
        EXPECT_EQ(QMR_SUCCESS, qmr_qb_param_alias(twice.get(), "same"));
    }
    EXPECT_EQ(nullptr, qmr_query(twice.get()));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, "alias is not unique: same"));
    EXPECT_EQ(nullptr, qmr_query(twice.get())) << "not the query of an empty builder";
}

TEST_F(QueryBuilderTest, LinksReachThroughRelationsInBothDirections) {
    const BuilderPtr orders = builder(kOrder);
    const BuilderPtr customer(qmr_qb_link_property(orders.get(), kCustomerId));
    EXPECT_EQ(kCustomer, qmr_qb_type_id(customer.get()));
    qmr_qb_equals_string(customer.get(), kName, "Ann", true);
    EXPECT_THAT(ids(orders), ElementsAre(10, 11));

    const BuilderPtr customers = builder();
    const BuilderPtr order(qmr_qb_backlink_property(customers.get(), kOrder, kCustomerId));
    qmr_qb_greater_than_double(order.get(), kTotal, 17);
    EXPECT_THAT(ids(customers), ElementsAre(2));

    const BuilderPtr fans = builder();
    const BuilderPtr product(qmr_qb_link_standalone(fans.get(), kFavourites));
    EXPECT_THAT(ids(fans), ElementsAre(3));

    const BuilderPtr products = builder(kProduct);
    const BuilderPtr fan(qmr_qb_backlink_standalone(products.get(), kFavourites));
    qmr_qb_less_than_int(fan.get(), kAge, 50);
    EXPECT_THAT(ids(products), IsEmpty());
}

TEST_F(QueryBuilderTest, AFailureInALinkReachesAllBuildersAbove) {
    const BuilderPtr products = builder(kProduct);
    const BuilderPtr fans(qmr_qb_backlink_standalone(products.get(), kFavourites));
    const BuilderPtr orders(qmr_qb_backlink_property(fans.get(), kOrder, kCustomerId));
    const BuilderPtr others(qmr_qb_backlink_standalone(products.get(), kFavourites));
    EXPECT_EQ(0, qmr_qb_equals_int(orders.get(), kTotal, 1));
    const std::string text = qmr_last_error_message();
    qmr_last_error_clear();
    for (const BuilderPtr* b : {&products, &fans, &orders}) {
        EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, qmr_qb_error_code(b->get()));
        EXPECT_EQ(text, qmr_qb_error_message(b->get()));
        EXPECT_EQ(0, qmr_qb_null(b->get(), 1));
    }
    EXPECT_EQ(QMR_SUCCESS, qmr_qb_error_code(others.get()));
    EXPECT_EQ(0, qmr_qb_null(others.get(), 1)) << "stopped by the builder above";
    EXPECT_TRUE(noLastError());
    EXPECT_EQ(nullptr, qmr_query(others.get()));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, text));
}

TEST_F(QueryBuilderTest, LinksThatCanNotBeMadeLeaveTheirCodeOnly) {
    struct Case {
        QMR_query_builder* (*link)(QMR_query_builder*);
        qmr_err code;
        const char* text;
    };
    const Case cases[] = {
        {[](auto* b) { return qmr_qb_link_property(b, 99); }, QMR_ERROR_SCHEMA,
         "Property ID 99 not found"},
        {[](auto* b) { return qmr_qb_link_property(b, kAge); }, QMR_ERROR_ILLEGAL_ARGUMENT,
         "Argument \"targetEntity\" must not be null (L574)"},
        {[](auto* b) { return qmr_qb_backlink_property(b, 99, 1); }, QMR_ERROR_SCHEMA,
         "Entity type ID not found in schema: 99"},
        {[](auto* b) { return qmr_qb_backlink_property(b, kOrder, kTotal); },
         QMR_ERROR_ILLEGAL_ARGUMENT, "does not target Entity \"Customer\""},
        {[](auto* b) { return qmr_qb_link_standalone(b, 9); }, QMR_ERROR_ILLEGAL_ARGUMENT,
         "Relation not found 9 in entity 1"},
        {[](auto* b) { return qmr_qb_backlink_standalone(b, kFavourites); },
         QMR_ERROR_ILLEGAL_ARGUMENT, "Backlink relation not found 1 in entity 1"},
        {[](auto* b) { return qmr_qb_link_time(b, kOrder, 99, kTotal); }, QMR_ERROR_SCHEMA,
         "Property ID 99 not found"},
        {[](auto* b) { return qmr_qb_link_time(b, kOrder, kTotal, kTotal); },
         QMR_ERROR_TIME_SERIES,
         "Time series functionality is not available in this library edition."},
    };
    for (const Case& test : cases) {
        const BuilderPtr orders = builder(kOrder);
        const BuilderPtr customers(qmr_qb_link_property(orders.get(), kCustomerId));
        EXPECT_EQ(nullptr, test.link(customers.get()));
        EXPECT_TRUE(lastErrorIs(test.code, test.text));
        for (const BuilderPtr* b : {&orders, &customers}) {
            EXPECT_EQ(test.code, qmr_qb_error_code(b->get()));
            EXPECT_STREQ("", qmr_qb_error_message(b->get()));
        }
        EXPECT_EQ(nullptr, qmr_query(orders.get()));
        EXPECT_EQ(test.code, qmr_last_error_code());
    }
}

TEST_F(QueryBuilderTest, AQueryTakesTheContentAndTheLinksAndLeavesAnEmptyBuilder) {
    const BuilderPtr b = builder();
    const BuilderPtr orders(qmr_qb_backlink_property(b.get(), kOrder, kCustomerId));
    const BuilderPtr nested(qmr_qb_link_property(orders.get(), kCustomerId));
    qmr_qb_equals_int(b.get(), kAge, 40);
    EXPECT_THAT(ids(b), ElementsAre(2));
    EXPECT_EQ(0, qmr_qb_null(nested.get(), 1));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "\"builder->builder\""));
    EXPECT_EQ(nullptr, qmr_query(orders.get()));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "\"builder->builder\""));
    EXPECT_EQ(QMR_SUCCESS, qmr_qb_error_code(b.get())) << "they are no links of it any more";
    EXPECT_THAT(ids(b), ElementsAre(1, 2, 3, 4));
    EXPECT_EQ(1, qmr_qb_equals_int(b.get(), kAge, 20)) << "IDs start again";
    EXPECT_THAT(ids(b), ElementsAre(4));
    EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, qmr_qb_param_alias(b.get(), "gone"));
}

TEST_F(QueryBuilderTest, HandlesCloseInAnyOrder) {
    BuilderPtr b = builder();
    BuilderPtr orders(qmr_qb_backlink_property(b.get(), kOrder, kCustomerId));
    BuilderPtr customers(qmr_qb_link_property(orders.get(), kCustomerId));
    orders.reset();
    qmr_qb_equals_int(customers.get(), kAge, 40);
    const QueryPtr query = build(b);
    b.reset();
    customers.reset();
    EXPECT_THAT(ids(query), ElementsAre(2));

    b = builder();
    orders.reset(qmr_qb_backlink_property(b.get(), kOrder, kCustomerId));
    b.reset();
    EXPECT_EQ(1, qmr_qb_null(orders.get(), kTotal)) << "harmless without the handle above";
}

TEST_F(QueryBuilderTest, OrdersByTheFirstCallThenTheNext) {
    const BuilderPtr b = builder();
    EXPECT_EQ(QMR_SUCCESS, qmr_qb_order(b.get(), kPoints, QMROrderFlags_NULLS_LAST));
    EXPECT_EQ(QMR_SUCCESS, qmr_qb_order(b.get(), kAge, QMROrderFlags_DESCENDING));
    EXPECT_THAT(ids(b), ElementsAre(1, 4, 2, 3));

    const BuilderPtr bad = builder();
    EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, qmr_qb_order(bad.get(), kAge, 33));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, "Unknown order flags: 32"));
    EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, qmr_qb_error_code(bad.get()));
}

TEST_F(QueryBuilderTest, AClosedStoreIsReportedBeforeItsSchemaIsTouched) {
    const BuilderPtr b = builder();
    const BuilderPtr orders(qmr_qb_backlink_property(b.get(), kOrder, kCustomerId));
    close();
    EXPECT_EQ(0u, qmr_qb_type_id(b.get()));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_SHUTTING_DOWN, "Store is already closed"));
    EXPECT_EQ(0, qmr_qb_null(orders.get(), kTotal));
    EXPECT_EQ(QMR_ERROR_SHUTTING_DOWN, qmr_qb_error_code(b.get()));
    EXPECT_EQ(nullptr, qmr_query(b.get()));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_SHUTTING_DOWN, "Store is already closed"));
}

TEST_F(QueryBuilderTest, UnknownEntitiesAndMissingSchemasAreRefused) {
    EXPECT_EQ(nullptr, qmr_query_builder(store_.get(), 99));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_SCHEMA, "Entity type ID not found in schema: 99"));
    close();
    QMR_store_options* opt = options(false);
    qmr_opt_read_schema(opt, false);
    store_.reset(qmr_store_open(opt));
    EXPECT_EQ(nullptr, qmr_query_builder(store_.get(), kCustomer));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "No schema set on store"));
}

TEST_F(QueryBuilderTest, QueriesLogAsTheStoreDoes) {
    qmr_store_debug_flags(store_.get(),
                          QMRDebugFlags_LOG_QUERIES | QMRDebugFlags_LOG_QUERY_PARAMETERS);
    const QueryPtr query = customersFrom(40);
    const LogCapture log;
    uint64_t count = 0;
    EXPECT_EQ(QMR_SUCCESS, qmr_query_count(query.get(), &count));
    EXPECT_TRUE(log.contains("Counting using query #"));
    EXPECT_TRUE(log.contains("Parameters for query #"));
}

}  // namespace
}  // namespace quillmere
