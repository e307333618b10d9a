#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "capi/model.h"
#include "capi/store_fixture.h"
#include "support/seed.h"

namespace quillmere {
namespace {

class NullArguments : public OpenStoreTest {
protected:
    // Calls each function with each named argument null and all others given. The names are those
    // of the messages, by position; "-" stands for what is no pointer or may be null.
    template <qmr_err kFailure = QMR_ERROR_ILLEGAL_ARGUMENT, class... Functions>
    void expectNamed(const std::string& names, Functions... functions) {
        int number = 0;
        const auto expectOne = [&](auto function) {
            SCOPED_TRACE(names + ", function " + std::to_string(++number));
            expectNulls<kFailure>(names, function);
        };
        (expectOne(functions), ...);
    }
    template <qmr_err kFailure, class R, class... P>
    void expectNulls(const std::string& names, R (*function)(P...)) {
        std::istringstream words(names);
        std::string name;
        size_t i = 0;
        for (; words >> name; ++i) {
            if (name == "-") continue;
            std::tuple<P...> arguments{sample<P>()...};
            setNull(arguments, i);
            qmr_last_error_clear();
            if constexpr (std::is_void_v<R>) {
                std::apply(function, arguments);
            } else if constexpr (std::is_same_v<R, qmr_err>) {
                EXPECT_EQ(kFailure, std::apply(function, arguments)) << name;
            } else {
                EXPECT_FALSE(std::apply(function, arguments)) << name;
            }
            EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT,
                                    "Argument \"" + name + "\" must not be null (L"));
        }
        EXPECT_EQ(sizeof...(P), i);
    }

    template <class T>
    T sample() {
        if constexpr (std::is_same_v<T, qmr_schema_id>) {
            return 99;  // of nothing: it is looked for after the nulls only
        } else if constexpr (std::is_arithmetic_v<T>) {
            return T{1};  // also an ID and a put mode
        } else if constexpr (std::is_function_v<std::remove_pointer_t<T>>) {
            return reinterpret_cast<T>(&neverCalled);
        } else {
            return given(T{});
        }
    }
    static void neverCalled() {}
    QMR_store* given(QMR_store*) { return store_.get(); }
    QMR_txn* given(QMR_txn*) { return txn_.get(); }
    QMR_cursor* given(QMR_cursor*) { return cursor_.get(); }
    QMR_kist* given(QMR_kist*) { return notes(); }
    QMR_query* given(QMR_query*) { return query_.get(); }
    QMR_query_prop* given(QMR_query_prop*) { return prop_.get(); }
    const char* given(const char*) { return "x"; }
    // A builder and a model keep their first failure, so that each call gets one of its own.
    QMR_query_builder* given(QMR_query_builder*) {
        builder_.reset(qmr_query_builder(store_.get(), kNote));
        return builder_.get();
    }
    QMR_model* given(QMR_model*) {
        model_.reset(qmr_model());
        qmr_model_entity(model_.get(), "City", 1, 11);
        qmr_model_property(model_.get(), "id", QMRPropertyType_Long, 1, 101);
        return model_.get();
    }
    // Anything else is memory: bytes of an object, room for a result, an empty array.
    template <class T>
    T* given(T*) {
        return reinterpret_cast<T*>(memory_);
    }

    template <class Arguments>
    static void setNull(Arguments& arguments, size_t index) {
        auto reset = [&, at = size_t{0}](auto& argument) mutable {
            if (at++ == index) argument = {};
        };
        std::apply([&](auto&... argument) { (reset(argument), ...); }, arguments);
    }

    TxnPtr txn_;
    CursorPtr cursor_;
    BuilderPtr builder_;
    QueryPtr query_;
    PropPtr prop_;
    ModelPtr model_;
    alignas(std::max_align_t) std::byte memory_[64] = {};
};

TEST_F(NullArguments, OfStoresAndTransactionsAreNamed) {
    txn_ = read();
    expectNamed("opt", qmr_store_open);
    expectNamed("opt - -", qmr_store_attach_or_open);
    expectNamed("core_store", qmr_store_wrap);
    expectNamed("store", qmr_store_clone, qmr_store_prepare_to_close, qmr_store_id, qmr_store_size,
                qmr_store_size_on_disk, qmr_store_type_id, qmr_store_opened_with_previous_commit,
                qmr_weak_store, qmr_txn_read, qmr_txn_write);
    expectNamed("store -", qmr_store_debug_flags);
    expectNamed("store backup_file -", qmr_store_back_up_to_file);
    expectNamed("store entity_name", qmr_store_entity_id);
    expectNamed("store - property_name", qmr_store_entity_property_id);
    expectNamed("directory", qmr_remove_db_files);
    expectNamed("weak_store", qmr_weak_store_lock);
    expectNamed("txn", qmr_txn_success, qmr_txn_abort);
    expectNamed("txn - -", qmr_txn_data_size, qmr_expired_objects_remove);
    expectNamed("store callback -", qmr_observe);
    expectNamed("store - callback -", qmr_observe_single_type);
}

