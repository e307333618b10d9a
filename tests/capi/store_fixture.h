#pragma once

// A store in a temporary directory with two entities, and handles that close themselves.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "quillmere/quillmere.h"
#include "support/model.h"
#include "support/object.h"
#include "support/temp_dir.h"

namespace quillmere {

template <auto kClose>
struct Closer {
    template <class T>
    void operator()(T* handle) const {
        kClose(handle);
    }
};
using StorePtr = std::unique_ptr<QMR_store, Closer<qmr_store_close>>;
using TxnPtr = std::unique_ptr<QMR_txn, Closer<qmr_txn_close>>;
using CursorPtr = std::unique_ptr<QMR_cursor, Closer<qmr_cursor_close>>;
using WeakStorePtr = std::unique_ptr<QMR_weak_store, Closer<qmr_weak_store_free>>;
using ModelPtr = std::unique_ptr<QMR_model, Closer<qmr_model_free>>;
using OptionsPtr = std::unique_ptr<QMR_store_options, Closer<qmr_opt_free>>;
using ObserverPtr = std::unique_ptr<QMR_observer, Closer<qmr_observer_close>>;
using BuilderPtr = std::unique_ptr<QMR_query_builder, Closer<qmr_qb_close>>;
using QueryPtr = std::unique_ptr<QMR_query, Closer<qmr_query_close>>;
using PropPtr = std::unique_ptr<QMR_query_prop, Closer<qmr_query_prop_close>>;
using BytesArrayPtr = std::unique_ptr<QMR_bytes_array, Closer<qmr_bytes_array_free>>;
using IdArrayPtr = std::unique_ptr<QMR_id_array, Closer<qmr_id_array_free>>;

// Whether the thread's last error is `code` with `text` in its message. Clears it.
inline testing::AssertionResult lastErrorIs(qmr_err code, const std::string& text) {
    const qmr_err actual = qmr_last_error_code();
    const std::string message = qmr_last_error_message();
    qmr_last_error_clear();
    if (actual == code && message.find(text) != std::string::npos) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "last error is " << actual << ": \"" << message << "\"";
}

inline testing::AssertionResult noLastError() {
    return lastErrorIs(QMR_SUCCESS, "");
}

constexpr uint32_t kNote = 1;       // IDs from the sequence
constexpr uint32_t kNoteText = 2;   // String
constexpr uint32_t kNoteStars = 3;  // Long
constexpr uint32_t kTag = 2;        // IDs chosen by the caller
constexpr uint32_t kTagName = 2;    // String

inline ObjectBytes makeNote(uint64_t id, const std::string& text, int64_t stars = 0) {
    return makeObject({{1, id}, {kNoteText, text}, {kNoteStars, stars}});
}

inline QMR_model* noteModel() {
    return TestModel()
        .entity("Note", kNote)
        .idProperty()
        .property("text", QMRPropertyType_String, kNoteText)
        .property("stars", QMRPropertyType_Long, kNoteStars)
        .entity("Tag", kTag)
        .idProperty(QMRPropertyFlags_ID_SELF_ASSIGNABLE)
        .property("name", QMRPropertyType_String, kTagName)
        .release();
}

class StoreTest : public testing::Test {
protected:
    void SetUp() override { qmr_last_error_clear(); }

    // Options for the test's directory, with the model unless told otherwise.
    QMR_store_options* options(bool withModel = true) {
        QMR_store_options* opt = qmr_opt();
        qmr_opt_directory(opt, dir_.storePath().c_str());
        if (withModel) qmr_opt_model(opt, noteModel());
        return opt;
    }

    void open() {
        store_.reset(qmr_store_open(options()));
        ASSERT_TRUE(store_) << qmr_last_error_message();
    }
    void close() { store_.reset(); }
    void reopen() {
        close();
        open();
    }

    QMR_kist* notes() { return qmr_kist(store_.get(), kNote); }
    QMR_kist* tags() { return qmr_kist(store_.get(), kTag); }
    TxnPtr read() { return TxnPtr(qmr_txn_read(store_.get())); }
    TxnPtr write() { return TxnPtr(qmr_txn_write(store_.get())); }

    uint64_t putNote(const std::string& text, int64_t stars = 0) {
        ObjectBytes object = makeNote(0, text, stars);
        return qmr_kist_put_object(notes(), object.data(), object.size());
    }
    // The text of a note, or "(none)".
    std::string noteText(uint64_t id) {
        const TxnPtr txn = read();
        const void* data = nullptr;
        size_t size = 0;
        if (qmr_kist_get(notes(), id, &data, &size) != QMR_SUCCESS) return "(none)";
        return objectText(data, kNoteText);
    }
    uint64_t noteCount() {
        uint64_t count = ~uint64_t{0};
        EXPECT_EQ(QMR_SUCCESS, qmr_kist_count(notes(), 0, &count));
        return count;
    }

    TempDir dir_;
    StorePtr store_;
};

class OpenStoreTest : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        open();
    }
};

}  // namespace quillmere
