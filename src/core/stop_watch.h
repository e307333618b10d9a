#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace quillmere {

// Measures time from its construction on, by the monotonic clock.
class StopWatch {
public:
    void restart() { start_ = Clock::now(); }
    uint64_t elapsedMicros() const;
    // "873 us", "12.345 ms", "2.500 s".
    std::string text() const { return durationText(elapsedMicros()); }

    static std::string durationText(uint64_t micros);

private:
    using Clock = std::chrono::steady_clock;

    Clock::time_point start_ = Clock::now();
};

}  // namespace quillmere