TEST_F(NullArguments, OfCursorsAreNamed) {
    txn_ = write();
    cursor_.reset(qmr_cursor(txn_.get(), kNote));
    expectNamed("txn -", qmr_cursor);
    expectNamed("cursor -", qmr_cursor_id_for_put, qmr_cursor_seek, qmr_cursor_remove,
                qmr_cursor_seek_first_id, qmr_cursor_seek_next_id, qmr_cursor_current_id);
    expectNamed("cursor - data -", qmr_cursor_put, qmr_cursor_put_new, qmr_cursor_insert,
                qmr_cursor_update);
    expectNamed("cursor - data - -", qmr_cursor_put4);
    expectNamed("cursor data -", qmr_cursor_put_object);
    expectNamed("cursor data - -", qmr_cursor_put_object4);
    expectNamed("cursor - data size", qmr_cursor_get);
    expectNamed("cursor data size", qmr_cursor_first, qmr_cursor_next, qmr_cursor_current);
    expectNamed("cursor", qmr_cursor_get_all, qmr_cursor_remove_all);
    expectNamed("cursor out_count", qmr_cursor_count);
    expectNamed("cursor - out_count", qmr_cursor_count_max);
    expectNamed("cursor out_is_empty", qmr_cursor_is_empty);
    expectNamed("cursor - - -", qmr_cursor_backlinks, qmr_cursor_backlink_ids, qmr_cursor_rel_put,
                qmr_cursor_rel_remove);
    expectNamed("cursor - -", qmr_cursor_rel_ids);
    expectNamed("cursor - - - -", qmr_cursor_ts_min_max);
    expectNamed("cursor - - - - - -", qmr_cursor_ts_min_max_range);
}

TEST_F(NullArguments, OfKistsAreNamed) {
    expectNamed("store -", qmr_kist);
    expectNamed("kist", qmr_kist_store, qmr_kist_get_all);
    expectNamed("kist -", qmr_kist_id_for_put, qmr_kist_remove, qmr_kist_remove_all);
    expectNamed("kist - out_first_id", qmr_kist_ids_for_put);
    expectNamed("kist - data -", qmr_kist_put, qmr_kist_insert, qmr_kist_update);
    expectNamed("kist - data - -", qmr_kist_put5);
    expectNamed("kist data -", qmr_kist_put_object);
    expectNamed("kist data - -", qmr_kist_put_object4);
    expectNamed("kist objects ids -", qmr_kist_put_many);
    expectNamed("kist objects ids - -", qmr_kist_put_many5);
    expectNamed("kist - data size", qmr_kist_get);
    expectNamed("kist ids", qmr_kist_get_many);
    expectNamed("kist visitor -", qmr_kist_visit_all);
    expectNamed("kist ids visitor -", qmr_kist_visit_many);
    expectNamed("kist ids -", qmr_kist_remove_many);
    expectNamed("kist - out_contains", qmr_kist_contains, qmr_kist_contains_many);
    expectNamed("kist - out_count", qmr_kist_count);
    expectNamed("kist out_is_empty", qmr_kist_is_empty);
    expectNamed("kist - -", qmr_kist_get_backlink_ids, qmr_kist_rel_get_ids,
                qmr_kist_rel_get_backlink_ids);
    expectNamed("kist - - -", qmr_kist_rel_put, qmr_kist_rel_remove);
    expectNamed("kist - - - -", qmr_kist_ts_min_max);
    expectNamed("kist - - - - - -", qmr_kist_ts_min_max_range);
    EXPECT_EQ(0u, noteCount());
}

