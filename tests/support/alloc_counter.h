#pragma once

#include <cstdint>

namespace quillmere {

// How often the calling thread has allocated with operator new in this program.
uint64_t allocationsOfThread();

}  // namespace quillmere
