#include "demo_tell.h"

#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

void tellRate(size_t count, const char* what, const StopWatch& watch) {
    const double seconds = watch.seconds();
    std::printf("   %zu %s in %.1f ms, %.0f per second\n", count, what, seconds * 1e3,
                static_cast<double>(count) / seconds);
}

void tellProgress(size_t done, size_t total, const char* what) {
    if (isatty(STDOUT_FILENO)) {
        const int percent = static_cast<int>(done * 100 / total);
        std::printf("\r   [%-25.*s] %3d %%", percent / 4, "#########################", percent);
        if (done == total) std::printf("\r%40s\r", "");
        std::fflush(stdout);
    } else if (done % 10'000 == 0) {
        std::printf("   %zu of %zu %s\n", done, total, what);
    }
}

void expect(bool condition, const char* what) {
    if (!condition) throw std::runtime_error(std::string("Unexpected: ") + what);
}
