#pragma once

// Everything that decides how a store opens, gathered before the store exists.

#include <cstdint>
#include <functional>
#include <string>

#include "core/bytes.h"

namespace quillmere {

// Level, text (not zero-terminated beyond its length), length.
using LogCallback = std::function<void(int32_t level, const char* text, size_t length)>;

// Told of storage failures, with a kind.
using StorageErrorListener = std::function<void(const std::string& message, int32_t kind)>;
inline constexpr int32_t kStorageErrorKind = 50;

enum DebugFlags : uint32_t {
    kDebugLogReadTx = 1,
    kDebugLogWriteTx = 2,
    kDebugLogQueries = 4,
    kDebugLogQueryParameters = 8,
    kDebugLogAsyncQueue = 16,
    kDebugLogCacheHits = 32,
    kDebugLogCacheAll = 64,
    kDebugStorageFailures = 256,  // storage failure mode 2
    kDebugThreadSelfTest = 512,
    kDebugWal = 1024,  // steps of the write-ahead log and of snapshots
};

enum WalFlags : uint32_t {
    kWalEnabled = 1,
    kWalSync = 2,  // each commit reaches the disk
};

enum PutPaddingMode : uint16_t {
    kPaddingNone = 1,        // stored with the size given
    kPaddingAutomatic = 2,   // size rounded up; the bytes behind it must be readable
    kPaddingByCaller = 3,    // a size that is no multiple of 4 is refused
};

// The bytes of a size option; one beyond 64 bits gives the most KiB that fit.
constexpr uint64_t bytesOfKb(uint64_t kilobytes) {
    constexpr uint64_t kMostKb = ~uint64_t{0} / 1024;
    return (kilobytes < kMostKb ? kilobytes : kMostKb) * 1024;
}

// A plain record; whoever holds it owns it. Sizes in KiB, delays in microseconds.
struct StoreOptions {
    std::string directory = "quillmere";
    Bytes modelBytes;
    uint64_t maxDbSizeInKb = 1048576;
    uint64_t maxDataSizeInKb = 0;  // 0: no limit
    uint32_t fileMode = 0644;
    uint32_t maxReaders = 0;  // 0: the provider's default
    uint64_t validatePagesLimit = 0;  // 0: no page validation; all bits set: all pages
    bool validatePagesLeafLevel = false;
    uint32_t putPaddingMode = kPaddingNone;  // 32 bits, so that a value too wide fails at open
    bool readSchema = true;
    bool usePreviousCommit = false;
    bool usePreviousCommitOnValidationFailure = false;  // kept, but nothing acts on it
    bool readOnly = false;
    bool noReaderThreadLocals = false;
    uint32_t debugFlags = 0;

    bool asyncSet = false;
    uint32_t asyncPreDelayMicros = 50;
    uint32_t asyncPreDelay2Micros = 0;
    uint64_t asyncPreDelay2MinQueue = 50;
    uint32_t asyncMaxInTxDurationMicros = 3000;
    uint32_t asyncMaxInTxOperations = 20000;
    uint32_t asyncInTxFixedMicros = 2000;
    uint32_t asyncPostDelayMicros = 50;
    uint32_t asyncPostDelay2Micros = 0;
    uint64_t asyncPostDelay2MinQueue = 50;
    bool asyncPostDelaySubtractTime = false;
    uint32_t asyncMinorRefillMaxCount = 0;
    uint64_t asyncMinorRefillThreshold = 50;
    uint64_t asyncMaxQueueLength = 5000;
    uint64_t asyncThrottleAtQueueLength = 4000;
    uint32_t asyncThrottleMicros = 500;
    uint64_t asyncMaxTxPoolSize = 10000;
    uint64_t asyncObjectBytesMaxCacheSize = 500000;
    uint64_t asyncObjectBytesMaxSizeToCache = 4096;
    bool asyncUseTxPool = true;

    LogCallback logCallback;
    std::string backupFile;
    uint32_t backupRestoreFlags = 0;
    bool validateKvOnOpen = false;
    uint32_t walFlags = 0;
    uint64_t walMaxFileSizeOnOpenInKb = 4096;
    uint64_t walMaxFileSizeInKb = 16384;
    bool hadError = false;

    // Not reachable from the C interface.
    StorageErrorListener storageErrorListener;
    bool noLock = false;  // the engine runs without its lock file
};

// Throws IllegalArgumentException for the first option that a store must not open with.
void checkStoreOptions(const StoreOptions& options);

}  // namespace quillmere
