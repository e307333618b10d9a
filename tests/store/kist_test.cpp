#include "store/kist.h"

#include <thread>

#include "store/object_test.h"
#include "store/thread_tx.h"

namespace quillmere {
namespace {

class KistTest : public ObjectTest {
protected:
    Kist& notes() { return store_->kist(kNotes); }

    void put(uint64_t id, int32_t mode = kPut) {
        const ObjectBytes note = makeNote(id, "note " + std::to_string(id));
        notes().put(id, note.data(), note.size(), mode);
    }
    bool putMany(std::vector<uint64_t> ids, int32_t mode, bool stopOnFalse) {
        std::vector<ObjectBytes> notesToPut;
        for (const uint64_t id : ids) notesToPut.push_back(makeNote(id, "many"));
        std::vector<Bytes> objects;
        for (const ObjectBytes& note : notesToPut) objects.emplace_back(note.data(), note.size());
        return notes().putMany(ids, objects, mode, stopOnFalse);
    }
    using Ids = std::vector<uint64_t>;
    // What others see.
    Ids storedIdsElsewhere() {
        Ids ids;
        std::thread([&] { ids = storedIds(); }).join();
        return ids;
    }
};

TEST_F(KistTest, CommitsEachOperationOfItsOwn) {
    EXPECT_TRUE(notes().isEmpty());
    put(1);
    put(2);
    put(3);
    EXPECT_EQ(notes().count(0), 3u);
    EXPECT_EQ(notes().count(2), 2u);
    EXPECT_TRUE(notes().contains(2));
    EXPECT_FALSE(notes().contains(4));
    EXPECT_TRUE(notes().containsAll({3, 1}));
    EXPECT_FALSE(notes().containsAll({3, 4, 1}));
    EXPECT_TRUE(notes().containsAll({}));
    EXPECT_TRUE(notes().remove(2));
    EXPECT_FALSE(notes().remove(2));
    EXPECT_EQ(notes().removeMany({1, 2, 9}), 1u);
    EXPECT_EQ(storedIds(), Ids{3});
    EXPECT_EQ(notes().removeAll(), 1u);
    EXPECT_TRUE(notes().isEmpty());
}

TEST_F(KistTest, GivesViewsOnlyIntoATransactionThatStays) {
    put(1);
    put(3);
    Bytes object;
    std::vector<Bytes> objects;
    const std::string message = "An existing transaction is required";
    expectThrow<IllegalStateException>(message, [&] { notes().get(1, object); });
    expectThrow<IllegalStateException>(message, [&] { notes().getMany({1}, objects); });
    expectThrow<IllegalStateException>(message, [&] { notes().getAll(objects); });

    ThreadTx tx(*store_, TxMode::Read);
    ASSERT_TRUE(notes().get(1, object));
    EXPECT_FALSE(notes().get(2, objects.emplace_back()));
    notes().getMany({3, 2, 1}, objects);
    ASSERT_EQ(objects.size(), 3u);
    EXPECT_EQ(objectText(objects[0].data(), kTextProperty), "note 3");
    EXPECT_EQ(objects[1].data(), nullptr);
    EXPECT_EQ(objectText(objects[2].data(), kTextProperty), "note 1");
    notes().getAll(objects);
    ASSERT_EQ(objects.size(), 2u);
    EXPECT_EQ(objectText(object.data(), kTextProperty), "note 1");
}

TEST_F(KistTest, RefusesByMode) {
    put(1, kPutInsert);
    EXPECT_THROW(put(1, kPutInsert), IdAlreadyExistsException);
    EXPECT_THROW(put(2, kPutUpdate), IdNotFoundException);
    EXPECT_THROW(put(0), IllegalArgumentException);
    EXPECT_EQ(storedIds(), Ids{1});
    store_->kist(kNotes).idsForPut(5);
    ObjectBytes note = makeNote(1);
    EXPECT_EQ(notes().putObject(note.data(), note.size(), kPutInsert, true), 0u);
    EXPECT_EQ(notes().putObject(note.data(), note.size(), kPutInsert, false), 0u);
}

TEST_F(KistTest, PutsManyUntilOneIsRefusedOrAllThatAreNot) {
    put(2);
    EXPECT_FALSE(putMany({1, 2, 3}, kPutInsert, true));
    EXPECT_EQ(storedIds(), Ids{2});
    EXPECT_FALSE(putMany({1, 2, 3}, kPutInsert, false));
    EXPECT_EQ(storedIds(), (Ids{1, 2, 3}));
    EXPECT_TRUE(putMany({1, 4}, kPut, true));
    EXPECT_TRUE(putMany({}, kPut, true));
    expectThrow<IllegalArgumentException>("Number of IDs does not match number of objects", [&] {
        notes().putMany({8, 9}, std::vector<Bytes>(3), kPut, false);
    });
    EXPECT_EQ(storedIds(), (Ids{1, 2, 3, 4}));
}

TEST_F(KistTest, JoinsTheTransactionOfTheThread) {
    {
        ThreadTx outer(*store_, TxMode::Write);
        put(1);
        EXPECT_EQ(notes().count(0), 1u);
        EXPECT_EQ(storedIdsElsewhere(), Ids{});
        outer.markSuccess();
    }
    EXPECT_EQ(storedIds(), Ids{1});
}

TEST_F(KistTest, AFailureInsideOfAnOuterTransactionUndoesItAll) {
    ThreadTx outer(*store_, TxMode::Write);
    put(1);
    EXPECT_THROW(put(1, kPutInsert), IdAlreadyExistsException);
    expectThrow<IllegalStateException>("TX is not active anymore: #", [&] { outer.markSuccess(); });
    EXPECT_EQ(storedIds(), Ids{});
}

TEST_F(KistTest, RefusedManyInsideOfAnOuterTransactionUndoesItAll) {
    put(1);
    ThreadTx outer(*store_, TxMode::Write);
    put(2);
    EXPECT_FALSE(putMany({3, 1}, kPutInsert, true));
    EXPECT_THROW(outer.markSuccess(), IllegalStateException);
    EXPECT_EQ(storedIds(), Ids{1});
}

TEST_F(KistTest, IsOnePerEntityAndFollowsTheSequence) {
    EXPECT_EQ(&notes(), &store_->kist(kNotes));
    EXPECT_EQ(&notes().entity(), &entity(kNotes));
    EXPECT_THROW(store_->kist(77), Exception);
    EXPECT_EQ(notes().idForPut(0), 1u);
    EXPECT_EQ(notes().idsForPut(2), 2u);
    ObjectBytes note = makeNote(0);
    EXPECT_EQ(notes().putObject(note.data(), note.size(), kPut, false), 4u);
    EXPECT_EQ(storedIds(), Ids{4});
}

}  // namespace
}  // namespace quillmere
