#pragma once

// A count-down latch with a timed wait.

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace quillmere {

// Any thread may call any operation. Opens for good when the count reaches 0.
class Latch {
public:
    explicit Latch(uint32_t count = 1) : count_(count) {}
    Latch(const Latch&) = delete;
    Latch& operator=(const Latch&) = delete;

    // No effect once open.
    void countDown();
    bool isOpen() const;
    void await() const;
    // Whether the latch opened in time.
    bool awaitFor(uint64_t millis) const;

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable condition_;
    uint32_t count_;
};

}  // namespace quillmere