TEST_F(NullArguments, OfModelsAreNamed) {
    expectNamed("model", qmr_model_error_code, qmr_model_error_message);
    expectNamed("model name - -", qmr_model_entity);
    expectNamed("model name - - -", qmr_model_property);
    expectNamed("model target_entity - -", qmr_model_property_relation);
    expectNamed("model -", qmr_model_entity_flags, qmr_model_property_flags,
                qmr_model_property_index_hnsw_neighbors_per_node,
                qmr_model_property_index_hnsw_indexing_search_count,
                qmr_model_property_index_hnsw_flags, qmr_model_property_index_hnsw_distance_type,
                qmr_model_property_index_hnsw_dimensions,
                qmr_model_property_index_hnsw_vector_cache_hint_size_kb,
                qmr_model_property_index_hnsw_reparation_backlink_probability);
    expectNamed("model - -", qmr_model_entity_last_property_id, qmr_model_property_index_id,
                qmr_model_last_entity_id, qmr_model_last_index_id, qmr_model_last_relation_id);
    expectNamed("model - - - -", qmr_model_relation);
}

TEST_F(NullArguments, OfQueryBuildersAreNamed) {
    expectNamed("store -", qmr_query_builder);
    expectNamed("builder", qmr_qb_type_id, qmr_query);
    expectNamed("builder alias", qmr_qb_param_alias);
    expectNamed("builder - -", qmr_qb_order, qmr_qb_backlink_property);
    expectNamed("builder -", qmr_qb_link_property, qmr_qb_link_standalone,
                qmr_qb_backlink_standalone);
    expectNamed("builder - - -", qmr_qb_link_time);
    expectNamed<0>("builder conditions -", qmr_qb_all, qmr_qb_any);
    expectNamed<0>("builder -", qmr_qb_null, qmr_qb_not_null);
    expectNamed<0>("builder - -", qmr_qb_equals_int, qmr_qb_not_equals_int, qmr_qb_greater_than_int,
                   qmr_qb_greater_or_equal_int, qmr_qb_less_than_int, qmr_qb_less_or_equal_int,
                   qmr_qb_greater_than_double, qmr_qb_greater_or_equal_double,
                   qmr_qb_less_than_double, qmr_qb_less_or_equal_double);
    expectNamed<0>("builder - - -", qmr_qb_between_2ints, qmr_qb_between_2doubles,
                   qmr_qb_relation_count_property);
    expectNamed<0>("builder - values -", qmr_qb_in_int32s, qmr_qb_not_in_int32s, qmr_qb_in_int64s,
                   qmr_qb_not_in_int64s);
    expectNamed<0>("builder - value -", qmr_qb_equals_string, qmr_qb_not_equals_string,
                   qmr_qb_contains_string, qmr_qb_starts_with_string, qmr_qb_ends_with_string,
                   qmr_qb_greater_than_string, qmr_qb_greater_or_equal_string,
                   qmr_qb_less_than_string, qmr_qb_less_or_equal_string, qmr_qb_any_equals_string,
                   qmr_qb_contains_element_string, qmr_qb_equals_bytes, qmr_qb_greater_than_bytes,
                   qmr_qb_greater_or_equal_bytes, qmr_qb_less_than_bytes,
                   qmr_qb_less_or_equal_bytes);
    expectNamed<0>("builder - key value -", qmr_qb_contains_key_value_string);
    expectNamed<0>("builder - values - -", qmr_qb_in_strings);
    const char* const holed[] = {"a", nullptr};
    EXPECT_EQ(0, qmr_qb_in_strings(sample<QMR_query_builder*>(), kNoteText, holed, 2, true));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, "\"values[i]\" must not be null"));
    EXPECT_EQ(QMR_SUCCESS, qmr_qb_error_code(nullptr));
    EXPECT_EQ(nullptr, qmr_qb_error_message(nullptr));
}

