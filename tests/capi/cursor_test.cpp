#include <string>
#include <vector>

#include "capi/store_fixture.h"

namespace quillmere {
namespace {

constexpr uint64_t kLongId = 4294967296;  // the first ID with the long key

// A write transaction with a cursor on notes.
class CursorFunctions : public OpenStoreTest {
protected:
    void SetUp() override {
        OpenStoreTest::SetUp();
        txn_ = write();
        cursor_.reset(qmr_cursor(txn_.get(), kNote));
        ASSERT_TRUE(cursor_);
    }
    void TearDown() override {
        cursor_.reset();
        txn_.reset();
    }

    QMR_cursor* cursor() { return cursor_.get(); }
    qmr_err put(uint64_t id, const std::string& text) {
        const ObjectBytes object = makeNote(id, text);
        return qmr_cursor_put(cursor(), id, object.data(), object.size());
    }
    // The text of the object that a read function hands out, or the code.
    template <class Read, class... Id>
    std::string textOf(Read read, Id... id) {
        const void* data = nullptr;
        size_t size = 0;
        const qmr_err code = read(cursor(), id..., &data, &size);
        if (code != QMR_SUCCESS) return "code " + std::to_string(code);
        EXPECT_GT(size, 0u);
        return objectText(data, kNoteText);
    }
    std::string get(uint64_t id) { return textOf(qmr_cursor_get, id); }
    std::string next() { return textOf(qmr_cursor_next); }
    uint64_t count(uint64_t max = 0) {
        uint64_t count = ~uint64_t{0};
        EXPECT_EQ(QMR_SUCCESS, qmr_cursor_count_max(cursor(), max, &count));
        return count;
    }

    TxnPtr txn_;
    CursorPtr cursor_;
};

TEST_F(CursorFunctions, PutModesObeyWhatExists) {
    const ObjectBytes object = makeNote(1, "1");
    const auto call = [&](auto put, uint64_t id, auto... mode) {
        return put(cursor(), id, object.data(), object.size(), mode...);
    };
    EXPECT_EQ(QMR_ERROR_ID_NOT_FOUND, call(qmr_cursor_update, 1));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ID_NOT_FOUND, "Update failed, given ID doesn't exist: 1"));
    EXPECT_EQ(QMR_SUCCESS, call(qmr_cursor_insert, 1));
    EXPECT_EQ(QMR_ERROR_ID_ALREADY_EXISTS, call(qmr_cursor_insert, 1));
    EXPECT_TRUE(
        lastErrorIs(QMR_ERROR_ID_ALREADY_EXISTS, "Insert failed, given ID already exists: 1"));
    EXPECT_EQ(QMR_SUCCESS, put(1, "other"));
    EXPECT_EQ(QMR_SUCCESS, call(qmr_cursor_update, 1));
    EXPECT_EQ("1", get(1));

    EXPECT_EQ(QMR_SUCCESS, call(qmr_cursor_put_new, 2));
    for (int32_t mode = QMRPutMode_Put; mode <= QMRPutMode_PutIdGuaranteedToBeNew; ++mode) {
        const uint64_t id = mode == QMRPutMode_Update ? 2 : 10 + mode;
        EXPECT_EQ(QMR_SUCCESS, call(qmr_cursor_put4, id, mode));
        EXPECT_EQ("1", get(id));
    }
    for (const int32_t mode : {0, 5, -1}) {
        EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, call(qmr_cursor_put4, 3, mode));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT,
                                "Illegal put mode: " + std::to_string(mode)));
    }
    EXPECT_EQ(5u, count());
}

TEST_F(CursorFunctions, PutObjectDrawsIdsAndWritesThemIntoTheBuffer) {
    ObjectBytes object = makeNote(0, "zero");
    EXPECT_EQ(1u, qmr_cursor_put_object(cursor(), object.data(), object.size()));
    EXPECT_EQ(1u, objectValue<uint64_t>(object.data(), 1));
    object = makeNote(~uint64_t{0}, "all ones");
    EXPECT_EQ(2u, qmr_cursor_put_object(cursor(), object.data(), object.size()));
    EXPECT_EQ(2u, objectValue<uint64_t>(object.data(), 1));
    object = makeNote(1, "again");
    EXPECT_EQ(1u, qmr_cursor_put_object4(cursor(), object.data(), object.size(),
                                         QMRPutMode_Update));
    EXPECT_EQ("again", get(1));
    EXPECT_TRUE(noLastError());

    // With a mode that refuses the ID, 0 comes back.
    EXPECT_EQ(0u, qmr_cursor_put_object4(cursor(), object.data(), object.size(),
                                         QMRPutMode_Insert));
    object = makeNote(0, "no ID to update");
    EXPECT_EQ(0u, qmr_cursor_put_object4(cursor(), object.data(), object.size(),
                                         QMRPutMode_Update));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT,
                            "Putting object failed because ID is not set (zero)"));
    object = makeNote(77, "beyond the sequence");
    EXPECT_EQ(0u, qmr_cursor_put_object(cursor(), object.data(), object.size()));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT,
                            "ID is higher or equal to internal ID sequence: 77 (vs. 3)"));
    EXPECT_EQ(3u, qmr_cursor_id_for_put(cursor(), 0));
    EXPECT_EQ(2u, qmr_cursor_id_for_put(cursor(), 2));
    EXPECT_EQ(2u, count());
}

