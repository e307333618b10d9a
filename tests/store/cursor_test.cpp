#include "store/cursor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <barrier>
#include <map>
#include <random>
#include <thread>

#include "core/endian.h"
#include "kv/db_cursor.h"
#include "kv/db_store.h"
#include "kv/partition.h"
#include "store/collector.h"
#include "store/object_test.h"
#include "support/alloc_counter.h"

namespace quillmere {
namespace {

using CursorTest = ObjectTest;

// --- against a model --------------------------------------------------------------------------

// Random operations on a cursor and on a map, with everything the map can tell compared.
class CursorModelTest : public ObjectTest, public ::testing::WithParamInterface<uint32_t> {
protected:
    using Model = std::map<uint64_t, std::vector<uint8_t>>;

    void SetUp() override {
        options_.putPaddingMode = GetParam();
        options_.maxDataSizeInKb = 100000;  // so that the data size is tracked
        open(options_);
        std::cout << "seed " << seed_ << ", again with --gtest_random_seed\n";
    }

    uint64_t pick(uint64_t count) { return random_() % count; }
    // From both key forms and around their border, few enough to meet again.
    uint64_t pickId() {
        switch (pick(4)) {
            case 0: return 1 + pick(30);
            case 1: return 0xFFFFFFF8 + pick(16);
            case 2: return (uint64_t{1} << 40) + pick(10);
            default: return kAllOnes - 1 - pick(10);
        }
    }

    void putSomething(Cursor& cursor, Model& model) {
        const uint64_t id = pickId();
        const auto mode = static_cast<int32_t>(1 + pick(4));
        std::vector<uint8_t> data(pick(20) == 0 ? 9000 : 4 + pick(40));
        for (uint8_t& byte : data) byte = static_cast<uint8_t>(random_());
        const size_t padded = (data.size() + 3) / 4 * 4;
        size_t given = data.size();
        data.resize(padded);  // zeros, as the store adds them
        if (GetParam() == kPaddingByCaller) given = padded;
        const bool exists = model.count(id) != 0;
        const bool expected = mode == kPutInsert ? !exists : mode != kPutUpdate || exists;
        ASSERT_EQ(cursor.tryPut(id, data.data(), given, mode), expected);
        if (!expected) return;
        model[id] = data;
        ASSERT_EQ(cursor.currentId(), id);
    }

    void removeSomething(Cursor& cursor, Model& model) {
        const uint64_t id = pickId();
        const auto found = model.find(id);
        const bool stands = pick(2) && cursor.seek(id);
        ASSERT_EQ(stands ? cursor.removeCurrent() : cursor.remove(id), found != model.end());
        if (found == model.end()) return;
        const auto following = model.erase(found);
        ASSERT_EQ(cursor.currentId(), following == model.end() ? kAllOnes : following->first);
        if (following == model.end()) {
            ASSERT_FALSE(cursor.removeCurrent());
        }
    }

    void walkBehind(Cursor& cursor, const Model& model) {
        const uint64_t id = pickId();
        auto place = model.find(id);
        Bytes object;
        ASSERT_EQ(cursor.get(id, object), place != model.end());
        // A miss leaves the cursor where the object would be.
        place = model.upper_bound(id);
        for (int steps = 0; steps < 3 && place != model.end(); ++steps, ++place) {
            ASSERT_TRUE(cursor.next(object));
            ASSERT_TRUE(std::ranges::equal(object.span(), place->second));
            cursor.count(pick(4));  // neither moves the cursor
            cursor.highestId();
            ASSERT_EQ(cursor.currentId(), place->first);
        }
        if (place == model.end()) {
            ASSERT_FALSE(cursor.next(object));
        }
    }

    void checkAll(Cursor& cursor, const Model& model) {
        Bytes object;
        auto expected = model.begin();
        for (bool found = cursor.first(object); found; found = cursor.next(object), ++expected) {
            ASSERT_NE(expected, model.end());
            ASSERT_EQ(cursor.currentId(), expected->first);
            ASSERT_TRUE(std::ranges::equal(object.span(), expected->second));
        }
        ASSERT_EQ(expected, model.end());
        ASSERT_EQ(cursor.highestId(), model.empty() ? 0 : model.rbegin()->first);
        const uint64_t max = pick(20);
        ASSERT_EQ(cursor.count(max), max == 0 ? model.size() : std::min(max, model.size()));
        ASSERT_EQ(cursor.isEmpty(), model.empty());
    }

