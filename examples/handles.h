#pragma once

// The C interface with the comforts of C++: failures become exceptions, handles close themselves.

#include <quillmere/quillmere.h>

#include <memory>
#include <stdexcept>
#include <string>

[[noreturn]] inline void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + qmr_last_error_message() + " (code " +
                             std::to_string(qmr_last_error_code()) + ")");
}

// For functions that return a status. Where "not found" is a usual answer, look at it instead.
inline void check(qmr_err status, const char* what) {
    if (status == QMR_NOT_FOUND) throw std::runtime_error(std::string(what) + ": not found");
    if (status != QMR_SUCCESS) fail(what);
}

// For functions that return a handle, or null on failure.
template <class T>
T* check(T* handle, const char* what) {
    if (!handle) fail(what);
    return handle;
}

// A failed close cannot be reported from a destructor; where it matters, close by hand.
struct Closer {
    void operator()(QMR_store* store) const { qmr_store_close(store); }
    void operator()(QMR_txn* txn) const { qmr_txn_close(txn); }
    void operator()(QMR_cursor* cursor) const { qmr_cursor_close(cursor); }
    void operator()(QMR_observer* observer) const { qmr_observer_close(observer); }
    void operator()(QMR_query_builder* builder) const { qmr_qb_close(builder); }
    void operator()(QMR_query* query) const { qmr_query_close(query); }
    void operator()(QMR_query_prop* prop) const { qmr_query_prop_close(prop); }
    void operator()(QMR_bytes_array* array) const { qmr_bytes_array_free(array); }
    void operator()(QMR_id_array* array) const { qmr_id_array_free(array); }
};
using Store = std::unique_ptr<QMR_store, Closer>;
using Txn = std::unique_ptr<QMR_txn, Closer>;
using Cursor = std::unique_ptr<QMR_cursor, Closer>;
using Observer = std::unique_ptr<QMR_observer, Closer>;
using QueryBuilder = std::unique_ptr<QMR_query_builder, Closer>;
using Query = std::unique_ptr<QMR_query, Closer>;
using PropertyQuery = std::unique_ptr<QMR_query_prop, Closer>;
using ObjectArray = std::unique_ptr<QMR_bytes_array, Closer>;
using IdArray = std::unique_ptr<QMR_id_array, Closer>;

inline Txn beginRead(const Store& store) {
    return Txn(check(qmr_txn_read(store.get()), "begin a read transaction"));
}
// Closed without commit(), a write transaction leaves no trace.
inline Txn beginWrite(const Store& store) {
    return Txn(check(qmr_txn_write(store.get()), "begin a write transaction"));
}
// Takes the transaction whether it succeeds or not. Cursors on it must be closed before.
inline void commit(Txn txn) { check(qmr_txn_success(txn.release()), "commit"); }

inline Cursor openCursor(const Txn& txn, qmr_schema_id entity) {
    return Cursor(check(qmr_cursor(txn.get(), entity), "open a cursor"));
}
