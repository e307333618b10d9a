#include "store/store_close.h"

#include "core/log.h"
#include "core/number_lock.h"

namespace quillmere {

namespace {

constexpr size_t kLogInterval = 1000;
constexpr size_t kQueryPauses = 10000;
constexpr size_t kTransactionPauses = 1000;

uint32_t transactionsOfOthers(const StoreActivity& activity) {
    const uint32_t all = activity.transactions.load();
    const uint32_t own = CommitInProgress::countOfThisThread(activity);
    return all > own ? all - own : 0;
}

// Pauses until nothing remains, or the limit is reached. `what` names it in the log.
template <class Remaining, class LogWaiting>
void awaitNone(const char* what, size_t limit, Remaining remaining, LogWaiting logWaiting,
               const ClosePause& pause) {
    size_t count = 0;
    for (; remaining() != 0; ++count) {
        if (count % kLogInterval == 0) {
            logWaiting(count);
            logFlush();
            if (count >= limit) {
                logLine("%s [ERROR] [Store ] Waiting for %s to finish took too long; please ensure "
                        "that all %s finish in time. Closing store now, but this may lead to "
                        "undefined behavior.\n",
                        logTimestamp(), what, what);
                break;
            }
        }
        pause();
    }
    if (count != 0) {
        logLine("%s [INFO ] [Store ] Waited %zu times for %s to finish\n", logTimestamp(), count,
                what);
    }
}

}  // namespace

bool awaitWriter(NumberLock& writeLock, const std::atomic<int32_t>& writerThread,
                 uint64_t limitNanos, uint64_t roundNanos) {
    uint64_t holder = 0;
    if (writeLock.tryLock(NumberLock::kCloserNumber, holder)) return true;
    logLine("%s [WARN ] Cannot close store yet: TX #%zu is still active in thread %d. Waiting...\n",
            logTimestamp(), holder, writerThread.load());
    logFlush();
    if (limitNanos != 0) {
        if (writeLock.tryLockFor(NumberLock::kCloserNumber, limitNanos, holder)) return true;
        logLine("%s [ERROR] Closing store time limit reached; cannot wait for TX #%zu\n",
                logTimestamp(), holder);
        logFlush();
        return false;
    }
    while (!writeLock.tryLockFor(NumberLock::kCloserNumber, roundNanos, holder)) {
        logLine("%s [ERROR] Cannot close store yet: TX #%zu still active. Waiting...\n",
                logTimestamp(), holder);
        logFlush();
    }
    logLine("%s [WARN ] Writer lock acquired for closing store, starting grace period for TXs to "
            "finish\n",
            logTimestamp());
    logFlush();
    logLine("%s [WARN ] OK, store can be closed now\n", logTimestamp());
    logFlush();
    return true;
}

void awaitCommits(const StoreActivity& activity, const ClosePause& pause) {
    const uint32_t own = CommitInProgress::countOfThisThread(activity);
    while (activity.commitsInProgress.load() > own) pause();
}

void awaitQueries(const StoreActivity& activity, const ClosePause& pause) {
    const auto logWaiting = [&](size_t count) {
        logLine("%s [WARN ] [Store ] Waiting for %u queries to finish (TXs: %u, wait count: %zu)\n",
                logTimestamp(), activity.queries.load(), activity.transactions.load(), count);
    };
    awaitNone("queries", kQueryPauses, [&] { return activity.queries.load(); }, logWaiting, pause);
}

void awaitTransactions(const StoreActivity& activity, const ClosePause& pause) {
    const auto remaining = [&] { return transactionsOfOthers(activity); };
    const auto logWaiting = [&](size_t count) {
        logLine("%s [WARN ] [Store ] Waiting for %u TX(s) to finish (wait count: %zu)\n",
                logTimestamp(), remaining(), count);
    };
    awaitNone("TXs", kTransactionPauses, remaining, logWaiting, pause);
}

}  // namespace quillmere