    static uint64_t sizeOf(const Model& model) {
        uint64_t size = 0;
        for (const auto& [id, data] : model) size += data.size();
        return size;
    }

    void runTransaction(Model& committed) {
        Model model = committed;
        const auto tx = write();
        const auto notes = cursor(*tx);
        ASSERT_EQ(notes->count(), model.size());
        ASSERT_EQ(notes->currentId(), 0u);  // as before
        for (uint64_t operations = pick(60); operations > 0; --operations) {
            switch (pick(8)) {
                case 0: case 1: case 2: putSomething(*notes, model); break;
                case 3: case 4: removeSomething(*notes, model); break;
                case 5: walkBehind(*notes, model); break;
                case 6: checkAll(*notes, model); break;
                default:
                    if (pick(15) == 0) {
                        ASSERT_EQ(notes->removeAll(), model.size());
                        model.clear();
                    }
            }
            if (HasFatalFailure()) return;
        }
        ASSERT_EQ(tx->getDataSize() + static_cast<uint64_t>(tx->dataSizeChange()), sizeOf(model));
        if (pick(4) == 0) return tx->abort();
        tx->commit();
        committed = model;
    }

    static uint32_t chooseSeed() {
        const int given = GTEST_FLAG_GET(random_seed);
        return given != 0 ? static_cast<uint32_t>(given) : 1 + std::random_device()() % 99999;
    }

