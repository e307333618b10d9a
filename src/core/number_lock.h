#pragma once

// A lock whose holder is a number: a holder can be named, and the store's write lock is held with
// the number of the writing transaction.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace quillmere {

// Any thread may call any operation. 0 means free and is refused as a number; the all-ones number
// belongs to the closer and is exempt from the shutdown. The free path is lock-free.
class NumberLock {
public:
    static constexpr uint64_t kCloserNumber = ~uint64_t{0};

    enum class Change { Closed, Changed, TimedOut };

    NumberLock() = default;
    NumberLock(const NumberLock&) = delete;
    NumberLock& operator=(const NumberLock&) = delete;

    // Waits without limit. Throws ShuttingDownException once the lock shuts down.
    void lock(uint64_t number);
    // No wait. On false the holder found is in `outHolder`, all ones if shutting down.
    bool tryLock(uint64_t number, uint64_t& outHolder);
    // Waits up to the time given. Throws IllegalStateException if `number` holds it already.
    bool tryLockFor(uint64_t number, uint64_t nanos, uint64_t& outHolder);
    // 0 on success, else the holder found, and nothing has changed.
    uint64_t unlock(uint64_t number);
    uint64_t holder() const { return number_.load(); }
    // Waits until the present holder is gone or another has the lock.
    Change awaitChange(uint64_t nanos);

    // From now on every number but the closer's is refused, waiters included.
    void shutDown();
    // shutDown(), then takes the lock with the closer's number.
    void close();

private:
    bool refuses(uint64_t number) const { return closing_.load() && number != kCloserNumber; }
    // One try; 0 if `number` has the lock now, else the holder found.
    uint64_t trySwap(uint64_t number);
    // Takes back the count of a waiter that gives up on the shutdown, under the mutex.
    void leave();

    std::mutex mutex_;
    std::condition_variable condition_;
    std::atomic<uint64_t> number_{0};
    std::atomic<uint64_t> waiters_{0};  // holders and waiters
    std::atomic<bool> closing_{false};
};

}  // namespace quillmere
