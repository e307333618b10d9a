#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "capi/store_fixture.h"
#include "store/object_store.h"

namespace quillmere {
namespace {

using StoreFunctions = StoreTest;
using OpenStoreFunctions = OpenStoreTest;

TEST_F(OpenStoreFunctions, RefuseASecondOpenOfThePathAndLeaveTheStoreAlone) {
    EXPECT_EQ(nullptr, qmr_store_open(options()));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE,
                            "Cannot open store: another store is still open using the same path"));
    EXPECT_NE(0u, putNote("still here"));
}

TEST_F(OpenStoreFunctions, AnyOneHandleKeepsTheStoreOpen) {
    const uint64_t id = putNote("shared");
    const uint64_t storeId = qmr_store_id(store_.get());
    EXPECT_NE(0u, storeId);
    bool attached = false;
    const WeakStorePtr weak(qmr_weak_store(store_.get()));
    const WeakStorePtr weakById(qmr_weak_store_by_id(storeId));
    ASSERT_TRUE(weak && weakById);
    StorePtr handles[] = {
        StorePtr(qmr_store_attach_or_open(options(), true, &attached)),
        StorePtr(qmr_store_attach(dir_.storePath().c_str())),
        StorePtr(qmr_store_attach_id(storeId)),
        StorePtr(qmr_store_clone(store_.get())),
        StorePtr(qmr_weak_store_lock(weak.get())),
    };
    EXPECT_TRUE(attached);
    for (StorePtr& handle : handles) {
        ASSERT_TRUE(handle) << qmr_last_error_message();
        store_ = std::move(handle);  // closes the one before
        EXPECT_EQ(storeId, qmr_store_id(store_.get()));
        EXPECT_EQ("shared", noteText(id));
        EXPECT_TRUE(qmr_store_is_open(dir_.storePath().c_str()));
    }

    close();
    EXPECT_FALSE(qmr_store_is_open(dir_.storePath().c_str()));
    EXPECT_EQ(nullptr, qmr_store_attach(dir_.storePath().c_str()));
    EXPECT_EQ(nullptr, qmr_store_attach_id(storeId));
    EXPECT_EQ(nullptr, qmr_weak_store_lock(weak.get()));
    EXPECT_EQ(nullptr, qmr_weak_store_lock(weakById.get()));
    EXPECT_EQ(nullptr, qmr_weak_store_by_id(storeId));
    EXPECT_TRUE(noLastError());
    store_.reset(qmr_store_attach_or_open(options(), true, &attached));
    ASSERT_TRUE(store_);
    EXPECT_FALSE(attached);
    EXPECT_GT(qmr_store_id(store_.get()), storeId);
    EXPECT_EQ("shared", noteText(id));
}

TEST_F(OpenStoreFunctions, CompareOptionsBeforeAttaching) {
    for (const bool check : {true, false}) {
        QMR_store_options* const differing = options();
        qmr_opt_read_only(differing, true);
        bool attached = false;
        const StorePtr store(qmr_store_attach_or_open(differing, check, &attached));
        EXPECT_EQ(check, !store);
        EXPECT_EQ(!check, attached) << "left alone by a failure";
        if (!check) continue;
        EXPECT_TRUE(lastErrorIs(
            QMR_ERROR_ILLEGAL_STATE,
            "Given options do not match the existing open store at the same path: read-only"));
    }
}

TEST_F(StoreFunctions, TakeANullDirectoryForTheDefaultOne) {
    if (!TempDir::onLmdb()) GTEST_SKIP() << "the default directory has no prefix";
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(dir_.path());
    EXPECT_EQ(nullptr, qmr_store_attach(nullptr));
    EXPECT_TRUE(noLastError());
    QMR_store_options* opt = qmr_opt();
    qmr_opt_model(opt, noteModel());
    store_.reset(qmr_store_open(opt));
    const StorePtr attached(qmr_store_attach(nullptr));
    EXPECT_TRUE(attached);
    EXPECT_TRUE(qmr_store_is_open(nullptr));
    EXPECT_GT(qmr_db_file_size(nullptr), 0u);
    std::filesystem::current_path(before);
    EXPECT_TRUE(qmr_store_is_open(dir_.path("quillmere").c_str()));
}

