#include "store/index_cursor.h"

#include <algorithm>
#include <map>
#include <random>
#include <thread>

#include "core/endian.h"
#include "store/index_test.h"
#include "store/lent_buffer.h"
#include "store/object_table.h"
#include "support/alloc_counter.h"
#include "support/expect_throw.h"
#include "support/log_capture.h"
#include "support/seed.h"

namespace quillmere {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr uint64_t kLongId = 0x100000000;

// Properties of the entity in most tests.
constexpr uint32_t kNumber = 2;
constexpr uint32_t kText = 3;

std::string text(size_t size, char tail = 'x') {
    return std::string(size - 1, 'x') + tail;
}

std::vector<uint64_t> sorted(std::vector<uint64_t> ids) {
    std::ranges::sort(ids);
    return ids;
}

class IndexCursorTest : public IndexTest {
protected:
    // Entity 1 with an indexed number and an indexed text.
    void openNotes(uint32_t numberFlags = 0, uint32_t textFlags = 0) {
        open(TestSchema()
                 .entity(1, "Note")
                 .property(kNumber, "number", PropertyType::Int, kPropertyIndexed | numberFlags)
                 .property(kText, "text", PropertyType::String, kPropertyIndexed | textFlags));
    }
    IndexCursor& index(Cursor& cursor, uint32_t propertyId) {
        return cursor.getIndexCursor(property(1, propertyId));
    }
    std::vector<uint64_t> find(Cursor& cursor, const std::string& value, IndexMatch match,
                               bool* outNotDefinite = nullptr) {
        std::vector<uint64_t> ids;
        bool notDefinite = false;
        index(cursor, kText).findIds(value, &ids, notDefinite, match);
        if (outNotDefinite) *outNotDefinite = notDefinite;
        return ids;
    }
    std::vector<std::string> faults(Transaction& tx) { return IndexChecker(tx).faults(); }
};

// --- what is stored ------------------------------------------------------------------------------

TEST_F(IndexCursorTest, KeysOfNumbersAreBigEndianWithTheShortestId) {
    open(TestSchema()
             .entity(1, "All")
             .property(2, "bool", PropertyType::Bool, kPropertyIndexed)
             .property(3, "byte", PropertyType::Byte, kPropertyIndexed)
             .property(4, "short", PropertyType::Short, kPropertyIndexed)
             .property(5, "char", PropertyType::Char, kPropertyIndexed)
             .property(6, "int", PropertyType::Int, kPropertyIndexed)
             .property(7, "long", PropertyType::Long, kPropertyIndexed)
             .property(8, "date", PropertyType::Date, kPropertyIndexed)
             .property(9, "dateNano", PropertyType::DateNano, kPropertyIndexed)
             .toOne(10, "other", 1));
    const auto tx = write();
    const auto all = cursor(*tx);
    for (const uint64_t id : {uint64_t{7}, kLongId}) {
        put(*all, id, {{2, true}, {3, int8_t{-1}}, {4, int16_t{-2}}, {5, int16_t{0x1234}},
                       {6, int32_t{-3}}, {7, int64_t{-4}}, {8, int64_t{0x0102030405060708}},
                       {9, int64_t{5}}, {10, uint64_t{6}}});
    }
    const std::map<uint32_t, std::string> values = {
        {2, "00000001"},         {3, "000000ff"},          {4, "0000fffe"},
        {5, "00001234"},         {6, "fffffffd"},          {7, "fffffffffffffffc"},
        {8, "0102030405060708"}, {9, "0000000000000005"},  {10, "0000000000000006"}};
    for (const auto& [propertyId, value] : values) {
        EXPECT_THAT(entries(*tx, 1, propertyId),
                    ElementsAre(value + "0000000100000000", value + "00000007"))
            << propertyId;
    }
    const std::string key = IndexChecker(*tx).indexKeys(TestSchema::indexId(1, 2)).front();
    EXPECT_EQ(IndexChecker::hex(key.substr(0, 4)), "20000198");  // type 8, index 102
    EXPECT_THAT(faults(*tx), IsEmpty());
}

TEST_F(IndexCursorTest, KeysOfStringsHoldTheStringOrItsHash) {
    open(TestSchema()
             .entity(1, "Text")
             .property(2, "value", PropertyType::String, kPropertyIndexed)
             .property(3, "hash", PropertyType::String, kPropertyIndexHash)
             .property(4, "hash64", PropertyType::String, kPropertyIndexHash64));
    const auto tx = write();
    const auto texts = cursor(*tx);
    put(*texts, 7, {{2, std::string("ab")}, {3, std::string("ab")}, {4, std::string("ab")}});
    EXPECT_THAT(entries(*tx, 1, 2), ElementsAre("6162000000000000000007"));
    // The published xxHash values of "ab".
    EXPECT_THAT(entries(*tx, 1, 3), ElementsAre("4999fc5300000007"));
    EXPECT_THAT(entries(*tx, 1, 4), ElementsAre("65f708ca92d04a6100000007"));

    for (const size_t size : {477, 478, 479, 480}) {
        texts->removeAll();
        put(*texts, 1, {{2, text(size)}});
        const std::string key = IndexChecker(*tx).indexKeys(TestSchema::indexId(1, 2)).at(0);
        EXPECT_EQ(key.size(), std::min<size_t>(size + 1, 479) + 12);
        EXPECT_EQ(key[key.size() - 9], size < 479 ? '\0' : 'x');
        EXPECT_THAT(faults(*tx), IsEmpty());
    }
}

TEST_F(IndexCursorTest, IndexesOfOtherTypesAreRefused) {
    const auto failure = [&]<class E>(E*, PropertyType type, uint32_t flags) {
        open(TestSchema().entity(1, "Bad").property(2, "bad", type, flags));
        const auto tx = write();
        return messageOf<E>([&] { put(*cursor(*tx), 1); });
    };
    SchemaException* schema = nullptr;
    IllegalArgumentException* argument = nullptr;
    EXPECT_EQ(
        failure(schema, PropertyType::Float, kPropertyIndexed),
        "Indexing of float and double is currently unavailable. Please remove the index on bad");
    EXPECT_EQ(failure(argument, PropertyType::Int, kPropertyIndexHash),
              "Only string types may have non-value index types for now");
    EXPECT_EQ(failure(argument, PropertyType::ByteVector, kPropertyIndexed),
              "Unsupported type for indexing: 23");
    EXPECT_EQ(failure(argument, PropertyType::ByteVector, kPropertyUnique),
              "Unsupported type for unique: 23");
}

TEST_F(IndexCursorTest, AnIndexCursorIsAskedForByAnIndexedProperty) {
    openNotes();
    const auto tx = write();
    const auto notes = cursor(*tx);
    EXPECT_EQ(&index(*notes, kText).property(), &property(1, kText));
    EXPECT_EQ(messageOf<IllegalStateException>([&] { index(*notes, 1); }),
              "State condition failed in getIndexCursor:604: propertyIsIndexed");
    const auto raw = tx->createKeyValueCursor(partitionPrefix(PartitionType::Entity, 1));
    EXPECT_EQ(messageOf<IllegalStateException>([&] { index(*raw, kText); }),
              "State condition failed in getIndexCursor:606: indexCursorSet_");
    Property foreign(99, 9, "foreign", PropertyType::Int, kPropertyIndexed);
    EXPECT_EQ(messageOf<IllegalStateException>([&] { notes->getIndexCursor(foreign); }),
              "State condition failed in getIndexCursor:608: indexCursor");
    EXPECT_EQ(notes->indexCursorSet()->findIndexCursor(99), nullptr);
}

// --- upkeep --------------------------------------------------------------------------------------

TEST_F(IndexCursorTest, AnUnchangedValueWritesNothingAndUpkeepAllocatesNothing) {
    openNotes();
    auto tx = write();
    auto notes = cursor(*tx);
    const ObjectBytes a = makeObject({{1, uint64_t{1}}, {kNumber, 5}, {kText, std::string("a")}});
    const ObjectBytes b = makeObject({{1, uint64_t{1}}, {kNumber, 6}, {kText, std::string("b")}});
    const auto putBoth = [&] {
        notes->put(1, a.data(), a.size(), kPut);
        notes->put(1, b.data(), b.size(), kPut);
    };
    for (int warmUp = 0; warmUp < 3; ++warmUp) putBoth();
    const uint64_t before = allocationsOfThread();
    for (int i = 0; i < 10; ++i) putBoth();
    const uint64_t newNodes = TempDir::onLmdb() ? 0 : 40;  // one per new entry in memory
    EXPECT_EQ(allocationsOfThread(), before + newNodes);

    // An entry taken away by hand does not come back with an unchanged put.
    EXPECT_EQ(index(*notes, kNumber).removeAllEntries(), 1u);
    notes->put(1, b.data(), b.size(), kPut);
    EXPECT_THAT(entries(*tx, 1, kNumber), IsEmpty());
}

TEST_F(IndexCursorTest, APresentZeroThatBecomesAbsentKeepsItsEntry) {
    openNotes();
    const auto tx = write();
    const auto notes = cursor(*tx);
    put(*notes, 1, {{kNumber, 0}, {kText, std::string()}});
    put(*notes, 1);
    EXPECT_THAT(entries(*tx, 1, kNumber), ElementsAre("0000000000000001"));
    EXPECT_THAT(entries(*tx, 1, kText), ElementsAre("000000000000000001"));
    EXPECT_EQ(faults(*tx).size(), 2u);
    EXPECT_THAT(IndexChecker(*tx).tolerateKeptZeros().faults(), IsEmpty());
}

TEST_F(IndexCursorTest, AMissingEntryIsLoggedByARemovalAlone) {
    openNotes();
    const auto tx = write();
    const auto notes = cursor(*tx);
    put(*notes, 1, {{kNumber, 5}});
    index(*notes, kNumber).removeAllEntries();
    const LogCapture log;
    put(*notes, 1, {{kNumber, 6}});
    EXPECT_EQ(log.text(), "");
    index(*notes, kNumber).removeAllEntries();
    EXPECT_TRUE(notes->remove(1));
    EXPECT_TRUE(log.contains(" [ERROR] Could not remove index entry: not found\n"));
}

TEST_F(IndexCursorTest, ARefusedPutLeavesTheIndexesAlone) {
    openNotes();
    const auto tx = write();
    const auto notes = cursor(*tx);
    const ObjectBytes object = makeObject({{1, uint64_t{1}}, {kNumber, 5}});
    for (const uint64_t id : {uint64_t{0}, ~uint64_t{0}}) {
        EXPECT_THAT(messageOf<IllegalArgumentException>([&] {
                        notes->writeValue(id, object.data(), object.size(), false);
                    }),
                    StartsWith("Illegal ID value: "));
    }
    const ObjectTable table(object.data(), object.size());
    EXPECT_EQ(messageOf<IllegalArgumentException>(
                  [&] { index(*notes, kNumber).updateEntry(0, table, nullptr); }),
              "ID must not be zero");
    const ObjectBytes named = makeObject({{kText, std::string("a")}});
    const ObjectTable namedTable(named.data(), named.size());
    EXPECT_EQ(messageOf<IllegalArgumentException>(
                  [&] { index(*notes, kText).updateEntry(0, namedTable, nullptr); }),
              "Key must not be zero");
    EXPECT_THAT(entries(*tx, 1, kNumber), IsEmpty());
    EXPECT_THAT(entries(*tx, 1, kText), IsEmpty());
}

// --- uniqueness ----------------------------------------------------------------------------------

TEST_F(IndexCursorTest, UniqueValuesAreRefusedBeforeAnythingIsWritten) {
    openNotes(0, kPropertyUnique);
    const auto tx = write();
    const auto notes = cursor(*tx);
    put(*notes, 1, {{kNumber, 5}, {kText, std::string("a")}});
    put(*notes, 1, {{kNumber, 6}, {kText, std::string("a")}});  // its own value
    EXPECT_EQ(messageOf<UniqueViolationException>(
                  [&] { put(*notes, 2, {{kNumber, 7}, {kText, std::string("a")}}); }),
              "Unique constraint for Note.text would be violated by putting object with ID 2 "
              "because same property value already exists in object with ID 1");
    EXPECT_THAT(faults(*tx), IsEmpty());
    EXPECT_FALSE(notes->seek(2));
    for (const uint64_t id : {3, 4}) put(*notes, id, {{kNumber, 7}});  // null
    for (const uint64_t id : {5, 6}) put(*notes, id, {{kText, std::string()}});
    EXPECT_EQ(notes->count(), 5u);
}

TEST_F(IndexCursorTest, EqualHashesDoNotConflict) {
    openNotes(0, kPropertyUnique);  // a unique text is indexed by its 32-bit hash
    const auto tx = write();
    const auto notes = cursor(*tx);
    const std::string a = "uwrhzhfc";
    const std::string b = "biijdsyg";
    ASSERT_EQ(XXH32(a.data(), a.size(), 0), XXH32(b.data(), b.size(), 0));
    put(*notes, 1, {{kText, a}});
    put(*notes, 2, {{kText, b}});
    bool notDefinite = false;
    EXPECT_THAT(find(*notes, a, IndexMatch::Equal, &notDefinite), ElementsAre(1, 2));
    EXPECT_TRUE(notDefinite);
    std::vector<uint64_t> ids = {99};  // what is in the list stays
    index(*notes, kText).findExactStringIds(b, ids, *notes);
    EXPECT_THAT(ids, ElementsAre(99, 2));
    EXPECT_EQ(messageOf<Exception>([&] { index(*notes, kText).findFirstId(a); }),
              "Index could not provide a definite match");
    EXPECT_EQ(index(*notes, kText).findFirstId("none"), 0u);
    EXPECT_THROW(put(*notes, 3, {{kText, b}}), UniqueViolationException);

    // An entry without an object is damage, not a conflict.
    const ObjectBytes ghost = makeObject({{kText, a}});
    index(*notes, kText).updateEntry(77, ObjectTable(ghost.data(), ghost.size()), nullptr);
    EXPECT_EQ(messageOf<DbFileCorruptException>([&] { put(*notes, 3, {{kText, a}}); }),
              "Entity unavailable for indexed ID 77");
}

TEST_F(IndexCursorTest, ReplacingRemovesAllOtherHolders) {
    openNotes(0, kPropertyUnique | kPropertyReplaceOnConflict);
    const auto tx = write();
    const auto notes = cursor(*tx);
    put(*notes, 1, {{kNumber, 5}, {kText, std::string("a")}});
    // A second holder, as an index made unique later may have.
    const ObjectBytes twin = makeObject({{1, uint64_t{2}}, {kText, std::string("a")}});
    notes->putRaw(2, twin.data(), twin.size());
    index(*notes, kText).updateEntry(2, ObjectTable(twin.data(), twin.size()), nullptr);
    put(*notes, 3, {{kText, std::string("a")}});
    EXPECT_EQ(notes->seekFirstId(), 3u);
    EXPECT_EQ(notes->count(), 1u);
    EXPECT_THAT(faults(*tx), IsEmpty());
    tx->commit();  // refuses while a replacement is under way
}

// Replacing the holder clears the reference in the object that is being put; with self-relations
// all this happens on one cursor.
TEST_F(IndexCursorTest, ReplacingMayChangeTheObjectBeingPut) {
    open(TestSchema()
             .entity(1, "Person")
             .property(2, "name", PropertyType::String,
                       kPropertyUnique | kPropertyReplaceOnConflict)
             .toOne(3, "friend", 1)
             .property(4, "age", PropertyType::Int, kPropertyIndexed));
    const auto tx = write();
    const auto persons = cursor(*tx);
    put(*persons, 1, {{2, std::string("Ann")}, {3, uint64_t{2}}, {4, 30}});
    put(*persons, 2, {{2, std::string("Bob")}, {3, uint64_t{1}}, {4, 40}});
    put(*persons, 1, {{2, std::string("Bob")}, {3, uint64_t{1}}, {4, 31}});
    EXPECT_EQ(persons->count(), 1u);
    EXPECT_THAT(faults(*tx), IsEmpty());
    EXPECT_THAT(entries(*tx, 1, 3), ElementsAre("000000000000000100000001"));
}

TEST_F(IndexCursorTest, ManyMayReferToNothingByAUniqueToOne) {
    for (const uint32_t flags : {0u, uint32_t{kPropertyReplaceOnConflict}}) {
        open(TestSchema().entity(1, "Person").toOne(2, "partner", 1, kPropertyUnique | flags));
        const auto tx = write();
        const auto persons = cursor(*tx);
        put(*persons, 1);
        put(*persons, 2);
        put(*persons, 3, {{2, uint64_t{1}}});
        put(*persons, 4, {{2, uint64_t{2}}});
        put(*persons, 5, {{2, uint64_t{0}}});
        EXPECT_TRUE(persons->remove(1));
        EXPECT_TRUE(persons->remove(2));
        EXPECT_EQ(persons->count(), 3u);
        EXPECT_THAT(faults(*tx), IsEmpty());
    }
}

// --- look-ups ------------------------------------------------------------------------------------

TEST_F(IndexCursorTest, NumbersAreFoundByTheirBits) {
    openNotes();
    const auto tx = write();
    const auto notes = cursor(*tx);
    IndexCursor& numbers = index(*notes, kNumber);
    uint64_t value = 99;
    EXPECT_FALSE(numbers.firstValue(value));
    EXPECT_FALSE(numbers.lastValue(value));
    EXPECT_FALSE(numbers.firstEntry());
    for (const uint64_t id : {uint64_t{1}, kLongId, uint64_t{2}}) put(*notes, id, {{kNumber, 5}});
    put(*notes, 3, {{kNumber, -1}});
    put(*notes, 4, {{kNumber, 4}});

    std::vector<uint64_t> ids;
    EXPECT_EQ(numbers.findScalarIds32(5, &ids), 1u);
    EXPECT_THAT(ids, ElementsAre(1, kLongId, 2));  // in the order of keys
    EXPECT_EQ(numbers.findScalarIds32(5, nullptr), 1u);
    EXPECT_EQ(numbers.findScalarIds32(6, nullptr), 0u);
    EXPECT_EQ(numbers.countScalarIds64(5, 0), 3u);
    EXPECT_EQ(numbers.countScalarIds64(5, 2), 2u);
    EXPECT_EQ(numbers.countScalarIds64(6, 2), 0u);
    ASSERT_TRUE(numbers.firstValue(value));
    EXPECT_EQ(value, 4u);
    ASSERT_TRUE(numbers.lastValue(value));
    EXPECT_EQ(value, 0xFFFFFFFFu);  // negative numbers come last
    std::vector<std::pair<uint64_t, uint64_t>> walk;
    for (bool on = numbers.firstEntry(); on; on = numbers.nextEntry()) {
        walk.emplace_back(numbers.entryValue(), numbers.entryId());
    }
    EXPECT_THAT(walk, ElementsAre(std::pair(4, 4), std::pair(5, 1), std::pair(5, kLongId),
                                  std::pair(5, 2), std::pair(0xFFFFFFFF, 3)));
}

bool matches(const std::string& text, const std::string& value, IndexMatch match) {
    switch (match) {
        case IndexMatch::Equal: return text == value;
        case IndexMatch::StartsWith: return text.starts_with(value);
        case IndexMatch::Greater: return text > value;
        case IndexMatch::Less: return text < value;
        case IndexMatch::GreaterOrEqual: return text >= value;
        default: return text <= value;
    }
}

constexpr IndexMatch kAllMatches[] = {IndexMatch::Equal,          IndexMatch::StartsWith,
                                      IndexMatch::Greater,        IndexMatch::Less,
                                      IndexMatch::GreaterOrEqual, IndexMatch::LessOrEqual};

// Definite look-ups give exactly what a comparison of all objects gives, in the order of keys.
TEST_F(IndexCursorTest, StringLookUpsAgreeWithBruteForce) {
    std::mt19937 random(testSeed());
    openNotes();
    const auto tx = write();
    const auto notes = cursor(*tx);
    const auto randomText = [&] {
        static const std::string pieces[] = {"", "a", "b", "\xFF", "ab", text(470), text(476)};
        std::string result = pieces[random() % std::size(pieces)];
        for (size_t n = random() % 4; n > 0; --n) result += static_cast<char>('a' + random() % 2);
        return result;
    };
    std::map<uint64_t, std::string> model;
    for (int i = 0; i < 300; ++i) {
        const uint64_t id = 1 + random() % 100 + (random() % 4 == 0 ? kLongId : 0);
        model[id] = randomText();
        put(*notes, id, {{kText, model[id]}});
    }
    for (int i = 0; i < 200; ++i) {
        const std::string value = randomText();
        for (const IndexMatch match : kAllMatches) {
            std::vector<uint64_t> expected;
            std::vector<std::pair<std::string, uint64_t>> keys;
            for (const auto& [id, text] : model) {
                if (!matches(text, value, match)) continue;
                expected.push_back(id);
                keys.emplace_back((text + '\0').substr(0, 479), id);
            }
            std::ranges::sort(keys);
            if (match == IndexMatch::Less || match == IndexMatch::LessOrEqual) {
                std::ranges::reverse(keys);
            }
            bool notDefinite = false;
            const std::vector<uint64_t> ids = find(*notes, value, match, &notDefinite);
            const bool cut = value.size() + (match == IndexMatch::StartsWith ? 0 : 1) > 479;
            EXPECT_EQ(notDefinite, cut);
            if (!cut) {
                std::vector<uint64_t> inOrder;
                for (const auto& [key, id] : keys) inOrder.push_back(id);
                EXPECT_EQ(ids, inOrder) << value.size() << ' ' << static_cast<int>(match);
            }
            uint64_t first = 0;
            first = index(*notes, kText).findIds(value, nullptr, notDefinite, match);
            EXPECT_EQ(first, ids.empty() ? 0 : ids.front());
            if (match != IndexMatch::Equal) continue;
            std::vector<uint64_t> exact;
            index(*notes, kText).findExactStringIds(value, exact, *notes);
            EXPECT_EQ(sorted(exact), expected);
        }
    }
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { find(*notes, "", IndexMatch{6}); }),
              "Unsupported match type");
    EXPECT_THAT(faults(*tx), IsEmpty());
}

