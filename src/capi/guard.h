#pragma once

// The frame of the exported functions. Each does all its work, allocation and checks included, in a
// lambda inside one of these, so that no exception crosses the C interface:
//
//     qmr_err qmr_txn_abort(QMR_txn* txn) {
//         return statusCall([&] {
//             CHECK_ARG_NOT_NULL(txn);
//             txn->tx.abort();
//         });
//     }
//
// A failure becomes the last error of the calling thread and the failure value of the shape. Checks
// come in the order of the parameters, and out-parameters are written once all has succeeded.

#include <exception>
#include <type_traits>

#include "core/checks.h"
#include "quillmere/quillmere.h"

namespace quillmere {

// Stores the exception as the last error and returns its code, which is never 0.
qmr_err handleException(std::exception_ptr exception) noexcept;

// For failures without an exception. False, with a log line, if there is no memory for the text.
bool setLastError(qmr_err code, qmr_err secondary, const char* message) noexcept;

// 0, or the error code.
template <class Work>
qmr_err statusCall(Work&& work) noexcept {
    static_assert(std::is_void_v<std::invoke_result_t<Work>>);
    try {
        work();
        return QMR_SUCCESS;
    } catch (...) {
        return handleException(std::current_exception());
    }
}

// 0 or QMR_NOT_FOUND as the work answers true or false, or the error code.
template <class Work>
qmr_err foundCall(Work&& work) noexcept {
    static_assert(std::is_same_v<std::invoke_result_t<Work>, bool>);
    try {
        return work() ? QMR_SUCCESS : QMR_NOT_FOUND;
    } catch (...) {
        return handleException(std::current_exception());
    }
}

// What the work returns, or its zero.
template <class Work>
std::invoke_result_t<Work> valueCall(Work&& work) noexcept {
    try {
        return work();
    } catch (...) {
        handleException(std::current_exception());
        return {};
    }
}

template <class Work>
auto pointerCall(Work&& work) noexcept {
    static_assert(std::is_pointer_v<std::invoke_result_t<Work>>);
    return valueCall(work);
}

template <class Work>
auto numberCall(Work&& work) noexcept {
    static_assert(std::is_arithmetic_v<std::invoke_result_t<Work>>);
    return valueCall(work);
}

template <class Work>
bool boolCall(Work&& work) noexcept {
    static_assert(std::is_same_v<std::invoke_result_t<Work>, bool>);
    return valueCall(work);
}

}  // namespace quillmere