TEST_F(StoreFunctions, WrappedStoresAreOnlyBorrowed) {
    QMR_store_options* opt = options();
    StorePtr schemaWriter(qmr_store_open(opt));
    schemaWriter.reset();
    StoreOptions core;
    core.directory = dir_.storePath();
    const std::unique_ptr<ObjectStore> owned = ObjectStore::create(core);

    store_.reset(qmr_store_wrap(owned.get()));
    ASSERT_TRUE(store_);
    EXPECT_NE(0u, putNote("borrowed"));
    EXPECT_EQ(nullptr, qmr_store_clone(store_.get()));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "Shared store instance is unavailable"));
    const WeakStorePtr weak(qmr_weak_store(store_.get()));
    EXPECT_EQ(nullptr, qmr_weak_store_lock(weak.get()));
    EXPECT_TRUE(noLastError());

    close();
    EXPECT_FALSE(owned->closed());
    owned->prepareToClose();
    EXPECT_EQ(nullptr, qmr_store_wrap(owned.get()));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, "Store is not open"));
}

TEST_F(OpenStoreFunctions, AClosingStoreFinishesWhatRunsAndRefusesTheRest) {
    TxnPtr txn = write();
    const CursorPtr cursor(qmr_cursor(txn.get(), kNote));
    QMR_kist* kist = notes();
    EXPECT_EQ(QMR_SUCCESS, qmr_store_prepare_to_close(store_.get()));
    const ObjectBytes object = makeNote(1, "last");
    EXPECT_EQ(QMR_SUCCESS, qmr_cursor_put(cursor.get(), 1, object.data(), object.size()));
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_success(txn.release()));

    EXPECT_EQ(nullptr, qmr_txn_write(store_.get()));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_SHUTTING_DOWN, "Store is closing"));
    EXPECT_EQ(QMR_ERROR_SHUTTING_DOWN, qmr_kist_put(kist, 1, object.data(), object.size()));
    uint64_t count = 7;
    EXPECT_EQ(QMR_ERROR_SHUTTING_DOWN, qmr_kist_count(kist, 0, &count));
    EXPECT_EQ(7u, count);
    EXPECT_EQ(nullptr, qmr_kist_store(kist));
    EXPECT_EQ(nullptr, qmr_observe(store_.get(), [](void*, const qmr_schema_id*, size_t) {},
                                   nullptr));
    qmr_last_error_clear();
}

TEST_F(OpenStoreFunctions, LookUpIdsByName) {
    EXPECT_EQ(kTag, qmr_store_entity_id(store_.get(), "Tag"));
    EXPECT_EQ(kNoteStars, qmr_store_entity_property_id(store_.get(), kNote, "stars"));
    EXPECT_TRUE(noLastError());

    EXPECT_EQ(0u, qmr_store_entity_id(store_.get(), "tag"));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_SCHEMA_OBJECT_NOT_FOUND, "Entity 'tag' not found"));
    EXPECT_EQ(0u, qmr_store_entity_property_id(store_.get(), kTag, "stars"));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_SCHEMA_OBJECT_NOT_FOUND,
                            "Property 'stars' not found in the given entity ID 2"));
    EXPECT_EQ(0u, qmr_store_entity_property_id(store_.get(), 99, "stars"));
    EXPECT_NE(QMR_SUCCESS, qmr_last_error_code());
}

TEST_F(StoreFunctions, WithoutASchemaHaveNoEntities) {
    store_.reset(qmr_store_open(options(false)));
    ASSERT_TRUE(store_);
    EXPECT_EQ(0u, qmr_store_entity_id(store_.get(), "Note"));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "No schema set on store"));
    EXPECT_EQ(nullptr, qmr_kist(store_.get(), kNote));
    EXPECT_NE(QMR_SUCCESS, qmr_last_error_code());
    const TxnPtr txn = read();
    EXPECT_EQ(nullptr, qmr_cursor(txn.get(), kNote));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "No schema set on store"));
}

