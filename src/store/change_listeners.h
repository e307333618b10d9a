#pragma once

// Tells whoever is interested which entities a committed transaction changed.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace quillmere {

// Any thread. Listeners run on the committing thread, in the order of adding, one commit at a time.
// A listener may begin transactions of its own, but may not add or remove listeners.
class ChangeListeners {
public:
    // Gets the changed entities, each once, in order of first change.
    using Listener = std::function<void(const std::vector<uint32_t>& entityIds)>;

    // A bad listener blocks others for no longer than the time-out.
    explicit ChangeListeners(std::chrono::milliseconds lockTimeout = std::chrono::seconds(15))
        : lockTimeout_(lockTimeout) {}

    // Throws IllegalStateException inside a listener, or if the lock is not free in time.
    uint64_t add(Listener listener);
    // Gives whether it was found; throws like add().
    bool remove(uint64_t id);
    // An exception of a listener ends the round and reaches the caller.
    void fire(const std::vector<uint32_t>& entityIds);

private:
    class Guard;
    struct Entry {
        uint64_t id;
        Listener listener;
    };

    void lock(const char* what);
    void unlock() noexcept;

    const std::chrono::milliseconds lockTimeout_;

    std::mutex mutex_;  // guards owner_ and count_
    std::condition_variable condition_;
    std::thread::id owner_;
    uint32_t count_ = 0;

    // Guarded by the reentrant lock that owner_ and count_ make.
    std::vector<Entry> listeners_;
    uint64_t nextId_ = 1;
    bool firing_ = false;
};

}  // namespace quillmere
