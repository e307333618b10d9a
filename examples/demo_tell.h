#pragma once

// How the demo tells what happens, and how it checks that the right thing did.

#include <chrono>
#include <cstddef>

class StopWatch {
public:
    double seconds() const {
        const auto now = std::chrono::steady_clock::now();
        return std::chrono::duration<double>(now - start_).count();
    }

private:
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

void tellRate(size_t count, const char* what, const StopWatch& watch);
// A bar on a terminal; a line for every ten thousand elsewhere.
void tellProgress(size_t done, size_t total, const char* what);

// Throws if something is not as it must be.
void expect(bool condition, const char* what);
