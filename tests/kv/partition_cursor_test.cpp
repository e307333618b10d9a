#include "kv/partition_cursor.h"

#include <gtest/gtest.h>

#include <array>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "core/error.h"
#include "kv/partition.h"
#include "kv_fixture.h"
#include "support/expect_throw.h"
#include "support/log_capture.h"
#include "support/seed.h"

namespace quillmere {
namespace {

using Position = PartitionCursor::Position;

const uint32_t kPrefix = partitionPrefix(PartitionType::Entity, 5);
const uint32_t kEarlier = partitionPrefix(PartitionType::Entity, 4);
const uint32_t kLater = partitionPrefix(PartitionType::Entity, 6);

class PartitionCursorTest : public testing::Test, protected StoreInDir {
protected:
    PartitionCursorTest() { open(); }

    static PartitionCursor::Config config(uint32_t dataPadding = 4) {
        return {.firstPrefix = kPrefix, .lastPrefix = kPrefix + 1, .dataPadding = dataPadding};
    }
    static void put(PartitionCursor& cursor, const std::string& key,
                    const std::string& value = "data") {
        cursor.put(bytesOf(key), bytesOf(value));
    }
    static std::string keyText(const PartitionCursor& cursor) {
        return std::string(cursor.key().text());
    }
};

TEST_F(PartitionCursorTest, PadsValuesWithZerosAndKeepsNoLargeBuffer) {
    TestTx tx(*store);
    PartitionCursor cursor(tx, config());
    const std::string key = keyOf(kPrefix, 1);
    Bytes value;
    for (const size_t size : {9001, 5, 8, 0}) {  // the large one leaves its bytes behind
        const std::string content(size, 'x');
        put(cursor, key, content);
        ASSERT_TRUE(cursor.get(key.data(), key.size(), value));
        EXPECT_EQ(value.text(), content + std::string(cursor.paddedSize(size) - size, '\0'));
        EXPECT_EQ(value.size() % 4, 0u);
    }
    EXPECT_TRUE(tx.changed());
}

TEST_F(PartitionCursorTest, FailedPutLeavesTheCursorOnNoElement) {
    TestTx tx(*store);
    PartitionCursor cursor(tx, config());
    put(cursor, keyOf(kPrefix, 3));
    put(cursor, keyOf(kPrefix, 1));
    const std::string longKey = keyOf(kPrefix, 1) + std::string(512, 'k');
    EXPECT_EQ(messageOf<StorageException>([&] { put(cursor, longKey); }),
              "Could not put (bad key or value size)");
    EXPECT_FALSE(cursor.current());
    EXPECT_THROW(cursor.removeCurrent(), IllegalStateException);
    EXPECT_TRUE(cursor.next());
    EXPECT_EQ(keyText(cursor), keyOf(kPrefix, 3));
    const std::string key = keyOf(kPrefix, 2);
    EXPECT_EQ(messageOf<ArgumentNullException>(
                  [&] { cursor.put(key.data(), key.size(), nullptr, 5); }),
              "Can not put a null value with a size");
    EXPECT_EQ(cursor.count(), 2u);
}

TEST_F(PartitionCursorTest, RemoveAllRemovesJustThePartitionAndCountsBytes) {
    TestTx tx(*store);
    PartitionCursor cursor(tx, config());
    put(cursor, keyOf(kEarlier, 1));
    put(cursor, keyOf(kLater, 1));
    for (uint32_t id = 1; id <= 1000; ++id) put(cursor, keyOf(kPrefix, id), "12345");
    uint64_t bytes = 0;
    EXPECT_EQ(cursor.removeAll(&bytes), 1000u);
    EXPECT_EQ(bytes, 8000u);
    EXPECT_EQ(cursor.position(), Position::Behind);
    EXPECT_EQ(messageOf<IllegalStateException>([&] { cursor.removeCurrent(); }),
              "Can not remove current element: cursor is not positioned at any element");
    for (const uint32_t prefix : {kEarlier, kLater}) {
        cursor.setPartition(prefix, prefix);
        EXPECT_EQ(cursor.removeAll(), 1u);
    }
}

TEST_F(PartitionCursorTest, ShortPrefixComparesTwoBytes) {
    TestTx tx(*store);
    PartitionCursor cursor(
        tx, {.firstPrefix = 0x04010000, .lastPrefix = 0x04010000, .shortPrefix = true});
    for (const std::string& key : {std::string("\4\0\1\1", 4), std::string("\4\1", 2),
                                  std::string("\4\1\7\7", 4), std::string("\4\2", 2)}) {
        put(cursor, key, std::string(4 - key.size() % 4, 'v'));
    }
    EXPECT_EQ(cursor.count(), 2u);
    EXPECT_EQ(cursor.currentPrefix(), 0x04010000u);
}

TEST_F(PartitionCursorTest, ReportsKeysThatAreTooShortAsCorrupt) {
    commitPut(std::string("\x18\0", 2), "vv");
    TestTx tx(*store, true);
    PartitionCursor cursor(tx, {.firstPrefix = 0x08000000, .lastPrefix = 0x08000000});
    EXPECT_EQ(messageOf<DbFileCorruptException>([&] { cursor.first(); }),
              "Corrupt DB, min key size violated: 2");
}

TEST_F(PartitionCursorTest, RefusesBadArguments) {
    TestTx tx(*store);
    const auto failure = [&](const PartitionCursor::Config& config) {
        return messageOf<IllegalArgumentException>([&] { PartitionCursor(tx, config); });
    };
    EXPECT_EQ(failure({.firstPrefix = kPrefix + 1, .lastPrefix = kPrefix + 1, .dataPadding = 0}),
              "Partition prefix must not have sub partition");
    EXPECT_EQ(failure({.firstPrefix = kPrefix, .lastPrefix = kPrefix, .dataPadding = 0}),
              "Argument condition \"dataPadding\" not met (L31)");
    PartitionCursor cursor(tx, config());
    EXPECT_EQ(messageOf<ArgumentNullException>([&] { cursor.put(Bytes(), Bytes()); }),
              "Can not put with a null key");
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { cursor.put("", 0, "", 0); }),
              "Can not put without a key");
    EXPECT_EQ(messageOf<IllegalStateException>([&] { cursor.next(); }),
              "Key was not set before, but this operation requires it");
    EXPECT_FALSE(tx.changed());
}

