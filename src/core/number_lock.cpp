#include "core/number_lock.h"

#include <algorithm>
#include <chrono>

#include "core/error.h"

namespace quillmere {

namespace {

using Clock = std::chrono::steady_clock;
using Nanos = std::chrono::nanoseconds;

// Waiting counts its time from here, which holds for any limit; a deadline could leave the clock's
// range.
class WaitTime {
public:
    explicit WaitTime(uint64_t limit) : limit_(limit) {}

    // What is left, capped for a single wait; 0 once the time is over.
    Nanos nextWait() const {
        constexpr Nanos kLongestWait = std::chrono::hours(24 * 10);
        const auto elapsed = static_cast<uint64_t>(Nanos(Clock::now() - start_).count());
        if (elapsed >= limit_) return Nanos::zero();
        const uint64_t left = limit_ - elapsed;
        return Nanos(std::min(left, static_cast<uint64_t>(kLongestWait.count())));
    }

private:
    const uint64_t limit_;
    const Clock::time_point start_ = Clock::now();
};

void checkNumber(uint64_t number) {
    if (number == 0) [[unlikely]] throwIllegalArgument("Number may not be zero");
}

}  // namespace

// The count of waiters rises before the first try, so that either the try sees the lock free or
// unlock() sees the waiter. unlock() broadcasts under the mutex and waiters try once more under it
// before they wait, so no wake-up is lost.

void NumberLock::lock(uint64_t number) {
    checkNumber(number);
    if (refuses(number)) throwWith<ShuttingDownException>("This lock is shutting down");
    waiters_.fetch_add(1);
    if (trySwap(number) == 0) return;
    std::unique_lock guard(mutex_);
    while (trySwap(number) != 0) {
        condition_.wait_for(guard, std::chrono::milliseconds(1));
        if (refuses(number)) {
            leave();
            throwWith<ShuttingDownException>("NumberLock is being destroyed");
        }
    }
}

bool NumberLock::tryLock(uint64_t number, uint64_t& outHolder) {
    checkNumber(number);
    if (refuses(number)) {
        outHolder = kCloserNumber;
        return false;
    }
    waiters_.fetch_add(1);
    const uint64_t found = trySwap(number);
    if (found == 0) return true;
    waiters_.fetch_sub(1);
    outHolder = found;
    return false;
}

bool NumberLock::tryLockFor(uint64_t number, uint64_t nanos, uint64_t& outHolder) {
    checkNumber(number);
    if (refuses(number)) {
        outHolder = kCloserNumber;
        return false;
    }
    waiters_.fetch_add(1);
    uint64_t found = trySwap(number);
    if (found == 0) return true;
    if (found == number) {
        waiters_.fetch_sub(1);
        throwIllegalState("Number is already locked - locking twice is illegal: ",
                          std::to_string(number));
    }
    const WaitTime time(nanos);
    std::unique_lock guard(mutex_);
    while ((found = trySwap(number)) != 0) {
        const Nanos wait = time.nextWait();
        if (wait == Nanos::zero()) {
            waiters_.fetch_sub(1);
            outHolder = found;
            return false;
        }
        if (!refuses(number)) condition_.wait_for(guard, wait);
        if (refuses(number)) {
            leave();
            outHolder = kCloserNumber;
            return false;
        }
    }
    return true;
}

uint64_t NumberLock::unlock(uint64_t number) {
    checkNumber(number);
    uint64_t found = number;
    if (!number_.compare_exchange_strong(found, 0)) return found;
    if (waiters_.fetch_sub(1) > 1) {
        std::lock_guard guard(mutex_);
        condition_.notify_all();
    }
    return 0;
}

NumberLock::Change NumberLock::awaitChange(uint64_t nanos) {
    if (closing_.load()) return Change::Closed;
    const uint64_t holder = number_.load();
    if (holder == 0) return Change::Changed;
    const WaitTime time(nanos);
    waiters_.fetch_add(1);
    std::unique_lock guard(mutex_);
    const auto waitForChange = [&] {
        for (;;) {
            if (number_.load() != holder) return Change::Changed;
            if (closing_.load()) return Change::Closed;
            const Nanos wait = time.nextWait();
            if (wait == Nanos::zero()) return Change::TimedOut;
            condition_.wait_for(guard, wait);
        }
    };
    const Change change = waitForChange();
    waiters_.fetch_sub(1);
    return change;
}

void NumberLock::shutDown() {
    std::lock_guard guard(mutex_);
    closing_.store(true);
    condition_.notify_all();
}

void NumberLock::close() {
    shutDown();
    lock(kCloserNumber);
}

uint64_t NumberLock::trySwap(uint64_t number) {
    uint64_t found = 0;
    number_.compare_exchange_strong(found, number);
    return found;
}

void NumberLock::leave() {
    waiters_.fetch_sub(1);
    condition_.notify_all();
}

}  // namespace quillmere
