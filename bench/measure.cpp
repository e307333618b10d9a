#include "measure.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <stdexcept>

namespace {
std::atomic<uint64_t> allocations{0};
void countAllocation() { allocations.fetch_add(1, std::memory_order_relaxed); }
}  // namespace

// These take the place of the C library's functions for every module of the process and hand on to
// the entry points that glibc keeps under a second name; free needs no replacement.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

void* malloc(size_t size) {
    countAllocation();
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
    countAllocation();
    return __libc_calloc(count, size);
}
void* realloc(void* block, size_t size) {
    countAllocation();
    return __libc_realloc(block, size);
}
void* aligned_alloc(size_t alignment, size_t size) {
    countAllocation();
    return __libc_memalign(alignment, size);
}
int posix_memalign(void** block, size_t alignment, size_t size) {
    countAllocation();
    *block = __libc_memalign(alignment, size);
    return *block ? 0 : ENOMEM;
}
}

namespace bench {

uint64_t allocationCount() { return allocations.load(std::memory_order_relaxed); }

PrivateMemory privateMemory() {
    // On the stack and with bare system calls, so that measuring changes nothing.
    char text[4096];
    const int file = open("/proc/self/smaps_rollup", O_RDONLY | O_CLOEXEC);
    if (file < 0) throw std::runtime_error("Cannot open /proc/self/smaps_rollup");
    size_t length = 0;
    ssize_t got;
    while ((got = read(file, text + length, sizeof text - 1 - length)) > 0) {
        length += static_cast<size_t>(got);
    }
    close(file);
    text[length] = 0;
    const auto valueOf = [&](const char* key) -> int64_t {
        const char* line = std::strstr(text, key);
        if (!line) throw std::runtime_error(std::string("No line in smaps_rollup: ") + key);
        return std::strtoll(line + std::strlen(key), nullptr, 10);
    };
    // A page of a file that was just written, as a library after its build, counts as dirty too.
    const int64_t anonymous = valueOf("Anonymous:");
    return {anonymous, valueOf("Private_Dirty:") + valueOf("Private_Clean:") - anonymous};
}

void pinToCore(int core) {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(core, &cores);
    if (sched_setaffinity(0, sizeof cores, &cores) != 0) {
        throw std::runtime_error("Cannot pin to core " + std::to_string(core));
    }
}

int lastAvailableCore() {
    cpu_set_t cores;
    if (sched_getaffinity(0, sizeof cores, &cores) != 0) {
        throw std::runtime_error("Cannot read the cores of this process");
    }
    for (int core = CPU_SETSIZE - 1; core >= 0; --core) {
        if (CPU_ISSET(core, &cores)) return core;
    }
    throw std::runtime_error("No core available");
}

namespace {

std::string processorName() {
    std::ifstream file("/proc/cpuinfo");
    std::string line;
    while (std::getline(file, line)) {
        const size_t colon = line.find(": ");
        if (line.starts_with("model name") && colon != line.npos) return line.substr(colon + 2);
    }
    return "unknown";
}

// The type and device of the longest mount point that holds the directory.
std::string fileSystemOf(const std::string& directory) {
    const std::string path = std::filesystem::canonical(directory).string() + "/";
    std::ifstream mounts("/proc/self/mounts");
    std::string device, point, type, rest, best = "unknown";
    size_t bestLength = 0;
    while (mounts >> device >> point >> type && std::getline(mounts, rest)) {
        if (point.back() != '/') point += '/';
        if (path.starts_with(point) && point.size() >= bestLength) {
            bestLength = point.size();
            best = type + " on " + device;
        }
    }
    return best;
}

}  // namespace

void printMachine(std::ostream& out, const std::string& directory) {
    utsname system{};
    uname(&system);
    out << "processor    " << processorName() << ", " << sysconf(_SC_NPROCESSORS_ONLN)
        << " cores online\n"
        << "kernel       " << system.sysname << ' ' << system.release << ' ' << system.machine
        << '\n'
        << "file system  " << fileSystemOf(directory) << '\n'
#if defined(__clang__)
        << "compiler     " << __VERSION__ << '\n';
#else
        << "compiler     GCC " << __VERSION__ << '\n';
#endif
}

}  // namespace bench