TEST_F(PartitionCursorTest, BelongsToTheThreadOfItsTransaction) {
    TestTx tx(*store, true, 123456);
    EXPECT_EQ(messageOf<IllegalStateException>([&] { PartitionCursor(tx, config()); }),
              "Cannot create cursor in thread #" + std::to_string(threadNumber()) +
                  " as it does not match thread #123456, which created transaction #7");
}

TEST_F(PartitionCursorTest, ContinuesFromItsKeyAfterItsTransactionWasRenewed) {
    for (uint32_t id = 1; id <= 3; ++id) commitPut(keyOf(kPrefix, id), "data");
    TestTx tx(*store, true);
    PartitionCursor cursor(tx, config());
    cursor.first();
    tx.dbTransaction().recycleReadOnlyForRenew();
    commitPut(keyOf(kPrefix, 4), "data");
    tx.dbTransaction().renewReadOnly();
    cursor.renew();
    EXPECT_TRUE(cursor.next());
    EXPECT_EQ(keyText(cursor), keyOf(kPrefix, 2));
    EXPECT_EQ(cursor.count(), 4u);
    cursor.txEnded();
    EXPECT_TRUE(cursor.isReleased());
    EXPECT_THROW(cursor.first(), IllegalStateException);
}

// Its cursors cannot be closed.
class UnclosableTransaction : public DbTransaction {
public:
    explicit UnclosableTransaction(DbStore& store) : DbTransaction(true), store_(store) {}
    DbStore& store() override { return store_; }
    bool isInProgress() const override { return true; }
    void begin() override {}
    void commit() override {}
    void abort() override {}
    void resetReadOnly() override {}
    void recycleReadOnlyForRenew() override {}
    void renewReadOnly() override {}
    std::shared_ptr<DbCursor> createDbCursor() override {
        return std::make_shared<EmptyDbCursor>();
    }

private:
    DbStore& store_;
};

