#pragma once

// What every fuzz target has: one function that takes any bytes. Linked with libFuzzer it is a
// fuzzer, with replay.cpp a test.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "core/error.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace quillmere {

// A property that must hold for any input.
inline void require(bool holds) {
    if (!holds) std::abort();
}

// Bad input may be refused, by an exception of the library.
template <class Action>
void mayRefuse(Action&& action) {
    try {
        action();
    } catch (const Exception&) {
    }
}

}  // namespace quillmere