    const uint32_t seed_ = chooseSeed();
    std::mt19937_64 random_{seed_};
    StoreOptions options_;
};

TEST_P(CursorModelTest, MatchesAMapThroughRandomOperations) {
    Model committed;
    for (int round = 0; round < 60 && !HasFatalFailure(); ++round) {
        runTransaction(committed);
        if (round % 20 == 19) open(options_);
        const auto tx = read();
        checkAll(*cursor(*tx), committed);
    }
}

INSTANTIATE_TEST_SUITE_P(PaddingModes, CursorModelTest,
                         ::testing::Values(kPaddingNone, kPaddingAutomatic, kPaddingByCaller));

// --- the place --------------------------------------------------------------------------------

TEST_F(CursorTest, FindsNoCurrentObjectOnceAnotherCursorRemovedIt) {
    putNotes({1, 2});
    const auto tx = write();
    const auto notes = cursor(*tx);
    const auto other = cursor(*tx);
    ASSERT_TRUE(notes->seek(1));
    ASSERT_TRUE(other->remove(1));
    EXPECT_EQ(notes->currentId(), 0u);
    EXPECT_EQ(notes->seekNextId(), 2u);
}

TEST_F(CursorTest, RefusesKeysThatAreNoObjects) {
    putNotes({1});
    const auto tx = write();
    uint8_t key[16] = {};
    storeBig(key, partitionPrefix(PartitionType::Entity, kNotes));
    storeBig<uint32_t>(key + 4, 7);
    tx->createDbCursor()->put(key, sizeof key, "", 0);
    const auto notes = cursor(*tx, kTags);  // another entity's walk is not concerned
    EXPECT_EQ(notes->seekFirstId(), 0u);
    expectThrow<DbFileCorruptException>("Unexpected key size: 16", [&] {
        const auto damaged = tx->createCursor(&entity(kNotes));
        EXPECT_EQ(damaged->seekFirstId(), 1u);
        damaged->seekNextId();
    });
}

// --- what is refused --------------------------------------------------------------------------

TEST_F(CursorTest, TakesObjectsByThePaddingModeOfTheStore) {
    using namespace std::string_literals;
    for (const uint32_t mode : {kPaddingNone, kPaddingAutomatic, kPaddingByCaller}) {
        StoreOptions options;
        options.putPaddingMode = mode;
        open(options);
        const auto tx = write();
        const auto notes = cursor(*tx);
        const auto put = [&](size_t size) { notes->put(1, "12345\1\1\1", size, kPut); };
        for (const size_t size : {~size_t{0}, ~size_t{0} - 3}) {
            expectThrow<IllegalArgumentException>(
                "Object is too large to be stored: " + std::to_string(size), [&] { put(size); });
        }
        if (mode == kPaddingByCaller) {
            expectThrow<IllegalArgumentException>(
                "Object data is not correctly padded by caller: 5", [&] { put(5); });
            continue;
        }
        put(5);
        Bytes object;
        ASSERT_TRUE(notes->get(1, object));
        EXPECT_EQ(object.text(), mode == kPaddingNone ? "12345\0\0\0"s : "12345\1\1\1"s);
    }
    const auto tx = write();
    expectThrow<IllegalArgumentException>("Illegal sub partition", [&] {
        Cursor(*tx, {.prefix = partitionPrefix(PartitionType::Entity, 1, 1)});
    });
}

TEST_F(CursorTest, LeavesSyncedEntitiesToExemptTransactions) {
    EXPECT_NO_THROW(cursor(*read(), kSynced));
    expectThrow<IllegalStateException>(
        "Can not modify object of sync-enabled type \"Synced\" because sync has not been activated "
        "for this store.",
        [&] { cursor(*write(), kSynced); });
    const auto tx = write(kTxExempt);
    put(*cursor(*tx, kSynced), 1);
}

// --- what a change leaves behind --------------------------------------------------------------

TEST_F(CursorTest, TellsTheTransactionWhichEntitiesChanged) {
    const auto affectedBy = [&](auto&& work) {
        const auto tx = write();
        work(*cursor(*tx), *cursor(*tx, kTags));
        std::vector<uint32_t> affected;
        tx->commit(&affected);
        return affected;
    };
    using Ids = std::vector<uint32_t>;
    EXPECT_EQ(affectedBy([](Cursor& notes, Cursor& tags) {
                  put(tags, 1);
                  put(notes, 1);
                  put(tags, 2);
              }),
              (Ids{kTags, kNotes}));
    EXPECT_EQ(affectedBy([](Cursor& notes, Cursor&) { notes.remove(7); }), Ids{});
    EXPECT_EQ(affectedBy([](Cursor& notes, Cursor&) { notes.remove(1); }), Ids{kNotes});
    EXPECT_EQ(affectedBy([](Cursor&, Cursor& tags) { tags.removeAll(); }), Ids{kTags});
}

TEST_F(CursorTest, LeavesTheAccountAloneWhenAPutFails) {
    StoreOptions options;
    options.maxDataSizeInKb = 1000;
    open(options);
    putNotes({1});
    const auto tx = write();
    const auto notes = cursor(*tx);
    EXPECT_THROW(notes->put(1, nullptr, 8, kPut), IllegalArgumentException);
    EXPECT_EQ(tx->dataSizeChange(), 0);
}

TEST_F(CursorTest, ServesOtherEntitiesThroughCursorsOfItsOwn) {
    const auto tx = write();
    const auto notes = cursor(*tx);
    EXPECT_EQ(&notes->cursorFor(kNotes), notes.get());
    Cursor& tags = notes->cursorFor(kTags);
    EXPECT_EQ(&notes->cursorFor(kTags), &tags);
    put(tags, 4);
    expectThrow<IllegalArgumentException>("Argument condition \"entityId\" not met",
                                          [&] { notes->cursorFor(0); });
    EXPECT_THROW(notes->cursorFor(99), Exception);
    tx->commit();
    Bytes object;
    EXPECT_THROW(tags.first(object), IllegalStateException);
    EXPECT_EQ(storedIds(kTags), std::vector<uint64_t>{4});
}

TEST_F(CursorTest, PutsWhatItsCollectorGathered) {
    const auto tx = write();
    const auto notes = cursor(*tx);
    expectThrow<IllegalStateException>("Property collection not started before",
                                       [&] { notes->collectorPut(0); });
    notes->collector().collectString(*entity(kNotes).findPropertyById(kTextProperty), "hello");
    expectThrow<IllegalStateException>("Collector is dirty", [&] { notes->collector(); });
    EXPECT_EQ(notes->collectorPut(0), 1u);
    notes->collector().collectInteger(*entity(kNotes).findPropertyById(kNumberProperty), 9);
    expectThrow<IllegalArgumentException>("ID is higher or equal",
                                          [&] { notes->collectorPut(5); });
    EXPECT_EQ(notes->collectorPut(0), 2u);  // was reset by the failure
    Bytes object;
    ASSERT_TRUE(notes->get(1, object));
    EXPECT_EQ(objectText(object.data(), kTextProperty), "hello");
    EXPECT_EQ(objectValue<uint64_t>(object.data(), kIdProperty), 1u);
    ASSERT_TRUE(notes->get(2, object));
    EXPECT_EQ(objectValue<int64_t>(object.data(), kNumberProperty), 0);
    expectThrow<IllegalStateException>("No entity available in Cursor", [&] {
        tx->createKeyValueCursor(kKeyValuePrefix)->collector();
    });
    const auto owner = std::make_shared<int>(1);
    notes->setExternalCollectorOwner(owner);
    expectThrow<IllegalStateException>("Already set",
                                       [&] { notes->setExternalCollectorOwner(owner); });
}

TEST_F(CursorTest, RefusesAllWorkOnceItsTransactionIsOver) {
    putNotes({1, 2});
    const ObjectBytes note = makeNote(1);
    for (const bool destroyed : {false, true}) {
        auto tx = write();
        const auto notes = cursor(*tx);
        ASSERT_TRUE(notes->seek(1));
        destroyed ? tx.reset() : tx->abort();
        Bytes object;
        EXPECT_FALSE(notes->current(object));
        EXPECT_EQ(notes->currentId(), 0u);
        EXPECT_THROW(notes->get(1, object), IllegalStateException);
        EXPECT_THROW(notes->first(object), IllegalStateException);
        EXPECT_THROW(notes->next(object), IllegalStateException);
        EXPECT_THROW(notes->put(1, note.data(), note.size(), kPut), IllegalStateException);
        EXPECT_THROW(notes->remove(1), IllegalStateException);
        EXPECT_FALSE(notes->removeCurrent());
        EXPECT_THROW(notes->removeAll(), IllegalStateException);
        EXPECT_THROW(notes->count(), IllegalStateException);
        EXPECT_THROW(notes->cursorFor(kTags), IllegalStateException);
    }
    EXPECT_EQ(storedIds(), (std::vector<uint64_t>{1, 2}));
}

TEST_F(CursorTest, AllocatesNothingInTheSteadyState) {
    const auto tx = write();
    const auto notes = cursor(*tx);
    const ObjectBytes note = makeNote(1, "some text");
    uint64_t id = 0;
    Bytes object;
    const auto round = [&] {
        for (int i = 0; i < 500; ++i) {
            notes->put(++id, note.data(), note.size(), kPut);
            notes->put((id << 32) + 1, note.data(), note.size() - 1, kPut);  // has to be padded
        }
        for (uint64_t at = 1; at <= id; ++at) notes->get(at, object);
        for (bool found = notes->first(object); found; found = notes->next(object)) {
        }
    };
    round();
    const uint64_t before = allocationsOfThread();
    round();
    const uint64_t newNodes = TempDir::onLmdb() ? 0 : 1000;  // one per new record in memory
    EXPECT_EQ(allocationsOfThread(), before + newNodes);
    ::operator delete(::operator new(1));  // no expression, which a compiler may leave out
    EXPECT_EQ(allocationsOfThread(), before + newNodes + 1);  // the counter does count
}

// --- threads ----------------------------------------------------------------------------------

using CursorConcurrentTest = ObjectTest;

TEST_F(CursorConcurrentTest, ClosesWhileItsTransactionIsDestroyed) {
    putNotes({1});
    for (int round = 0; round < 200; ++round) {
        auto tx = write();
        std::vector<std::unique_ptr<Cursor>> cursors;
        for (int i = 0; i < 8; ++i) {
            cursors.push_back(cursor(*tx));
            cursors.back()->cursorFor(kTags);
        }
        std::barrier start(2);
        std::thread closer([&] {
            start.arrive_and_wait();
            while (!cursors.empty()) {
                cursors.erase(cursors.begin() + round % 2 * (cursors.size() / 2));
            }
        });
        start.arrive_and_wait();
        tx.reset();
        closer.join();
    }
    EXPECT_EQ(storedIds(), std::vector<uint64_t>{1});
}

}  // namespace
}  // namespace quillmere