TEST_F(PartitionCursorTest, WarnsAboutALowLevelCursorThatStaysOpen) {
    struct UnclosableTx : TxContext {
        explicit UnclosableTx(DbStore& store)
            : TxContext(std::make_unique<UnclosableTransaction>(store), 8, threadNumber(), true) {}
    } tx(*store);
    const LogCapture log;
    { PartitionCursor cursor(tx, config()); }
    EXPECT_TRUE(log.contains(" [WARN ] Skipped low-level close of cursor (read, TX #8 alive)\n"));
    {
        PartitionCursor cursor(tx, config());
        cursor.txDestroyed();
    }
    EXPECT_TRUE(log.contains("cursor (read, TX #8 destroyed)\n"));
}

// A PartitionCursor over a sorted map, for comparison.
class ModelCursor {
public:
    using Records = std::map<std::string, std::string>;

    explicit ModelCursor(Records& records) : records_(records) {}

    bool first() { return land(records_.lower_bound(key = bigEndian(kPrefix))); }
    bool next() {
        auto it = records_.upper_bound(key);
        while (it != records_.end() && positionOf(it->first) == Position::Before) ++it;
        return land(it);
    }
    bool previous() {
        auto it = records_.lower_bound(key);
        while (it != records_.begin() && positionOf(std::prev(it)->first) == Position::Behind) --it;
        return landBefore(it);
    }
    bool seek(const std::string& asked) {
        key = asked;
        return land(records_.find(key));
    }
    bool seekOrNext(const std::string& asked) {
        return land(records_.lower_bound(key = asked));
    }
    bool seekOrPrevious(const std::string& asked) {
        const auto it = records_.lower_bound(key = asked);
        return it != records_.end() && it->first == key ? land(it) : landBefore(it);
    }
    void put(const std::string& newKey, const std::string& value) {
        land(records_.insert_or_assign(key = newKey, value).first);
    }
    bool removeCurrent() {
        const bool removed = records_.erase(key) != 0;
        land(removed ? records_.upper_bound(key) : records_.end());
        return removed;
    }

    std::string key;
    Position position = Position::None;

private:
    static Position positionOf(const std::string& key) {
        if (key < bigEndian(kPrefix)) return Position::Before;
        return key < bigEndian(kLater) ? Position::On : Position::Behind;
    }
    bool land(Records::iterator it) {
        position = it == records_.end() ? Position::Behind : positionOf(it->first);
        if (position == Position::On) key = it->first;
        return position == Position::On;
    }
    bool landBefore(Records::iterator it) {
        if (it != records_.begin()) return land(std::prev(it));
        position = Position::Before;
        return false;
    }

    Records& records_;
};

// Random operations of several cursors of one transaction. Keys are few, so that seeks hit and
// miss; values are large, so that pages split and merge; phases of removal empty the store.
class RandomOperations {
public:
    RandomOperations(DbStore& store, uint32_t seed) : store_(store), random_(seed) {}

