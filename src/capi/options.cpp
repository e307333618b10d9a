#include "capi/options.h"

#include "capi/guard.h"

using namespace quillmere;

namespace {

// Scalar setters: nothing to check and nothing to throw.
template <class Set>
void setOption(QMR_store_options* opt, Set&& set) noexcept {
    if (opt) set(opt->options);
}

template <class Set>
void setAsyncOption(QMR_store_options* opt, Set&& set) noexcept {
    if (!opt) return;
    opt->options.asyncSet = true;
    set(opt->options);
}

// Setters that can fail leave their mark, so that no store opens with the value missing.
template <class Set>
qmr_err setOrMark(QMR_store_options* opt, Set&& set) noexcept {
    const qmr_err result = statusCall(set);
    if (result != QMR_SUCCESS && opt) opt->options.hadError = true;
    return result;
}

}  // namespace

QMR_store_options* qmr_opt(void) {
    return pointerCall([] { return new QMR_store_options; });
}

qmr_err qmr_opt_free(QMR_store_options* opt) {
    return statusCall([&] { delete opt; });
}

qmr_err qmr_opt_directory(QMR_store_options* opt, const char* dir) {
    return setOrMark(opt, [&] {
        CHECK_ARG_NOT_NULL(opt);
        CHECK_ARG_NOT_NULL(dir);
        opt->options.directory = dir;
    });
}

qmr_err qmr_opt_model_bytes(QMR_store_options* opt, const void* bytes, size_t size) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(opt);
        CHECK_ARG_NOT_NULL(bytes);
        opt->options.modelBytes = Bytes::copyOf(bytes, size);
    });
}

qmr_err qmr_opt_model_bytes_direct(QMR_store_options* opt, const void* bytes, size_t size) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(opt);
        CHECK_ARG_NOT_NULL(bytes);
        opt->options.modelBytes.setView(bytes, size);
    });
}

void qmr_opt_max_db_size_in_kb(QMR_store_options* opt, uint64_t size_in_kb) {
    setOption(opt, [&](StoreOptions& o) { o.maxDbSizeInKb = size_in_kb; });
}

void qmr_opt_max_data_size_in_kb(QMR_store_options* opt, uint64_t size_in_kb) {
    setOption(opt, [&](StoreOptions& o) { o.maxDataSizeInKb = size_in_kb; });
}

void qmr_opt_file_mode(QMR_store_options* opt, uint32_t file_mode) {
    setOption(opt, [&](StoreOptions& o) { o.fileMode = file_mode; });
}

void qmr_opt_max_readers(QMR_store_options* opt, uint32_t max_readers) {
    setOption(opt, [&](StoreOptions& o) { o.maxReaders = max_readers; });
}

void qmr_opt_no_reader_thread_locals(QMR_store_options* opt, bool flag) {
    setOption(opt, [&](StoreOptions& o) { o.noReaderThreadLocals = flag; });
}

void qmr_opt_read_only(QMR_store_options* opt, bool value) {
    setOption(opt, [&](StoreOptions& o) { o.readOnly = value; });
}

void qmr_opt_read_schema(QMR_store_options* opt, bool value) {
    setOption(opt, [&](StoreOptions& o) { o.readSchema = value; });
}

void qmr_opt_use_previous_commit(QMR_store_options* opt, bool value) {
    setOption(opt, [&](StoreOptions& o) { o.usePreviousCommit = value; });
}

void qmr_opt_debug_flags(QMR_store_options* opt, uint32_t flags) {
    setOption(opt, [&](StoreOptions& o) { o.debugFlags = flags; });
}

void qmr_opt_add_debug_flags(QMR_store_options* opt, uint32_t flags) {
    setOption(opt, [&](StoreOptions& o) { o.debugFlags |= flags; });
}

void qmr_opt_put_padding_mode(QMR_store_options* opt, uint32_t mode) {
    setOption(opt, [&](StoreOptions& o) { o.putPaddingMode = mode; });
}

void qmr_opt_validate_on_open_pages(QMR_store_options* opt, uint64_t page_limit, uint32_t flags) {
    constexpr uint32_t kLeafLevel = 1;
    setOption(opt, [&](StoreOptions& o) {
        o.validatePagesLimit = page_limit;
        o.validatePagesLeafLevel = (flags & kLeafLevel) != 0;
    });
}

void qmr_opt_validate_on_open_kv(QMR_store_options* opt) {
    setOption(opt, [&](StoreOptions& o) { o.validateKvOnOpen = true; });
}

void qmr_opt_wal(QMR_store_options* opt, uint32_t flags) {
    setOption(opt, [&](StoreOptions& o) { o.walFlags = flags; });
}

void qmr_opt_wal_max_file_size_in_kb(QMR_store_options* opt, uint64_t size_in_kb) {
    setOption(opt, [&](StoreOptions& o) { o.walMaxFileSizeInKb = size_in_kb; });
}

void qmr_opt_wal_max_file_size_on_open_in_kb(QMR_store_options* opt, uint64_t size_in_kb) {
    setOption(opt, [&](StoreOptions& o) { o.walMaxFileSizeOnOpenInKb = size_in_kb; });
}

