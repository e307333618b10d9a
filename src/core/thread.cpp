#include "core/thread.h"

#include <pthread.h>

#include <cstdio>
#include <system_error>

#include "core/checks.h"
#include "core/error.h"
#include "core/log.h"

namespace quillmere {

namespace {

void nameSystemThread(const std::string& name) {
    constexpr size_t kLongestSystemName = 15;
    pthread_setname_np(pthread_self(), name.substr(0, kLongestSystemName).c_str());
}

// The message, or "unknown" for what is no standard exception.
std::string messageOf(std::exception_ptr exception, std::string& outStackTrace) {
    try {
        std::rethrow_exception(exception);
    } catch (const Exception& e) {
        outStackTrace = e.contextText();
        return e.message();
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return std::string();
    }
}

const char* orUnknown(const std::string& text) {
    return text.empty() ? "unknown" : text.c_str();
}

}  // namespace

Thread::Thread(std::string name)
    : name_(std::move(name)), creatorThreadNumber_(quillmere::threadNumber()) {}

Thread::~Thread() {
    requestStop();
    if (state_.load() == State::Destroyed) {
        logLine("%s [ERROR] [Thread] Double delete detected: Thread already destroyed\n",
                logTimestamp());
    } else if (isSelf()) {
        failSelfDestruction();
    } else {
        try {
            join();
        } catch (const std::exception& e) {
            logLine("%s [ERROR] [Thread] %s\n", logTimestamp(), e.what());
        }
        state_.store(State::Destroyed);
    }
}

// Ends the process, as any system thread does that is left unjoined. Here at once, since others may
// still wait on the members.
void Thread::failSelfDestruction() noexcept {
    try {
        const IllegalStateException failure(
            joinPieces({"Thread \"", name_, "\" (#", std::to_string(threadNumber()),
                        ") cannot destruct itself."}));
        logLine("%s [ERROR] %s\n", logTimestamp(), failure.what());
        logLine("%s [ERROR] This is a usage error and the application will likely terminate "
                "shortly...\n", logTimestamp());
        logFlush();
        std::fprintf(stderr, "%s\n", failure.what());
    } catch (...) {
        // Out of memory: the process ends without the words.
    }
    std::terminate();
}

bool Thread::isSelf() const {
    return threadNumber() == quillmere::threadNumber();
}

void Thread::start() {
    startInternal();
    // From here on everybody finds a thread that runs: a stop request can't overtake the start.
    runs_.await();
}

void Thread::startInternal() {
    std::lock_guard lock(mutex_);
    CHECK_STATE_AT(99, state_ == State::Created);
    state_.store(State::Started);
    try {
        thread_ = std::thread([this] { body(); });
    } catch (...) {
        state_.store(State::Created);
        throw;
    }
    started_.store(true);
}

void Thread::body() noexcept {
    try {
        enter();
        run();
    } catch (...) {
        exception_ = std::current_exception();
        logUncaught(exception_);
    }
    runs_.countDown();
    state_.store(State::Finished);
    finished_.countDown();
}

void Thread::enter() {
    threadNumber_.store(quillmere::threadNumber());
    if (name_.empty()) name_ = "NoName-" + std::to_string(threadNumber());
    nameSystemThread(name_);
    State found = State::Started;
    if (!state_.compare_exchange_strong(found, State::Running)) {
        throwIllegalState("Thread is in an illegal state: ", static_cast<int64_t>(found));
    }
    runs_.countDown();
}

void Thread::logUncaught(std::exception_ptr exception) const noexcept {
    try {
        std::string stackTrace;
        const std::string message = messageOf(exception, stackTrace);
        logLine("%s [ERROR] [Thread] Uncaught exception in thread \"%s\" (created by #%d): %s\n",
                logTimestamp(), orUnknown(name_), creatorThreadNumber_, orUnknown(message));
        if (stackTrace.empty()) {
            logLine("%s [ERROR] [Thread] (no stacktrace available\n", logTimestamp());
        } else {
            logLine("%s [ERROR] [Thread] %s\n", logTimestamp(), stackTrace.c_str());
        }
    } catch (...) {
        logLine("%s [ERROR] [Thread] Uncaught exception in thread \"%s\" (created by #%d): %s\n",
                logTimestamp(), orUnknown(name_), creatorThreadNumber_, "unknown");
    }
}

void Thread::requestStop() noexcept {
    State found = state_.load();
    while (found < State::Stopping && !state_.compare_exchange_weak(found, State::Stopping)) {
    }
    stopRequested_.countDown();
}

bool Thread::awaitFinish(uint64_t timeoutMillis) const {
    if (!started_.load()) throwIllegalState("Thread was not yet started");
    return finished_.awaitFor(timeoutMillis);
}

bool Thread::join(uint64_t timeoutMillis, bool log, bool giveUpOnTimeout) {
    if (isSelf()) {
        throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur));
    }
    std::lock_guard lock(mutex_);
    if (!thread_.joinable()) return false;
    if (!awaitFinish(timeoutMillis)) {
        if (log) {
            logLine("%s [INFO ] [Thread] Stopped thread \"%s\" did not finish after 10s; "
                    "still joining...\n", logTimestamp(), name_.c_str());
        }
        if (giveUpOnTimeout) return false;
    }
    if (state_.load() == State::Started) {
        logLine("%s [WARN ] [Thread] Suspicious race detected: thread (#%d) was not completely "
                "started while joined from #%d\n", logTimestamp(), threadNumber(),
                quillmere::threadNumber());
    }
    thread_.join();
    return true;
}

}  // namespace quillmere
