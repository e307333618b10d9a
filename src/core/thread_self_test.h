#pragma once

#include <cstdint>

namespace quillmere {

// Exercises threads, latches and shared containers, to catch a platform where they misbehave
// before data is at stake. Every issue is logged; with `throwOnIssue` the first one is thrown as
// IllegalStateException in the end. A thread that hangs costs its memory but never hangs the test.
void runThreadSelfTest(uint32_t rounds, uint32_t limitMillis, uint32_t threadCount,
                       bool throwOnIssue);

}  // namespace quillmere
