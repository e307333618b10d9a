#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "capi/model.h"
#include "capi/store_fixture.h"
#include "support/seed.h"

namespace quillmere {
namespace {

using BadInput = OpenStoreTest;

struct NullCase {
    const char* argument;  // as the message names it
    const char* call;
    std::function<bool()> fails;  // whether the function gave its failure value
};

// The last error must name the argument; every case has run against an open store.
void expectNamedArguments(const std::vector<NullCase>& cases) {
    for (const NullCase& test : cases) {
        SCOPED_TRACE(test.call);
        qmr_last_error_clear();
        EXPECT_TRUE(test.fails());
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT,
                                std::string("Argument \"") + test.argument +
                                    "\" must not be null (L"));
    }
}

#define STATUS(argument, call) \
    { #argument, #call, [&] { return (call) == QMR_ERROR_ILLEGAL_ARGUMENT; } }
#define VALUE(argument, call) \
    { #argument, #call, [&] { return !(call); } }

TEST_F(BadInput, NullStoreArgumentsAreNamed) {
    QMR_store* const store = store_.get();
    expectNamedArguments({
        VALUE(opt, qmr_store_open(nullptr)),
        VALUE(opt, qmr_store_attach_or_open(nullptr, true, nullptr)),
        VALUE(store, qmr_store_clone(nullptr)),
        VALUE(core_store, qmr_store_wrap(nullptr)),
        STATUS(store, qmr_store_prepare_to_close(nullptr)),
        VALUE(store, qmr_store_id(nullptr)),
        VALUE(store, qmr_store_type_id(nullptr)),
        VALUE(store, qmr_store_size(nullptr)),
        VALUE(store, qmr_store_size_on_disk(nullptr)),
        STATUS(store, qmr_store_debug_flags(nullptr, 0)),
        VALUE(store, qmr_store_opened_with_previous_commit(nullptr)),
        STATUS(store, qmr_store_back_up_to_file(nullptr, "file", 0)),
        STATUS(backup_file, qmr_store_back_up_to_file(store, nullptr, 0)),
        VALUE(store, qmr_store_entity_id(nullptr, "Note")),
        VALUE(entity_name, qmr_store_entity_id(store, nullptr)),
        VALUE(store, qmr_store_entity_property_id(nullptr, kNote, "text")),
        VALUE(property_name, qmr_store_entity_property_id(store, kNote, nullptr)),
        STATUS(directory, qmr_remove_db_files(nullptr)),
        VALUE(store, qmr_weak_store(nullptr)),
        VALUE(weak_store, qmr_weak_store_lock(nullptr)),
        VALUE(store, qmr_txn_read(nullptr)),
        VALUE(store, qmr_txn_write(nullptr)),
        STATUS(txn, qmr_txn_success(nullptr)),
        STATUS(txn, qmr_txn_abort(nullptr)),
        STATUS(txn, qmr_txn_data_size(nullptr, nullptr, nullptr)),
        STATUS(txn, qmr_expired_objects_remove(nullptr, kNote, nullptr)),
        VALUE(store, qmr_observe(nullptr, nullptr, nullptr)),
        VALUE(callback, qmr_observe(store, nullptr, nullptr)),
        VALUE(store, qmr_observe_single_type(nullptr, kNote, nullptr, nullptr)),
        VALUE(callback, qmr_observe_single_type(store, kNote, nullptr, nullptr)),
    });
}

TEST_F(BadInput, NullCursorArgumentsAreNamed) {
    const TxnPtr txn = write();
    const CursorPtr owned(qmr_cursor(txn.get(), kNote));
    QMR_cursor* const cursor = owned.get();
    QMR_cursor* const none = nullptr;
    ObjectBytes object = makeNote(0, "x");
    void* const bytes = object.data();
    const size_t length = object.size();
    const void* data = nullptr;
    size_t size = 0;
    uint64_t number = 0;
    bool flag = false;
    expectNamedArguments({
        VALUE(txn, qmr_cursor(nullptr, kNote)),
        VALUE(cursor, qmr_cursor_id_for_put(none, 0)),
        STATUS(cursor, qmr_cursor_put(none, 1, bytes, length)),
        STATUS(data, qmr_cursor_put(cursor, 1, nullptr, length)),
        STATUS(cursor, qmr_cursor_put_new(none, 1, bytes, length)),
        STATUS(data, qmr_cursor_put_new(cursor, 1, nullptr, length)),
        STATUS(cursor, qmr_cursor_put4(none, 1, bytes, length, 1)),
        STATUS(data, qmr_cursor_put4(cursor, 1, nullptr, length, 1)),
        STATUS(cursor, qmr_cursor_insert(none, 1, bytes, length)),
        STATUS(data, qmr_cursor_insert(cursor, 1, nullptr, length)),
        STATUS(cursor, qmr_cursor_update(none, 1, bytes, length)),
        STATUS(data, qmr_cursor_update(cursor, 1, nullptr, length)),
        VALUE(cursor, qmr_cursor_put_object(none, bytes, length)),
        VALUE(data, qmr_cursor_put_object(cursor, nullptr, length)),
        VALUE(cursor, qmr_cursor_put_object4(none, bytes, length, 1)),
        VALUE(data, qmr_cursor_put_object4(cursor, nullptr, length, 1)),
        STATUS(cursor, qmr_cursor_get(none, 1, &data, &size)),
        STATUS(data, qmr_cursor_get(cursor, 1, nullptr, &size)),
        STATUS(size, qmr_cursor_get(cursor, 1, &data, nullptr)),
        STATUS(cursor, qmr_cursor_first(none, &data, &size)),
        STATUS(data, qmr_cursor_first(cursor, nullptr, &size)),
        STATUS(size, qmr_cursor_first(cursor, &data, nullptr)),
        STATUS(cursor, qmr_cursor_next(none, &data, &size)),
        STATUS(data, qmr_cursor_next(cursor, nullptr, &size)),
        STATUS(size, qmr_cursor_next(cursor, &data, nullptr)),
        STATUS(cursor, qmr_cursor_current(none, &data, &size)),
        STATUS(data, qmr_cursor_current(cursor, nullptr, &size)),
        STATUS(size, qmr_cursor_current(cursor, &data, nullptr)),
        STATUS(cursor, qmr_cursor_seek(none, 1)),
        STATUS(cursor, qmr_cursor_seek_first_id(none, &number)),
        STATUS(cursor, qmr_cursor_seek_next_id(none, &number)),
        STATUS(cursor, qmr_cursor_current_id(none, &number)),
        VALUE(cursor, qmr_cursor_get_all(none)),
        STATUS(cursor, qmr_cursor_remove(none, 1)),
        STATUS(cursor, qmr_cursor_remove_all(none)),
        STATUS(cursor, qmr_cursor_count(none, &number)),
        STATUS(out_count, qmr_cursor_count(cursor, nullptr)),
        STATUS(cursor, qmr_cursor_count_max(none, 1, &number)),
        STATUS(out_count, qmr_cursor_count_max(cursor, 1, nullptr)),
        STATUS(cursor, qmr_cursor_is_empty(none, &flag)),
        STATUS(out_is_empty, qmr_cursor_is_empty(cursor, nullptr)),
        VALUE(cursor, qmr_cursor_backlinks(none, kNote, 1, 1)),
        VALUE(cursor, qmr_cursor_backlink_ids(none, kNote, 1, 1)),
        STATUS(cursor, qmr_cursor_rel_put(none, 1, 1, 1)),
        STATUS(cursor, qmr_cursor_rel_remove(none, 1, 1, 1)),
        VALUE(cursor, qmr_cursor_rel_ids(none, 1, 1)),
        STATUS(cursor, qmr_cursor_ts_min_max(none, nullptr, nullptr, nullptr, nullptr)),
        STATUS(cursor,
               qmr_cursor_ts_min_max_range(none, 0, 0, nullptr, nullptr, nullptr, nullptr)),
    });
}

TEST_F(BadInput, NullKistArgumentsAreNamed) {
    QMR_kist* const kist = notes();
    QMR_kist* const none = nullptr;
    ObjectBytes object = makeNote(0, "x");
    void* const bytes = object.data();
    const size_t length = object.size();
    const void* data = nullptr;
    size_t size = 0;
    uint64_t number = 0;
    bool flag = false;
    const QMR_bytes_array objects{nullptr, 0};
    const QMR_id_array ids{nullptr, 0};
    const auto visitor = [](const void*, size_t, void*) { return true; };
    expectNamedArguments({
        VALUE(store, qmr_kist(nullptr, kNote)),
        VALUE(kist, qmr_kist_store(none)),
        VALUE(kist, qmr_kist_id_for_put(none, 0)),
        STATUS(kist, qmr_kist_ids_for_put(none, 1, &number)),
        STATUS(out_first_id, qmr_kist_ids_for_put(kist, 1, nullptr)),
        STATUS(kist, qmr_kist_put(none, 1, bytes, length)),
        STATUS(data, qmr_kist_put(kist, 1, nullptr, length)),
        STATUS(kist, qmr_kist_put5(none, 1, bytes, length, 1)),
        STATUS(data, qmr_kist_put5(kist, 1, nullptr, length, 1)),
        STATUS(kist, qmr_kist_insert(none, 1, bytes, length)),
        STATUS(data, qmr_kist_insert(kist, 1, nullptr, length)),
        STATUS(kist, qmr_kist_update(none, 1, bytes, length)),
        STATUS(data, qmr_kist_update(kist, 1, nullptr, length)),
        VALUE(kist, qmr_kist_put_object(none, bytes, length)),
        VALUE(data, qmr_kist_put_object(kist, nullptr, length)),
        VALUE(kist, qmr_kist_put_object4(none, bytes, length, 1)),
        VALUE(data, qmr_kist_put_object4(kist, nullptr, length, 1)),
        STATUS(kist, qmr_kist_put_many(none, &objects, &ids, 1)),
        STATUS(objects, qmr_kist_put_many(kist, nullptr, &ids, 1)),
        STATUS(ids, qmr_kist_put_many(kist, &objects, nullptr, 1)),
        STATUS(kist, qmr_kist_put_many5(none, &objects, &ids, 1, false)),
        STATUS(objects, qmr_kist_put_many5(kist, nullptr, &ids, 1, false)),
        STATUS(ids, qmr_kist_put_many5(kist, &objects, nullptr, 1, false)),
        STATUS(kist, qmr_kist_get(none, 1, &data, &size)),
        STATUS(data, qmr_kist_get(kist, 1, nullptr, &size)),
        STATUS(size, qmr_kist_get(kist, 1, &data, nullptr)),
        VALUE(kist, qmr_kist_get_all(none)),
        VALUE(kist, qmr_kist_get_many(none, &ids)),
        VALUE(ids, qmr_kist_get_many(kist, nullptr)),
        STATUS(kist, qmr_kist_visit_all(none, visitor, nullptr)),
        STATUS(visitor, qmr_kist_visit_all(kist, nullptr, nullptr)),
        STATUS(kist, qmr_kist_visit_many(none, &ids, visitor, nullptr)),
        STATUS(ids, qmr_kist_visit_many(kist, nullptr, visitor, nullptr)),
        STATUS(visitor, qmr_kist_visit_many(kist, &ids, nullptr, nullptr)),
        STATUS(kist, qmr_kist_remove(none, 1)),
        STATUS(kist, qmr_kist_remove_many(none, &ids, &number)),
        STATUS(ids, qmr_kist_remove_many(kist, nullptr, &number)),
        STATUS(kist, qmr_kist_remove_all(none, &number)),
        STATUS(kist, qmr_kist_contains(none, 1, &flag)),
        STATUS(out_contains, qmr_kist_contains(kist, 1, nullptr)),
        STATUS(kist, qmr_kist_contains_many(none, &ids, &flag)),
        STATUS(out_contains, qmr_kist_contains_many(kist, &ids, nullptr)),
        STATUS(kist, qmr_kist_count(none, 0, &number)),
        STATUS(out_count, qmr_kist_count(kist, 0, nullptr)),
        STATUS(kist, qmr_kist_is_empty(none, &flag)),
        STATUS(out_is_empty, qmr_kist_is_empty(kist, nullptr)),
        VALUE(kist, qmr_kist_get_backlink_ids(none, 1, 1)),
        STATUS(kist, qmr_kist_rel_put(none, 1, 1, 1)),
        STATUS(kist, qmr_kist_rel_remove(none, 1, 1, 1)),
        VALUE(kist, qmr_kist_rel_get_ids(none, 1, 1)),
        VALUE(kist, qmr_kist_rel_get_backlink_ids(none, 1, 1)),
        STATUS(kist, qmr_kist_ts_min_max(none, nullptr, nullptr, nullptr, nullptr)),
        STATUS(kist, qmr_kist_ts_min_max_range(none, 0, 0, nullptr, nullptr, nullptr, nullptr)),
    });
    EXPECT_EQ(0u, noteCount());
}

TEST_F(BadInput, NullModelArgumentsAreNamed) {
    QMR_model* const none = nullptr;
    std::vector<std::shared_ptr<QMR_model>> models;
    const auto started = [&] {
        models.emplace_back(qmr_model(), qmr_model_free);
        QMR_model* const model = models.back().get();
        qmr_model_entity(model, "City", 1, 11);
        qmr_model_property(model, "id", QMRPropertyType_Long, 1, 101);
        return model;
    };
    expectNamedArguments({
        STATUS(model, qmr_model_error_code(none)),
        VALUE(model, qmr_model_error_message(none)),
        STATUS(model, qmr_model_entity(none, "City", 1, 11)),
        STATUS(name, qmr_model_entity(started(), nullptr, 1, 11)),
        STATUS(model, qmr_model_entity_flags(none, 0)),
        STATUS(model, qmr_model_entity_last_property_id(none, 1, 1)),
        STATUS(model, qmr_model_property(none, "id", 6, 1, 1)),
        STATUS(name, qmr_model_property(started(), nullptr, 6, 2, 102)),
        STATUS(model, qmr_model_property_flags(none, 0)),
        STATUS(model, qmr_model_property_index_id(none, 1, 1)),
        STATUS(model, qmr_model_property_relation(none, "City", 1, 1)),
        STATUS(target_entity, qmr_model_property_relation(started(), nullptr, 1, 1)),
        STATUS(model, qmr_model_property_index_hnsw_dimensions(none, 2)),
        STATUS(model, qmr_model_property_index_hnsw_neighbors_per_node(none, 2)),
        STATUS(model, qmr_model_property_index_hnsw_indexing_search_count(none, 2)),
        STATUS(model, qmr_model_property_index_hnsw_flags(none, 2)),
        STATUS(model, qmr_model_property_index_hnsw_distance_type(none, 2)),
        STATUS(model, qmr_model_property_index_hnsw_reparation_backlink_probability(none, 1)),
        STATUS(model, qmr_model_property_index_hnsw_vector_cache_hint_size_kb(none, 2)),
        STATUS(model, qmr_model_relation(none, 1, 1, 1, 1)),
        {"model", "last_entity_id", [] { qmr_model_last_entity_id(nullptr, 1, 1); return true; }},
        {"model", "last_index_id", [] { qmr_model_last_index_id(nullptr, 1, 1); return true; }},
        {"model", "last_relation_id",
         [] { qmr_model_last_relation_id(nullptr, 1, 1); return true; }},
    });
}

// A builder keeps its first failure, so that each case has one of its own.
TEST_F(BadInput, NullQueryBuilderArgumentsAreNamed) {
    QMR_query_builder* const none = nullptr;
    std::vector<BuilderPtr> builders;
    const auto fresh = [&] {
        builders.emplace_back(qmr_query_builder(store_.get(), kNote));
        return builders.back().get();
    };
    const char* const nullStrings[] = {"a", nullptr};
    constexpr uint32_t kUnknown = 99;  // a property that is looked for after the nulls only
    expectNamedArguments({
        VALUE(store, qmr_query_builder(nullptr, kNote)),
        VALUE(builder, qmr_qb_type_id(none)),
        STATUS(builder, qmr_qb_param_alias(none, "a")),
        STATUS(alias, qmr_qb_param_alias(fresh(), nullptr)),
        VALUE(builder, qmr_qb_all(none, nullptr, 0)),
        VALUE(conditions, qmr_qb_all(fresh(), nullptr, 0)),
        VALUE(builder, qmr_qb_any(none, nullptr, 0)),
        VALUE(conditions, qmr_qb_any(fresh(), nullptr, 0)),
        VALUE(builder, qmr_qb_null(none, 1)),
        VALUE(builder, qmr_qb_not_null(none, 1)),
        VALUE(builder, qmr_qb_equals_int(none, 1, 1)),
        VALUE(builder, qmr_qb_not_equals_int(none, 1, 1)),
        VALUE(builder, qmr_qb_greater_than_int(none, 1, 1)),
        VALUE(builder, qmr_qb_greater_or_equal_int(none, 1, 1)),
        VALUE(builder, qmr_qb_less_than_int(none, 1, 1)),
        VALUE(builder, qmr_qb_less_or_equal_int(none, 1, 1)),
        VALUE(builder, qmr_qb_greater_than_double(none, 1, 1)),
        VALUE(builder, qmr_qb_greater_or_equal_double(none, 1, 1)),
        VALUE(builder, qmr_qb_less_than_double(none, 1, 1)),
        VALUE(builder, qmr_qb_less_or_equal_double(none, 1, 1)),
        VALUE(builder, qmr_qb_between_2ints(none, 1, 1, 2)),
        VALUE(builder, qmr_qb_between_2doubles(none, 1, 1, 2)),
        VALUE(builder, qmr_qb_in_int32s(none, 1, nullptr, 0)),
        VALUE(values, qmr_qb_in_int32s(fresh(), kUnknown, nullptr, 0)),
        VALUE(builder, qmr_qb_not_in_int32s(none, 1, nullptr, 0)),
        VALUE(values, qmr_qb_not_in_int32s(fresh(), kUnknown, nullptr, 0)),
        VALUE(builder, qmr_qb_in_int64s(none, 1, nullptr, 0)),
        VALUE(values, qmr_qb_in_int64s(fresh(), kUnknown, nullptr, 0)),
        VALUE(builder, qmr_qb_not_in_int64s(none, 1, nullptr, 0)),
        VALUE(values, qmr_qb_not_in_int64s(fresh(), kUnknown, nullptr, 0)),
        VALUE(builder, qmr_qb_equals_string(none, 1, "x", true)),
        VALUE(value, qmr_qb_equals_string(fresh(), kUnknown, nullptr, true)),
        VALUE(builder, qmr_qb_not_equals_string(none, 1, "x", true)),
        VALUE(value, qmr_qb_not_equals_string(fresh(), kUnknown, nullptr, true)),
        VALUE(builder, qmr_qb_contains_string(none, 1, "x", true)),
        VALUE(value, qmr_qb_contains_string(fresh(), kUnknown, nullptr, true)),
        VALUE(builder, qmr_qb_starts_with_string(none, 1, "x", true)),
        VALUE(value, qmr_qb_starts_with_string(fresh(), kUnknown, nullptr, true)),
        VALUE(builder, qmr_qb_ends_with_string(none, 1, "x", true)),
        VALUE(value, qmr_qb_ends_with_string(fresh(), kUnknown, nullptr, true)),
        VALUE(builder, qmr_qb_greater_than_string(none, 1, "x", true)),
        VALUE(value, qmr_qb_greater_than_string(fresh(), kUnknown, nullptr, true)),
        VALUE(builder, qmr_qb_greater_or_equal_string(none, 1, "x", true)),
        VALUE(value, qmr_qb_greater_or_equal_string(fresh(), kUnknown, nullptr, true)),
        VALUE(builder, qmr_qb_less_than_string(none, 1, "x", true)),
        VALUE(value, qmr_qb_less_than_string(fresh(), kUnknown, nullptr, true)),
        VALUE(builder, qmr_qb_less_or_equal_string(none, 1, "x", true)),
        VALUE(value, qmr_qb_less_or_equal_string(fresh(), kUnknown, nullptr, true)),
        VALUE(builder, qmr_qb_any_equals_string(none, 1, "x", true)),
        VALUE(value, qmr_qb_any_equals_string(fresh(), kUnknown, nullptr, true)),
        VALUE(builder, qmr_qb_contains_element_string(none, 1, "x", true)),
        VALUE(value, qmr_qb_contains_element_string(fresh(), kUnknown, nullptr, true)),
        VALUE(builder, qmr_qb_contains_key_value_string(none, 1, "k", "v", true)),
        VALUE(key, qmr_qb_contains_key_value_string(fresh(), kUnknown, nullptr, "v", true)),
        VALUE(value, qmr_qb_contains_key_value_string(fresh(), kUnknown, "k", nullptr, true)),
        VALUE(builder, qmr_qb_in_strings(none, 1, nullptr, 0, true)),
        VALUE(values, qmr_qb_in_strings(fresh(), kUnknown, nullptr, 0, true)),
        VALUE(values[i], qmr_qb_in_strings(fresh(), kNoteText, nullStrings, 2, true)),
        VALUE(builder, qmr_qb_equals_bytes(none, 1, "x", 1)),
        VALUE(value, qmr_qb_equals_bytes(fresh(), kUnknown, nullptr, 1)),
        VALUE(builder, qmr_qb_greater_than_bytes(none, 1, "x", 1)),
        VALUE(value, qmr_qb_greater_than_bytes(fresh(), kUnknown, nullptr, 1)),
        VALUE(builder, qmr_qb_greater_or_equal_bytes(none, 1, "x", 1)),
        VALUE(value, qmr_qb_greater_or_equal_bytes(fresh(), kUnknown, nullptr, 1)),
        VALUE(builder, qmr_qb_less_than_bytes(none, 1, "x", 1)),
        VALUE(value, qmr_qb_less_than_bytes(fresh(), kUnknown, nullptr, 1)),
        VALUE(builder, qmr_qb_less_or_equal_bytes(none, 1, "x", 1)),
        VALUE(value, qmr_qb_less_or_equal_bytes(fresh(), kUnknown, nullptr, 1)),
        VALUE(builder, qmr_qb_relation_count_property(none, 1, 1, 1)),
        STATUS(builder, qmr_qb_order(none, 1, 0)),
        VALUE(builder, qmr_qb_link_property(none, 1)),
        VALUE(builder, qmr_qb_backlink_property(none, 1, 1)),
        VALUE(builder, qmr_qb_link_standalone(none, 1)),
        VALUE(builder, qmr_qb_backlink_standalone(none, 1)),
        VALUE(builder, qmr_qb_link_time(none, 1, 1, 1)),
        VALUE(builder, qmr_query(none)),
    });
    EXPECT_EQ(QMR_SUCCESS, qmr_qb_error_code(none));
    EXPECT_EQ(nullptr, qmr_qb_error_message(none));
}

TEST_F(BadInput, NullQueryArgumentsAreNamed) {
    const BuilderPtr builder(qmr_query_builder(store_.get(), kNote));
    const QueryPtr owner(qmr_query(builder.get()));
    QMR_query* const query = owner.get();
    QMR_query* const none = nullptr;
    const TxnPtr txn = read();
    const CursorPtr cursorOwner(qmr_cursor(txn.get(), kNote));
    QMR_cursor* const cursor = cursorOwner.get();
    const auto visitor = [](const void*, size_t, void*) { return true; };
    const auto scores = [](const void*, size_t, double, void*) { return true; };
    const void* data = nullptr;
    size_t size = 0;
    uint64_t number = 0;
    expectNamedArguments({
        VALUE(query, qmr_query_clone(none)),
        STATUS(query, qmr_query_offset(none, 1)),
        STATUS(query, qmr_query_limit(none, 1)),
        STATUS(query, qmr_query_offset_limit(none, 1, 1)),
        STATUS(query, qmr_query_count(none, &number)),
        STATUS(out_count, qmr_query_count(query, nullptr)),
        STATUS(query, qmr_query_cursor_count(none, cursor, &number)),
        STATUS(cursor, qmr_query_cursor_count(query, nullptr, &number)),
        STATUS(out_count, qmr_query_cursor_count(query, cursor, nullptr)),
        VALUE(query, qmr_query_find(none)),
        VALUE(query, qmr_query_find_ids(none)),
        VALUE(query, qmr_query_find_ids_by_score(none)),
        VALUE(query, qmr_query_find_ids_with_scores(none)),
        VALUE(query, qmr_query_find_with_scores(none)),
        VALUE(query, qmr_query_describe(none)),
        VALUE(query, qmr_query_describe_params(none)),
        VALUE(query, qmr_query_cursor_find(none, cursor)),
        VALUE(cursor, qmr_query_cursor_find(query, nullptr)),
        VALUE(query, qmr_query_cursor_find_ids(none, cursor)),
        VALUE(cursor, qmr_query_cursor_find_ids(query, nullptr)),
        STATUS(query, qmr_query_find_first(none, &data, &size)),
        STATUS(data, qmr_query_find_first(query, nullptr, &size)),
        STATUS(size, qmr_query_find_first(query, &data, nullptr)),
        STATUS(query, qmr_query_find_unique(none, &data, &size)),
        STATUS(data, qmr_query_find_unique(query, nullptr, &size)),
        STATUS(size, qmr_query_find_unique(query, &data, nullptr)),
        STATUS(query, qmr_query_visit(none, visitor, nullptr)),
        STATUS(visitor, qmr_query_visit(query, nullptr, nullptr)),
        STATUS(query, qmr_query_cursor_visit(none, cursor, visitor, nullptr)),
        STATUS(cursor, qmr_query_cursor_visit(query, nullptr, visitor, nullptr)),
        STATUS(visitor, qmr_query_cursor_visit(query, cursor, nullptr, nullptr)),
        STATUS(query, qmr_query_visit_with_score(none, scores, nullptr)),
        STATUS(visitor, qmr_query_visit_with_score(query, nullptr, nullptr)),
        STATUS(query, qmr_query_remove(none, &number)),
        STATUS(query, qmr_query_cursor_remove(none, cursor, &number)),
        STATUS(cursor, qmr_query_cursor_remove(query, nullptr, &number)),
        STATUS(query, qmr_query_param_string(none, 1, 1, "x")),
        STATUS(value, qmr_query_param_string(query, 1, 1, nullptr)),
        STATUS(query, qmr_query_param_2strings(none, 1, 1, "x", "y")),
        STATUS(value, qmr_query_param_2strings(query, 1, 1, nullptr, "y")),
        STATUS(value2, qmr_query_param_2strings(query, 1, 1, "x", nullptr)),
        STATUS(query, qmr_query_param_strings(none, 1, 1, nullptr, 0)),
        STATUS(values, qmr_query_param_strings(query, 1, 1, nullptr, 0)),
        STATUS(query, qmr_query_param_int(none, 1, 1, 1)),
        STATUS(query, qmr_query_param_2ints(none, 1, 1, 1, 2)),
        STATUS(query, qmr_query_param_int32s(none, 1, 1, nullptr, 0)),
        STATUS(values, qmr_query_param_int32s(query, 1, 1, nullptr, 0)),
        STATUS(query, qmr_query_param_int64s(none, 1, 1, nullptr, 0)),
        STATUS(values, qmr_query_param_int64s(query, 1, 1, nullptr, 0)),
        STATUS(query, qmr_query_param_double(none, 1, 1, 1)),
        STATUS(query, qmr_query_param_2doubles(none, 1, 1, 1, 2)),
        STATUS(query, qmr_query_param_bytes(none, 1, 1, "x", 1)),
        STATUS(value, qmr_query_param_bytes(query, 1, 1, nullptr, 0)),
        VALUE(query, qmr_query_param_get_type_size(none, 1, 1)),
        STATUS(query, qmr_query_param_alias_string(none, "a", "x")),
        STATUS(alias, qmr_query_param_alias_string(query, nullptr, "x")),
        STATUS(value, qmr_query_param_alias_string(query, "a", nullptr)),
        STATUS(query, qmr_query_param_alias_2strings(none, "a", "x", "y")),
        STATUS(alias, qmr_query_param_alias_2strings(query, nullptr, "x", "y")),
        STATUS(value, qmr_query_param_alias_2strings(query, "a", nullptr, "y")),
        STATUS(value2, qmr_query_param_alias_2strings(query, "a", "x", nullptr)),
        STATUS(query, qmr_query_param_alias_strings(none, "a", nullptr, 0)),
        STATUS(alias, qmr_query_param_alias_strings(query, nullptr, nullptr, 0)),
        STATUS(values, qmr_query_param_alias_strings(query, "a", nullptr, 0)),
        STATUS(query, qmr_query_param_alias_int(none, "a", 1)),
        STATUS(alias, qmr_query_param_alias_int(query, nullptr, 1)),
        STATUS(query, qmr_query_param_alias_2ints(none, "a", 1, 2)),
        STATUS(alias, qmr_query_param_alias_2ints(query, nullptr, 1, 2)),
        STATUS(query, qmr_query_param_alias_int32s(none, "a", nullptr, 0)),
        STATUS(alias, qmr_query_param_alias_int32s(query, nullptr, nullptr, 0)),
        STATUS(values, qmr_query_param_alias_int32s(query, "a", nullptr, 0)),
        STATUS(query, qmr_query_param_alias_int64s(none, "a", nullptr, 0)),
        STATUS(alias, qmr_query_param_alias_int64s(query, nullptr, nullptr, 0)),
        STATUS(values, qmr_query_param_alias_int64s(query, "a", nullptr, 0)),
        STATUS(query, qmr_query_param_alias_double(none, "a", 1)),
        STATUS(alias, qmr_query_param_alias_double(query, nullptr, 1)),
        STATUS(query, qmr_query_param_alias_2doubles(none, "a", 1, 2)),
        STATUS(alias, qmr_query_param_alias_2doubles(query, nullptr, 1, 2)),
        STATUS(query, qmr_query_param_alias_bytes(none, "a", "x", 1)),
        STATUS(alias, qmr_query_param_alias_bytes(query, nullptr, "x", 1)),
        STATUS(value, qmr_query_param_alias_bytes(query, "a", nullptr, 0)),
        VALUE(query, qmr_query_param_alias_get_type_size(none, "a")),
        VALUE(alias, qmr_query_param_alias_get_type_size(query, nullptr)),
    });
}

TEST_F(BadInput, NullPropertyQueryArgumentsAreNamed) {
    const BuilderPtr builder(qmr_query_builder(store_.get(), kNote));
    const QueryPtr query(qmr_query(builder.get()));
    const PropPtr owner(qmr_query_prop(query.get(), kNoteStars));
    QMR_query_prop* const prop = owner.get();
    QMR_query_prop* const none = nullptr;
    uint64_t number = 0;
    int64_t integer = 0;
    double real = 0;
    expectNamedArguments({
        VALUE(query, qmr_query_prop(nullptr, 1)),
        STATUS(prop, qmr_query_prop_distinct(none, true)),
        STATUS(prop, qmr_query_prop_distinct_case(none, true, true)),
        STATUS(prop, qmr_query_prop_count(none, &number)),
        STATUS(out_count, qmr_query_prop_count(prop, nullptr)),
        STATUS(prop, qmr_query_prop_avg(none, &real, nullptr)),
        STATUS(out_average, qmr_query_prop_avg(prop, nullptr, nullptr)),
        STATUS(prop, qmr_query_prop_avg_int(none, &integer, nullptr)),
        STATUS(out_average, qmr_query_prop_avg_int(prop, nullptr, nullptr)),
        STATUS(prop, qmr_query_prop_sum(none, &real, nullptr)),
        STATUS(out_sum, qmr_query_prop_sum(prop, nullptr, nullptr)),
        STATUS(prop, qmr_query_prop_sum_int(none, &integer, nullptr)),
        STATUS(out_sum, qmr_query_prop_sum_int(prop, nullptr, nullptr)),
        STATUS(prop, qmr_query_prop_min(none, &real, nullptr)),
        STATUS(out_minimum, qmr_query_prop_min(prop, nullptr, nullptr)),
        STATUS(prop, qmr_query_prop_min_int(none, &integer, nullptr)),
        STATUS(out_minimum, qmr_query_prop_min_int(prop, nullptr, nullptr)),
        STATUS(prop, qmr_query_prop_max(none, &real, nullptr)),
        STATUS(out_maximum, qmr_query_prop_max(prop, nullptr, nullptr)),
        STATUS(prop, qmr_query_prop_max_int(none, &integer, nullptr)),
        STATUS(out_maximum, qmr_query_prop_max_int(prop, nullptr, nullptr)),
        VALUE(prop, qmr_query_prop_find_strings(none, nullptr)),
        VALUE(prop, qmr_query_prop_find_doubles(none, nullptr)),
        VALUE(prop, qmr_query_prop_find_floats(none, nullptr)),
        VALUE(prop, qmr_query_prop_find_int64s(none, nullptr)),
        VALUE(prop, qmr_query_prop_find_int32s(none, nullptr)),
        VALUE(prop, qmr_query_prop_find_int16s(none, nullptr)),
        VALUE(prop, qmr_query_prop_find_int8s(none, nullptr)),
    });
}

TEST_F(BadInput, ClosingNothingSucceeds) {
    EXPECT_EQ(QMR_SUCCESS, qmr_store_close(nullptr));
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_close(nullptr));
    EXPECT_EQ(QMR_SUCCESS, qmr_cursor_close(nullptr));
    EXPECT_EQ(QMR_SUCCESS, qmr_observer_close(nullptr));
    EXPECT_EQ(QMR_SUCCESS, qmr_qb_close(nullptr));
    EXPECT_EQ(QMR_SUCCESS, qmr_query_close(nullptr));
    EXPECT_EQ(QMR_SUCCESS, qmr_query_prop_close(nullptr));
    EXPECT_EQ(QMR_SUCCESS, qmr_model_free(nullptr));
    qmr_weak_store_free(nullptr);
    EXPECT_TRUE(noLastError());
}

class BadPaths : public StoreTest {
protected:
    // Opening must fail with a code and a message; the options are gone afterwards.
    void expectRefused(QMR_store_options* opt) {
        EXPECT_EQ(nullptr, qmr_store_open(opt));
        EXPECT_NE(QMR_SUCCESS, qmr_last_error_code());
        EXPECT_STRNE("", qmr_last_error_message());
        qmr_last_error_clear();
    }
    QMR_store_options* optionsFor(const std::string& directory) {
        QMR_store_options* opt = qmr_opt();
        qmr_opt_directory(opt, directory.c_str());
        qmr_opt_model(opt, noteModel());
        return opt;
    }
};

TEST_F(BadPaths, ADirectoryThatIsAFile) {
    const std::string file = dir_.path("file");
    std::ofstream(file) << "not a directory";
    expectRefused(optionsFor(file));
    expectRefused(optionsFor(file + "/below"));
    EXPECT_FALSE(qmr_store_is_open(file.c_str()));
    EXPECT_EQ(15u, std::filesystem::file_size(file));
    EXPECT_EQ(QMR_ERROR_IO, qmr_remove_db_files(file.c_str()));
}

TEST_F(BadPaths, AFileThatIsNoDatabase) {
    std::ofstream(dir_.path("data.mdb")) << std::string(8192, 'x');
    expectRefused(optionsFor(dir_.path()));
    EXPECT_EQ(8192u, std::filesystem::file_size(dir_.path("data.mdb"))) << "left as it was";
}

TEST_F(BadPaths, ADirectoryWithoutPermission) {
    if (geteuid() == 0) GTEST_SKIP() << "nothing is forbidden to root";
    std::filesystem::permissions(dir_.path(), std::filesystem::perms::owner_read);
    expectRefused(optionsFor(dir_.path()));
    std::filesystem::permissions(dir_.path(), std::filesystem::perms::owner_all);
}

TEST_F(BadPaths, IllegalOptionValues) {
    using Set = void (*)(QMR_store_options*);
    const std::pair<Set, const char*> cases[] = {
        {[](auto* opt) { qmr_opt_max_db_size_in_kb(opt, 0); }, "Size option may not be zero"},
        {[](auto* opt) { qmr_opt_max_data_size_in_kb(opt, ~uint64_t{0}); },
         "Maximum data size option must not exceed the maximum DB size"},
        {[](auto* opt) { qmr_opt_file_mode(opt, 0); }, "File mode option may not be zero"},
        {[](auto* opt) { qmr_opt_file_mode(opt, 0755); },
         "File mode may not include any executable flags"},
        {[](auto* opt) { qmr_opt_put_padding_mode(opt, 0x10001); },
         "Illegal put padding mode:65537"},
        {[](auto* opt) { qmr_opt_backup_restore(opt, "", 1); },
         "Backup restore flags given, but no backup file"},
        {[](auto* opt) { qmr_opt_read_schema(opt, false); },
         "Read schema option must be set when using a model"},
    };
    for (const auto& [set, text] : cases) {
        QMR_store_options* opt = options();
        set(opt);
        EXPECT_EQ(nullptr, qmr_store_open(opt));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, text));
    }
    EXPECT_FALSE(std::filesystem::exists(dir_.path("data.mdb"))) << "nothing was opened";
}

