#include "support/alloc_counter.h"

#include <cstdlib>
#include <new>

namespace {
thread_local uint64_t allocations = 0;
}

uint64_t quillmere::allocationsOfThread() {
    return allocations;
}

// The array forms of the standard library come here, too. A sanitizer's own nothrow form would not
// go with the delete below.
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    ++allocations;
    return std::malloc(size != 0 ? size : 1);
}

void* operator new(size_t size) {
    if (void* const block = operator new(size, std::nothrow)) return block;
    throw std::bad_alloc();
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, size_t) noexcept {
    std::free(block);
}
