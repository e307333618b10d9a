#include "kv/lmdb/lmdb_error.h"

#include <system_error>

#include "core/error.h"
#include "core/log.h"
#include "kv/lmdb/engine/engine.h"

namespace quillmere {

namespace {

std::string textOf(int result) {
    if (result == MDB_MAP_FULL) return "Database is full, please ensure sufficient disk space";
    return result > 0 ? std::generic_category().message(result) : std::string();
}

[[noreturn]] void throwMapped(int result, const std::string& text) {
    const auto with = [&](const char* reason) { return text + " (" + reason + ")"; };
    switch (result) {
        case MDB_PAGE_NOTFOUND:
            throw DbPagesCorruptException(with("page not found"), result);
        case MDB_CORRUPTED:
            throw DbFileCorruptException(with("corrupted"), result);
        case MDB_PANIC:
            throw DbShutdownException(with("store must be shut down"), result);
        case MDB_MAP_FULL:
            throw DbFullException(text);
        case MDB_READERS_FULL:
            throw DbMaxReadersExceededException(with("maximum of read transactions reached"),
                                                result);
        case MDB_BAD_RSLOT:
            throw StorageException(
                with("another read transaction is still active on this thread"), result);
        case MDB_BAD_TXN:
            throw BadTxException(with("bad TX"), result);
        case MDB_BAD_VALSIZE:
            throw StorageException(with("bad key or value size"), result);
        default:
            throw StorageException(with(std::to_string(result).c_str()), result);
    }
}

}  // namespace

LmdbErrors::LmdbErrors(const StoreOptions& options)
    : listener_(options.storageErrorListener),
      logExceptions_((options.debugFlags & kDebugStorageFailures) != 0) {}

void LmdbErrors::fail(int result, const char* text) const {
    report(result);
    const std::string operation = text ? text : "Unknown reason";
    if (!logExceptions_) throwMapped(result, operation);
    try {
        throwMapped(result, operation);
    } catch (const Exception& e) {
        logLine("%s [INFO ] Storage exception occurred (%d): %s\n%s\n", logTimestamp(), result,
                e.what(), e.contextText().c_str());
        throw;
    }
}

void LmdbErrors::failOpen(int result, const std::string& text,
                          const std::string& knownText) const {
    if (result == MDB_PAGE_NOTFOUND || result == MDB_CORRUPTED) fail(result, text.c_str());
    const std::string message = text + " (" + std::to_string(result) +
                                (knownText.empty() ? "" : ": " + knownText) + ")";
    tellListener(message);
    throw OpenDbException(message, result);
}

std::string LmdbErrors::report(int result) const {
    std::string text = textOf(result);
    if (text.empty()) {
        logLine("%s [ERROR] Storage error (code %d)\n", logTimestamp(), result);
    } else {
        logLine("%s [ERROR] Storage error \"%s\" (code %d)\n", logTimestamp(), text.c_str(),
                result);
    }
    logFlush();
    tellListener("Storage error " + std::to_string(result));
    return text;
}

void LmdbErrors::tellListener(const std::string& message) const {
    if (listener_) listener_(message, kStorageErrorKind);
}

}  // namespace quillmere