TEST_F(BadPaths, AnIllegalFileModeLeavesNoDirectoryBehind) {
    const std::string directory = dir_.path("new");
    QMR_store_options* opt = optionsFor(directory);
    qmr_opt_file_mode(opt, 0);
    EXPECT_EQ(nullptr, qmr_store_open(opt));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, "File mode option may not be zero"));
    EXPECT_FALSE(std::filesystem::exists(directory));
}

class DamagedModels : public BadPaths {
protected:
    void SetUp() override {
        BadPaths::SetUp();
        const std::unique_ptr<QMR_model, qmr_err (*)(QMR_model*)> model(noteModel(),
                                                                        qmr_model_free);
        model->builder.finish();
        const auto* data = static_cast<const uint8_t*>(model->builder.data());
        whole_.assign(data, data + model->builder.size());
    }
    // Whether a store opens with the bytes; a refusal has a code and a message.
    bool opens(const std::vector<uint8_t>& bytes) {
        QMR_store_options* opt = options(false);
        EXPECT_EQ(QMR_SUCCESS, qmr_opt_model_bytes(opt, bytes.data(), bytes.size()));
        const StorePtr store(qmr_store_open(opt));
        if (store) return true;
        EXPECT_NE(QMR_SUCCESS, qmr_last_error_code());
        EXPECT_STRNE("", qmr_last_error_message());
        return false;
    }