TEST_F(OpenStoreFunctions, TellTypeAndSizes) {
    EXPECT_EQ(TempDir::onLmdb() ? 1u : TempDir::onFiles() ? 3u : 2u,
              qmr_store_type_id(store_.get()));
    TxnPtr txn = write();
    std::mt19937 random;  // a log would compress repeated bytes
    for (int i = 0; i < 500; ++i) {
        std::string text(200, ' ');
        for (char& c : text) c = static_cast<char>('a' + random() % 26);
        putNote(text);
    }
    ASSERT_EQ(QMR_SUCCESS, qmr_txn_success(txn.release()));
    const uint64_t onDisk = qmr_store_size_on_disk(store_.get());
    EXPECT_GT(qmr_store_size(store_.get()), 100000u);
    if (TempDir::onFiles()) {
        EXPECT_GT(onDisk, 100000u);
        EXPECT_EQ(onDisk, qmr_db_file_size(dir_.storePath().c_str()));
    } else {
        EXPECT_EQ(0u, onDisk);
        EXPECT_EQ(qmr_store_size(store_.get()), qmr_db_file_size(dir_.storePath().c_str()));
    }
    EXPECT_EQ(0u, qmr_db_file_size(dir_.storePath("none").c_str()));
    EXPECT_EQ(QMR_SUCCESS, qmr_store_debug_flags(store_.get(), 0));
    EXPECT_TRUE(noLastError());
    EXPECT_EQ(QMR_ERROR_FEATURE_NOT_AVAILABLE,
              qmr_store_back_up_to_file(store_.get(), dir_.path("backup").c_str(), 0));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_FEATURE_NOT_AVAILABLE,
                            "Feature 'Backup' is not available in this edition."));
}

TEST_F(StoreFunctions, RegisterADefaultType) {
    EXPECT_EQ(QMR_SUCCESS, qmr_store_type_id_register_default(1));
    for (const uint32_t illegal : {0u, 4u, ~0u}) {
        EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, qmr_store_type_id_register_default(illegal));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT,
                                "Illegal store type ID: " + std::to_string(illegal)));
    }
}

TEST_F(OpenStoreFunctions, ReadOnlyStoresRefuseWrites) {
    const uint64_t id = putNote("kept");
    close();
    QMR_store_options* opt = options();
    qmr_opt_read_only(opt, true);
    store_.reset(qmr_store_open(opt));
    ASSERT_TRUE(store_) << qmr_last_error_message();
    EXPECT_EQ("kept", noteText(id));
    EXPECT_EQ(nullptr, qmr_txn_write(store_.get()));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE,
                            "Cannot start a write transaction from read only store"));
    EXPECT_EQ(0u, putNote("refused"));
    EXPECT_EQ(1u, noteCount());
}

TEST_F(OpenStoreFunctions, ThePreviousCommitComesBack) {
    if (!TempDir::onLmdb()) GTEST_SKIP() << "the data in memory has no previous commit";
    const uint64_t first = putNote("first");
    const uint64_t second = putNote("second");
    close();
    QMR_store_options* opt = options();
    qmr_opt_use_previous_commit(opt, true);
    store_.reset(qmr_store_open(opt));
    ASSERT_TRUE(store_) << qmr_last_error_message();
    EXPECT_TRUE(qmr_store_opened_with_previous_commit(store_.get()));
    EXPECT_EQ("first", noteText(first));
    EXPECT_EQ("(none)", noteText(second));

    EXPECT_EQ(second, putNote("instead"));
    reopen();
    EXPECT_FALSE(qmr_store_opened_with_previous_commit(store_.get()));
    EXPECT_EQ("instead", noteText(second));
}

TEST_F(OpenStoreFunctions, RemovingTheFilesFreesThePathAlsoOfAnOpenStore) {
    putNote("of the old store");
    EXPECT_EQ(QMR_SUCCESS, qmr_remove_db_files(dir_.storePath().c_str()));
    EXPECT_FALSE(qmr_store_is_open(dir_.storePath().c_str()));
    StorePtr old(store_.release());
    open();
    EXPECT_EQ(0u, noteCount());
    uint64_t oldCount = 0;
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_count(qmr_kist(old.get(), kNote), 0, &oldCount));
    EXPECT_EQ(1u, oldCount);
    old.reset();
    close();
    for (int i = 0; i < 2; ++i) {  // the second time nothing is left to remove
        EXPECT_EQ(QMR_SUCCESS, qmr_remove_db_files(dir_.storePath().c_str()));
        EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
    }
}