    void runTransaction(int steps) {
        TestTx tx(store_);
        struct Pair {
            PartitionCursor cursor;
            ModelCursor model;
            Position told = Position::None;
        };
        const PartitionCursor::Config config{
            .firstPrefix = kPrefix, .lastPrefix = kPrefix + 3, .dataPadding = 4};
        std::array<Pair, 3> pairs{{{{tx, config}, ModelCursor(records_)},
                                   {{tx, config}, ModelCursor(records_)},
                                   {{tx, config}, ModelCursor(records_)}}};
        for (Pair& pair : pairs) {
            pair.cursor.setPositionCallback(
                [](void* told, const Bytes&, Position at) { *static_cast<Position*>(told) = at; },
                &pair.told);
            EXPECT_EQ(pair.cursor.first(), pair.model.first());
        }
        const bool shrink = pick(3) == 0;
        for (int step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
            Pair& pair = pairs[pick(pairs.size())];
            runStep(pair.cursor, pair.model, shrink);
            ASSERT_EQ(pair.cursor.position(), pair.model.position) << "step " << step;
            ASSERT_EQ(pair.told, pair.model.position) << "step " << step;
            ASSERT_EQ(pair.cursor.key().text(), pair.model.key) << "step " << step;
        }
        tx.commit();
    }

private:
    void runStep(PartitionCursor& cursor, ModelCursor& model, bool shrink) {
        const std::string key = randomKey();
        Bytes value;
        const uint32_t op = pick(12);
        SCOPED_TRACE("operation " + std::to_string(op) + " of " + bytesOf(model.key).toHex(99) +
                     ", key " + bytesOf(key).toHex(99));
        switch (op) {
            case 0: return check(cursor.first(value), model.first(), model, value);
            case 1:
            case 2: return check(cursor.next(value), model.next(), model, value);
            case 3:
            case 4: return check(cursor.previous(value), model.previous(), model, value);
            case 5:
                return check(cursor.get(key.data(), key.size(), value), model.seek(key), model,
                             value);
            case 6: {
                const bool found = pick(2) ? cursor.getOrNext(key.data(), key.size(), value)
                                           : cursor.seekOrNext(key.data(), key.size()) &&
                                                 cursor.currentValue(value);
                return check(found, model.seekOrNext(key), model, value);
            }
            case 7: {
                const bool found = pick(2) ? cursor.getOrPrevious(key.data(), key.size(), value)
                                           : cursor.seekOrPrevious(key.data(), key.size()) &&
                                                 cursor.currentValue(value);
                return check(found, model.seekOrPrevious(key), model, value);
            }
            case 8: {
                if (!shrink) return put(cursor, model, key);
                [[fallthrough]];
            }
            case 9:
                if (model.position != Position::On) return;
                EXPECT_EQ(cursor.removeCurrent(), model.removeCurrent());
                return;
            case 10: {
                const bool exists = model.position == Position::On && records_.contains(model.key);
                return check(cursor.currentValue(value), exists, model, value);
            }
            default: return put(cursor, model, shrink ? model.key : key);
        }
    }

    void put(PartitionCursor& cursor, ModelCursor& model, const std::string& key) {
        const std::string value(4 * pick(200), static_cast<char>('a' + pick(26)));
        cursor.put(key.data(), key.size(), value.data(), value.size());
        model.put(key, value);
    }

    void check(bool found, bool expected, const ModelCursor& model, const Bytes& value) {
        ASSERT_EQ(found, expected);
        ASSERT_EQ(value.text(), found ? records_.at(model.key) : std::string());
    }

    // Mostly of the partition, sometimes of its neighbours.
    std::string randomKey() {
        const uint32_t prefixes[] = {kPrefix, kPrefix, kPrefix, kPrefix + 1, kEarlier, kLater};
        const uint32_t prefix = prefixes[pick(6)];
        return keyOf(prefix, pick(60)) + (pick(2) ? bigEndian(1) : "");
    }

    uint32_t pick(size_t n) { return static_cast<uint32_t>(random_() % n); }

    DbStore& store_;
    std::mt19937 random_;
    std::map<std::string, std::string> records_;
};

TEST_F(PartitionCursorTest, BehavesLikeASortedMapUnderRandomOperationsOfSeveralCursors) {
    RandomOperations operations(*store, testSeed());
    for (int round = 0; round < 40 && !HasFailure(); ++round) operations.runTransaction(1000);
}

}  // namespace
}  // namespace quillmere
