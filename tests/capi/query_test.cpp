#include <atomic>
#include <cstdint>
#include <memory>
#include <new>
#include <thread>
#include <type_traits>
#include <vector>

#include "capi/handles.h"
#include "capi/query_fixture.h"

namespace quillmere {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class QueryRunTest : public QueryTest {
protected:
    static std::string nameOf(const void* object) { return objectText(object, kName); }
    static std::vector<std::string> namesOf(const BytesArrayPtr& array) {
        std::vector<std::string> names;
        for (size_t i = 0; i < array->count; ++i) names.push_back(nameOf(array->bytes[i].data));
        return names;
    }
    uint64_t count(const QueryPtr& query) {
        uint64_t count = ~uint64_t{0};
        EXPECT_EQ(QMR_SUCCESS, qmr_query_count(query.get(), &count)) << qmr_last_error_message();
        return count;
    }
};

TEST_F(QueryRunTest, OffsetAndLimitWindowTheFinds) {
    const QueryPtr query = customersFrom(0);
    EXPECT_EQ(4u, count(query));
    EXPECT_EQ(QMR_SUCCESS, qmr_query_limit(query.get(), 3));
    EXPECT_EQ(3u, count(query));
    EXPECT_THAT(ids(query), ElementsAre(1, 2, 3));
    EXPECT_EQ(QMR_SUCCESS, qmr_query_offset(query.get(), 2));
    EXPECT_THAT(ids(query), ElementsAre(3, 4));
    EXPECT_THAT(namesOf(BytesArrayPtr(qmr_query_find(query.get()))), ElementsAre("Cid", "ann"));

    const QueryPtr clone(qmr_query_clone(query.get()));
    EXPECT_EQ(QMR_SUCCESS, qmr_query_offset_limit(query.get(), 1, 1));
    EXPECT_THAT(ids(query), ElementsAre(2));
    EXPECT_THAT(ids(clone), ElementsAre(3, 4)) << "took both along, and keeps them";

    constexpr uint64_t kHuge = ~uint64_t{0};
    qmr_query_offset_limit(query.get(), kHuge, 0);
    EXPECT_THAT(ids(query), IsEmpty());
    qmr_query_offset_limit(query.get(), 0, kHuge);
    EXPECT_THAT(ids(query), ElementsAre(1, 2, 3, 4));
    qmr_query_offset_limit(query.get(), kHuge, kHuge);
    EXPECT_EQ(nullptr, qmr_query_find_ids(query.get()));
    EXPECT_NE(QMR_SUCCESS, qmr_last_error_code());
}

TEST_F(QueryRunTest, CountAndRemoveRefuseWhatTheyCanNotDo) {
    const QueryPtr query = customersFrom(40);
    const TxnPtr txn = read();
    const CursorPtr cursor(qmr_cursor(txn.get(), kCustomer));
    uint64_t number = 77;
    const auto expectRefused = [&](qmr_err result, const char* text) {
        EXPECT_EQ(QMR_ERROR_GENERAL, result);
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_GENERAL, text));
    };
    constexpr auto kNoOffset = "Query offset is not supported by count() at this moment.";
    constexpr auto kNoWindow = "Query limit/offset are not supported by remove() at this moment.";
    qmr_query_limit(query.get(), 1);  // in a read transaction a removal would fail in another way
    expectRefused(qmr_query_remove(query.get(), &number), kNoWindow);
    expectRefused(qmr_query_cursor_remove(query.get(), cursor.get(), &number), kNoWindow);
    qmr_query_offset_limit(query.get(), 1, 0);
    expectRefused(qmr_query_remove(query.get(), &number), kNoWindow);
    expectRefused(qmr_query_count(query.get(), &number), kNoOffset);
    expectRefused(qmr_query_cursor_count(query.get(), cursor.get(), &number), kNoOffset);
    EXPECT_EQ(77u, number);
}

