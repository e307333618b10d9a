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

TEST_F(BadInput, ClosingNothingSucceeds) {
    EXPECT_EQ(QMR_SUCCESS, qmr_store_close(nullptr));
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_close(nullptr));
    EXPECT_EQ(QMR_SUCCESS, qmr_cursor_close(nullptr));
    EXPECT_EQ(QMR_SUCCESS, qmr_observer_close(nullptr));
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
            ASSERT_EQ(QMR_SUCCESS, qmr_remove_db_files(dir_.path().c_str()));
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
