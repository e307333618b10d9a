#pragma once

// Log lines on standard output. The line feed belongs to the format; the first argument of every
// line is logTimestamp():
//
//     logLine("%s [INFO ] TX #%zu abort\n", logTimestamp(), number);

#include <cstdint>

namespace quillmere {

// The number of the calling thread, drawn on first use from a process-wide counter that starts
// at 1. Numbers are never reused.
int32_t threadNumber();

// "007-12:34:56.7890": thread number and UTC time of day. Points into the thread's own buffer and
// is valid until this thread calls it again. Allocates nothing.
const char* logTimestamp();

// Writes one line, printf-like. Failures of writing are ignored. Any thread.
[[gnu::format(printf, 1, 2)]] void logLine(const char* format, ...);

// For lines that somebody waits for.
void logFlush();

}  // namespace quillmere