TEST_F(QueryRunTest, BytesAreCopiesWithoutATransactionAndViewsInsideOne) {
    const QueryPtr query = customersFrom(30);
    const void* first = nullptr;
    const void* again = nullptr;
    size_t size = 0;
    const BytesArrayPtr copies(qmr_query_find(query.get()));
    ASSERT_EQ(QMR_SUCCESS, qmr_query_find_first(query.get(), &first, &size));
    uint64_t removed = 0;
    ASSERT_EQ(QMR_SUCCESS, qmr_query_remove(query.get(), &removed));
    EXPECT_EQ(3u, removed);
    EXPECT_THAT(namesOf(copies), ElementsAre("Ann", "bob", "Cid"));
    EXPECT_EQ("Ann", nameOf(first));
    for (size_t i = 0; i < copies->count; ++i) {
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(copies->bytes[i].data) % 8);
    }

    qmr_query_param_int(query.get(), 0, kAge, 0);
    const TxnPtr txn = read();
    ASSERT_EQ(QMR_SUCCESS, qmr_query_find_first(query.get(), &first, &size));
    ASSERT_EQ(QMR_SUCCESS, qmr_query_find_unique(query.get(), &again, &size));
    const BytesArrayPtr views(qmr_query_find(query.get()));
    EXPECT_EQ(first, again) << "no copies";
    EXPECT_EQ(first, views->bytes[0].data);
}

TEST_F(QueryRunTest, FirstAndUniqueTellWhatTheyFound) {
    const BuilderPtr b = builder();
    qmr_qb_greater_or_equal_int(b.get(), kAge, 40);
    qmr_qb_order(b.get(), kAge, QMROrderFlags_DESCENDING);
    const QueryPtr query = build(b);
    const void* data = nullptr;
    size_t size = 0;
    ASSERT_EQ(QMR_SUCCESS, qmr_query_find_first(query.get(), &data, &size));
    EXPECT_EQ("Cid", nameOf(data));
    EXPECT_EQ(QMR_ERROR_NON_UNIQUE_RESULT, qmr_query_find_unique(query.get(), &data, &size));
    qmr_last_error_clear();
    EXPECT_EQ("Cid", nameOf(data)) << "left alone";
    qmr_query_param_int(query.get(), 0, kAge, 50);
    ASSERT_EQ(QMR_SUCCESS, qmr_query_find_unique(query.get(), &data, &size));
    EXPECT_EQ("Cid", nameOf(data));

    qmr_query_param_int(query.get(), 0, kAge, 99);
    const void* const before = data;
    EXPECT_EQ(QMR_NOT_FOUND, qmr_query_find_first(query.get(), &data, &size));
    EXPECT_EQ(QMR_NOT_FOUND, qmr_query_find_unique(query.get(), &data, &size));
    EXPECT_EQ(before, data);
    EXPECT_TRUE(noLastError());
}

TEST_F(QueryRunTest, VisitorsSeeTheWindowUntilTheyStop) {
    const BuilderPtr b = builder();
    qmr_qb_order(b.get(), kAge, 0);
    const QueryPtr query = build(b);
    qmr_query_offset(query.get(), 1);
    struct Seen {
        std::vector<std::string> names;
        size_t wanted;
    };
    const auto visitor = [](const void* data, size_t size, void* userData) {
        EXPECT_LT(0u, size);
        auto& seen = *static_cast<Seen*>(userData);
        seen.names.push_back(nameOf(data));
        return seen.names.size() < seen.wanted;
    };
    Seen all{{}, 9};
    EXPECT_EQ(QMR_SUCCESS, qmr_query_visit(query.get(), visitor, &all));
    EXPECT_THAT(all.names, ElementsAre("Ann", "bob", "Cid"));
    Seen two{{}, 2};
    const TxnPtr txn = read();
    const CursorPtr cursor(qmr_cursor(txn.get(), kCustomer));
    EXPECT_EQ(QMR_SUCCESS, qmr_query_cursor_visit(query.get(), cursor.get(), visitor, &two));
    EXPECT_THAT(two.names, ElementsAre("Ann", "bob"));
    Seen thrown{{}, 9};
    const auto throws = [](const void*, size_t, void*) -> bool { throw std::bad_alloc(); };
    EXPECT_EQ(QMR_ERROR_STD_BAD_ALLOC, qmr_query_visit(query.get(), throws, &thrown));
}

