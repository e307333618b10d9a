#include <atomic>
#include <thread>

#include "core/store_options.h"
#include "query/link_condition.h"
#include "query/query_test.h"
#include "store/store_activity.h"
#include "support/alloc_counter.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr uint32_t kA = 2;     // Int, indexed
constexpr uint32_t kB = 3;     // Int, indexed
constexpr uint32_t kC = 4;     // Int
constexpr uint32_t kText = 5;  // String, indexed
constexpr uint32_t kByte = 6;  // Byte, indexed
constexpr uint32_t kQueryLogs = kDebugLogQueries | kDebugLogQueryParameters;

class QueryExecution : public QueryTest {
protected:
    void SetUp() override {
        open(std::move(TestSchema()
                           .entity(1, "Thing")
                           .property(kA, "a", PropertyType::Int, kPropertyIndexed)
                           .property(kB, "b", PropertyType::Int, kPropertyIndexed)
                           .property(kC, "c", PropertyType::Int)
                           .property(kText, "text", PropertyType::String, kPropertyIndexed)
                           .property(kByte, "byte", PropertyType::Byte, kPropertyIndexed)
                           .entity(2, "Other")));
        for (int32_t id = 1; id <= 12; ++id) {
            put(static_cast<uint64_t>(id), {{kA, id % 2}, {kB, id % 3}, {kC, id % 4}});
        }
    }
    std::unique_ptr<Query> aEquals(int64_t value) {
        return query([&](QueryBuilder& b) { b.equal(prop(kA), value); });
    }
    // Candidates, look-ups, definite.
    static std::string run(const Query& query) {
        return std::to_string(query.lastCandidateCount()) + " " +
               std::to_string(query.lastLookupCount()) + (query.lastAllDefinite() ? " all" : "");
    }
};

TEST_F(QueryExecution, LookUpsOfAnAndAreIntersectedAndNeedNoObject) {
    const auto both = query([&](QueryBuilder& b) {
        b.equal(prop(kA), int64_t{1});
        b.equal(prop(kB), int64_t{0});
    });
    EXPECT_THAT(idsOf(*both), ElementsAre(3, 9));
    EXPECT_EQ("2 2 all", run(*both));

    const auto mixed = query([&](QueryBuilder& b) {
        b.equal(prop(kA), int64_t{1});
        b.equal(prop(kC), int64_t{3});
    });
    EXPECT_THAT(idsOf(*mixed), ElementsAre(3, 7, 11));
    EXPECT_EQ("6 1", run(*mixed));

    const auto nothing = query([&](QueryBuilder& b) {
        b.equal(prop(kA), int64_t{7});
        b.equal(prop(kB), int64_t{0});
    });
    EXPECT_EQ(0u, nothing->count(objects()));
    EXPECT_EQ("0 1", run(*nothing));
}

TEST_F(QueryExecution, AnOrScansAndALeafBesideItIsLookedUp) {
    const auto either = [&](QueryBuilder& b) -> QueryCondition& {
        auto& first = b.equal(prop(kB), int64_t{0});
        return b.any({&first, &b.equal(prop(kC), int64_t{1})});
    };
    const auto scan = query(either);
    EXPECT_THAT(idsOf(*scan), ElementsAre(1, 3, 5, 6, 9, 12));
    EXPECT_FALSE(scan->hasLookups());

    const auto beside = query([&](QueryBuilder& b) {
        b.equal(prop(kA), int64_t{1});
        either(b);
    });
    EXPECT_THAT(idsOf(*beside), ElementsAre(1, 3, 5, 9));
    EXPECT_EQ("6 1", run(*beside));
}

TEST_F(QueryExecution, ATextTooLongForAKeyIsNotDefinite) {
    const std::string fits(478, 'x'), longer(479, 'x');
    put(20, {{kText, fits}});
    put(21, {{kText, longer + "a"}, {kA, 1}});
    put(22, {{kText, longer + "b"}, {kA, 1}});
    const auto find = [&](const std::string& text) {
        return query([&](QueryBuilder& b) { b.equal(prop(kText), text, true); });
    };
    const auto definite = find(fits), cut = find(longer + "b");
    EXPECT_THAT(idsOf(*definite), ElementsAre(20));
    EXPECT_EQ("1 1 all", run(*definite));
    EXPECT_THAT(idsOf(*cut), ElementsAre(22));
    EXPECT_EQ("2 1", run(*cut));
    const auto both = query([&](QueryBuilder& b) {
        b.equal(prop(kText), longer + "b", true);
        b.equal(prop(kA), int64_t{1});
    });
    EXPECT_THAT(idsOf(*both), ElementsAre(22));
    EXPECT_EQ("2 2", run(*both));
}

