#pragma once

// What every loop over Quillmere needs: failures as exceptions, a store, a transaction with a
// cursor.

#include <quillmere/quillmere.h>

#include <cstdint>
#include <stdexcept>
#include <string>

namespace bench {

[[noreturn]] inline void fail() {
    throw std::runtime_error(std::string("Quillmere: ") + qmr_last_error_message());
}
inline void check(qmr_err result) {
    if (result == 0) return;
    if (result == QMR_NOT_FOUND) throw std::runtime_error("Quillmere: object not found");
    fail();
}
template <class T>
T* check(T* result) {
    if (!result) fail();
    return result;
}

// Takes the model.
inline QMR_store* openStore(const std::string& directory, QMR_model* model,
                            uint64_t maxSizeInKb) {
    QMR_store_options* options = check(qmr_opt());
    check(qmr_opt_directory(options, directory.c_str()));
    check(qmr_opt_model(options, model));
    qmr_opt_max_db_size_in_kb(options, maxSizeInKb);
    return check(qmr_store_open(options));
}

// A transaction with a cursor; ends without effect unless committed.
class QuillmereWork {
public:
    QuillmereWork(QMR_store* store, qmr_schema_id entity, bool write)
        : txn_(check(write ? qmr_txn_write(store) : qmr_txn_read(store))),
          cursor_(check(qmr_cursor(txn_, entity))) {}
    ~QuillmereWork() {
        qmr_cursor_close(cursor_);
        qmr_txn_close(txn_);
    }
    QuillmereWork(const QuillmereWork&) = delete;
    QuillmereWork& operator=(const QuillmereWork&) = delete;

    void commit() {
        check(qmr_cursor_close(cursor_));
        cursor_ = nullptr;
        QMR_txn* txn = txn_;
        txn_ = nullptr;
        check(qmr_txn_success(txn));
    }
    QMR_cursor* cursor() const { return cursor_; }

private:
    QMR_txn* txn_;
    QMR_cursor* cursor_;
};

}  // namespace bench
