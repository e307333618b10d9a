#include "store/relation_cursor.h"

#include <random>
#include <set>

#include "core/endian.h"
#include "store/index_test.h"
#include "support/expect_throw.h"
#include "support/log_capture.h"
#include "support/seed.h"

namespace quillmere {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr uint64_t kLongId = 0x100000000;
constexpr uint32_t kBooks = 1;   // related to tags (1) and to other books (2)
constexpr uint32_t kTags = 2;
constexpr uint32_t kToTags = 1;
constexpr uint32_t kToBooks = 2;

class RelationCursorTest : public IndexTest {
protected:
    void SetUp() override {
        open(TestSchema()
                 .entity(kBooks, "Book")
                 .relation(kToTags, kTags)
                 .relation(kToBooks, kBooks)
                 .entity(kTags, "Tag"));
        tx_ = write();
        books_ = cursor(*tx_, kBooks);
    }
    void TearDown() override {
        books_.reset();
        tx_.reset();
    }

    RelationCursor& toTags() { return books_->relationCursor(kToTags); }
    static std::vector<uint64_t> ids(RelationCursor& relation, uint64_t id, bool reverse) {
        std::vector<uint64_t> result;
        relation.findIds(id, result, reverse);
        return result;
    }
    std::vector<std::string> keys(uint32_t relationId) {
        std::vector<std::string> result;
        for (const std::string& key : IndexChecker(*tx_).relationKeys(relationId)) {
            result.push_back(IndexChecker::hex(key));
        }
        return result;
    }
    std::vector<std::string> faults() { return IndexChecker(*tx_).faults(); }
    PartitionCursor::Config wholePartition() {
        const uint32_t prefix = partitionPrefix(PartitionType::Relation, kToTags);
        return {.firstPrefix = prefix, .lastPrefix = prefix + 3};
    }