TEST_F(QueryRunTest, WithoutScoresNothingIsFoundByScore) {
    const QueryPtr query = customersFrom(0);
    EXPECT_THAT(idsOf(qmr_query_find_ids_by_score(query.get())), IsEmpty());
    QMR_id_score_array* const idScores = qmr_query_find_ids_with_scores(query.get());
    QMR_bytes_score_array* const scores = qmr_query_find_with_scores(query.get());
    ASSERT_TRUE(idScores && scores);
    EXPECT_EQ(0u, idScores->count);
    EXPECT_EQ(0u, scores->count);
    qmr_id_score_array_free(idScores);
    qmr_bytes_score_array_free(scores);
    const auto never = [](const void*, size_t, double, void*) { return ADD_FAILURE(), true; };
    EXPECT_EQ(QMR_SUCCESS, qmr_query_visit_with_score(query.get(), never, nullptr));
}

TEST_F(QueryRunTest, CursorsRunTheQueryInTheirTransaction) {
    const QueryPtr query = customersFrom(40);
    {
        const TxnPtr txn = write();
        const CursorPtr cursor(qmr_cursor(txn.get(), kCustomer));
        const ObjectBytes dan = makeObject({{1, uint64_t{5}}, {kName, "Dan"}, {kAge, 60}});
        ASSERT_EQ(QMR_SUCCESS, qmr_cursor_put(cursor.get(), 5, dan.data(), dan.size()));
        EXPECT_THAT(idsOf(qmr_query_cursor_find_ids(query.get(), cursor.get())),
                    ElementsAre(2, 3, 5));
        EXPECT_THAT(namesOf(BytesArrayPtr(qmr_query_cursor_find(query.get(), cursor.get()))),
                    ElementsAre("bob", "Cid", "Dan"));
        uint64_t number = 0;
        EXPECT_EQ(QMR_SUCCESS, qmr_query_cursor_remove(query.get(), cursor.get(), &number));
        EXPECT_EQ(3u, number);
        EXPECT_EQ(QMR_SUCCESS, qmr_query_cursor_count(query.get(), cursor.get(), &number));
        EXPECT_EQ(0u, number);
    }
    EXPECT_EQ(2u, count(query)) << "the transaction was aborted";
    EXPECT_EQ(QMR_SUCCESS, qmr_query_remove(query.get(), nullptr));
    EXPECT_EQ(0u, count(query));
}

TEST_F(QueryRunTest, ForeignAndDeadCursorsAreRefused) {
    const QueryPtr query = customersFrom(40);
    TxnPtr txn = read();
    const CursorPtr orders(qmr_cursor(txn.get(), kOrder));
    EXPECT_EQ(nullptr, qmr_query_cursor_find(query.get(), orders.get()));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT,
                            "The given cursor is for type Order, but the Query expects"));
    const CursorPtr dead(qmr_cursor(txn.get(), kCustomer));
    txn.reset();
    EXPECT_EQ(nullptr, qmr_query_cursor_find_ids(query.get(), dead.get()));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "Transaction of the cursor is closed"));

    txn = write();
    const CursorPtr aborted(qmr_cursor(txn.get(), kCustomer));
    qmr_txn_abort(txn.get());
    EXPECT_EQ(nullptr, qmr_query_cursor_find(query.get(), aborted.get()));
    EXPECT_NE(QMR_SUCCESS, qmr_last_error_code());

    const TempDir other;
    QMR_store_options* opt = qmr_opt();
    qmr_opt_directory(opt, other.storePath().c_str());
    qmr_opt_model(opt, noteModel());
    const StorePtr notes(qmr_store_open(opt));
    const TxnPtr noteTxn(qmr_txn_read(notes.get()));
    const CursorPtr note(qmr_cursor(noteTxn.get(), kCustomer));  // an entity of the same ID
    uint64_t number = 0;
    EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT,
              qmr_query_cursor_count(query.get(), note.get(), &number));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, "another store"));
}

