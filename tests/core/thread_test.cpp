#include "core/thread.h"

#include <pthread.h>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "core/error.h"
#include "core/log.h"
#include "core/thread_self_test.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

class TaskThread final : public Thread {
public:
    TaskThread(std::string name, std::function<void(TaskThread&)> task)
        : Thread(std::move(name)), task_(std::move(task)) {}
    ~TaskThread() override {
        requestStop();
        join();
    }

private:
    void run() override { task_(*this); }

    std::function<void(TaskThread&)> task_;
};

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(Thread, GoesThroughItsStatesOnce) {
    TaskThread thread("Worker", [](TaskThread& self) {
        EXPECT_EQ(self.state(), Thread::State::Running);
        char name[16];
        pthread_getname_np(pthread_self(), name, sizeof name);
        EXPECT_STREQ(name, "Worker");
        self.awaitStopRequest(60'000);
    });
    EXPECT_EQ(thread.state(), Thread::State::Created);
    EXPECT_EQ(messageOf<IllegalStateException>([&] { thread.awaitFinish(0); }),
              "Thread was not yet started");
    EXPECT_FALSE(thread.join());
    thread.start();
    EXPECT_EQ(thread.state(), Thread::State::Running);
    EXPECT_NE(thread.threadNumber(), threadNumber());
    EXPECT_EQ(messageOf<IllegalStateException>([&] { thread.start(); }),
              "State condition failed in startInternal:99: state_ == State::Created");
    EXPECT_FALSE(thread.awaitFinish(1));
    EXPECT_FALSE(thread.join(1, false, true)) << "gives up";
    thread.requestStop();
    EXPECT_TRUE(thread.awaitFinish(60'000));
    EXPECT_EQ(thread.state(), Thread::State::Finished);
    EXPECT_TRUE(thread.join());
    EXPECT_FALSE(thread.join()) << "joined already";
}

TEST(Thread, WithoutANameIsNamedByItsNumber) {
    TaskThread thread("", [](TaskThread&) {});
    thread.start();
    EXPECT_EQ(thread.name(), "NoName-" + std::to_string(thread.threadNumber()));
}

TEST(Thread, DroppedWithoutAStartOrStoppedBeforeIt) {
    { TaskThread thread("Never", [](TaskThread&) { FAIL(); }); }
    TaskThread thread("Stopped", [](TaskThread&) { FAIL(); });
    thread.requestStop();
    EXPECT_THROW(thread.start(), IllegalStateException);
}

TEST(Thread, KeepsAndLogsAnUncaughtException) {
    testing::internal::CaptureStdout();
    TaskThread thread("Thrower", [](TaskThread&) { throwIllegalState("boom"); });
    thread.start();
    thread.join();
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(has(log, "[ERROR] [Thread] Uncaught exception in thread \"Thrower\" (created by #" +
                             std::to_string(threadNumber()) + "): boom\n")) << log;
    EXPECT_TRUE(has(log, "[ERROR] [Thread] (no stacktrace available\n")) << log;
    EXPECT_EQ(messageOf<IllegalStateException>([&] { std::rethrow_exception(thread.exception()); }),
              "boom");

    testing::internal::CaptureStdout();
    TaskThread other("Other", [](TaskThread&) { throw 5; });
    other.start();
    other.join();
    EXPECT_TRUE(has(testing::internal::GetCapturedStdout(), "): unknown\n"));
}

TEST(Thread, JoiningItselfIsADeadlock) {
    TaskThread thread("Self", [](TaskThread& self) {
        try {
            self.join();
            ADD_FAILURE();
        } catch (const std::system_error& e) {
            EXPECT_EQ(e.code(), std::errc::resource_deadlock_would_occur);
        }
    });
    thread.start();
}

TEST(ThreadDeathTest, DestroyingItselfEndsTheProcess) {
    class Suicidal final : public Thread {
    public:
        Suicidal() : Thread("Suicidal") {}

    private:
        void run() override { delete this; }
    };
    EXPECT_DEATH(
        {
            auto* thread = new Suicidal;
            thread->start();
            thread->join();  // of no help, and no hindrance either
        },
        "Thread \"Suicidal\" \\(#[0-9]+\\) cannot destruct itself\\.");
}

TEST(ThreadSelfTest, PassesWithoutALineOnASanePlatform) {
    testing::internal::CaptureStdout();
    EXPECT_NO_THROW(runThreadSelfTest(2, 60'000, 8, true));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(ThreadSelfTest, ReportsWhatDoesNotEndInTime) {
    // No time at all: the threads find the latch closed or do not end in time.
    testing::internal::CaptureStdout();
    const std::string message =
        messageOf<IllegalStateException>([] { runThreadSelfTest(1, 0, 32, true); });
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(has(message, "The treading self-test encountered issues: ")) << message;
    EXPECT_TRUE(has(log, "[ERROR] [TSfTst] " + message + "\n")) << log;
    EXPECT_TRUE(has(message, " failed the await ") ||
                has(message, " threads actually finished in time (0 ms). ")) << message;
    testing::internal::CaptureStdout();
    EXPECT_NO_THROW(runThreadSelfTest(1, 0, 32, false));
    testing::internal::GetCapturedStdout();
}

}  // namespace
}  // namespace quillmere