TEST_F(QueryExecution, ANegativeByteIsFoundByAScanButNotByItsIndex) {
    put(20, {{kByte, int8_t{-1}}});
    const auto lookup = query([&](QueryBuilder& b) { b.equal(prop(kByte), int64_t{-1}); });
    EXPECT_THAT(idsOf(*lookup), ElementsAre());
    const auto scan = query([&](QueryBuilder& b) {
        b.any({&b.equal(prop(kByte), int64_t{-1})});
    });
    EXPECT_THAT(idsOf(*scan), ElementsAre(20));
}

TEST_F(QueryExecution, OffsetAndLimitMustNotOverflow) {
    const auto odd = aEquals(1), ordered = query([&](QueryBuilder& b) { b.order(prop(kA), 0); });
    for (Query* const query : {odd.get(), ordered.get()}) {
        std::vector<Bytes> found;
        Ids ids;
        EXPECT_EQ("Numeric overflow: 18446744073709551615 + 2",
                  messageOf<NumericOverflowException>(
                      [&] { query->findIds(objects(), ids, ~uint64_t{0}, 2); }));
        EXPECT_THROW(query->find(objects(), found, ~uint64_t{0}, 2), NumericOverflowException);
        EXPECT_THROW(query->findIdsByScore(objects(), ~uint64_t{0}, 2), NumericOverflowException);
    }
}

TEST_F(QueryExecution, FindsAUniqueObjectOrSaysHowManyThereAre) {
    const auto uniqueFailure = [&](Query& query) {
        Bytes object;
        const std::string text = messageOf<NonUniqueResultException>(
            [&] { query.findUnique(objects(), object); });
        EXPECT_EQ(text, messageOf<NonUniqueResultException>(
                            [&] { query.findUniqueId(objects()); }));
        return text;
    };
    const std::string start = "Query does not have a unique result (more than one result): ";
    EXPECT_EQ(start + "6", uniqueFailure(*aEquals(1)));

    for (uint64_t id = 100; id < 200; ++id) put(id, {{kA, 5}});
    EXPECT_EQ(start + "100", uniqueFailure(*aEquals(5)));
    put(200, {{kA, 5}});
    EXPECT_EQ(start + "100+", uniqueFailure(*aEquals(5)));

    put(201, {{kA, 6}});
    Bytes object;
    const auto one = aEquals(6), none = aEquals(7);
    EXPECT_EQ(201u, one->findUniqueId(objects()));
    ASSERT_TRUE(one->findUnique(objects(), object));
    EXPECT_EQ(201u, objectValue<uint64_t>(object.data(), 1));
    EXPECT_EQ(0u, none->findUniqueId(objects()));
    EXPECT_FALSE(none->findUnique(objects(), object));
}

TEST_F(QueryExecution, WalksBackwardWhenReversed) {
    const auto reversed = [&](auto&& addCondition) {
        QueryBuilder b = builder();
        Query::Definition definition;
        definition.root = addCondition(b).clone().release();
        definition.conditions.emplace_back(definition.root);
        definition.entity = &entity(1);
        definition.reverse = true;
        Query query(std::move(definition));
        Ids ids;
        query.visit(objects(), 0, 0, [&](const Bytes& object) {
            ids.push_back(objectValue<uint64_t>(object.data(), 1));
            return true;
        });
        return ids;
    };
    put(uint64_t{1} << 33, {{kA, 1}, {kC, 3}});
    EXPECT_THAT(reversed([&](QueryBuilder& b) -> QueryCondition& {
                    return b.equal(prop(kC), int64_t{3});
                }),
                ElementsAre(uint64_t{1} << 33, 11, 7, 3));
    EXPECT_THAT(reversed([&](QueryBuilder& b) -> QueryCondition& {
                    return b.equal(prop(kA), int64_t{1});
                }),
                ElementsAre(uint64_t{1} << 33, 11, 9, 7, 5, 3, 1));
}