TEST_F(StoreFunctions, TheDataSizeIsLimited) {
    QMR_store_options* opt = options();
    qmr_opt_max_data_size_in_kb(opt, 4);
    store_.reset(qmr_store_open(opt));
    ASSERT_TRUE(store_) << qmr_last_error_message();
    const uint64_t kept = putNote(std::string(2000, 'a'));
    ASSERT_NE(0u, kept);

    TxnPtr txn = write();
    EXPECT_NE(0u, putNote(std::string(3000, 'b')));
    EXPECT_EQ(QMR_ERROR_MAX_DATA_SIZE_EXCEEDED, qmr_txn_success(txn.release()));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_MAX_DATA_SIZE_EXCEEDED,
                            "Exceeded user-set maximum by [bytes]: "));
    EXPECT_EQ(1u, noteCount());

    txn = write();
    uint64_t committed = 0;
    int64_t change = -1;
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_data_size(txn.get(), &committed, &change));
    EXPECT_GT(committed, 2000u);
    EXPECT_EQ(0, change);
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_remove(notes(), kept));
    EXPECT_NE(0u, putNote(std::string(3000, 'c')));
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_data_size(txn.get(), nullptr, &change));
    EXPECT_GT(change, 900);
    EXPECT_LT(change, 1100);
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_success(txn.release()));
    EXPECT_EQ(1u, noteCount());
}

TEST_F(OpenStoreFunctions, ChangedModelsMigrateTheData) {
    const uint64_t id = putNote("renamed soon", 5);
    const ObjectBytes tag = makeObject({{1, uint64_t{7}}, {kTagName, std::string("old")}});
    ASSERT_EQ(QMR_SUCCESS, qmr_kist_put(tags(), 7, tag.data(), tag.size()));
    close();

    // "stars" becomes "rating", "author" is new, Tag goes.
    QMR_store_options* opt = options(false);
    ASSERT_EQ(QMR_SUCCESS, qmr_opt_model(opt, TestModel()
                                                  .entity("Note", kNote)
                                                  .idProperty()
                                                  .property("text", QMRPropertyType_String, 2)
                                                  .property("rating", QMRPropertyType_Long, 3)
                                                  .property("author", QMRPropertyType_String, 4)
                                                  .lastEntityId(kTag)
                                                  .release()));
    store_.reset(qmr_store_open(opt));
    ASSERT_TRUE(store_) << qmr_last_error_message();
    EXPECT_EQ(3u, qmr_store_entity_property_id(store_.get(), kNote, "rating"));
    EXPECT_EQ(4u, qmr_store_entity_property_id(store_.get(), kNote, "author"));
    EXPECT_EQ(0u, qmr_store_entity_property_id(store_.get(), kNote, "stars"));
    EXPECT_EQ(0u, qmr_store_entity_id(store_.get(), "Tag"));
    EXPECT_EQ("renamed soon", noteText(id));
    EXPECT_EQ(nullptr, tags());

    // The schema is in the database: no model is needed to open it.
    close();
    store_.reset(qmr_store_open(options(false)));
    ASSERT_TRUE(store_);
    EXPECT_EQ("renamed soon", noteText(id));
}

TEST_F(OpenStoreFunctions, ARefusedModelChangesNothing) {
    const uint64_t id = putNote("safe");
    close();
    QMR_store_options* opt = options(false);
    ASSERT_EQ(QMR_SUCCESS, qmr_opt_model(opt, TestModel()
                                                  .entity("Note", kNote)
                                                  .idProperty()
                                                  .property("text", QMRPropertyType_Int, 2)
                                                  .lastEntityId(kTag)
                                                  .release()));
    EXPECT_EQ(nullptr, qmr_store_open(opt));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_SCHEMA, ""));
    open();
    EXPECT_EQ("safe", noteText(id));
    EXPECT_EQ(kTag, qmr_store_entity_id(store_.get(), "Tag"));
}

}  // namespace
}  // namespace quillmere
