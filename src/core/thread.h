#pragma once

// The library's thread class: a named thread whose life cycle can be awaited.

#include <atomic>
#include <cstdint>
#include <exception>
#include <mutex>
#include <string>
#include <thread>

#include "core/latch.h"

namespace quillmere {

// Subclasses add the work in run(). Owned by one object; start() is called once, the other
// operations may be called by any thread.
//
// run() uses the subclass, so a subclass with members of its own ends the thread in its own
// destructor (requestStop(), join()); the one of this class comes too late for them.
class Thread {
public:
    enum class State : int32_t {
        Created = 0,
        Started = 1,    // the system thread exists
        Running = 2,    // run() runs
        Stopping = 3,   // a stop was requested
        Finished = 4,   // run() has returned
        Destroyed = 5,
    };

    static constexpr uint64_t kJoinMillis = 10'000;

    // An empty name becomes "NoName-" and the thread's number.
    explicit Thread(std::string name);
    // Asks the thread to stop and joins it, however long that takes. A thread that destroys itself
    // ends the process.
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Returns once the thread runs. Throws IllegalStateException if it was started before.
    void start();
    void requestStop() noexcept;
    bool stopRequested() const { return stopRequested_.isOpen(); }
    // For run(): sleeps until a stop is requested; false if the time was over first.
    bool awaitStopRequest(uint64_t millis) const { return stopRequested_.awaitFor(millis); }
    // Whether run() has returned in time. Throws IllegalStateException before a start.
    bool awaitFinish(uint64_t timeoutMillis) const;
    // Waits for the end up to the time given, then joins, however long it takes, or gives up.
    // Whether it joined: false also for a thread that was never started or has been joined.
    // A thread that joins itself gets the system's deadlock error.
    bool join(uint64_t timeoutMillis = kJoinMillis, bool log = true, bool giveUpOnTimeout = false);

    State state() const { return state_.load(); }
    // Settled once start() has returned.
    const std::string& name() const { return name_; }
    int32_t threadNumber() const { return threadNumber_.load(); }
    // What run() threw; to be asked for after the end.
    std::exception_ptr exception() const { return exception_; }

protected:
    virtual void run() = 0;

private:
    void startInternal();
    void body() noexcept;
    void enter();
    void logUncaught(std::exception_ptr exception) const noexcept;
    bool isSelf() const;
    [[noreturn]] void failSelfDestruction() noexcept;

    std::mutex mutex_;
    std::thread thread_;  // under mutex_
    std::string name_;
    Latch runs_;
    Latch stopRequested_;
    Latch finished_;
    std::exception_ptr exception_;  // written before finished_ opens
    const int32_t creatorThreadNumber_;
    std::atomic<int32_t> threadNumber_{0};
    std::atomic<State> state_{State::Created};
    std::atomic<bool> started_{false};
};

}  // namespace quillmere
