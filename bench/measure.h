#pragma once

// What is measured beside time: heap allocations, private memory, and the machine itself.

#include <cstdint>
#include <iosfwd>
#include <string>

namespace bench {

// Calls of malloc, calloc, realloc and their aligned siblings (operator new included), by any
// module of this process since its start.
uint64_t allocationCount();

// The allocations of one call of `operation` for each number from first to last.
template <class Operation>
uint64_t allocationsOf(uint32_t first, uint32_t last, Operation&& operation) {
    const uint64_t before = allocationCount();
    for (uint32_t i = first; i <= last; ++i) operation(i);
    return allocationCount() - before;
}

struct PrivateMemory {
    int64_t anonymousKb = 0;  // written pages that no other process maps
    int64_t fileKb = 0;       // pages of files that no other process maps right now
};
PrivateMemory privateMemory();

// Binds this thread to one processor core; throws if the core is not available.
void pinToCore(int core);
int lastAvailableCore();

// Processor, kernel, compiler and the file system of the directory, a line each.
void printMachine(std::ostream& out, const std::string& directory);

}  // namespace bench