TEST_F(QueryExecution, RefusesTheWrongCursorAndADeletedEntity) {
    const auto odd = aEquals(1);
    EXPECT_EQ("The given cursor is for type Other, but the Query expects type Thing",
              messageOf<IllegalArgumentException>([&] { odd->count(objects(2)); }));
    EXPECT_THROW(odd->findFirstId(objects(2)), IllegalArgumentException);
    const auto raw = objects().tx().createKeyValueCursor(partitionPrefix(PartitionType::Entity, 1));
    EXPECT_EQ("The given cursor has no type",
              messageOf<IllegalArgumentException>([&] { all()->count(*raw); }));
    EXPECT_THAT(messageOf<IllegalStateException>([&] { all()->findFirstId(*raw); }),
                HasSubstr("in findIdsWithoutComparator:598: entity"));

    std::weak_ptr<const Schema> gone = std::make_shared<Schema>();
    const auto orphan = QueryBuilder(entity(1), gone, true, 0).build();
    EXPECT_EQ("Query cannot be used after entity type was deleted (e.g. store was closed)",
              messageOf<IllegalStateException>([&] { orphan->count(objects()); }));
}

TEST_F(QueryExecution, LogsOperationsAndParameters) {
    const LogCapture log;
    const auto odd = query([&](QueryBuilder& b) { b.equal(prop(kA), int64_t{1}); }, kQueryLogs);
    const std::string number = "#" + std::to_string(odd->number());
    EXPECT_TRUE(log.contains("[INFO ] Creating query " + number + " for Thing with 1 condition(s)"));
    std::vector<Bytes> found;
    Bytes object;
    odd->find(objects(), found);
    odd->find(objects(), found, 1, 2);
    odd->count(objects());
    odd->findFirst(objects(), object);
    EXPECT_THROW(odd->findUnique(objects(), object), NonUniqueResultException);
    for (const char* line : {"Finding using query #\n", "Counting using query #\n",
                             "Finding with offset 1 and limit 2 using query #\n",
                             "Finding first using query #\n",
                             "Finding unique using query # had 6 results\n",
                             "Parameters for query #:\na == 1\n"}) {
        std::string expected = line;
        expected.replace(expected.find('#'), 1, number);
        EXPECT_TRUE(log.contains("[INFO ] " + expected)) << expected;
    }
    const auto tx = (endTx(), write());
    query([&](QueryBuilder& b) { b.order(prop(kA), 0); }, kQueryLogs)
        ->remove(*tx->createCursor(&entity(1)));
    EXPECT_TRUE(log.contains("[INFO ] Removed 12 objects using query #"));
    EXPECT_FALSE(log.contains("TRUE"));
}

TEST_F(QueryExecution, AScanAllocatesNothingPerObject) {
    const auto scan = query([&](QueryBuilder& b) {
        b.greater(prop(kC), int64_t{0}, true);
        b.less(prop(kC), int64_t{9}, false);
    });
    const auto lookup = aEquals(1);
    const auto allocations = [&](Query& query) {
        query.count(objects());
        const uint64_t before = allocationsOfThread();
        query.count(objects());
        return allocationsOfThread() - before;
    };
    const uint64_t few = allocations(*scan);
    for (uint64_t id = 1000; id < 1500; ++id) put(id, {{kA, 2}, {kC, 2}});
    EXPECT_EQ(few, allocations(*scan));
    EXPECT_EQ(0u, few);
    EXPECT_GT(6u, allocations(*lookup));
}

TEST_F(QueryExecution, IsCountedAsRunningUntilItEndsInAnyWay) {
    const auto scan = all();
    const std::atomic<uint32_t>& running = store_->activity().queries;
    scan->visit(objects(), 0, 0, [&](const Bytes&) {
        EXPECT_EQ(1u, running.load());
        return true;
    });
    EXPECT_EQ(0u, running.load());
    EXPECT_THROW(scan->visit(objects(), 0, 0,
                             [](const Bytes&) -> bool { throw std::runtime_error("stop"); }),
                 std::runtime_error);
    EXPECT_EQ(0u, running.load());
}

}  // namespace
}  // namespace quillmere
