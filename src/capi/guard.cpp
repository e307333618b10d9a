#include "capi/guard.h"

#include <new>
#include <stdexcept>

#include "core/error.h"
#include "core/log.h"
#include "core/thread_record.h"

namespace quillmere {

namespace {

qmr_err fail(qmr_err code, const char* message, qmr_err secondary = 0) {
    setLastError(code, secondary, message);
    return code;
}

qmr_err fail(qmr_err code, const std::exception& e, qmr_err secondary = 0) {
    return fail(code, e.what(), secondary);
}

// Every class stands before its base.
qmr_err codeOf(const std::exception_ptr& exception) {
    try {
        std::rethrow_exception(exception);
    } catch (const DbFullException& e) {
        return fail(QMR_ERROR_DB_FULL, e);
    } catch (const DbMaxReadersExceededException& e) {
        return fail(QMR_ERROR_MAX_READERS_EXCEEDED, e, e.errorCode());
    } catch (const DbMaxDataSizeExceededException& e) {
        return fail(QMR_ERROR_MAX_DATA_SIZE_EXCEEDED, e);
    } catch (const DbShutdownException& e) {
        return fail(QMR_ERROR_DB_SHUTDOWN, e, e.errorCode());
    } catch (const DbPagesCorruptException& e) {
        return fail(QMR_ERROR_FILE_PAGES_CORRUPT, e);
    } catch (const DbFileCorruptException& e) {
        return fail(QMR_ERROR_FILE_CORRUPT, e);
    } catch (const PropertyTypeMismatchException& e) {
        return fail(QMR_ERROR_PROPERTY_TYPE_MISMATCH, e);
    } catch (const IdAlreadyExistsException& e) {
        return fail(QMR_ERROR_ID_ALREADY_EXISTS, e);
    } catch (const IdNotFoundException& e) {
        return fail(QMR_ERROR_ID_NOT_FOUND, e);
    } catch (const ShuttingDownException& e) {
        return fail(QMR_ERROR_SHUTTING_DOWN, e);
    } catch (const IllegalArgumentException& e) {
        return fail(QMR_ERROR_ILLEGAL_ARGUMENT, e);
    } catch (const IllegalStateException& e) {
        return fail(QMR_ERROR_ILLEGAL_STATE, e);
    } catch (const IoException& e) {
        return fail(QMR_ERROR_IO, e);
    } catch (const BackupFileInvalidException& e) {
        return fail(QMR_ERROR_BACKUP_FILE_INVALID, e);
    } catch (const UniqueViolationException& e) {
        return fail(QMR_ERROR_UNIQUE_VIOLATED, e);
    } catch (const NonUniqueResultException& e) {
        return fail(QMR_ERROR_NON_UNIQUE_RESULT, e);
    } catch (const ConstraintViolationException& e) {
        return fail(QMR_ERROR_CONSTRAINT_VIOLATED, e);
    } catch (const NumericOverflowException& e) {
        return fail(QMR_ERROR_NUMERIC_OVERFLOW, e);
    } catch (const AllocationException& e) {
        return fail(QMR_ERROR_ALLOCATION, e);
    } catch (const FeatureNotAvailableException& e) {
        return fail(QMR_ERROR_FEATURE_NOT_AVAILABLE, e);
    } catch (const SchemaException& e) {
        return fail(QMR_ERROR_SCHEMA, e);
    } catch (const TimeSeriesException& e) {
        return fail(QMR_ERROR_TIME_SERIES, e);
    } catch (const tree::TreeSchemaException& e) {
        return fail(QMR_ERROR_TREE_SCHEMA, e);
    } catch (const tree::TreeValueTypeMismatchException& e) {
        return fail(QMR_ERROR_TREE_VALUE_TYPE_MISMATCH, e);
    } catch (const tree::TreePathNonUniqueException& e) {
        return fail(QMR_ERROR_TREE_PATH_NON_UNIQUE, e);
    } catch (const tree::TreePathIllegalException& e) {
        return fail(QMR_ERROR_TREE_PATH_ILLEGAL, e);
    } catch (const tree::TreeException& e) {
        return fail(QMR_ERROR_TREE_OTHER, e);
    } catch (const StorageException& e) {
        return fail(QMR_ERROR_STORAGE_GENERAL, e, e.errorCode());
    } catch (const DbException& e) {
        return fail(QMR_ERROR_DB_GENERAL, e);
    } catch (const Exception& e) {
        return fail(QMR_ERROR_GENERAL, e);
    } catch (const std::invalid_argument& e) {
        return fail(QMR_ERROR_STD_ILLEGAL_ARGUMENT, e);
    } catch (const std::bad_alloc& e) {
        return fail(QMR_ERROR_STD_BAD_ALLOC, e);
    } catch (const std::length_error& e) {
        return fail(QMR_ERROR_STD_LENGTH, e);
    } catch (const std::out_of_range& e) {
        return fail(QMR_ERROR_STD_OUT_OF_RANGE, e);
    } catch (const std::overflow_error& e) {
        return fail(QMR_ERROR_STD_OVERFLOW, e);
    } catch (const std::range_error& e) {
        return fail(QMR_ERROR_STD_RANGE, e);
    } catch (const std::exception& e) {
        return fail(QMR_ERROR_STD_OTHER, e);
    } catch (...) {
        return fail(QMR_ERROR_UNKNOWN, "Unknown error");
    }
}

}  // namespace

qmr_err handleException(std::exception_ptr exception) noexcept {
    if (!exception) {
        static constexpr char kMessage[] = "Cannot handle thrown exception, no ptr";
        logLine("%s [ERROR] %s\n", logTimestamp(), kMessage);
        return fail(QMR_ERROR_NO_EXCEPTION, kMessage);
    }
    return codeOf(exception);
}

bool setLastError(qmr_err code, qmr_err secondary, const char* message) noexcept {
    ThreadRecord& record = threadRecord();
    if (!message) message = "";
    try {
        record.errorMessage = message;
        record.errorCode = code;
        record.errorSecondary = secondary;
        return true;
    } catch (const std::exception& e) {
        logLine("%s [ERROR] Failed to set C-API error %d %d %s: %s\n", logTimestamp(), code,
                secondary, message, e.what());
    } catch (...) {
        logLine("%s [ERROR] Failed to set C-API error %d %d %s\n", logTimestamp(), code, secondary,
                message);
    }
    return false;
}

}  // namespace quillmere