TEST_F(CursorFunctions, WalkByIncreasingIdShortIdsFirst) {
    for (const uint64_t id : {kLongId, uint64_t{7}, kLongId - 1, kLongId + 1, uint64_t{2}}) {
        EXPECT_EQ(QMR_SUCCESS, put(id, std::to_string(id)));
    }
    const std::vector<std::string> order = {"2", "7", "4294967295", "4294967296", "4294967297"};
    std::vector<std::string> walked;
    for (std::string text = textOf(qmr_cursor_first); text.rfind("code", 0) != 0; text = next()) {
        EXPECT_EQ(text, textOf(qmr_cursor_current));
        walked.push_back(text);
    }
    EXPECT_EQ(order, walked);

    std::vector<std::string> byId;
    qmr_id id = 0;
    for (qmr_err code = qmr_cursor_seek_first_id(cursor(), &id); code == QMR_SUCCESS;
         code = qmr_cursor_seek_next_id(cursor(), &id)) {
        byId.push_back(std::to_string(id));
    }
    EXPECT_EQ(order, byId);

    const BytesArrayPtr all(qmr_cursor_get_all(cursor()));
    ASSERT_EQ(order.size(), all->count);
    for (size_t i = 0; i < all->count; ++i) {
        EXPECT_EQ(order[i], objectText(all->bytes[i].data, kNoteText));
    }
}

TEST_F(CursorFunctions, SeekAndCurrentIdFollowThePosition) {
    put(5, "five");
    put(9, "nine");
    qmr_id id = 0;
    EXPECT_EQ(QMR_SUCCESS, qmr_cursor_seek(cursor(), 5));
    EXPECT_EQ(QMR_SUCCESS, qmr_cursor_current_id(cursor(), &id));
    EXPECT_EQ(5u, id);
    EXPECT_EQ("nine", next());
    EXPECT_EQ(QMR_SUCCESS, qmr_cursor_current_id(cursor(), nullptr));
    EXPECT_EQ("code 404", next());
    EXPECT_EQ(QMR_SUCCESS, qmr_cursor_current_id(cursor(), &id));
    EXPECT_EQ(~uint64_t{0}, id) << "behind the last object";
    EXPECT_EQ(QMR_NOT_FOUND, qmr_cursor_seek(cursor(), 6));
    EXPECT_EQ("nine", next()) << "a step after a missed seek continues from the key asked for";
    EXPECT_EQ(QMR_SUCCESS, qmr_cursor_seek_first_id(cursor(), nullptr));
    EXPECT_EQ(QMR_SUCCESS, qmr_cursor_seek_next_id(cursor(), nullptr));
    EXPECT_TRUE(noLastError());
}

TEST_F(CursorFunctions, NotFoundLeavesOutParametersAlone) {
    int marker = 0;
    const void* data = &marker;
    size_t size = 12345;
    qmr_id id = 77;
    EXPECT_EQ(QMR_NOT_FOUND, qmr_cursor_get(cursor(), 1, &data, &size));
    EXPECT_EQ(QMR_NOT_FOUND, qmr_cursor_first(cursor(), &data, &size));
    EXPECT_EQ(QMR_NOT_FOUND, qmr_cursor_next(cursor(), &data, &size));
    EXPECT_EQ(QMR_NOT_FOUND, qmr_cursor_seek(cursor(), 1));
    EXPECT_EQ(QMR_NOT_FOUND, qmr_cursor_seek_first_id(cursor(), &id));
    EXPECT_EQ(QMR_NOT_FOUND, qmr_cursor_seek_next_id(cursor(), &id));
    EXPECT_EQ(QMR_NOT_FOUND, qmr_cursor_remove(cursor(), 1));
    EXPECT_EQ(&marker, data);
    EXPECT_EQ(12345u, size);
    EXPECT_EQ(77u, id);
    EXPECT_TRUE(noLastError());
    const CursorPtr fresh(qmr_cursor(txn_.get(), kNote));
    EXPECT_EQ(QMR_NOT_FOUND, qmr_cursor_current_id(fresh.get(), &id));
    EXPECT_EQ(77u, id);
}

