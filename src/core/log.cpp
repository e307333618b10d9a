#include "core/log.h"

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>

#include "core/thread_record.h"

namespace quillmere {

namespace {

constexpr int32_t kFirstWideNumber = 1000;

std::atomic<int32_t> nextThreadNumber{1};

// Set by the first line of a thread with a wide number and never cleared, so that the columns stay
// aligned from then on.
std::atomic<bool> wideNumberSeen{false};

const char* prefixFormat(int32_t number) {
    if (number >= kFirstWideNumber) {
        wideNumberSeen.store(true, std::memory_order_relaxed);
        return "%d-%02d:%02d:%02d.%04d";
    }
    return wideNumberSeen.load(std::memory_order_relaxed) ? "%04d-%02d:%02d:%02d.%04d"
                                                          : "%03d-%02d:%02d:%02d.%04d";
}

}  // namespace

int32_t threadNumber() {
    ThreadRecord& record = threadRecord();
    if (record.threadNumber == 0) {
        record.threadNumber = nextThreadNumber.fetch_add(1, std::memory_order_relaxed);
    }
    return record.threadNumber;
}

const char* logTimestamp() {
    using Ticks = std::chrono::duration<int64_t, std::ratio<1, 10'000'000>>;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const int64_t ticks = std::chrono::duration_cast<Ticks>(now).count();
    const int64_t seconds = ticks / Ticks::period::den;
    const int32_t number = threadNumber();
    char* const buffer = threadRecord().timestamp;
    std::snprintf(buffer, ThreadRecord::kTimestampSize, prefixFormat(number), number,
                  static_cast<int>(seconds / 3600 % 24), static_cast<int>(seconds / 60 % 60),
                  static_cast<int>(seconds % 60),
                  static_cast<int>(ticks % Ticks::period::den / 1000));
    return buffer;
}

void logLine(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
}

void logFlush() {
    std::fflush(stdout);
}

}  // namespace quillmere