void qmr_opt_backup_restore(QMR_store_options* opt, const char* file, uint32_t flags) {
    // The function reports no failure, so one for lack of memory is left to the open.
    setOrMark(opt, [&] {
        if (!opt) return;
        opt->options.backupFile = file ? file : "";
        opt->options.backupRestoreFlags = flags;
    });
}

void qmr_opt_log_callback(QMR_store_options* opt, QMR_log_callback* callback, void* user_data) {
    setOrMark(opt, [&] {
        if (!opt) return;
        opt->options.logCallback = nullptr;
        if (!callback) return;
        opt->options.logCallback = [callback, user_data](int32_t level, const char* text,
                                                         size_t length) {
            callback(level, text, length, user_data);
        };
    });
}

void qmr_opt_async_pre_txn_delay(QMR_store_options* opt, uint32_t delay_micros) {
    setAsyncOption(opt, [&](StoreOptions& o) { o.asyncPreDelayMicros = delay_micros; });
}

void qmr_opt_async_pre_txn_delay4(QMR_store_options* opt, uint32_t delay_micros,
                                  uint32_t delay2_micros, uint64_t min_queue_length_delay2) {
    setAsyncOption(opt, [&](StoreOptions& o) {
        o.asyncPreDelayMicros = delay_micros;
        o.asyncPreDelay2Micros = delay2_micros;
        o.asyncPreDelay2MinQueue = min_queue_length_delay2;
    });
}

void qmr_opt_async_post_txn_delay(QMR_store_options* opt, uint32_t delay_micros) {
    setAsyncOption(opt, [&](StoreOptions& o) { o.asyncPostDelayMicros = delay_micros; });
}

void qmr_opt_async_post_txn_delay5(QMR_store_options* opt, uint32_t delay_micros,
                                   uint32_t delay2_micros, uint64_t min_queue_length_delay2,
                                   bool subtract_processing_time) {
    setAsyncOption(opt, [&](StoreOptions& o) {
        o.asyncPostDelayMicros = delay_micros;
        o.asyncPostDelay2Micros = delay2_micros;
        o.asyncPostDelay2MinQueue = min_queue_length_delay2;
        o.asyncPostDelaySubtractTime = subtract_processing_time;
    });
}

void qmr_opt_async_max_in_tx_duration(QMR_store_options* opt, uint32_t micros) {
    setAsyncOption(opt, [&](StoreOptions& o) { o.asyncMaxInTxDurationMicros = micros; });
}

void qmr_opt_async_max_in_tx_operations(QMR_store_options* opt, uint32_t value) {
    setAsyncOption(opt, [&](StoreOptions& o) { o.asyncMaxInTxOperations = value; });
}

void qmr_opt_async_max_queue_length(QMR_store_options* opt, uint64_t value) {
    setAsyncOption(opt, [&](StoreOptions& o) { o.asyncMaxQueueLength = value; });
}

void qmr_opt_async_max_tx_pool_size(QMR_store_options* opt, uint64_t value) {
    setAsyncOption(opt, [&](StoreOptions& o) {
        o.asyncMaxTxPoolSize = value;
        o.asyncUseTxPool = value != 0;
    });
}

void qmr_opt_async_minor_refill_max_count(QMR_store_options* opt, uint32_t value) {
    setAsyncOption(opt, [&](StoreOptions& o) { o.asyncMinorRefillMaxCount = value; });
}

void qmr_opt_async_minor_refill_threshold(QMR_store_options* opt, uint64_t queue_length) {
    setAsyncOption(opt, [&](StoreOptions& o) { o.asyncMinorRefillThreshold = queue_length; });
}

void qmr_opt_async_object_bytes_max_cache_size(QMR_store_options* opt, uint64_t value) {
    setAsyncOption(opt, [&](StoreOptions& o) { o.asyncObjectBytesMaxCacheSize = value; });
}

void qmr_opt_async_object_bytes_max_size_to_cache(QMR_store_options* opt, uint64_t value) {
    setAsyncOption(opt, [&](StoreOptions& o) { o.asyncObjectBytesMaxSizeToCache = value; });
}

void qmr_opt_async_throttle_at_queue_length(QMR_store_options* opt, uint64_t value) {
    setAsyncOption(opt, [&](StoreOptions& o) { o.asyncThrottleAtQueueLength = value; });
}

void qmr_opt_async_throttle_micros(QMR_store_options* opt, uint32_t value) {
    setAsyncOption(opt, [&](StoreOptions& o) { o.asyncThrottleMicros = value; });
}

uint32_t qmr_opt_get_debug_flags(QMR_store_options* opt) {
    return opt ? opt->options.debugFlags : 0;
}

const char* qmr_opt_get_directory(QMR_store_options* opt) {
    return opt ? opt->options.directory.c_str() : nullptr;
}

uint64_t qmr_opt_get_max_data_size_in_kb(QMR_store_options* opt) {
    return opt ? opt->options.maxDataSizeInKb : 0;
}

uint64_t qmr_opt_get_max_db_size_in_kb(QMR_store_options* opt) {
    return opt ? opt->options.maxDbSizeInKb : 0;
}