TEST_F(IndexCursorTest, AStringWithZerosSortsBetweenTheEntriesOfAnother) {
    openNotes();
    const auto tx = write();
    const auto notes = cursor(*tx);
    const std::string withZeros("b\0\0", 3);
    put(*notes, 1, {{kText, std::string("b")}});
    put(*notes, 3, {{kText, withZeros}});
    put(*notes, kLongId << 8, {{kText, std::string("b")}});
    EXPECT_THAT(find(*notes, "b", IndexMatch::Equal), ElementsAre(1, kLongId << 8));
    EXPECT_THAT(find(*notes, withZeros, IndexMatch::Equal), ElementsAre(3));
}

// --- damage --------------------------------------------------------------------------------------

TEST_F(IndexCursorTest, EntriesOfAWrongSizeAreReported) {
    openNotes();
    const auto tx = write();
    const auto notes = cursor(*tx);
    const auto plant = [&](uint32_t propertyId, const std::string& tail) {
        const uint32_t prefix =
            partitionPrefix(PartitionType::Index, TestSchema::indexId(1, propertyId));
        std::string key(4, '\0');
        storeBig(key.data(), prefix);
        key += tail;
        PartitionCursor(*tx, {.firstPrefix = prefix, .lastPrefix = prefix})
            .put(key.data(), key.size(), "\0\0\0", (4 - key.size() % 4) % 4);
    };
    plant(kNumber, std::string("\0\0\0\5\0\0", 6));
    IndexCursor& numbers = index(*notes, kNumber);
    uint64_t value = 0;
    const std::string expected = "Illegal index entry size: 10";
    EXPECT_EQ(messageOf<DbFileCorruptException>([&] { numbers.findScalarIds32(5, nullptr); }),
              expected);
    EXPECT_EQ(messageOf<DbFileCorruptException>([&] { numbers.firstValue(value); }), expected);
    EXPECT_EQ(messageOf<DbFileCorruptException>([&] { numbers.lastValue(value); }), expected);
    EXPECT_EQ(numbers.findScalarIds32(4, nullptr), 0u);

    plant(kText, "ab");
    EXPECT_EQ(messageOf<DbFileCorruptException>([&] { find(*notes, "", IndexMatch::StartsWith); }),
              "Illegal index entry size: 6");
    EXPECT_EQ(numbers.removeAllEntries(), 1u);
}

