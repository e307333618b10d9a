#include <gtest/gtest.h>

#include <latch>
#include <thread>

#include "store/change_listeners.h"
#include "store/object_test.h"
#include "support/log_capture.h"

namespace quillmere {
namespace {

using Ids = std::vector<uint32_t>;

using ListenersTest = ObjectTest;

TEST_F(ListenersTest, roundInsideARoundLeavesTheListClosed) {
    int depth = 0;
    store_->addListener([&](const Ids& ids) {
        ++depth;
        if (ids.front() == kTags) {
            store_->entityState(entity(kNotes)).idsForPut(9);
            putNotes({1});
        }
        expectThrow<IllegalStateException>("Listeners cannot add listeners",
                                           [&] { store_->addListener([](const Ids&) {}); });
    });
    putNotes({1}, kTags);
    EXPECT_EQ(depth, 2);
}

TEST_F(ListenersTest, lastReferenceMayGoInsideAListener) {
    auto shared = std::shared_ptr<ObjectStore>(std::move(store_));
    ObjectStore& store = *shared;
    const Entity& tags = store.requireSchema()->entityById(kTags);
    const auto schema = store.requireSchema();  // keeps the entity
    std::weak_ptr<ObjectStore> weak = shared;
    store.addListener([holder = std::move(shared)](const Ids&) mutable { holder.reset(); });
    int laterCalls = 0;
    store.addListener([&](const Ids&) { ++laterCalls; });

    const LogCapture log;
    auto tx = store.beginTx(TxMode::Write);
    put(*tx->createCursor(&tags), 1);
    tx->commit();
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(laterCalls, 1) << "the round goes on";
    EXPECT_FALSE(tx->active());
    tx.reset();
    EXPECT_EQ(log.text(), "") << "it did not wait for itself";

    open();
    EXPECT_EQ(storedIds(kTags), std::vector<uint64_t>{1});
}

TEST(ConcurrentListenersTest, blockedListenerMakesOthersFailAfterTheTimeout) {
    ChangeListeners listeners(std::chrono::milliseconds(20));
    std::latch entered(1);
    std::latch release(1);
    const uint64_t id = listeners.add([&](const Ids&) {
        entered.count_down();
        release.wait();
    });
    std::thread firing([&] { listeners.fire({1}); });
    entered.wait();
    const std::string text =
        " failed: could not lock in time (check your listener; is it deadlocking or bad behaved?)";
    expectThrow<IllegalStateException>("Firing listeners" + text, [&] { listeners.fire({1}); });
    expectThrow<IllegalStateException>("Add listener" + text,
                                       [&] { listeners.add([](const Ids&) {}); });
    expectThrow<IllegalStateException>("Remove listener" + text, [&] { listeners.remove(id); });
    release.count_down();
    firing.join();
    EXPECT_TRUE(listeners.remove(id));
}

TEST(ConcurrentListenersTest, roundsOfSeveralThreadsNeverOverlap) {
    ChangeListeners listeners;
    int rounds = 0;  // guarded by nothing but the rule
    const uint64_t counter = listeners.add([&](const Ids&) { ++rounds; });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                listeners.fire({1});
                EXPECT_TRUE(listeners.remove(listeners.add([](const Ids&) {})));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(rounds, 800);
    EXPECT_TRUE(listeners.remove(counter));
}

}  // namespace
}  // namespace quillmere
