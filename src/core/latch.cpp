#include "core/latch.h"

#include <algorithm>
#include <chrono>

namespace quillmere {

void Latch::countDown() {
    // Notified under the mutex: a waiter may destroy the latch as soon as it can see the count.
    std::lock_guard lock(mutex_);
    if (count_ != 0 && --count_ == 0) condition_.notify_all();
}

bool Latch::isOpen() const {
    std::lock_guard lock(mutex_);
    return count_ == 0;
}

void Latch::await() const {
    std::unique_lock lock(mutex_);
    condition_.wait(lock, [this] { return count_ == 0; });
}

bool Latch::awaitFor(uint64_t millis) const {
    // The clock's range ends after centuries; a longer limit means no limit.
    constexpr uint64_t kMaxMillis = uint64_t{1000} * 60 * 60 * 24 * 365 * 100;
    const std::chrono::milliseconds limit(static_cast<int64_t>(std::min(millis, kMaxMillis)));
    std::unique_lock lock(mutex_);
    return condition_.wait_for(lock, limit, [this] { return count_ == 0; });
}

}  // namespace quillmere