TEST_F(QueryRunTest, AfterTheStoreClosedOnlyTheDescriptionIsLeft) {
    const QueryPtr query = customersFrom(40);
    const PropPtr prop(qmr_query_prop(query.get(), kAge));
    EXPECT_STREQ("Query for entity Customer with 1 conditions with properties age",
                 qmr_query_describe(query.get()));
    EXPECT_STREQ("age >= 40", qmr_query_describe_params(query.get()));
    close();
    const auto expectFailure = [](auto run, auto... arguments) {
        const auto result = run(arguments...);
        if constexpr (std::is_same_v<decltype(result), const qmr_err>) {
            EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, result);
        } else {
            EXPECT_FALSE(result);
        }
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE,
                                "Query cannot be used after entity type was deleted"));
    };
    QMR_query* const q = query.get();
    const void* data = nullptr;
    size_t size = 0;
    uint64_t number = 0;
    const auto visitor = [](const void*, size_t, void*) { return true; };
    const auto scores = [](const void*, size_t, double, void*) { return true; };
    expectFailure(qmr_query_clone, q);
    expectFailure(qmr_query_count, q, &number);
    expectFailure(qmr_query_find, q);
    expectFailure(qmr_query_find_ids, q);
    expectFailure(qmr_query_find_first, q, &data, &size);
    expectFailure(qmr_query_find_unique, q, &data, &size);
    expectFailure(qmr_query_find_ids_by_score, q);
    expectFailure(qmr_query_find_ids_with_scores, q);
    expectFailure(qmr_query_find_with_scores, q);
    expectFailure(qmr_query_visit, q, visitor, nullptr);
    expectFailure(qmr_query_visit_with_score, q, scores, nullptr);
    expectFailure(qmr_query_remove, q, &number);
    expectFailure(qmr_query_describe_params, q);
    expectFailure(qmr_query_param_int, q, 0, kAge, 1);
    expectFailure(qmr_query_param_alias_int, q, "age", 1);
    expectFailure(qmr_query_param_get_type_size, q, kCustomer, kAge);
    expectFailure(qmr_query_prop, q, kAge);
    expectFailure(qmr_query_prop_count, prop.get(), &number);
    expectFailure(qmr_query_prop_distinct_case, prop.get(), true, true);
    EXPECT_THAT(qmr_query_describe(query.get()), HasSubstr("<deleted entity type>"));
}

TEST_F(QueryRunTest, ClosingTheStoreWaitsForARunAndIsNotPutOffByHandles) {
    const QueryPtr query = customersFrom(0);
    struct Closing {
        std::weak_ptr<ObjectStore> store;
        std::atomic<bool> visiting{false};
        std::atomic<int> visited{0};
    } closing{store_->shared};
    std::thread closer([&] {
        while (!closing.visiting) std::this_thread::yield();
        close();
        EXPECT_EQ(4, closing.visited) << "the run came first";
    });
    const auto visitor = [](const void*, size_t, void* userData) {
        auto& closing = *static_cast<Closing*>(userData);
        closing.visiting = true;
        while (!closing.store.expired()) std::this_thread::yield();
        ++closing.visited;
        return true;
    };
    EXPECT_EQ(QMR_SUCCESS, qmr_query_visit(query.get(), visitor, &closing));
    closer.join();
    EXPECT_FALSE(qmr_store_is_open(dir_.storePath().c_str()));
    openShop();
    EXPECT_EQ(4u, count(customersFrom(0)));
}

