#pragma once

// The exception classes of the library and the helpers that throw them.
//
// All code below the exported functions reports failure by throwing one of these; the C interface
// turns each class into its numeric code (capi/guard.h).

#include <cstdint>
#include <exception>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace quillmere {

// What a diagnostic provider captured when an exception was made, e.g. a stack trace.
class DiagnosticContext {
public:
    virtual ~DiagnosticContext() = default;
    virtual std::string text() const = 0;
};

// Captures diagnostics for each new exception. The default one captures nothing.
class DiagnosticProvider {
public:
    virtual ~DiagnosticProvider() = default;
    virtual void capture(std::shared_ptr<DiagnosticContext>& out) = 0;
};

// Replaces the process-wide provider; null brings back the default. Any thread.
void setDiagnosticProvider(std::unique_ptr<DiagnosticProvider> provider);

class Exception : public std::exception {
public:
    explicit Exception(std::string message);
    const char* what() const noexcept override { return message_.c_str(); }
    const std::string& message() const noexcept { return message_; }
    // Text of the captured diagnostics, empty if there are none.
    std::string contextText() const;

private:
    std::string message_;
    std::shared_ptr<DiagnosticContext> context_;
};

// An exception class that adds nothing to its base but its own place in the tree.
#define QUILLMERE_EXCEPTION(Name, Base)                                                            \
    class Name : public Base {                                                                     \
    public:                                                                                        \
        using Base::Base;                                                                          \
    }

QUILLMERE_EXCEPTION(IllegalStateException, Exception);
QUILLMERE_EXCEPTION(ShuttingDownException, IllegalStateException);
QUILLMERE_EXCEPTION(StoreClosedException, ShuttingDownException);
QUILLMERE_EXCEPTION(IllegalArgumentException, Exception);
QUILLMERE_EXCEPTION(ArgumentNullException, IllegalArgumentException);
QUILLMERE_EXCEPTION(PropertyTypeMismatchException, IllegalArgumentException);
QUILLMERE_EXCEPTION(AllocationException, Exception);
QUILLMERE_EXCEPTION(NumericOverflowException, Exception);
QUILLMERE_EXCEPTION(FeatureNotAvailableException, Exception);
QUILLMERE_EXCEPTION(IoException, Exception);
QUILLMERE_EXCEPTION(BackupFileInvalidException, Exception);
QUILLMERE_EXCEPTION(ParsingException, Exception);

QUILLMERE_EXCEPTION(DbException, Exception);
QUILLMERE_EXCEPTION(DbFullException, DbException);
QUILLMERE_EXCEPTION(DbMaxDataSizeExceededException, DbException);
QUILLMERE_EXCEPTION(SchemaException, DbException);
QUILLMERE_EXCEPTION(ConstraintViolationException, DbException);
QUILLMERE_EXCEPTION(UniqueViolationException, ConstraintViolationException);
QUILLMERE_EXCEPTION(NonUniqueResultException, DbException);
QUILLMERE_EXCEPTION(IdAlreadyExistsException, DbException);
QUILLMERE_EXCEPTION(IdNotFoundException, DbException);
QUILLMERE_EXCEPTION(TimeSeriesException, DbException);

// A failure of the storage engine, with the code that the engine or the system gave.
class StorageException : public DbException {
public:
    StorageException(std::string message, int32_t errorCode)
        : DbException(std::move(message)), errorCode_(errorCode) {}
    int32_t errorCode() const noexcept { return errorCode_; }

private:
    int32_t errorCode_;
};

QUILLMERE_EXCEPTION(OpenDbException, StorageException);
QUILLMERE_EXCEPTION(BadTxException, StorageException);
QUILLMERE_EXCEPTION(DbShutdownException, StorageException);
QUILLMERE_EXCEPTION(DbMaxReadersExceededException, StorageException);

// Damage can also be found above the engine, where there is no engine code: it is 0 then.
class DbFileCorruptException : public StorageException {
public:
    explicit DbFileCorruptException(std::string message, int32_t errorCode = 0)
        : StorageException(std::move(message), errorCode) {}
};

QUILLMERE_EXCEPTION(DbPagesCorruptException, DbFileCorruptException);

namespace tree {
QUILLMERE_EXCEPTION(TreeException, Exception);
QUILLMERE_EXCEPTION(TreeSchemaException, TreeException);
QUILLMERE_EXCEPTION(TreeValueTypeMismatchException, TreeException);
QUILLMERE_EXCEPTION(TreePathNonUniqueException, TreeException);
QUILLMERE_EXCEPTION(TreePathIllegalException, TreeException);
}  // namespace tree

// Thrown inside a visitor to stop a scan; no error, and it never leaves the library.
class StopVisit : public std::exception {};

// One piece of a message: text, or nothing for a null pointer.
class TextPiece {
public:
    TextPiece(const char* text) : text_(text ? std::string_view(text) : std::string_view()) {}
    TextPiece(std::string_view text) : text_(text) {}
    TextPiece(const std::string& text) : text_(text) {}
    std::string_view view() const { return text_; }

private:
    std::string_view text_;
};

// Joins the pieces without separators.
std::string joinPieces(std::initializer_list<TextPiece> pieces);

// Throws E with the joined pieces as its message. Out of line callers keep hot paths small.
template <class E, class... Pieces>
[[noreturn, gnu::cold, gnu::noinline]] void throwWith(const Pieces&... pieces) {
    throw E(joinPieces({TextPiece(pieces)...}));
}

template <class... Pieces>
[[noreturn]] void throwException(const Pieces&... pieces) {
    throwWith<Exception>(pieces...);
}
template <class... Pieces>
[[noreturn]] void throwIllegalArgument(const Pieces&... pieces) {
    throwWith<IllegalArgumentException>(pieces...);
}
template <class... Pieces>
[[noreturn]] void throwIllegalState(const Pieces&... pieces) {
    throwWith<IllegalStateException>(pieces...);
}
template <class... Pieces>
[[noreturn]] void throwAllocation(const Pieces&... pieces) {
    throwWith<AllocationException>(pieces...);
}
template <class... Pieces>
[[noreturn]] void throwIo(const Pieces&... pieces) {
    throwWith<IoException>(pieces...);
}
template <class... Pieces>
[[noreturn]] void throwSchema(const Pieces&... pieces) {
    throwWith<SchemaException>(pieces...);
}

// The same with one text and a number behind it, in decimal.
[[noreturn]] void throwIllegalArgument(const char* text, int64_t number);
[[noreturn]] void throwIllegalState(const char* text, int64_t number);
[[noreturn]] void throwArgumentNull(const char* name, int line);

}  // namespace quillmere