TEST_F(CursorFunctions, CountAndRemove) {
    bool empty = false;
    EXPECT_EQ(QMR_SUCCESS, qmr_cursor_is_empty(cursor(), &empty));
    EXPECT_TRUE(empty);
    for (uint64_t id = 1; id <= 10; ++id) put(id, "x");
    put(kLongId, "long");
    const CursorPtr tags(qmr_cursor(txn_.get(), kTag));
    EXPECT_EQ(QMR_SUCCESS, qmr_cursor_is_empty(tags.get(), &empty));
    EXPECT_TRUE(empty) << "another entity";
    EXPECT_EQ(11u, count());
    EXPECT_EQ(3u, count(3));
    EXPECT_EQ(11u, count(100));
    EXPECT_EQ(QMR_SUCCESS, qmr_cursor_is_empty(cursor(), &empty));
    EXPECT_FALSE(empty);

    EXPECT_EQ(QMR_SUCCESS, qmr_cursor_remove(cursor(), 4));
    EXPECT_EQ(QMR_NOT_FOUND, qmr_cursor_remove(cursor(), 4));
    EXPECT_EQ(QMR_SUCCESS, qmr_cursor_remove(cursor(), kLongId));
    EXPECT_EQ(9u, count());
    EXPECT_EQ(QMR_SUCCESS, qmr_cursor_remove_all(cursor()));
    EXPECT_EQ(0u, count());
    const BytesArrayPtr all(qmr_cursor_get_all(cursor()));
    ASSERT_TRUE(all);
    EXPECT_EQ(0u, all->count);
}

TEST_F(CursorFunctions, IllegalIdsAreRefusedEverywhere) {
    const ObjectBytes object = makeNote(1, "x");
    const void* data = nullptr;
    size_t size = 0;
    for (const uint64_t id : {uint64_t{0}, ~uint64_t{0}}) {
        const auto expectRefused = [&](auto call, auto... arguments) {
            EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, call(cursor(), id, arguments...));
            EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT,
                                    "Illegal ID value: " + std::to_string(id)));
        };
        for (const auto put :
             {qmr_cursor_put, qmr_cursor_put_new, qmr_cursor_insert, qmr_cursor_update}) {
            expectRefused(put, object.data(), object.size());
        }
        expectRefused(qmr_cursor_get, &data, &size);
        expectRefused(qmr_cursor_seek);
        expectRefused(qmr_cursor_remove);
    }
    EXPECT_EQ(0u, count());
    EXPECT_EQ(nullptr, qmr_cursor(txn_.get(), 99));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_SCHEMA, "Entity type ID not found in schema: 99"));
}

TEST_F(CursorFunctions, BadObjectsAreRefused) {
    ObjectBytes noId = makeObject({{kNoteText, std::string("no ID field")}});
    EXPECT_EQ(0u, qmr_cursor_put_object(cursor(), noId.data(), noId.size()));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, "No ID value found in the given data"));
    const ObjectBytes whole = makeNote(0, "cut short");
    for (size_t size = 0; size < whole.size(); ++size) {
        ObjectBytes cut(whole.begin(), whole.begin() + size);
        cut.reserve(1);  // a non-null pointer also for size 0
        if (qmr_cursor_put_object(cursor(), cut.data(), size) == 0) {
            EXPECT_NE(QMR_SUCCESS, qmr_last_error_code()) << size;
        }
        qmr_last_error_clear();
    }
}

TEST_F(CursorFunctions, ReadCursorsDoNotWrite) {
    put(1, "kept");
    cursor_.reset();
    ASSERT_EQ(QMR_SUCCESS, qmr_txn_success(txn_.release()));
    txn_ = read();
    cursor_.reset(qmr_cursor(txn_.get(), kNote));
    ObjectBytes object = makeNote(0, "x");
    EXPECT_NE(QMR_SUCCESS, put(1, "changed"));
    EXPECT_EQ(0u, qmr_cursor_put_object(cursor(), object.data(), object.size()));
    EXPECT_EQ(0u, qmr_cursor_id_for_put(cursor(), 0));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_GENERAL, "Cannot put in read transaction"));
    EXPECT_NE(QMR_SUCCESS, qmr_cursor_remove(cursor(), 1));
    EXPECT_NE(QMR_SUCCESS, qmr_cursor_remove_all(cursor()));
    EXPECT_EQ("kept", get(1));
}

TEST_F(CursorFunctions, CursorsMayCloseAfterTheirTransaction) {
    put(1, "x");
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_success(txn_.release()));
    EXPECT_EQ(QMR_SUCCESS, qmr_cursor_close(cursor_.release()));
    txn_ = read();
    cursor_.reset(qmr_cursor(txn_.get(), kNote));
    txn_.reset();
    EXPECT_EQ(QMR_SUCCESS, qmr_cursor_close(cursor_.release()));
}

TEST_F(CursorFunctions, TimeSeriesAreNotInThisBuild) {
    const auto expectMissing = [](auto minMax, auto... handleAndRange) {
        EXPECT_EQ(QMR_ERROR_FEATURE_NOT_AVAILABLE,
                  minMax(handleAndRange..., nullptr, nullptr, nullptr, nullptr));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_FEATURE_NOT_AVAILABLE,
                                "Feature 'TimeSeries' is not available in this edition."));
    };
    expectMissing(qmr_cursor_ts_min_max, cursor());
    expectMissing(qmr_cursor_ts_min_max_range, cursor(), 0, 1);
    expectMissing(qmr_kist_ts_min_max, notes());
    expectMissing(qmr_kist_ts_min_max_range, notes(), 0, 1);
}

}  // namespace
}  // namespace quillmere