TEST_F(QueryRunTest, CallsThatMeetAClosingStoreFail) {
    for (int round = 0; round < 20; ++round) {
        const QueryPtr query = customersFrom(0);
        const BuilderPtr b = builder();
        std::atomic<bool> started{false};
        std::thread closer([&] {
            while (!started) std::this_thread::yield();
            close();
        });
        uint64_t number = 0;
        while (qmr_query_count(query.get(), &number) == QMR_SUCCESS &&
               QueryPtr(qmr_query_clone(query.get())) && qmr_qb_type_id(b.get()) != 0 &&
               qmr_qb_null(b.get(), kAge) != 0) {
            EXPECT_EQ(4u, number);
            started = true;
        }
        const qmr_err code = qmr_last_error_code();
        EXPECT_TRUE(code == QMR_ERROR_SHUTTING_DOWN || code == QMR_ERROR_ILLEGAL_STATE)
            << qmr_last_error_message();
        closer.join();
        openShop();
    }
}

TEST_F(QueryRunTest, ParametersReachEachKindOfConditionByPropertyAndByAlias) {
    using Add = qmr_qb_cond (*)(QMR_query_builder*);
    using Set = qmr_err (*)(QMR_query*);
    static const int32_t ages[] = {20, 50};
    static const int64_t points[] = {9};
    static const char* const names[] = {"bob", "Cid"};
    struct Case {
        Add add;
        Set byProperty;
        Set byAlias;
        std::vector<uint64_t> expected;
    };
#define SET(kind, property, ...)                                                        \
    [](QMR_query* q) { return qmr_query_param_##kind(q, 0, property, __VA_ARGS__); },   \
        [](QMR_query* q) { return qmr_query_param_alias_##kind(q, "x", __VA_ARGS__); }
    const Case cases[] = {
        {[](auto* b) { return qmr_qb_equals_string(b, kName, "", false); },
         SET(string, kName, "ANN"), {1, 4}},
        {[](auto* b) { return qmr_qb_in_strings(b, kName, names, 0, true); },
         SET(strings, kName, names, 2), {2, 3}},
        {[](auto* b) { return qmr_qb_equals_int(b, kAge, 0); }, SET(int, kAge, 40), {2}},
        {[](auto* b) { return qmr_qb_between_2ints(b, kAge, 0, 0); },
         SET(2ints, kAge, 40, 30), {1, 2}},
        {[](auto* b) { return qmr_qb_in_int32s(b, kAge, ages, 0); },
         SET(int32s, kAge, ages, 2), {3, 4}},
        {[](auto* b) { return qmr_qb_in_int64s(b, kPoints, points, 0); },
         SET(int64s, kPoints, points, 1), {2}},
        {[](auto* b) { return qmr_qb_greater_than_double(b, kWeight, 1000); },
         SET(double, kWeight, 70.5), {2}},
        {[](auto* b) { return qmr_qb_between_2doubles(b, kWeight, 0, 0); },
         SET(2doubles, kWeight, 60, 75), {1, 3}},
        {[](auto* b) { return qmr_qb_equals_bytes(b, kData, "", 0); },
         SET(bytes, kData, "\x01\x02", 2), {3}},
    };
#undef SET
    for (const Case& test : cases) {
        SCOPED_TRACE(&test - cases);
        const BuilderPtr b = builder();
        test.add(b.get());
        ASSERT_EQ(QMR_SUCCESS, qmr_qb_param_alias(b.get(), "x"));
        const QueryPtr query = build(b);
        const QueryPtr clone(qmr_query_clone(query.get()));
        EXPECT_THAT(ids(query), IsEmpty());
        EXPECT_EQ(QMR_SUCCESS, test.byProperty(query.get())) << qmr_last_error_message();
        EXPECT_EQ(test.expected, ids(query));
        EXPECT_THAT(ids(clone), IsEmpty()) << "independent";
        EXPECT_EQ(QMR_SUCCESS, test.byAlias(clone.get())) << qmr_last_error_message();
        EXPECT_EQ(test.expected, ids(clone));
    }
}

TEST_F(QueryRunTest, ParametersOfLinksNeedTheirEntity) {
    const BuilderPtr b = builder(kOrder);
    qmr_qb_greater_than_double(b.get(), kTotal, 0);
    const BuilderPtr customer(qmr_qb_link_property(b.get(), kCustomerId));
    qmr_qb_equals_int(customer.get(), kAge, 40);
    const QueryPtr query = build(b);
    EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, qmr_query_param_double(query.get(), 0, kTotal, 16));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT,
                            "Can't use automatic entity_id - the query has links. "
                            "Please pass non-zero entity_id."));
    EXPECT_EQ(QMR_SUCCESS, qmr_query_param_int(query.get(), kCustomer, kAge, 30));
    EXPECT_EQ(QMR_SUCCESS, qmr_query_param_double(query.get(), kOrder, kTotal, 16));
    EXPECT_THAT(ids(query), ElementsAre(11));
    EXPECT_EQ(4u, qmr_query_param_get_type_size(query.get(), kCustomer, kAge));
    EXPECT_EQ(8u, qmr_query_param_get_type_size(query.get(), kOrder, kTotal));
}

