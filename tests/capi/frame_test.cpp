#include <gtest/gtest.h>

#include <exception>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <vector>

#include "capi/guard.h"
#include "capi/options.h"
#include "capi/results.h"
#include "capi/store_fixture.h"
#include "core/error.h"
#include "core/thread_record.h"

namespace quillmere {
namespace {

class Frame : public testing::Test {
protected:
    void SetUp() override { qmr_last_error_clear(); }
};

using LastError = Frame;
using Guard = Frame;
using Features = Frame;
using Options = Frame;
using Results = Frame;
using AbsentFeatures = Frame;

void expectError(qmr_err code, const std::string& message) {
    EXPECT_EQ(qmr_last_error_code(), code);
    EXPECT_EQ(qmr_last_error_message(), message);
}

void expectErrorStarting(qmr_err code, const std::string& start) {
    EXPECT_EQ(qmr_last_error_code(), code);
    EXPECT_EQ(std::string(qmr_last_error_message()).substr(0, start.size()), start);
}

TEST_F(LastError, IsOneSlotThatSuccessLeavesAlone) {
    EXPECT_TRUE(qmr_last_error_set(1, 2, "first"));
    EXPECT_TRUE(qmr_last_error_set(3, 4, "second"));
    EXPECT_EQ(qmr_opt_free(nullptr), QMR_SUCCESS);
    expectError(3, "second");
    EXPECT_EQ(qmr_last_error_secondary(), 4);
    qmr_last_error_clear();
    expectError(0, "");
    EXPECT_EQ(qmr_last_error_secondary(), 0);
    EXPECT_TRUE(qmr_last_error_set(5, 0, nullptr));
    expectError(5, "");
}

TEST_F(LastError, PopTakesTheCodeAndLendsTheMessage) {
    qmr_err code = 9;
    const char* message = nullptr;
    EXPECT_FALSE(qmr_last_error_pop(&code, &message));
    EXPECT_EQ(code, 0);
    EXPECT_STREQ(message, "");

    qmr_last_error_set(7, 8, "lent");
    EXPECT_TRUE(qmr_last_error_pop(&code, &message));
    EXPECT_EQ(code, 7);
    EXPECT_STREQ(message, "lent");
    EXPECT_EQ(qmr_last_error_secondary(), 0) << "the code was taken";
    EXPECT_STREQ(qmr_last_error_message(), "");
    EXPECT_FALSE(qmr_last_error_pop(nullptr, nullptr));
    EXPECT_STREQ(message, "lent") << "until the next error";

    qmr_last_error_set(7, 8, "dropped");
    EXPECT_TRUE(qmr_last_error_pop(nullptr, nullptr));
    EXPECT_EQ(threadRecord().errorMessage, "");
    EXPECT_EQ(threadRecord().errorSecondary, 8) << "left alone";
}

TEST_F(LastError, BelongsToTheThread) {
    qmr_last_error_set(1, 0, "mine");
    std::thread([] {
        expectError(0, "");
        qmr_last_error_set(2, 0, "theirs");
    }).join();
    expectError(1, "mine");
}

template <class E>
std::exception_ptr made(E exception) {
    return std::make_exception_ptr(std::move(exception));
}

template <class... E>
void expectCode(qmr_err code, qmr_err secondary = 0) {
    const auto expectOne = [&]<class One>(const One* /*type*/) {
        if constexpr (std::is_constructible_v<One, const char*, int>) {
            EXPECT_EQ(handleException(made(One("m", 5))), code);
        } else {
            EXPECT_EQ(handleException(made(One("m"))), code);
        }
        expectError(code, "m");
        EXPECT_EQ(qmr_last_error_secondary(), secondary) << code;
    };
    (expectOne(static_cast<const E*>(nullptr)), ...);
}

// Every class has its own place before its base; each wrong order gives some class another code.
TEST_F(Guard, GivesEachClassItsCode) {
    expectCode<Exception, ParsingException>(10098);
    expectCode<IllegalStateException>(10001);
    expectCode<IllegalArgumentException, ArgumentNullException>(10002);
    expectCode<AllocationException>(10003);
    expectCode<NumericOverflowException>(10004);
    expectCode<FeatureNotAvailableException>(10005);
    expectCode<ShuttingDownException, StoreClosedException>(10006);
    expectCode<IoException>(10007);
    expectCode<BackupFileInvalidException>(10008);
    expectCode<DbFullException>(10101);
    expectCode<DbMaxReadersExceededException>(10102, 5);
    expectCode<DbShutdownException>(10103, 5);
    expectCode<DbMaxDataSizeExceededException>(10104);
    expectCode<DbException>(10198);
    expectCode<StorageException, OpenDbException, BadTxException>(10199, 5);
    expectCode<UniqueViolationException>(10201);
    expectCode<NonUniqueResultException>(10202);
    expectCode<PropertyTypeMismatchException>(10203);
    expectCode<IdAlreadyExistsException>(10210);
    expectCode<IdNotFoundException>(10211);
    expectCode<TimeSeriesException>(10212);
    expectCode<ConstraintViolationException>(10299);
    expectCode<std::invalid_argument>(10301);
    expectCode<std::out_of_range>(10302);
    expectCode<std::length_error>(10303);
    expectCode<std::range_error>(10305);
    expectCode<std::overflow_error>(10306);
    expectCode<std::runtime_error>(10399);
    expectCode<SchemaException>(10501);
    expectCode<DbFileCorruptException>(10502);
    expectCode<DbPagesCorruptException>(10503);
    expectCode<tree::TreeSchemaException>(10601);
    expectCode<tree::TreeValueTypeMismatchException>(10602);
    expectCode<tree::TreePathNonUniqueException>(10603);
    expectCode<tree::TreePathIllegalException>(10604);
    expectCode<tree::TreeException>(10699);
    EXPECT_EQ(handleException(made(std::bad_alloc())), 10304);
    EXPECT_EQ(handleException(made(5)), 10099);
    expectError(10099, "Unknown error");
}

TEST_F(Guard, NoExceptionIsAFailureToo) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(handleException(nullptr), 10097);
    EXPECT_NE(testing::internal::GetCapturedStdout().find(
                  " [ERROR] Cannot handle thrown exception, no ptr\n"),
              std::string::npos);
    expectError(10097, "Cannot handle thrown exception, no ptr");
}

TEST_F(Guard, ReleasesTheException) {
    struct Counting : std::exception {
        std::shared_ptr<int> alive = std::make_shared<int>(0);
    };
    Counting original;
    const auto fail = [&]() -> void { throw original; };
    EXPECT_EQ(statusCall(fail), QMR_ERROR_STD_OTHER);
    EXPECT_EQ(original.alive.use_count(), 1);
}

TEST_F(Guard, ShapesReturnTheirFailureValue) {
    const auto fail = [] { throwIllegalState("failed"); };
    EXPECT_EQ(statusCall(fail), QMR_ERROR_ILLEGAL_STATE);
    EXPECT_EQ(pointerCall([&]() -> const char* { fail(); return ""; }), nullptr);
    EXPECT_EQ(numberCall([&]() -> uint64_t { fail(); return 1; }), 0u);
    EXPECT_FALSE(boolCall([&]() -> bool { fail(); return true; }));
    EXPECT_EQ(foundCall([&]() -> bool { fail(); return true; }), QMR_ERROR_ILLEGAL_STATE);
    expectError(QMR_ERROR_ILLEGAL_STATE, "failed");
    qmr_last_error_clear();
    EXPECT_EQ(foundCall([] { return false; }), QMR_NOT_FOUND);
    EXPECT_EQ(foundCall([] { return true; }), QMR_SUCCESS);
    expectError(0, "");
}

TEST(Version, ComparesWithTheLibrary) {
    int major = 0;
    int minor = 9;
    int patch = 0;
    qmr_version(&major, &minor, &patch);
    qmr_version(nullptr, nullptr, nullptr);
    EXPECT_EQ(major * 100 + minor * 10 + patch, 402);
    EXPECT_STREQ(qmr_version_string(), "4.0.2");
    EXPECT_STREQ(qmr_version_core_string(), "4.0.2-2024-10-15 (lmdb, VectorSearch)");
    EXPECT_TRUE(qmr_version_is_at_least(4, 0, 2));
    EXPECT_TRUE(qmr_version_is_at_least(3, 99, 99));
    EXPECT_TRUE(qmr_version_is_at_least(4, -1, 99));
    EXPECT_TRUE(qmr_version_is_at_least(4, 0, -1));
    EXPECT_FALSE(qmr_version_is_at_least(4, 0, 3));
    EXPECT_FALSE(qmr_version_is_at_least(4, 1, 0));
    EXPECT_FALSE(qmr_version_is_at_least(5, -1, -1));
}

TEST_F(Features, ZeroIsAFailureAndUnknownOnesAreAbsent) {
    for (const int absent : {17, -1, int{QMRFeature_Sync}}) EXPECT_FALSE(qmr_has_feature(absent));
    EXPECT_TRUE(qmr_has_feature(QMRFeature_Lmdb));
    expectError(0, "");
    EXPECT_FALSE(qmr_has_feature(0));
    expectError(QMR_ERROR_ILLEGAL_ARGUMENT, "Illegal feature (zero)");
    for (const bool enabled : {true, false}) {
        qmr_last_error_clear();
        EXPECT_EQ(qmr_debug_log(enabled), QMR_ERROR_FEATURE_NOT_AVAILABLE);
        expectError(10005, "Feature 'DebugLog' is not available in this edition.");
    }
    EXPECT_FALSE(qmr_debug_log_enabled());
}

TEST_F(Features, SemaphorePrefix) {
    EXPECT_EQ(qmr_posix_sem_prefix_set("group/"), QMR_SUCCESS);
    EXPECT_EQ(qmr_posix_sem_prefix_set("1234567890123456789/"), QMR_SUCCESS);
    EXPECT_EQ(qmr_posix_sem_prefix_set("12345678901234567890/"), QMR_ERROR_ILLEGAL_ARGUMENT);
    expectError(10002, "Given prefix must not exceed 20 chars");
    qmr_posix_sem_prefix_set("");
    expectError(10002, "Given prefix was empty");
    qmr_posix_sem_prefix_set("group");
    expectError(10002, "Given prefix must end with a slash '/'");
    qmr_posix_sem_prefix_set(nullptr);
    expectErrorStarting(10002, "Argument \"prefix\" must not be null (L");
}

TEST_F(Options, EachSetterSetsItsFieldsAndIgnoresANullRecord) {
    const OptionsPtr opt(qmr_opt());
    const auto set = [&](auto setter, auto... values) {
        setter(opt.get(), values...);
        setter(nullptr, values...);
    };
    set(qmr_opt_max_db_size_in_kb, 6);
    set(qmr_opt_max_data_size_in_kb, 7);
    set(qmr_opt_file_mode, 0755);
    set(qmr_opt_max_readers, 8);
    set(qmr_opt_no_reader_thread_locals, true);
    set(qmr_opt_read_only, true);
    set(qmr_opt_read_schema, false);
    set(qmr_opt_use_previous_commit, true);
    set(qmr_opt_debug_flags, 1);
    set(qmr_opt_add_debug_flags, 6);
    set(qmr_opt_put_padding_mode, 65537);
    set(qmr_opt_validate_on_open_pages, 9, 3);
    set(qmr_opt_validate_on_open_kv);
    set(qmr_opt_wal, 10);
    set(qmr_opt_wal_max_file_size_in_kb, 11);
    set(qmr_opt_wal_max_file_size_on_open_in_kb, 12);
    set(qmr_opt_backup_restore, "file", 13);
    EXPECT_EQ(qmr_opt_get_max_db_size_in_kb(opt.get()), 6u);
    EXPECT_EQ(qmr_opt_get_max_data_size_in_kb(opt.get()), 7u);
    EXPECT_EQ(qmr_opt_get_debug_flags(opt.get()), 7u);
    const StoreOptions& o = opt->options;
    EXPECT_EQ(std::tuple(o.fileMode, o.maxReaders, o.putPaddingMode, o.validatePagesLimit),
              std::tuple(0755u, 8u, 65537u, 9u));
    EXPECT_EQ(std::tuple(o.walFlags, o.walMaxFileSizeInKb, o.walMaxFileSizeOnOpenInKb),
              std::tuple(10u, 11u, 12u));
    EXPECT_EQ(std::tuple(o.backupFile, o.backupRestoreFlags), std::tuple("file", 13u));
    EXPECT_TRUE(o.noReaderThreadLocals && o.readOnly && !o.readSchema && o.usePreviousCommit);
    EXPECT_TRUE(o.validatePagesLeafLevel && o.validateKvOnOpen && !o.asyncSet);
    set(qmr_opt_validate_on_open_pages, 0, 2);
    EXPECT_FALSE(o.validatePagesLeafLevel);
    qmr_opt_backup_restore(opt.get(), nullptr, 0);
    EXPECT_EQ(o.backupFile, "");

    EXPECT_EQ(qmr_opt_get_debug_flags(nullptr), 0u);
    EXPECT_EQ(qmr_opt_get_directory(nullptr), nullptr);
    EXPECT_EQ(qmr_opt_get_max_data_size_in_kb(nullptr), 0u);
    EXPECT_EQ(qmr_opt_get_max_db_size_in_kb(nullptr), 0u);
    qmr_opt_log_callback(nullptr, nullptr, nullptr);
    expectError(0, "");
}

TEST_F(Options, AsyncSettersSetTheirFieldsAndTheMark) {
    const OptionsPtr opt(qmr_opt());
    StoreOptions& o = opt->options;
    const auto set = [&](auto setter, auto... values) {
        o.asyncSet = false;
        setter(opt.get(), values...);
        EXPECT_TRUE(o.asyncSet);
        setter(nullptr, values...);
    };
    const auto delays = [&] {
        return std::tuple(o.asyncPreDelayMicros, o.asyncPreDelay2Micros, o.asyncPreDelay2MinQueue,
                          o.asyncPostDelayMicros, o.asyncPostDelay2Micros,
                          o.asyncPostDelay2MinQueue, o.asyncPostDelaySubtractTime);
    };
    set(qmr_opt_async_pre_txn_delay4, 11, 12, 13);
    set(qmr_opt_async_post_txn_delay5, 14, 15, 16, true);
    EXPECT_EQ(delays(), std::tuple(11u, 12u, 13u, 14u, 15u, 16u, true));
    set(qmr_opt_async_pre_txn_delay, 21);
    set(qmr_opt_async_post_txn_delay, 24);
    EXPECT_EQ(delays(), std::tuple(21u, 12u, 13u, 24u, 15u, 16u, true));

    set(qmr_opt_async_max_in_tx_duration, 31);
    set(qmr_opt_async_max_in_tx_operations, 32);
    set(qmr_opt_async_max_queue_length, 33);
    set(qmr_opt_async_minor_refill_max_count, 34);
    set(qmr_opt_async_minor_refill_threshold, 35);
    set(qmr_opt_async_object_bytes_max_cache_size, 36);
    set(qmr_opt_async_object_bytes_max_size_to_cache, 37);
    set(qmr_opt_async_throttle_at_queue_length, 38);
    set(qmr_opt_async_throttle_micros, 39);
    EXPECT_EQ(std::tuple(o.asyncMaxInTxDurationMicros, o.asyncMaxInTxOperations,
                         o.asyncMaxQueueLength, o.asyncMinorRefillMaxCount,
                         o.asyncMinorRefillThreshold, o.asyncObjectBytesMaxCacheSize,
                         o.asyncObjectBytesMaxSizeToCache, o.asyncThrottleAtQueueLength,
                         o.asyncThrottleMicros),
              std::tuple(31u, 32u, 33u, 34u, 35u, 36u, 37u, 38u, 39u));
    for (const uint64_t size : {9, 0}) {
        set(qmr_opt_async_max_tx_pool_size, size);
        EXPECT_EQ(o.asyncMaxTxPoolSize, size);
        EXPECT_EQ(o.asyncUseTxPool, size != 0);
    }
}

TEST_F(Options, AFailedDirectoryMarksTheRecordForGood) {
    const OptionsPtr opt(qmr_opt());
    EXPECT_STREQ(qmr_opt_get_directory(opt.get()), "quillmere");
    EXPECT_EQ(qmr_opt_directory(opt.get(), "there"), QMR_SUCCESS);
    EXPECT_FALSE(opt->options.hadError);
    EXPECT_EQ(qmr_opt_directory(opt.get(), nullptr), QMR_ERROR_ILLEGAL_ARGUMENT);
    expectErrorStarting(10002, "Argument \"dir\" must not be null (L");
    EXPECT_EQ(qmr_opt_directory(opt.get(), "again"), QMR_SUCCESS);
    EXPECT_TRUE(opt->options.hadError);
    EXPECT_STREQ(qmr_opt_get_directory(opt.get()), "again");
    EXPECT_EQ(qmr_opt_directory(nullptr, nullptr), QMR_ERROR_ILLEGAL_ARGUMENT);
    expectErrorStarting(10002, "Argument \"opt\" must not be null (L");
}

TEST_F(Options, ModelBytesAreCopiedOrReferredTo) {
    const OptionsPtr opt(qmr_opt());
    char bytes[] = "model";
    EXPECT_EQ(qmr_opt_model_bytes(opt.get(), bytes, 5), QMR_SUCCESS);
    bytes[0] = 'X';
    EXPECT_EQ(opt->options.modelBytes.text(), "model");
    EXPECT_EQ(qmr_opt_model_bytes_direct(opt.get(), bytes, 5), QMR_SUCCESS);
    EXPECT_EQ(opt->options.modelBytes.data(), reinterpret_cast<uint8_t*>(bytes));
    EXPECT_EQ(qmr_opt_model_bytes(opt.get(), nullptr, 5), QMR_ERROR_ILLEGAL_ARGUMENT);
    expectErrorStarting(10002, "Argument \"bytes\" must not be null (L");
    EXPECT_EQ(qmr_opt_model_bytes_direct(nullptr, bytes, 5), QMR_ERROR_ILLEGAL_ARGUMENT);
    EXPECT_FALSE(opt->options.hadError);
}

TEST_F(Options, LogCallbackGetsItsUserDataLast) {
    struct Seen {
        int32_t level = 0;
        std::string text;
    } seen;
    const OptionsPtr opt(qmr_opt());
    qmr_opt_log_callback(
        opt.get(),
        [](int32_t level, const char* text, size_t length, void* userData) {
            *static_cast<Seen*>(userData) = {level, std::string(text, length)};
        },
        &seen);
    opt->options.logCallback(20, "abcdef", 3);
    EXPECT_EQ(seen.level, 20);
    EXPECT_EQ(seen.text, "abc");
    qmr_opt_log_callback(opt.get(), nullptr, &seen);
    EXPECT_FALSE(opt->options.logCallback);
}

TEST_F(Results, BytesArrayIsFilledByIndex) {
    QMR_bytes_array* array = qmr_bytes_array(2);
    ASSERT_EQ(array->count, 2u);
    EXPECT_EQ(array->bytes[1].data, nullptr);
    const char text[] = "text";
    EXPECT_EQ(qmr_bytes_array_set(array, 1, text, 4), QMR_SUCCESS);
    EXPECT_EQ(array->bytes[1].data, text);
    EXPECT_EQ(array->bytes[1].size, 4u);
    EXPECT_EQ(qmr_bytes_array_set(array, 2, text, 4), QMR_ERROR_ILLEGAL_ARGUMENT);
    expectErrorStarting(10002, "Argument condition \"index < array->count\" not met (L");
    EXPECT_EQ(qmr_bytes_array_set(nullptr, 0, text, 4), QMR_ERROR_ILLEGAL_ARGUMENT);
    qmr_bytes_array_free(array);

    const Bytes objects[] = {Bytes(text, 4), Bytes()};
    array = makeBytesArray(objects);
    EXPECT_EQ(array->bytes[0].data, text);
    EXPECT_EQ(array->bytes[1].data, nullptr);
    qmr_bytes_array_free(array);
}

TEST_F(Results, IdArrayIsACopy) {
    qmr_id ids[] = {1, 2, 3};
    QMR_id_array* array = qmr_id_array(ids, 3);
    ids[0] = 9;
    EXPECT_EQ(std::vector<qmr_id>(array->ids, array->ids + 3), (std::vector<qmr_id>{1, 2, 3}));
    qmr_id_array_free(array);
    array = qmr_id_array(nullptr, 0);
    EXPECT_EQ(array->ids, nullptr);
    qmr_id_array_free(array);
    EXPECT_EQ(qmr_id_array(nullptr, 1), nullptr);
    expectErrorStarting(10002, "Argument \"ids\" must not be null (L");
}

TEST_F(Results, CountsBeyondAllMemory) {
    const size_t count = SIZE_MAX / 8;
    EXPECT_EQ(qmr_bytes_array(count), nullptr);
    expectError(QMR_ERROR_ALLOCATION, "Could not allocate bytes array for element size: " +
                                          std::to_string(count));
    const qmr_id id = 1;
    EXPECT_EQ(qmr_id_array(&id, count), nullptr);
    expectError(QMR_ERROR_ALLOCATION, "Could not allocate ids array for element size: " +
                                          std::to_string(count));
}

TEST_F(Results, LazyBytesRunTheirFunction) {
    const auto owner = std::make_shared<std::string>("made");
    auto* lazy = new QMR_bytes_lazy{
        [text = owner.get()] {
            if (text->empty()) throwIo("nothing to make it of");
            return std::span(reinterpret_cast<const uint8_t*>(text->data()), text->size());
        },
        owner};
    const void* data = nullptr;
    size_t size = 0;
    EXPECT_EQ(qmr_bytes_lazy_get(lazy, &data, &size), QMR_SUCCESS);
    EXPECT_EQ(std::string(static_cast<const char*>(data), size), "made");
    owner->clear();
    EXPECT_EQ(qmr_bytes_lazy_get(lazy, &data, &size), QMR_ERROR_IO);
    EXPECT_EQ(size, 4u) << "written on success only";
    qmr_bytes_lazy_free(lazy);
    EXPECT_EQ(owner.use_count(), 1);
    EXPECT_EQ(qmr_bytes_lazy_get(nullptr, &data, &size), QMR_ERROR_ILLEGAL_ARGUMENT);
}

TEST_F(AbsentFeatures, ReportWhatIsMissing) {
    const auto missing = [](const std::string& start) {
        expectErrorStarting(QMR_ERROR_FEATURE_NOT_AVAILABLE, start);
        qmr_last_error_clear();
    };
    const std::string tail = " is not available in the loaded Quillmere runtime library.";
    EXPECT_EQ(qmr_sync(nullptr, "ws://host"), nullptr);
    missing("Sync" + tail + " Please visit ");
    EXPECT_EQ(qmr_sync_server(qmr_opt(), "ws://host"), nullptr);  // frees the options
    missing("SyncServer" + tail + " Please visit ");
    EXPECT_EQ(qmr_sync_server_from_flat_options(qmr_opt(), nullptr, 0), nullptr);
    missing("SyncServer" + tail + " Please visit ");
    EXPECT_EQ(qmr_tree(nullptr, "/"), nullptr);
    missing("The tree feature" + tail);
    EXPECT_EQ(qmr_admin(nullptr), nullptr);
    missing("The admin feature" + tail);
    EXPECT_EQ(qmr_admin_port(nullptr), 0u);
    missing("The admin feature" + tail);

    EXPECT_EQ(qmr_tree_leaves_info_id(nullptr, 0), 0u);
    EXPECT_EQ(qmr_tree_leaves_info_size(nullptr), 0u);
    EXPECT_EQ(qmr_tree_leaves_info_type(nullptr, 0), 0u);
    EXPECT_EQ(qmr_tree_node_conflict_count(nullptr), 0u);
    expectError(0, "");
}

}  // namespace
}  // namespace quillmere