    std::vector<uint8_t> whole_;
};

TEST_F(DamagedModels, TruncatedBytesAreRefused) {
    constexpr size_t kPadding = 7;  // at the end, at most
    for (size_t size = 1; size < whole_.size() - kPadding; ++size) {
        EXPECT_FALSE(opens({whole_.begin(), whole_.begin() + size})) << size;
    }
    EXPECT_TRUE(opens(whole_));
}

TEST_F(DamagedModels, FlippedAndRandomBytesNeverHarmTheStore) {
    const uint32_t seed = testSeed();
    std::mt19937 random(seed);
    bool fresh = true;
    for (int round = 0; round < 200; ++round) {
        if (fresh) {
            ASSERT_EQ(QMR_SUCCESS, qmr_remove_db_files(dir_.storePath().c_str()));
            open();
            ASSERT_EQ(1u, putNote("safe"));
            close();
        }
        std::vector<uint8_t> bytes = whole_;
        if (round % 4 == 0) {
            bytes.resize(1 + random() % 512);
            for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
        } else {
            bytes[random() % bytes.size()] ^= static_cast<uint8_t>(1 + random() % 255);
        }
        fresh = opens(bytes);  // then it was a good model of another kind, and has migrated
        if (fresh) continue;
        store_.reset(qmr_store_open(options(false)));
        ASSERT_TRUE(store_) << qmr_last_error_message();
        ASSERT_EQ("safe", noteText(1));
        close();
    }
}

}  // namespace
}  // namespace quillmere
