#pragma once

// What a closing store waits for, and what its transactions must know once it is gone.

#include <atomic>
#include <cstdint>

namespace quillmere {

// Shared by the store and its transactions, so that it outlives the store.
struct StoreActivity {
    std::atomic<uint32_t> commitsInProgress{0};
    std::atomic<uint32_t> transactions{0};
    std::atomic<uint32_t> queries{0};
    // The storage is closed: the engine's handles must not be touched any more.
    std::atomic<bool> storeClosed{false};
};

// Counts a commit as in progress for as long as it lives. On the stack of the committing thread: a
// listener may commit another transaction, or close the store, which must not wait for itself.
class CommitInProgress {
public:
    explicit CommitInProgress(StoreActivity& activity) noexcept;
    ~CommitInProgress();
    CommitInProgress(const CommitInProgress&) = delete;
    CommitInProgress& operator=(const CommitInProgress&) = delete;

    // The commits that the calling thread is in the middle of.
    static uint32_t countOfThisThread(const StoreActivity& activity) noexcept;

private:
    StoreActivity& activity_;
    CommitInProgress* const outer_;
};

// Counts a query as running for as long as it lives.
class RunningQuery {
public:
    explicit RunningQuery(StoreActivity& activity) noexcept : activity_(activity) {
        activity_.queries.fetch_add(1);
    }
    ~RunningQuery() { activity_.queries.fetch_sub(1); }
    RunningQuery(const RunningQuery&) = delete;
    RunningQuery& operator=(const RunningQuery&) = delete;

private:
    StoreActivity& activity_;
};

}  // namespace quillmere
