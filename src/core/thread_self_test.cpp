#include "core/thread_self_test.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/error.h"
#include "core/log.h"
#include "core/thread.h"

namespace quillmere {

namespace {

class Worker final : public Thread {
public:
    using Task = std::function<void(Worker&)>;

    Worker(std::string name, Task task) : Thread(std::move(name)), task_(std::move(task)) {}
    ~Worker() override {
        requestStop();
        join();
    }

private:
    void run() override { task_(*this); }

    Task task_;
};

// All that the threads of a stage touch. Shared with them, so that it outlives one that hangs.
struct Stage {
    Latch go{1};
    std::atomic<uint32_t> started{0};
    std::atomic<uint32_t> awaited{0};
    std::atomic<uint32_t> countedDown{0};
    std::atomic<uint32_t> increments{0};
    std::atomic<uint32_t> finished{0};

    std::vector<std::unique_ptr<Worker>> workers;
    std::atomic<uint32_t> joinable{0};
    std::atomic<uint32_t> joined{0};
    std::atomic<uint32_t> threadsFinished{0};
    std::atomic<uint32_t> destroyed{0};
};

struct Containers {
    static constexpr uint32_t kKeysPerThread = 100;

    std::mutex mutex;
    std::map<uint32_t, uint32_t> map;
    std::deque<uint32_t> queue;
    std::atomic<uint32_t> ops{0};
    std::atomic<uint32_t> failures{0};

    // Puts keys that no other thread uses, and takes them away again.
    void work(uint32_t firstKey) {
        for (uint32_t key = firstKey; key < firstKey + kKeysPerThread; ++key) {
            std::lock_guard lock(mutex);
            count(map.emplace(key, key + 1).second);
            queue.push_back(key);
        }
        for (uint32_t key = firstKey; key < firstKey + kKeysPerThread; ++key) {
            std::lock_guard lock(mutex);
            const auto found = map.find(key);
            count(found != map.end() && found->second == key + 1);
            count(map.erase(key) == 1);
            count(!queue.empty());
            if (!queue.empty()) queue.pop_front();
        }
    }

    static constexpr uint32_t kOpsPerKey = 4;

private:
    void count(bool success) {
        ops.fetch_add(1);
        if (!success) failures.fetch_add(1);
    }
};

class StringQueue {
public:
    bool offer(std::string value) {
        std::lock_guard lock(mutex_);
        values_.push_back(std::move(value));
        condition_.notify_one();
        return true;
    }
    bool empty() const {
        std::lock_guard lock(mutex_);
        return values_.empty();
    }
    // Waits until there is a value.
    bool wait(uint32_t millis) const {
        std::unique_lock lock(mutex_);
        return condition_.wait_for(lock, std::chrono::milliseconds(millis),
                                   [this] { return !values_.empty(); });
    }
    // The next value, empty if there is none.
    std::string poll() {
        std::lock_guard lock(mutex_);
        if (values_.empty()) return std::string();
        std::string value = std::move(values_.front());
        values_.pop_front();
        return value;
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable condition_;
    std::deque<std::string> values_;
};

class SelfTest {
public:
    SelfTest(uint32_t limitMillis, uint32_t threadCount)
        : limitMillis_(limitMillis), threadCount_(threadCount) {}

    void runRound() {
        testLatchAndCounter();
        testStartStopRace();
        testContainers();
        testVectorAndQueue();
    }
    const std::string& firstIssue() const { return firstIssue_; }

private:
    void testLatchAndCounter();
    void testStartStopRace();
    void testContainers();
    void testVectorAndQueue();

    // The workers get the stage, themselves and their number from 1 on.
    using StageTask = std::function<void(Stage&, Worker&, uint32_t)>;
    std::shared_ptr<Stage> startStage(const StageTask& task,
                                      const std::function<std::string(uint32_t)>& nameOf,
                                      bool stopAtOnce = false);
    bool awaitAll(const std::atomic<uint32_t>& counter, uint32_t expected) const;
    std::string finishIssue(const Stage& stage) const;
    void destroyWorkers(std::shared_ptr<Stage> stage);
    void report(const std::string& issue);
    void check(bool success, const char* what) const {
        if (!success) logLine("%s [ERROR] [TSfTst] %s failed\n", logTimestamp(), what);
    }

