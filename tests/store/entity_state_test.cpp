#include "store/entity_state.h"

#include <algorithm>
#include <thread>

#include "store/object_test.h"
#include "store/thread_tx.h"

namespace quillmere {
namespace {

class EntityStateTest : public ObjectTest {
protected:
    EntityState& state(uint32_t entityId = kNotes) {
        return store_->entityState(entity(entityId));
    }
};

TEST_F(EntityStateTest, StartsBehindTheHighestStoredId) {
    EXPECT_EQ(state().prepareIdForPut(0), 1u);
    putNotes({7, 0x1234567890});
    putNotes({12}, kTags);
    EXPECT_EQ(state().prepareIdForPut(0), 2u);  // known already, and IDs are not looked at again
    open();
    EXPECT_EQ(state().prepareIdForPut(0), 0x1234567891u);
    EXPECT_EQ(state(kTags).prepareIdForPut(0), 13u);
}

TEST_F(EntityStateTest, SeesTheObjectsOfTheThreadsOwnWriter) {
    ThreadTx tx(*store_, TxMode::Write);
    {
        // Beside the sequence, so that no state exists yet.
        const ObjectBytes note = makeNote(1);
        const auto raw = tx.tx().createKeyValueCursor(uint32_t{6} << 26 | kNotes << 2);
        raw->putRaw(41, note.data(), note.size());
    }
    EXPECT_EQ(state().prepareIdForPut(0), 42u);
    tx.markSuccess();  // the joined reader has not aborted it
    EXPECT_EQ(storedIds(), std::vector<uint64_t>{41});
}

TEST_F(EntityStateTest, NeverWrapsAround) {
    EXPECT_EQ(state(kTags).prepareIdForPut(kAllOnes - 1), kAllOnes - 1);
    EXPECT_THROW(state(kTags).prepareIdForPut(0), IllegalStateException);
    EXPECT_THROW(state(kTags).idsForPut(1), IllegalStateException);
    EXPECT_EQ(state(kTags).idsForPut(0), kAllOnes);
}

TEST_F(EntityStateTest, RefusesWhatIsNoObject) {
    const auto tx = write();
    const auto notes = cursor(*tx);
    ObjectBytes note = makeNote(0);
    expectThrow<ArgumentNullException>("Argument \"objectFlatBuffer\" must not be null",
                                       [&] { notes->putObject(nullptr, 8, kPut); });
    expectThrow<IllegalStateException>("State condition failed in putObject:313: table",
                                       [&] { notes->putObject(note.data(), 6, kPut); });
    const auto raw = tx->createKeyValueCursor(0x40000004);
    expectThrow<IllegalStateException>(
        "State condition failed in prepareIdForPut:729: entityState_",
        [&] { raw->idForPut(0); });
    EXPECT_EQ(notes->count(), 0u);
}

TEST_F(EntityStateTest, RefusesEntitiesWithAnIdCompanion) {
    EXPECT_THROW(state(kDated), FeatureNotAvailableException);
    EXPECT_THROW(cursor(*write(), kDated), FeatureNotAvailableException);
    EXPECT_THROW(state(kDated), FeatureNotAvailableException);
}

// --- the cache of counts ----------------------------------------------------------------------

TEST_F(EntityStateTest, AnswersCountsFromTheCacheWhileNothingIsCommitted) {
    putNotes({1, 2, 3});
    const auto count = [&](uint64_t max) {
        const auto tx = read();
        return cursor(*tx)->count(max);
    };
    EXPECT_EQ(count(2), 2u);  // stopped at its limit
    EXPECT_EQ(count(1), 1u);
    EXPECT_EQ(state().cacheHits(), 1u);
    EXPECT_EQ(count(10), 3u);  // needs more; did not reach its limit, so is as good as exact
    EXPECT_EQ(count(0), 3u);
    EXPECT_EQ(count(2), 2u);
    EXPECT_EQ(state().cacheHits(), 3u);

    putNotes({4});
    EXPECT_EQ(count(0), 4u);
    EXPECT_EQ(state().cacheHits(), 3u);
    const auto tx = write();
    const auto notes = cursor(*tx);
    put(*notes, 5);
    EXPECT_EQ(notes->count(), 5u);  // a writer counts for itself
    EXPECT_EQ(count(0), 4u);
    EXPECT_EQ(state().cacheHits(), 4u);
}

TEST_F(EntityStateTest, AnEmptyEntityNeedsOneCountOnly) {
    const auto tx = read();
    const auto notes = cursor(*tx);
    EXPECT_TRUE(notes->isEmpty());
    EXPECT_EQ(notes->count(), 0u);
    EXPECT_EQ(state().cacheHits(), 1u);
}

TEST_F(EntityStateTest, TakesAnExactCountAsTheHighestLimit) {
    EntityState& notes = state();
    uint64_t count = 0;
    notes.cachePut(1, 10, 10);
    EXPECT_FALSE(notes.cacheGet(1, 0, count));
    EXPECT_TRUE(notes.cacheGet(1, 5, count));
    notes.cachePut(1, 0, 30);
    ASSERT_TRUE(notes.cacheGet(1, 0, count));
    EXPECT_EQ(count, 30u);
    notes.cachePut(1, 20, 20);  // ignored
    ASSERT_TRUE(notes.cacheGet(1, 0, count));
    EXPECT_EQ(count, 30u);
    notes.cacheClear();
    EXPECT_FALSE(notes.cacheGet(1, 5, count));
}

TEST_F(EntityStateTest, KeepsNewerCountsUnlessTheLatestNumberFell) {
    putNotes({1});
    const uint64_t latest = lastCommittedTx();
    EntityState& notes = state();
    uint64_t count = 0;
    notes.cachePut(latest, 0, 1);
    notes.cachePut(latest - 1, 0, 7);  // an old reader
    EXPECT_TRUE(notes.cacheGet(latest, 0, count));
    notes.cachePut(latest + 1, 0, 2);  // committed, and then another store with a lower number
    notes.cachePut(latest, 0, 1);
    EXPECT_TRUE(notes.cacheGet(latest, 0, count));
}

using EntityStateConcurrentTest = EntityStateTest;

TEST_F(EntityStateConcurrentTest, DrawsEachIdOnce) {
    for (const uint32_t entityId : {kNotes, kTags}) {
        constexpr size_t kThreads = 4;
        constexpr size_t kDraws = 2000;
        std::vector<std::vector<uint64_t>> drawn(kThreads);
        std::vector<std::thread> threads;
        for (size_t i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                for (size_t n = 0; n < kDraws; ++n) {
                    drawn[i].push_back(state(entityId).prepareIdForPut(0));
                }
            });
        }
        for (std::thread& thread : threads) thread.join();
        std::vector<uint64_t> all;
        for (const auto& ids : drawn) all.insert(all.end(), ids.begin(), ids.end());
        std::sort(all.begin(), all.end());
        for (size_t i = 0; i < all.size(); ++i) ASSERT_EQ(all[i], i + 1);
    }
}

}  // namespace
}  // namespace quillmere
