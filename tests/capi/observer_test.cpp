#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "capi/store_fixture.h"

namespace quillmere {
namespace {

class Observers : public OpenStoreTest {
protected:
    uint64_t putTag(uint64_t id) {
        ObjectBytes object = makeObject({{1, id}, {kTagName, std::string("tag")}});
        return qmr_kist_put_object(tags(), object.data(), object.size());
    }
};

using Round = std::vector<qmr_schema_id>;

// Keeps the list of each call.
void keepRound(void* rounds, const qmr_schema_id* ids, size_t count) {
    static_cast<std::vector<Round>*>(rounds)->emplace_back(ids, ids + count);
}

void countCall(void* calls) {
    ++*static_cast<int*>(calls);
}

TEST_F(Observers, HearEachCommitOnceWithEntitiesInOrderOfFirstChange) {
    std::vector<Round> rounds;
    int calls = 0;
    const ObserverPtr observer(qmr_observe(store_.get(), keepRound, &rounds));
    const ObserverPtr ofNotes(qmr_observe_single_type(store_.get(), kNote, countCall, &calls));
    ASSERT_TRUE(observer && ofNotes);
    TxnPtr txn = write();
    putTag(1);
    putNote("a");
    putNote("b");
    putTag(2);
    EXPECT_TRUE(rounds.empty()) << "nothing is told before the commit";
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_success(txn.release()));
    EXPECT_EQ((std::vector<Round>{{kTag, kNote}}), rounds);
    EXPECT_EQ(1, calls);
    putTag(3);
    EXPECT_EQ((std::vector<Round>{{kTag, kNote}, {kTag}}), rounds);
    EXPECT_EQ(1, calls);
}

TEST_F(Observers, HearNothingOfAbortsReadsAndEmptyTransactions) {
    std::vector<Round> rounds;
    const ObserverPtr observer(qmr_observe(store_.get(), keepRound, &rounds));
    TxnPtr txn = write();
    putNote("aborted");
    txn.reset();
    txn = write();
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_success(txn.release()));
    noteCount();
    EXPECT_EQ(QMR_NOT_FOUND, qmr_kist_remove(notes(), 1));
    EXPECT_TRUE(rounds.empty());
}

TEST_F(Observers, AreCalledInOrderOfAddingUntilClosed) {
    std::string order;
    struct Member {
        std::string* order;
        char name;
    };
    Member members[] = {{&order, '1'}, {&order, '2'}, {&order, '3'}};
    const auto append = [](void* user) {
        const auto& member = *static_cast<Member*>(user);
        member.order->push_back(member.name);
    };
    std::vector<ObserverPtr> observers;
    for (Member& member : members) {
        observers.emplace_back(qmr_observe_single_type(store_.get(), kNote, append, &member));
    }
    putNote("a");
    EXPECT_EQ(QMR_SUCCESS, qmr_observer_close(observers[1].release()));
    putNote("b");
    EXPECT_EQ("12313", order);
    EXPECT_EQ(QMR_SUCCESS, qmr_store_prepare_to_close(store_.get()));
    EXPECT_EQ(QMR_SUCCESS, qmr_observer_close(observers[0].release()));
}

struct SelfCloser {
    QMR_store* store;
    QMR_observer* observer = nullptr;
    int calls = 0;

    static void call(void* user) {
        auto& self = *static_cast<SelfCloser*>(user);
        ++self.calls;
        EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, qmr_observer_close(self.observer));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "Listeners cannot remove listeners"));
        EXPECT_EQ(nullptr, qmr_observe_single_type(self.store, kNote, call, user));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "Listeners cannot add listeners"));
    }
};

TEST_F(Observers, CannotBeClosedFromInsideButStayInPlace) {
    SelfCloser closer{store_.get()};
    const ObserverPtr observer(
        qmr_observe_single_type(store_.get(), kNote, SelfCloser::call, &closer));
    closer.observer = observer.get();
    putNote("a");
    putNote("b");
    EXPECT_EQ(2, closer.calls);
}

struct Echo {
    std::function<void()> action;
    int depth = 0;

    static void call(void* user) {
        auto& self = *static_cast<Echo*>(user);
        if (self.depth++ == 0) self.action();
    }
};

TEST_F(Observers, MayReadAndWrite) {
    uint64_t countSeen = 0, written = 0;
    Echo echo{[&] {
        countSeen = noteCount();
        written = putNote("from the listener");
    }};
    const ObserverPtr observer(qmr_observe_single_type(store_.get(), kNote, Echo::call, &echo));
    TxnPtr txn = write();
    putNote("from the application");
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_success(txn.release())) << qmr_last_error_message();
    EXPECT_EQ(1u, countSeen);
    EXPECT_NE(0u, written);
    EXPECT_EQ(2, echo.depth) << "the inner commit is told too";
    EXPECT_EQ(2u, noteCount());
}

TEST_F(Observers, AFailingListenerReportsButTheDataIsSafe) {
    const auto fail = [](void*) { throw std::runtime_error("listener failed"); };
    int calls = 0;
    ObserverPtr failing(qmr_observe_single_type(store_.get(), kNote, fail, nullptr));
    const ObserverPtr later(qmr_observe_single_type(store_.get(), kNote, countCall, &calls));
    EXPECT_EQ(0u, putNote("kept"));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_STD_OTHER, "listener failed"));
    EXPECT_EQ(0, calls);
    EXPECT_EQ(1u, noteCount());
    failing.reset();
    EXPECT_NE(0u, putNote("next")) << "the write lock is free";
    EXPECT_EQ(1, calls);
}

using ConcurrentObservers = Observers;

TEST_F(ConcurrentObservers, FireOneCommitAfterTheOther) {
    struct State {
        std::atomic<int> inside{0};
        std::atomic<int> calls{0};
        std::atomic<bool> overlapped{false};
    } state;
    const auto check = [](void* user) {
        auto& state = *static_cast<State*>(user);
        if (state.inside.fetch_add(1) != 0) state.overlapped = true;
        std::this_thread::yield();
        state.inside.fetch_sub(1);
        state.calls.fetch_add(1);
    };
    const ObserverPtr observer(qmr_observe_single_type(store_.get(), kNote, check, &state));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 25; ++i) EXPECT_NE(0u, putNote("x"));
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_FALSE(state.overlapped);
    EXPECT_EQ(100, state.calls);
}

}  // namespace
}  // namespace quillmere