    const uint32_t limitMillis_;
    const uint32_t threadCount_;
    std::string firstIssue_;
};

// Threads that did not end in time, with all they hold. The process ends without those that still
// have not by then.
class Abandoned {
public:
    ~Abandoned() {
        constexpr uint64_t kLastChanceMillis = 100;
        for (auto& worker : workers_) {
            if (!worker->awaitFinish(kLastChanceMillis)) static_cast<void>(worker.release());
        }
    }
    void add(std::unique_ptr<Worker> worker) {
        std::lock_guard lock(mutex_);
        workers_.push_back(std::move(worker));
    }

private:
    std::mutex mutex_;
    std::vector<std::unique_ptr<Worker>> workers_;
};

Abandoned& abandoned() {
    static Abandoned threads;
    return threads;
}

std::string text(uint32_t number) {
    return std::to_string(number);
}

std::function<std::string(uint32_t)> numberedName(std::string prefix) {
    return [prefix = std::move(prefix)](uint32_t number) { return prefix + text(number); };
}

void SelfTest::report(const std::string& issue) {
    const std::string message = "The treading self-test encountered issues: " + issue;
    logLine("%s [ERROR] [TSfTst] %s\n", logTimestamp(), message.c_str());
    if (firstIssue_.empty()) firstIssue_ = message;
}

bool SelfTest::awaitAll(const std::atomic<uint32_t>& counter, uint32_t expected) const {
    constexpr auto kSlice = std::chrono::microseconds(200);
    const uint64_t slices = uint64_t{limitMillis_} * 5;
    for (uint64_t i = 0; i < slices && counter.load() < expected; ++i) {
        std::this_thread::sleep_for(kSlice);
    }
    return counter.load() >= expected;
}

std::shared_ptr<Stage> SelfTest::startStage(
    const StageTask& task, const std::function<std::string(uint32_t)>& nameOf, bool stopAtOnce) {
    auto stage = std::make_shared<Stage>();
    for (uint32_t i = 1; i <= threadCount_; ++i) {
        auto worker = std::make_unique<Worker>(nameOf(i), [stage, task, i](Worker& self) {
            stage->started.fetch_add(1);
            task(*stage, self, i);
            stage->finished.fetch_add(1);
        });
        worker->start();
        if (stopAtOnce) worker->requestStop();
        stage->workers.push_back(std::move(worker));
    }
    return stage;
}

std::string SelfTest::finishIssue(const Stage& stage) const {
    return joinPieces({"out of ", text(threadCount_), " only ", text(stage.finished),
                       " threads actually finished in time (", text(limitMillis_), " ms). ",
                       text(stage.started), " started, ", text(stage.countedDown),
                       " counted down, ", text(stage.awaited), " awaited, ",
                       text(stage.increments), " increments."});
}

void SelfTest::testLatchAndCounter() {
    const uint32_t limit = limitMillis_;
    const auto stage = startStage(
        [limit](Stage& shared, Worker&, uint32_t) {
            if (shared.go.awaitFor(limit)) shared.awaited.fetch_add(1);
            shared.countedDown.fetch_add(1);
            shared.increments.fetch_add(1);
        },
        numberedName("SelfTest-"));
    stage->go.countDown();
    const bool allFinished = awaitAll(stage->finished, threadCount_);
    const uint32_t finished = stage->finished;
    if (!allFinished) {
        report(finishIssue(*stage));
    } else if (stage->increments != threadCount_) {
        report(joinPieces({text(finished), " finished with a increment value of ",
                           text(stage->increments), " but ", text(threadCount_),
                           " were expected."}));
    } else if (stage->awaited != threadCount_) {
        report(joinPieces({text(finished), " finished but ",
                           text(threadCount_ - stage->awaited), " failed the await "}));
    }
    destroyWorkers(stage);
}

void SelfTest::testStartStopRace() {
    const uint32_t limit = limitMillis_;
    const auto stage = startStage(
        [limit](Stage&, Worker& self, uint32_t) { self.awaitStopRequest(limit); },
        numberedName("RaceTest-"), true);
    if (!awaitAll(stage->finished, threadCount_)) {
        report("(start/stop race) " + finishIssue(*stage));
    }
    destroyWorkers(stage);
}

void SelfTest::testContainers() {
    const auto containers = std::make_shared<Containers>();
    const auto stage = startStage(
        [containers](Stage&, Worker&, uint32_t number) {
            containers->work(number * Containers::kKeysPerThread);
        },
        [](uint32_t) { return std::string("ContainerTest"); });
    const uint32_t expectedOps =
        threadCount_ * Containers::kKeysPerThread * Containers::kOpsPerKey;
    const bool allFinished = awaitAll(stage->finished, threadCount_);
    if (!allFinished || containers->ops != expectedOps || containers->failures != 0) {
        report(joinPieces({"(container) ", text(stage->finished), " threads ops: ",
                           text(containers->ops), ", expected ops: ", text(expectedOps),
                           ", failures: ", text(containers->failures)}));
    }
    destroyWorkers(stage);
}

void SelfTest::testVectorAndQueue() {
    std::vector<std::string> stringVector{"foo", "bar"};
    check(stringVector.at(0) == "foo", "stringVector.at(0)");
    stringVector.erase(stringVector.begin());
    check(stringVector.at(0) == "bar", "stringVector.at(0) after erase");

    const auto queue = std::make_shared<StringQueue>();
    check(queue->empty() && queue->poll().empty(), "Q empty");
    const auto stage = std::make_shared<Stage>();
    stage->workers.push_back(
        std::make_unique<Worker>("SelfTest-Queue", [queue](Worker&) { queue->offer("hello"); }));
    stage->workers.back()->start();
    check(queue->wait(limitMillis_), "Q wait1");
    check(queue->poll() == "hello", "Q pop");
    check(queue->offer("foo") && !queue->empty(), "Q offer");
    check(queue->poll() == "foo" && queue->empty(), "Q poll");
    destroyWorkers(stage);
}

// By a thread of its own, so that a destructor that hangs can't hang the test.
void SelfTest::destroyWorkers(std::shared_ptr<Stage> stage) {
    const auto expected = static_cast<uint32_t>(stage->workers.size());
    const uint32_t limit = limitMillis_;
    auto joiner = std::make_unique<Worker>("SelfTest-Joiner", [stage, limit](Worker&) {
        for (auto& worker : stage->workers) {
            stage->joinable.fetch_add(1);
            if (worker->awaitFinish(limit)) stage->threadsFinished.fetch_add(1);
            if (worker->join(limit, false, true)) stage->joined.fetch_add(1);
            worker.reset();
            stage->destroyed.fetch_add(1);
        }
    });
    joiner->start();
    if (awaitAll(stage->destroyed, expected)) return;
    report(joinPieces({"out of ", text(expected), " only ", text(stage->destroyed),
                       " threads were actually destroyed in time (", text(limitMillis_), " ms). ",
                       text(stage->threadsFinished), " finished the thread, ",
                       text(stage->joinable), " joinable, ", text(stage->joined), " joined. "}));
    if (!joiner->awaitFinish(limitMillis_)) abandoned().add(std::move(joiner));
}

}  // namespace

void runThreadSelfTest(uint32_t rounds, uint32_t limitMillis, uint32_t threadCount,
                       bool throwOnIssue) {
    SelfTest test(limitMillis, threadCount);
    for (uint32_t round = 0; round < rounds; ++round) test.runRound();
    if (throwOnIssue && !test.firstIssue().empty()) throwIllegalState(test.firstIssue());
}

}  // namespace quillmere