// --- transactions --------------------------------------------------------------------------------

TEST_F(IndexCursorTest, ReadCursorsGoAlongWithARenewedTransaction) {
    openNotes();
    auto reader = read();
    const auto notes = cursor(*reader);
    EXPECT_EQ(index(*notes, kNumber).findScalarIds32(5, nullptr), 0u);
    EXPECT_THROW(
        {
            const ObjectBytes object = makeObject({{kNumber, 5}});
            index(*notes, kNumber)
                .updateEntry(1, ObjectTable(object.data(), object.size()), nullptr);
        },
        DbException);
    reader->recycle();
    EXPECT_EQ(messageOf<IllegalStateException>([&] { index(*notes, kNumber).renew(); }),
              "Transaction is not active");
    const auto tx = write();
    {
        const auto writing = cursor(*tx);
        put(*writing, 1, {{kNumber, 5}});
        EXPECT_EQ(messageOf<IllegalStateException>([&] { index(*writing, kNumber).renew(); }),
                  "Only index cursors bound to read-only transactions may be renewed");
    }
    tx->commit();
    reader->renew();
    EXPECT_EQ(index(*notes, kNumber).findScalarIds32(5, nullptr), 1u);
    reader.reset();
    EXPECT_THROW(index(*notes, kNumber).findScalarIds32(5, nullptr), IllegalStateException);
}

TEST_F(IndexCursorTest, IndexesAreOpenedOnTheThreadOfTheTransaction) {
    openNotes();
    const auto reader = read();
    const auto notes = cursor(*reader);
    std::string message;
    std::thread([&] {
        message = messageOf<IllegalStateException>([&] { index(*notes, kNumber); });
    }).join();
    EXPECT_EQ(message, "State condition failed in indexCursors:27: tx_.isOwnerThread()");
    EXPECT_EQ(index(*notes, kNumber).findScalarIds32(5, nullptr), 0u);
}

TEST(LentBuffer, IsLentToOneAtATime) {
    LentBuffer buffer;
    const std::string large(100000, 'x');
    {
        const LentCopy copy(buffer, Bytes(large.data(), large.size()));
        EXPECT_EQ(copy.size(), large.size());
        EXPECT_EQ(messageOf<IllegalStateException>([&] { buffer.lend(); }),
                  "Buffer is already in use");
    }
    EXPECT_LT(buffer.lend().size(), large.size());  // a large block is not kept
    buffer.giveBack();
    EXPECT_EQ(messageOf<IllegalStateException>([&] { buffer.giveBack(); }),
              "Buffer was not marked in use - internal error");
}

}  // namespace
}  // namespace quillmere