TEST_F(NullArguments, OfQueriesAreNamed) {
    query_.reset(qmr_query(sample<QMR_query_builder*>()));
    prop_.reset(qmr_query_prop(query_.get(), kNoteStars));
    txn_ = read();
    cursor_.reset(qmr_cursor(txn_.get(), kNote));
    expectNamed("query", qmr_query_clone, qmr_query_find_ids, qmr_query_find_ids_by_score,
                qmr_query_find, qmr_query_find_ids_with_scores, qmr_query_find_with_scores,
                qmr_query_describe, qmr_query_describe_params);
    expectNamed("query -", qmr_query_offset, qmr_query_limit, qmr_query_remove, qmr_query_prop);
    expectNamed("query - -", qmr_query_offset_limit, qmr_query_param_get_type_size);
    expectNamed("query out_count", qmr_query_count);
    expectNamed("query cursor out_count", qmr_query_cursor_count);
    expectNamed("query cursor", qmr_query_cursor_find, qmr_query_cursor_find_ids);
    expectNamed("query data size", qmr_query_find_first, qmr_query_find_unique);
    expectNamed("query visitor -", qmr_query_visit, qmr_query_visit_with_score);
    expectNamed("query cursor visitor -", qmr_query_cursor_visit);
    expectNamed("query cursor -", qmr_query_cursor_remove);
    expectNamed("query - - value", qmr_query_param_string);
    expectNamed("query - - value value2", qmr_query_param_2strings);
    expectNamed("query - - values -", qmr_query_param_strings, qmr_query_param_int32s,
                qmr_query_param_int64s);
    expectNamed("query - - -", qmr_query_param_int, qmr_query_param_double);
    expectNamed("query - - - -", qmr_query_param_2ints, qmr_query_param_2doubles);
    expectNamed("query - - value -", qmr_query_param_bytes);
    expectNamed("query alias value", qmr_query_param_alias_string);
    expectNamed("query alias value value2", qmr_query_param_alias_2strings);
    expectNamed("query alias values -", qmr_query_param_alias_strings, qmr_query_param_alias_int32s,
                qmr_query_param_alias_int64s);
    expectNamed("query alias -", qmr_query_param_alias_int, qmr_query_param_alias_double);
    expectNamed("query alias - -", qmr_query_param_alias_2ints, qmr_query_param_alias_2doubles);
    expectNamed("query alias value -", qmr_query_param_alias_bytes);
    expectNamed("query alias", qmr_query_param_alias_get_type_size);
    expectNamed("prop -", qmr_query_prop_distinct, qmr_query_prop_find_strings,
                qmr_query_prop_find_doubles, qmr_query_prop_find_floats, qmr_query_prop_find_int64s,
                qmr_query_prop_find_int32s, qmr_query_prop_find_int16s, qmr_query_prop_find_int8s);
    expectNamed("prop - -", qmr_query_prop_distinct_case);
    expectNamed("prop out_count", qmr_query_prop_count);
    expectNamed("prop out_average -", qmr_query_prop_avg, qmr_query_prop_avg_int);
    expectNamed("prop out_sum -", qmr_query_prop_sum, qmr_query_prop_sum_int);
    expectNamed("prop out_minimum -", qmr_query_prop_min, qmr_query_prop_min_int);
    expectNamed("prop out_maximum -", qmr_query_prop_max, qmr_query_prop_max_int);
}

TEST(NullHandles, AreClosedAndFreedWithoutAWord) {
    const auto closeAll = [](auto... close) {
        for (const qmr_err result : {close(nullptr)...}) EXPECT_EQ(QMR_SUCCESS, result);
    };
    const auto freeAll = [](auto... free) { (free(nullptr), ...); };
    qmr_last_error_clear();
    closeAll(qmr_store_close, qmr_txn_close, qmr_cursor_close, qmr_observer_close, qmr_qb_close,
             qmr_query_close, qmr_query_prop_close, qmr_model_free, qmr_opt_free);
    freeAll(qmr_weak_store_free, qmr_bytes_free, qmr_bytes_array_free, qmr_bytes_lazy_free,
            qmr_id_array_free, qmr_bytes_score_array_free, qmr_id_score_array_free,
            qmr_string_array_free, qmr_int64_array_free, qmr_int32_array_free,
            qmr_int16_array_free, qmr_int8_array_free, qmr_double_array_free,
            qmr_float_array_free);
    EXPECT_TRUE(noLastError());
}

class BadOpens : public StoreTest {
protected:
    // Opening must fail with a code and a message; the options are gone afterwards.
    static void expectRefused(QMR_store_options* opt) {
        EXPECT_EQ(nullptr, qmr_store_open(opt));
        EXPECT_STRNE("", qmr_last_error_message());
        EXPECT_FALSE(noLastError());
    }
    static QMR_store_options* optionsFor(const std::string& directory) {
        QMR_store_options* opt = qmr_opt();
        qmr_opt_directory(opt, directory.c_str());
        qmr_opt_model(opt, noteModel());
        return opt;
    }
};

TEST_F(BadOpens, ADirectoryThatIsAFile) {
    const std::string file = dir_.path("file");
    std::ofstream(file) << "not a directory";
    expectRefused(optionsFor(file));
    expectRefused(optionsFor(file + "/below"));
    EXPECT_FALSE(qmr_store_is_open(file.c_str()));
    EXPECT_EQ(15u, std::filesystem::file_size(file));
    EXPECT_EQ(QMR_ERROR_IO, qmr_remove_db_files(file.c_str()));
}

TEST_F(BadOpens, AFileThatIsNoDatabase) {
    if (!TempDir::onLmdb()) GTEST_SKIP() << "another provider leaves the file alone";
    std::ofstream(dir_.path("data.mdb")) << std::string(8192, 'x');
    expectRefused(options());
    EXPECT_EQ(8192u, std::filesystem::file_size(dir_.path("data.mdb"))) << "left as it was";
}

