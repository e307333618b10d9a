#include <gtest/gtest.h>

#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "capi/guard.h"
#include "capi/options.h"
#include "capi/results.h"
#include "core/error.h"
#include "core/thread_record.h"
#include "quillmere/quillmere.h"

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

// Every class has its own place before its base; each wrong order gives some class another code.
TEST_F(Guard, GivesEachClassItsCode) {
    struct Case {
        std::exception_ptr exception;
        qmr_err code;
        qmr_err secondary;
    };
    const Case cases[] = {
        {made(Exception("m")), 10098, 0},
        {made(IllegalStateException("m")), 10001, 0},
        {made(ShuttingDownException("m")), 10006, 0},
        {made(StoreClosedException("m")), 10006, 0},
        {made(IllegalArgumentException("m")), 10002, 0},
        {made(ArgumentNullException("m")), 10002, 0},
        {made(PropertyTypeMismatchException("m")), 10203, 0},
        {made(AllocationException("m")), 10003, 0},
        {made(NumericOverflowException("m")), 10004, 0},
        {made(FeatureNotAvailableException("m")), 10005, 0},
        {made(IoException("m")), 10007, 0},
        {made(BackupFileInvalidException("m")), 10008, 0},
        {made(ParsingException("m")), 10098, 0},
        {made(DbException("m")), 10198, 0},
        {made(StorageException("m", 5)), 10199, 5},
        {made(OpenDbException("m", 5)), 10199, 5},
        {made(BadTxException("m", 5)), 10199, 5},
        {made(DbShutdownException("m", 5)), 10103, 5},
        {made(DbMaxReadersExceededException("m", 5)), 10102, 5},
        {made(DbFileCorruptException("m", 5)), 10502, 0},
        {made(DbPagesCorruptException("m", 5)), 10503, 0},
        {made(DbFullException("m")), 10101, 0},
        {made(DbMaxDataSizeExceededException("m")), 10104, 0},
        {made(SchemaException("m")), 10501, 0},
        {made(ConstraintViolationException("m")), 10299, 0},
        {made(UniqueViolationException("m")), 10201, 0},
        {made(NonUniqueResultException("m")), 10202, 0},
        {made(IdAlreadyExistsException("m")), 10210, 0},
        {made(IdNotFoundException("m")), 10211, 0},
        {made(TimeSeriesException("m")), 10212, 0},
        {made(tree::TreeException("m")), 10699, 0},
        {made(tree::TreeSchemaException("m")), 10601, 0},
        {made(tree::TreeValueTypeMismatchException("m")), 10602, 0},
        {made(tree::TreePathNonUniqueException("m")), 10603, 0},
        {made(tree::TreePathIllegalException("m")), 10604, 0},
        {made(std::invalid_argument("m")), 10301, 0},
        {made(std::out_of_range("m")), 10302, 0},
        {made(std::length_error("m")), 10303, 0},
        {made(std::range_error("m")), 10305, 0},
        {made(std::overflow_error("m")), 10306, 0},
        {made(std::runtime_error("m")), 10399, 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(handleException(c.exception), c.code);
        expectError(c.code, "m");
        EXPECT_EQ(qmr_last_error_secondary(), c.secondary) << c.code;
    }
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
    EXPECT_FALSE(qmr_has_feature(17));
    EXPECT_FALSE(qmr_has_feature(-1));
    EXPECT_FALSE(qmr_has_feature(QMRFeature_Sync));
    EXPECT_TRUE(qmr_has_feature(QMRFeature_Lmdb));
    expectError(0, "");
    EXPECT_FALSE(qmr_has_feature(0));
    expectError(QMR_ERROR_ILLEGAL_ARGUMENT, "Illegal feature (zero)");
}

TEST_F(Features, DebugLogIsAbsentEitherWay) {
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

struct OptionsFree {
    void operator()(QMR_store_options* opt) const { qmr_opt_free(opt); }
};
using OptionsHandle = std::unique_ptr<QMR_store_options, OptionsFree>;

TEST_F(Options, SettersOfScalars) {
    const OptionsHandle opt(qmr_opt());
    const StoreOptions& o = opt->options;
    qmr_opt_max_db_size_in_kb(opt.get(), 0);
    qmr_opt_max_data_size_in_kb(opt.get(), 7);
    qmr_opt_file_mode(opt.get(), 0755);
    qmr_opt_max_readers(opt.get(), 8);
    qmr_opt_no_reader_thread_locals(opt.get(), true);
    qmr_opt_read_only(opt.get(), true);
    qmr_opt_read_schema(opt.get(), false);
    qmr_opt_use_previous_commit(opt.get(), true);
    qmr_opt_debug_flags(opt.get(), 1);
    qmr_opt_add_debug_flags(opt.get(), 6);
    qmr_opt_put_padding_mode(opt.get(), 65537);
    qmr_opt_validate_on_open_pages(opt.get(), 9, 3);
    qmr_opt_validate_on_open_kv(opt.get());
    qmr_opt_wal(opt.get(), 10);
    qmr_opt_wal_max_file_size_in_kb(opt.get(), 11);
    qmr_opt_wal_max_file_size_on_open_in_kb(opt.get(), 12);
    qmr_opt_backup_restore(opt.get(), "file", 13);
    EXPECT_EQ(qmr_opt_get_max_db_size_in_kb(opt.get()), 0u);
    EXPECT_EQ(qmr_opt_get_max_data_size_in_kb(opt.get()), 7u);
    EXPECT_EQ(qmr_opt_get_debug_flags(opt.get()), 7u);
    EXPECT_EQ(o.fileMode, 0755u);
    EXPECT_EQ(o.maxReaders, 8u);
    EXPECT_TRUE(o.noReaderThreadLocals && o.readOnly && !o.readSchema && o.usePreviousCommit);
    EXPECT_EQ(o.putPaddingMode, 65537u);
    EXPECT_EQ(o.validatePagesLimit, 9u);
    EXPECT_TRUE(o.validatePagesLeafLevel && o.validateKvOnOpen);
    EXPECT_EQ(o.walFlags, 10u);
    EXPECT_EQ(o.walMaxFileSizeInKb, 11u);
    EXPECT_EQ(o.walMaxFileSizeOnOpenInKb, 12u);
    EXPECT_EQ(o.backupFile, "file");
    EXPECT_EQ(o.backupRestoreFlags, 13u);
    EXPECT_FALSE(o.asyncSet);
    qmr_opt_validate_on_open_pages(opt.get(), 0, 2);
    EXPECT_FALSE(o.validatePagesLeafLevel);
    qmr_opt_backup_restore(opt.get(), nullptr, 0);
    EXPECT_EQ(o.backupFile, "");
}

TEST_F(Options, AsyncSettersSetTheirFieldAndTheMark) {
    using Check = std::function<bool(const StoreOptions&)>;
    using Set = std::function<void(QMR_store_options*)>;
    const std::pair<Set, Check> cases[] = {
        {[](auto* o) { qmr_opt_async_pre_txn_delay(o, 9); },
         [](auto& o) { return o.asyncPreDelayMicros == 9; }},
        {[](auto* o) { qmr_opt_async_pre_txn_delay4(o, 9, 8, 7); },
         [](auto& o) {
             return o.asyncPreDelayMicros == 9 && o.asyncPreDelay2Micros == 8 &&
                    o.asyncPreDelay2MinQueue == 7;
         }},
        {[](auto* o) { qmr_opt_async_post_txn_delay(o, 9); },
         [](auto& o) { return o.asyncPostDelayMicros == 9; }},
        {[](auto* o) { qmr_opt_async_post_txn_delay5(o, 9, 8, 7, true); },
         [](auto& o) {
             return o.asyncPostDelayMicros == 9 && o.asyncPostDelay2Micros == 8 &&
                    o.asyncPostDelay2MinQueue == 7 && o.asyncPostDelaySubtractTime;
         }},
        {[](auto* o) { qmr_opt_async_max_in_tx_duration(o, 9); },
         [](auto& o) { return o.asyncMaxInTxDurationMicros == 9; }},
        {[](auto* o) { qmr_opt_async_max_in_tx_operations(o, 9); },
         [](auto& o) { return o.asyncMaxInTxOperations == 9; }},
        {[](auto* o) { qmr_opt_async_max_queue_length(o, 9); },
         [](auto& o) { return o.asyncMaxQueueLength == 9; }},
        {[](auto* o) { qmr_opt_async_max_tx_pool_size(o, 9); },
         [](auto& o) { return o.asyncMaxTxPoolSize == 9 && o.asyncUseTxPool; }},
        {[](auto* o) { qmr_opt_async_max_tx_pool_size(o, 0); },
         [](auto& o) { return o.asyncMaxTxPoolSize == 0 && !o.asyncUseTxPool; }},
        {[](auto* o) { qmr_opt_async_minor_refill_max_count(o, 9); },
         [](auto& o) { return o.asyncMinorRefillMaxCount == 9; }},
        {[](auto* o) { qmr_opt_async_minor_refill_threshold(o, 9); },
         [](auto& o) { return o.asyncMinorRefillThreshold == 9; }},
        {[](auto* o) { qmr_opt_async_object_bytes_max_cache_size(o, 9); },
         [](auto& o) { return o.asyncObjectBytesMaxCacheSize == 9; }},
        {[](auto* o) { qmr_opt_async_object_bytes_max_size_to_cache(o, 9); },
         [](auto& o) { return o.asyncObjectBytesMaxSizeToCache == 9; }},
        {[](auto* o) { qmr_opt_async_throttle_at_queue_length(o, 9); },
         [](auto& o) { return o.asyncThrottleAtQueueLength == 9; }},
        {[](auto* o) { qmr_opt_async_throttle_micros(o, 9); },
         [](auto& o) { return o.asyncThrottleMicros == 9; }},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const OptionsHandle opt(qmr_opt());
        const auto& [set, check] = cases[i];
        EXPECT_FALSE(check(opt->options)) << i;
        set(opt.get());
        EXPECT_TRUE(check(opt->options) && opt->options.asyncSet) << i;
        set(nullptr);
    }
}

TEST_F(Options, AFailedDirectoryMarksTheRecordForGood) {
    const OptionsHandle opt(qmr_opt());
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
    const OptionsHandle opt(qmr_opt());
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
    const OptionsHandle opt(qmr_opt());
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

TEST_F(Options, NullRecordsAreIgnored) {
    qmr_opt_max_db_size_in_kb(nullptr, 1);
    qmr_opt_backup_restore(nullptr, "f", 1);
    qmr_opt_log_callback(nullptr, nullptr, nullptr);
    EXPECT_EQ(qmr_opt_get_debug_flags(nullptr), 0u);
    EXPECT_EQ(qmr_opt_get_directory(nullptr), nullptr);
    EXPECT_EQ(qmr_opt_get_max_data_size_in_kb(nullptr), 0u);
    EXPECT_EQ(qmr_opt_get_max_db_size_in_kb(nullptr), 0u);
    expectError(0, "");
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

TEST_F(Results, ValueArraysOwnTheirItems) {
    QMR_string_array* strings = makeStringArray({"short", std::string(100, 'x')});
    EXPECT_EQ(strings->count, 2u);
    EXPECT_STREQ(strings->items[0], "short");
    EXPECT_EQ(std::string(strings->items[1]).size(), 100u);
    qmr_string_array_free(strings);
    QMR_int16_array* shorts = makeValueArray<QMR_int16_array>(std::vector<int16_t>{-1, 2});
    EXPECT_EQ(shorts->count, 2u);
    EXPECT_EQ(shorts->items[0], -1);
    qmr_int16_array_free(shorts);
    QMR_double_array* doubles = makeValueArray<QMR_double_array>(std::vector<double>{0.5});
    EXPECT_EQ(doubles->items[0], 0.5);
    qmr_double_array_free(doubles);
}

TEST_F(Results, NullIsFreedLikeAnythingElse) {
    qmr_bytes_free(nullptr);
    qmr_bytes_array_free(nullptr);
    qmr_bytes_lazy_free(nullptr);
    qmr_id_array_free(nullptr);
    qmr_bytes_score_array_free(nullptr);
    qmr_id_score_array_free(nullptr);
    qmr_string_array_free(nullptr);
    qmr_int64_array_free(nullptr);
    qmr_int32_array_free(nullptr);
    qmr_int16_array_free(nullptr);
    qmr_int8_array_free(nullptr);
    qmr_double_array_free(nullptr);
    qmr_float_array_free(nullptr);
    expectError(0, "");
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
