#include "core/number_lock.h"

#include <atomic>
#include <thread>
#include <vector>

#include "core/error.h"
#include "core/latch.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

constexpr uint64_t kMilli = 1'000'000;
constexpr uint64_t kLong = 24 * 3600 * 1000 * kMilli;  // a lost wake-up hangs the test

TEST(NumberLock, OneHolderAtATimeWhoCanBeNamed) {
    NumberLock lock;
    uint64_t holder = 0;
    lock.lock(5);
    EXPECT_EQ(lock.holder(), 5u);
    EXPECT_FALSE(lock.tryLock(6, holder));
    EXPECT_EQ(holder, 5u);
    EXPECT_FALSE(lock.tryLockFor(6, kMilli, holder));
    EXPECT_EQ(holder, 5u);
    EXPECT_EQ(lock.unlock(6), 5u) << "a wrong number changes nothing";
    EXPECT_EQ(lock.holder(), 5u);
    EXPECT_EQ(lock.unlock(5), 0u);
    EXPECT_TRUE(lock.tryLockFor(6, 0, holder));
    EXPECT_EQ(lock.unlock(6), 0u);
}

TEST(NumberLock, RefusesZeroAndLockingTwice) {
    NumberLock lock;
    uint64_t holder;
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { lock.lock(0); }), "Number may not be zero");
    EXPECT_THROW(lock.tryLock(0, holder), IllegalArgumentException);
    EXPECT_THROW(lock.tryLockFor(0, 1, holder), IllegalArgumentException);
    EXPECT_THROW(lock.unlock(0), IllegalArgumentException);
    lock.lock(5);
    EXPECT_EQ(messageOf<IllegalStateException>([&] { lock.tryLockFor(5, kLong, holder); }),
              "Number is already locked - locking twice is illegal: 5");
    EXPECT_EQ(lock.unlock(5), 0u);
    lock.lock(6);
}

TEST(NumberLock, AwaitChangeTellsWhatHappened) {
    NumberLock lock;
    EXPECT_EQ(lock.awaitChange(kLong), NumberLock::Change::Changed) << "free";
    lock.lock(5);
    EXPECT_EQ(lock.awaitChange(kMilli), NumberLock::Change::TimedOut);
    std::thread waiter([&] { EXPECT_EQ(lock.awaitChange(kLong), NumberLock::Change::Changed); });
    // A waiter that comes late finds the lock free, which is the same answer.
    lock.unlock(5);
    waiter.join();
    lock.lock(6);
    std::thread closedWaiter([&] {
        EXPECT_EQ(lock.awaitChange(kLong), NumberLock::Change::Closed);
    });
    lock.shutDown();
    closedWaiter.join();
    EXPECT_EQ(lock.awaitChange(kLong), NumberLock::Change::Closed);
}

TEST(NumberLock, ShutdownRefusesAllButTheCloser) {
    NumberLock lock;
    uint64_t holder = 0;
    lock.lock(5);
    lock.shutDown();
    EXPECT_EQ(messageOf<ShuttingDownException>([&] { lock.lock(6); }), "This lock is shutting down");
    EXPECT_FALSE(lock.tryLock(6, holder));
    EXPECT_EQ(holder, NumberLock::kCloserNumber);
    holder = 0;
    EXPECT_FALSE(lock.tryLockFor(6, kLong, holder));
    EXPECT_EQ(holder, NumberLock::kCloserNumber);
    EXPECT_FALSE(lock.tryLockFor(NumberLock::kCloserNumber, kMilli, holder));
    EXPECT_EQ(holder, 5u);
    EXPECT_EQ(lock.unlock(5), 0u);
    EXPECT_TRUE(lock.tryLock(NumberLock::kCloserNumber, holder));
}

TEST(NumberLock, CloseWaitsForTheHolderAndWakesTheWaiters) {
    NumberLock lock;
    lock.lock(1);
    std::atomic<uint32_t> refused{0};
    std::vector<std::thread> waiters;
    Latch waiting(8);
    for (uint64_t number = 2; number < 6; ++number) {
        waiters.emplace_back([&, number] {
            waiting.countDown();
            EXPECT_THROW(lock.lock(number), ShuttingDownException);
            ++refused;
        });
        waiters.emplace_back([&, number] {
            waiting.countDown();
            uint64_t holder = 0;
            EXPECT_FALSE(lock.tryLockFor(number + 10, kLong, holder));
            EXPECT_EQ(holder, NumberLock::kCloserNumber);
            ++refused;
        });
    }
    waiting.await();
    std::atomic<bool> closed{false};
    std::thread closer([&] {
        lock.close();
        closed = true;
    });
    for (std::thread& waiter : waiters) waiter.join();
    EXPECT_EQ(refused, 8u);
    EXPECT_FALSE(closed);
    EXPECT_EQ(lock.holder(), 1u);
    lock.unlock(1);
    closer.join();
    EXPECT_EQ(lock.holder(), NumberLock::kCloserNumber);
}

TEST(NumberLock, NoWakeUpIsLostUnderContention) {
    NumberLock lock;
    constexpr uint64_t kThreads = 4;
    constexpr uint64_t kRounds = 2000;
    uint64_t counter = 0;  // guarded by the lock under test
    std::atomic<uint64_t> failures{0};
    std::vector<std::thread> threads;
    for (uint64_t t = 1; t <= kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (uint64_t round = 0; round < kRounds; ++round) {
                const uint64_t number = t + round * kThreads;
                uint64_t holder;
                if (round % 2 == 0) {
                    lock.lock(number);
                } else if (!lock.tryLockFor(number, kLong, holder)) {
                    ++failures;
                    continue;
                }
                ++counter;
                std::this_thread::yield();  // others come and have to wait
                if (lock.unlock(number) != 0) ++failures;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures, 0u);
    EXPECT_EQ(counter, kThreads * kRounds);
}

}  // namespace
}  // namespace quillmere