TEST_F(BadOpens, ADirectoryWithoutPermission) {
    if (geteuid() == 0) GTEST_SKIP() << "nothing is forbidden to root";
    std::filesystem::permissions(dir_.path(), std::filesystem::perms::owner_read);
    expectRefused(options());
    std::filesystem::permissions(dir_.path(), std::filesystem::perms::owner_all);
}

TEST_F(BadOpens, ReadOnlyWithoutADatabase) {
    if (!TempDir::onFiles()) GTEST_SKIP() << "a name in memory is as good as its empty data";
    QMR_store_options* opt = options(false);
    qmr_opt_read_only(opt, true);
    expectRefused(opt);
}

TEST_F(BadOpens, IllegalOptionsLeaveNoDirectoryBehind) {
    using Set = void (*)(QMR_store_options*);
    const std::string directory = dir_.path("new");
    const std::pair<Set, const char*> cases[] = {
        {[](auto* opt) { qmr_opt_max_db_size_in_kb(opt, 0); }, "Size option may not be zero"},
        {[](auto* opt) { qmr_opt_max_data_size_in_kb(opt, ~uint64_t{0}); },
         "Maximum data size option must not exceed the maximum DB size"},
        {[](auto* opt) { qmr_opt_file_mode(opt, 0); }, "File mode option may not be zero"},
        {[](auto* opt) { qmr_opt_file_mode(opt, 0755); },
         "File mode may not include any executable flags"},
        {[](auto* opt) { qmr_opt_put_padding_mode(opt, 0x10001); },
         "Illegal put padding mode:65537"},
        {[](auto* opt) { qmr_opt_put_padding_mode(opt, 0), qmr_opt_file_mode(opt, 0111); },
         "Illegal put padding mode:0"},  // the first failure in order is the one told
        {[](auto* opt) { qmr_opt_backup_restore(opt, "b", 0), qmr_opt_read_only(opt, true); },
         "Cannot restore a backup in read-only mode"},
        {[](auto* opt) { qmr_opt_backup_restore(opt, "", 1); },
         "Backup restore flags given, but no backup file"},
        {[](auto* opt) { qmr_opt_directory(opt, nullptr); },
         "An error had occurred before during setting options"},
    };
    for (const auto& [set, text] : cases) {
        QMR_store_options* opt = optionsFor(directory);
        set(opt);
        EXPECT_EQ(nullptr, qmr_store_open(opt));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, text));
    }
    EXPECT_FALSE(std::filesystem::exists(directory));
    QMR_store_options* opt = options();
    qmr_opt_read_schema(opt, false);
    EXPECT_EQ(nullptr, qmr_store_open(opt));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT,
                            "Read schema option must be set when using a model"));
    EXPECT_FALSE(std::filesystem::exists(dir_.path("data.mdb"))) << "nothing was opened";
}

TEST_F(BadOpens, DamagedModelBytesNeverHarmTheStore) {
    const ModelPtr model(noteModel());
    model->builder.finish();
    const auto* const data = static_cast<const uint8_t*>(model->builder.data());
    const std::vector<uint8_t> whole(data, data + model->builder.size());
    std::mt19937 random(testSeed());
    bool migrated = true;
    for (int round = 0; round < 200; ++round) {
        if (migrated) {
            ASSERT_EQ(QMR_SUCCESS, qmr_remove_db_files(dir_.storePath().c_str()));
            open();
            ASSERT_EQ(1u, putNote("safe"));
            close();
        }
        std::vector<uint8_t> bytes = whole;
        if (round % 4 == 0) {
            bytes.resize(1 + random() % 512);
            for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
        } else {
            bytes[random() % bytes.size()] ^= static_cast<uint8_t>(1 + random() % 255);
        }
        QMR_store_options* opt = options(false);
        EXPECT_EQ(QMR_SUCCESS, qmr_opt_model_bytes(opt, bytes.data(), bytes.size()));
        migrated = StorePtr(qmr_store_open(opt)) != nullptr;  // a good model of another kind
        if (migrated) continue;
        EXPECT_STRNE("", qmr_last_error_message());
        EXPECT_FALSE(noLastError());
        store_.reset(qmr_store_open(options(false)));
        ASSERT_TRUE(store_) << qmr_last_error_message();
        ASSERT_EQ("safe", noteText(1));
        close();
    }
}

}  // namespace
}  // namespace quillmere