TEST_F(QueryRunTest, ParametersThatDoNotFitAreRefusedAndChangeNothing) {
    const QueryPtr query = customersFrom(40);
    QMR_query* const q = query.get();
    const int32_t one[] = {1};
    const char* const nullElement[] = {"a", nullptr};
    const auto expectRefused = [&](qmr_err result, qmr_err code, const char* text) {
        EXPECT_EQ(code, result);
        EXPECT_TRUE(lastErrorIs(code, text));
    };
    expectRefused(qmr_query_param_string(q, 0, kAge, "x"), QMR_ERROR_ILLEGAL_ARGUMENT,
                  "does not expect parameter of type string (op: >=)");
    expectRefused(qmr_query_param_2strings(q, 0, kAge, "x", "y"), QMR_ERROR_ILLEGAL_ARGUMENT,
                  "does not expect 2 parameters of type string (op: >=)");
    expectRefused(qmr_query_param_int32s(q, 0, kAge, one, 1), QMR_ERROR_ILLEGAL_ARGUMENT,
                  "Parameter type does not match with condition");
    expectRefused(qmr_query_param_int32s(q, 0, kAge, one, ~size_t{0}), QMR_ERROR_STD_LENGTH, "");
    expectRefused(qmr_query_param_strings(q, 0, kAge, nullElement, 2),
                  QMR_ERROR_ILLEGAL_ARGUMENT, "must not be null");
    expectRefused(qmr_query_param_int(q, 0, kAge, int64_t{1} << 33), QMR_ERROR_NUMERIC_OVERFLOW,
                  "");
    expectRefused(qmr_query_param_double(q, 0, kAge, 2.5), QMR_ERROR_NUMERIC_OVERFLOW, "");
    expectRefused(qmr_query_param_int(q, 0, kPoints, 1), QMR_ERROR_ILLEGAL_ARGUMENT,
                  "Query condition not found for entity 1 property 4");
    expectRefused(qmr_query_param_int(q, 0, 0, 1), QMR_ERROR_ILLEGAL_ARGUMENT,
                  "\"propertyId\" not met (L667)");
    expectRefused(qmr_query_param_alias_int(q, "none", 1), QMR_ERROR_ILLEGAL_ARGUMENT,
                  "Parameter alias unavailable: none");
    EXPECT_EQ(0u, qmr_query_param_alias_get_type_size(q, "none"));
    EXPECT_THAT(ids(query), ElementsAre(2, 3));
}

}  // namespace
}  // namespace quillmere
