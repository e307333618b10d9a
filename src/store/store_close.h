#pragma once

// The waits of a closing store, in the order in which it runs them.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "store/store_activity.h"

namespace quillmere {

class NumberLock;

// Takes the write lock for the closer once the running write transaction is over; logs while it
// waits. With a limit of 0 it waits in rounds without end and gives true; otherwise false if the
// limit is over first.
bool awaitWriter(NumberLock& writeLock, const std::atomic<int32_t>& writerThread,
                 uint64_t limitNanos, uint64_t roundNanos);

// What a wait does between two looks: sleep a millisecond.
using ClosePause = std::function<void()>;

// The commits and transactions of the calling thread itself do not count: a listener may be closing
// the store.
void awaitCommits(const StoreActivity& activity, const ClosePause& pause);
// Gives up after 10000 pauses.
void awaitQueries(const StoreActivity& activity, const ClosePause& pause);
// Gives up after 1000 pauses.
void awaitTransactions(const StoreActivity& activity, const ClosePause& pause);

}  // namespace quillmere
