#pragma once

// What the library keeps for each thread.

#include <cstdint>
#include <string>

namespace quillmere {

// The last error is a single slot: a new error replaces the old one. An error code of 0 means none.
struct ThreadRecord {
    static constexpr int kTimestampSize = 25;

    int32_t errorCode = 0;
    int32_t errorSecondary = 0;
    std::string errorMessage;
    char timestamp[kTimestampSize] = {};
    int32_t threadNumber = 0;  // 0: none drawn yet
};

// The record of the calling thread. Usable to the very end of the thread, thread-local destructors
// included; no other thread may touch it.
ThreadRecord& threadRecord() noexcept;

}  // namespace quillmere
