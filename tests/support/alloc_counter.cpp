#include "support/alloc_counter.h"

#include <cstdlib>
#include <new>

namespace {
thread_local uint64_t allocations = 0;
}

uint64_t quillmere::allocationsOfThread() {
    return allocations;
}

// The array and nothrow forms of the standard library come here, too.
void* operator new(size_t size) {
    ++allocations;
    if (void* const block = std::malloc(size != 0 ? size : 1)) return block;
    throw std::bad_alloc();
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, size_t) noexcept {
    std::free(block);
}
