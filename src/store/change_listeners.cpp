#include "store/change_listeners.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "core/error.h"

namespace quillmere {

// Reentrant, so that a listener that reaches back gets a clear failure instead of the time-out.
class ChangeListeners::Guard {
public:
    Guard(ChangeListeners& listeners, const char* what) : listeners_(listeners) {
        listeners_.lock(what);
    }
    ~Guard() { listeners_.unlock(); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

private:
    ChangeListeners& listeners_;
};

uint64_t ChangeListeners::add(Listener listener) {
    const Guard guard(*this, "Add listener");
    if (firing_) throwIllegalState("Listeners cannot add listeners");
    listeners_.push_back({nextId_, std::move(listener)});
    return nextId_++;
}

bool ChangeListeners::remove(uint64_t id) {
    Listener removed;  // destroyed after the lock is gone: what it holds is the caller's
    const Guard guard(*this, "Remove listener");
    if (firing_) throwIllegalState("Listeners cannot remove listeners");
    const auto entry = std::find_if(listeners_.begin(), listeners_.end(),
                                    [id](const Entry& e) { return e.id == id; });
    if (entry == listeners_.end()) return false;
    removed = std::move(entry->listener);
    listeners_.erase(entry);
    return true;
}

void ChangeListeners::fire(const std::vector<uint32_t>& entityIds) {
    const Guard guard(*this, "Firing listeners");
    // A listener may commit a transaction of its own, so this may be a round inside a round.
    struct Firing {
        explicit Firing(bool& flag) : flag_(flag), previous_(std::exchange(flag, true)) {}
        ~Firing() { flag_ = previous_; }
        bool& flag_;
        const bool previous_;
    } const firing(firing_);
    for (const Entry& entry : listeners_) entry.listener(entityIds);
}

void ChangeListeners::lock(const char* what) {
    std::unique_lock lock(mutex_);
    const std::thread::id self = std::this_thread::get_id();
    if (owner_ == self && count_ < std::numeric_limits<uint32_t>::max()) {
        ++count_;
        return;
    }
    if (!condition_.wait_for(lock, lockTimeout_, [this] { return count_ == 0; })) {
        throwIllegalState(what, " failed: could not lock in time (check your listener; "
                                "is it deadlocking or bad behaved?)");
    }
    owner_ = self;
    count_ = 1;
}

void ChangeListeners::unlock() noexcept {
    const std::lock_guard lock(mutex_);
    if (--count_ != 0) return;
    owner_ = {};
    condition_.notify_one();
}

}  // namespace quillmere