    std::unique_ptr<Transaction> tx_;
    std::unique_ptr<Cursor> books_;
};

TEST_F(RelationCursorTest, ALinkIsStoredInBothDirectionsByTheWidthOfItsIds) {
    toTags().put(1, 2);
    toTags().put(1, 2);  // the same link
    EXPECT_THAT(keys(kToTags), ElementsAre("080000040000000100000002", "080000060000000200000001"));
    EXPECT_TRUE(toTags().remove(1, 2));
    toTags().put(kLongId, 2);
    EXPECT_THAT(keys(kToTags), ElementsAre("08000005000000010000000000000002",
                                           "08000006000000020000000100000000"));
    EXPECT_TRUE(toTags().remove(kLongId, 2));
    toTags().put(kLongId, kLongId + 1);
    EXPECT_THAT(keys(kToTags), ElementsAre("0800000500000001000000000000000100000001",
                                           "0800000700000001000000010000000100000000"));
    EXPECT_EQ(toTags().removeAll(), 2u);
    EXPECT_THAT(keys(kToTags), IsEmpty());
}

TEST_F(RelationCursorTest, RandomLinksAgreeWithASet) {
    std::mt19937 random(testSeed());
    const uint64_t pool[] = {1, 2, 3, 0xFF, 0xFFFFFFFF, kLongId, kLongId + 1, ~uint64_t{0} - 1};
    const auto pick = [&] { return pool[random() % std::size(pool)]; };
    using Links = std::set<std::pair<uint64_t, uint64_t>>;
    Links model;
    RelationCursor& relation = books_->relationCursor(kToBooks);  // both sides one entity
    const auto eraseIf = [&](auto&& condition) { return std::erase_if(model, condition); };
    for (int i = 0; i < 3000; ++i) {
        const uint64_t source = pick();
        const uint64_t target = pick();
        const uint32_t action = random() % 100;
        if (action < 60) {
            relation.put(source, target);
            model.emplace(source, target);
        } else if (action < 85) {
            EXPECT_EQ(relation.remove(source, target), model.erase({source, target}) == 1);
        } else if (action < 90) {
            EXPECT_EQ(relation.removeAllFor(source, false),
                      eraseIf([&](const auto& link) { return link.first == source; }));
        } else if (action < 95) {
            EXPECT_EQ(relation.removeAllFor(target, true),
                      eraseIf([&](const auto& link) { return link.second == target; }));
        } else {
            std::set<uint64_t> targets, sources;
            for (const auto& [from, to] : model) {
                if (from == source) targets.insert(to);
                if (to == target) sources.insert(from);
            }
            EXPECT_THAT(ids(relation, source, false),
                        ::testing::UnorderedElementsAreArray(targets));
            EXPECT_THAT(ids(relation, target, true),
                        ::testing::UnorderedElementsAreArray(sources));
        }
        if (i % 500 == 0) {
            EXPECT_THAT(faults(), IsEmpty());
        }
    }
    EXPECT_EQ(keys(kToBooks).size(), 2 * model.size());
    EXPECT_THAT(faults(), IsEmpty());
}

TEST_F(RelationCursorTest, HalfALinkIsRemovedAndLogged) {
    const auto dropReverse = [&](uint64_t source, uint64_t target) {
        PartitionCursor kv(*tx_, wholePartition());
        uint8_t key[12];
        storeBig(key, partitionPrefix(PartitionType::Relation, kToTags, 2));
        storeBig(key + 4, static_cast<uint32_t>(target));
        storeBig(key + 8, static_cast<uint32_t>(source));
        ASSERT_TRUE(kv.seek(key, sizeof key));
        ASSERT_TRUE(kv.removeCurrent());
    };
    const LogCapture log;
    EXPECT_FALSE(toTags().remove(1, 2));
    EXPECT_EQ(toTags().removeAllFor(1, false), 0u);
    EXPECT_EQ(log.text(), "");
    toTags().put(1, 2);
    dropReverse(1, 2);
    EXPECT_TRUE(toTags().remove(1, 2));
    EXPECT_TRUE(log.contains(" [ERROR] Relation backlink unavailable for removal\n"));
    toTags().put(1, 2);
    dropReverse(1, 2);
    EXPECT_EQ(toTags().removeAllFor(1, false), 1u);
    EXPECT_TRUE(log.contains(" [WARN ] Could not remove a reverse relation\n"));
    EXPECT_THAT(keys(kToTags), IsEmpty());
}

TEST_F(RelationCursorTest, AKeyOfAWrongLengthIsReported) {
    uint8_t key[20] = {};
    storeBig(key, partitionPrefix(PartitionType::Relation, kToTags));
    storeBig(key + 4, uint32_t{1});
    PartitionCursor(*tx_, wholePartition()).put(key, sizeof key, "", 0);
    EXPECT_EQ(messageOf<DbFileCorruptException>([&] { ids(toTags(), 1, false); }),
              "Unexpected entity ID size: 12");
    EXPECT_EQ(messageOf<DbFileCorruptException>([&] { toTags().removeAllFor(1, false); }),
              "Unexpected entity ID size: 12");
    EXPECT_THAT(ids(toTags(), 2, false), IsEmpty());
}

TEST_F(RelationCursorTest, ReadCursorsGoAlongWithARenewedTransaction) {
    auto reader = read();
    const auto reading = cursor(*reader, kBooks);
    RelationCursor& relation = reading->relationCursor(kToTags);
    EXPECT_THAT(ids(relation, 1, false), IsEmpty());
    EXPECT_EQ(messageOf<IllegalStateException>([&] { toTags().renew(); }),
              "Only relation cursors bound to read-only transactions may be renewed");
    toTags().put(1, 2);
    tx_->commit();
    reader->recycle();
    EXPECT_EQ(messageOf<IllegalStateException>([&] { relation.renew(); }),
              "Transaction is not active");
    reader->renew();
    EXPECT_THAT(ids(relation, 1, false), ElementsAre(2));
    reader.reset();
    EXPECT_THROW(ids(relation, 1, false), IllegalStateException);
}

}  // namespace
}  // namespace quillmere
