#include "core/stop_watch.h"

#include <cinttypes>
#include <cstdio>

namespace quillmere {

uint64_t StopWatch::elapsedMicros() const {
    using std::chrono::microseconds;
    return static_cast<uint64_t>(
        std::chrono::duration_cast<microseconds>(Clock::now() - start_).count());
}

std::string StopWatch::durationText(uint64_t micros) {
    char text[32];
    if (micros < 1000) {
        std::snprintf(text, sizeof text, "%" PRIu64 " us", micros);
    } else if (micros < 1'000'000) {
        std::snprintf(text, sizeof text, "%" PRIu64 ".%03" PRIu64 " ms", micros / 1000,
                      micros % 1000);
    } else {
        const uint64_t millis = micros / 1000;
        std::snprintf(text, sizeof text, "%" PRIu64 ".%03" PRIu64 " s", millis / 1000,
                      millis % 1000);
    }
    return text;
}

}  // namespace quillmere
