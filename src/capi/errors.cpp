// The last error of a thread.

#include "capi/guard.h"
#include "core/thread_record.h"

using namespace quillmere;

qmr_err qmr_last_error_code(void) {
    return threadRecord().errorCode;
}

const char* qmr_last_error_message(void) {
    const ThreadRecord& record = threadRecord();
    return record.errorCode == 0 ? "" : record.errorMessage.c_str();
}

qmr_err qmr_last_error_secondary(void) {
    const ThreadRecord& record = threadRecord();
    return record.errorCode == 0 ? 0 : record.errorSecondary;
}

void qmr_last_error_clear(void) {
    ThreadRecord& record = threadRecord();
    record.errorCode = 0;
    record.errorSecondary = 0;
    record.errorMessage.clear();
}

bool qmr_last_error_pop(qmr_err* out_code, const char** out_message) {
    ThreadRecord& record = threadRecord();
    const qmr_err code = record.errorCode;
    record.errorCode = 0;
    if (out_code) *out_code = code;
    if (code == 0) {
        if (out_message) *out_message = "";
        return false;
    }
    if (out_message) {
        *out_message = record.errorMessage.c_str();
    } else {
        record.errorMessage.clear();
    }
    return true;
}

bool qmr_last_error_set(qmr_err code, qmr_err secondary, const char* message) {
    return setLastError(code, secondary, message);
}
