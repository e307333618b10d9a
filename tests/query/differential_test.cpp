// Random queries against a plain evaluation of the same rows, on an entity with indexes and on its
// twin without, and against SQLite as far as SQL can say the same.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <set>

#include "core/int128.h"
#include "query/comparator.h"
#include "query/property_query.h"
#include "query/query.h"
#include "query/query_builder.h"
#include "query/random_conditions.h"
#include "store/index_test.h"
#include "support/seed.h"

namespace quillmere {
namespace {

using Ids = std::vector<uint64_t>;

constexpr uint32_t kIndexed = 1;
constexpr uint32_t kPlain = 2;
constexpr uint32_t kOwners = 3;
constexpr uint32_t kOwnerId = 90;  // to-one from the indexed entity
constexpr uint32_t kLinks = 7;     // standalone, from the indexed entity
constexpr uint32_t kNumber = 5;    // a signed Int of all entities
constexpr uint32_t kIndexHash = kPropertyIndexed | kPropertyIndexHash;
constexpr uint32_t kIndexHash64 = kPropertyIndexed | kPropertyIndexHash64;

const std::vector<Column> kColumns = {
    {2, "bool", PropertyType::Bool, 0, kPropertyIndexed},
    {3, "byte", PropertyType::Byte, 0, kPropertyIndexed},
    {4, "short", PropertyType::Short, 0, kPropertyIndexed},
    {kNumber, "int", PropertyType::Int, 0, kPropertyIndexed},
    {6, "long", PropertyType::Long, 0, kPropertyIndexed},
    {7, "ubyte", PropertyType::Byte, kPropertyUnsigned, kPropertyIndexed},
    {8, "ushort", PropertyType::Short, kPropertyUnsigned, 0},
    {9, "uint", PropertyType::Int, kPropertyUnsigned, kPropertyIndexed},
    {10, "ulong", PropertyType::Long, kPropertyUnsigned, kPropertyIndexed},
    {11, "char", PropertyType::Char, 0, kPropertyIndexed},
    {12, "date", PropertyType::Date, 0, kPropertyIndexed},
    {13, "nano", PropertyType::DateNano, 0, 0},
    {14, "float", PropertyType::Float},
    {15, "double", PropertyType::Double},
    {16, "text", PropertyType::String, 0, kPropertyIndexed},
    {17, "hashed", PropertyType::String, 0, kIndexHash},
    {18, "hashed64", PropertyType::String, 0, kIndexHash64},
    {19, "bytes", PropertyType::ByteVector},
    {20, "shorts", PropertyType::ShortVector},
    {21, "uints", PropertyType::IntVector, kPropertyUnsigned},
    {22, "longs", PropertyType::LongVector},
    {23, "floats", PropertyType::FloatVector},
    {24, "doubles", PropertyType::DoubleVector},
    {25, "texts", PropertyType::StringVector},
    {26, "bools", PropertyType::BoolVector},
    {27, "chars", PropertyType::CharVector},
    {28, "ubytes", PropertyType::ByteVector, kPropertyUnsigned},
    {29, "ushorts", PropertyType::ShortVector, kPropertyUnsigned},
    {30, "ulongs", PropertyType::LongVector, kPropertyUnsigned},
    {31, "dates", PropertyType::DateVector},
    {32, "nanos", PropertyType::DateNanoVector},
    {33, "other", PropertyType::Relation},
};

bool isZero(const Value& value) {
    const auto* number = std::get_if<int64_t>(&value);
    const auto* text = std::get_if<std::string>(&value);
    return (number && *number == 0) || (text && text->empty());
}

class Differential : public IndexTest {
protected:
    void SetUp() override {
        TestSchema spec;
        spec.entity(kIndexed, "Indexed").toOne(kOwnerId, "owner", kOwners).relation(kLinks, kOwners);
        for (const Column& column : kColumns) addTo(spec, column, column.indexFlags);
        spec.entity(kPlain, "Plain");
        for (const Column& column : kColumns) addTo(spec, column, 0);
        spec.entity(kOwners, "Owner").property(kNumber, "int", PropertyType::Int);
        open(std::move(spec));
    }
    static void addTo(TestSchema& spec, const Column& column, uint32_t indexFlags) {
        const uint32_t target = column.type == PropertyType::Relation ? kOwners : 0;
        spec.property(column.id, column.name, column.type, column.flags | indexFlags, target);
    }

    // A field that was 0 and becomes null would keep its index entry.
    void putRandomRow(uint64_t id) {
        Row row{id, {}};
        for (const Column& column : kColumns) {
            Value value = random_.value(column);
            const Value& old = stored_[id].at(column.id);
            if (value.index() == 0 && isZero(old)) value = old;
            if (value.index() != 0) row.values[column.id] = std::move(value);
        }
        rows_[id] = row;
    }
    void fill(size_t count) {
        for (size_t i = 0; i < count; ++i) putRandomRow(random_.id());
        for (size_t i = 0; i < count / 4; ++i) putRandomRow(random_.id());
        store();
        for (size_t i = 0; i < count / 4; ++i) rows_.erase(random_.id());
        for (size_t i = 0; i < count / 4; ++i) putRandomRow(random_.id());
        store();
    }
    // Brings both entities in line with the rows.
    void store() {
        const auto tx = write();
        for (const uint32_t entityId : {kIndexed, kPlain}) {
            const auto objects = cursor(*tx, entityId);
            Ids gone;
            for (uint64_t id = objects->seekFirstId(); id != 0; id = objects->seekNextId()) {
                if (!rows_.contains(id)) gone.push_back(id);
            }
            for (const uint64_t id : gone) objects->remove(id);
            for (const auto& [id, row] : rows_) {
                const ObjectBytes object = RowEncoder::encode(row, kColumns);
                objects->put(id, object.data(), object.size(), kPut);
            }
        }
        tx->commit();
        stored_ = rows_;
    }
    void TearDown() override {
        if (!store_) return;
        EXPECT_EQ(std::vector<std::string>{}, IndexChecker(*read()).faults());
    }

    QueryBuilder builder(uint32_t entityId) {
        return QueryBuilder(entity(entityId), store_->requireSchema(), true, 0);
    }
    std::unique_ptr<Query> build(uint32_t entityId, const RandomCondition& condition) {
        QueryBuilder queryBuilder = builder(entityId);
        condition.make(queryBuilder);
        return queryBuilder.build();
    }
    Ids matching(const RandomCondition& condition) const {
        Ids ids;
        for (const auto& [id, row] : rows_) {
            if (condition.matches(row)) ids.push_back(id);
        }
        return ids;
    }
    static Ids window(const Ids& ids, uint64_t offset, uint64_t limit) {
        Ids part;
        for (size_t i = offset; i < ids.size() && (limit == 0 || i < offset + limit); ++i) {
            part.push_back(ids[i]);
        }
        return part;
    }
    static uint64_t idOf(const Bytes& object) { return objectValue<uint64_t>(object.data(), 1); }

    void expectFinds(Query& query, Cursor& cursor, const Ids& expected, uint64_t offset,
                     uint64_t limit) {
        const Ids part = window(expected, offset, limit);
        Ids ids;
        query.findIds(cursor, ids, offset, limit);
        EXPECT_EQ(part, ids);
        std::vector<Bytes> objects;
        query.find(cursor, objects, offset, limit);
        ids.clear();
        for (const Bytes& object : objects) ids.push_back(idOf(object));
        EXPECT_EQ(part, ids);
        ids.clear();
        query.visit(cursor, offset, limit, [&](const Bytes& object) {
            ids.push_back(idOf(object));
            return true;
        });
        EXPECT_EQ(part, ids);
        Bytes object;
        ASSERT_EQ(!expected.empty(), query.findFirst(cursor, object));
        if (!expected.empty()) {
            EXPECT_EQ(expected.front(), idOf(object));
        }
        EXPECT_EQ(expected.empty() ? 0 : expected.front(), query.findFirstId(cursor));
        EXPECT_EQ(expected.size(), query.count(cursor));
        if (limit != 0) {
            EXPECT_EQ(std::min<uint64_t>(limit, expected.size()), query.count(cursor, limit));
        }
    }
    void expectFinds(Query& query, Cursor& cursor, const Ids& expected) {
        expectFinds(query, cursor, expected, 0, 0);
        expectFinds(query, cursor, expected, random_.below(5), random_.below(20));
        expectFinds(query, cursor, expected, 0, 1 + random_.below(expected.size() + 1));
    }

    const uint32_t seed_ = testSeed();
    const bool withNan_ = seed_ % 2 != 0;
    RandomRows random_{seed_, withNan_};
    RandomConditions conditions_{random_, kColumns};
    std::map<uint64_t, Row> rows_;
    std::map<uint64_t, Row> stored_;
};

TEST_F(Differential, TreesFindWhatMatchesWithAndWithoutIndexes) {
    fill(300);
    const auto tx = read();
    const auto indexed = cursor(*tx, kIndexed), plain = cursor(*tx, kPlain);
    uint64_t definite = 0, lookups = 0;
    for (int round = 0; round < 300 && !HasFailure(); ++round) {
        const RandomCondition condition = conditions_.tree(static_cast<int>(random_.below(4)));
        const Ids expected = matching(condition);
        SCOPED_TRACE(condition.sql);
        const auto query = build(kIndexed, condition);
        expectFinds(*query, *indexed, expected);
        definite += query->lastAllDefinite();
        lookups += query->lastLookupCount() != 0;
        expectFinds(*build(kPlain, condition), *plain, expected);
    }
    EXPECT_GT(definite, 0u);
    EXPECT_GT(lookups, definite);
}

TEST_F(Differential, RemovesWhatMatches) {
    fill(200);
    for (int round = 0; round < 12 && !HasFailure(); ++round) {
        const RandomCondition condition = conditions_.tree(1);
        const Ids expected = matching(condition);
        SCOPED_TRACE(condition.sql);
        const auto tx = write();
        for (const uint32_t entityId : {kIndexed, kPlain}) {
            Ids removed;
            const auto objects = cursor(*tx, entityId);
            EXPECT_EQ(expected.size(), build(entityId, condition)->remove(*objects, &removed));
            EXPECT_EQ(expected, removed);
            EXPECT_EQ(rows_.size() - expected.size(), objects->count());
        }
        tx->commit();
        for (const uint64_t id : expected) rows_.erase(id);
        for (int i = 0; i < 40; ++i) putRandomRow(random_.id());
        store();
    }
}

// --- order ----------------------------------------------------------------------------------------

int compareForOrder(const Row& a, const Row& b, const Column& column, uint32_t flags) {
    const Value& x = a.at(column.id);
    const Value& y = b.at(column.id);
    const bool nullsLast = flags & kOrderNullsLast;
    const int nullness = (x.index() == 0) - (y.index() == 0);  // 1: only x is null
    const auto nullOrder = nullsLast ? nullness : -nullness;
    const auto by = [&](auto left, auto right) {
        if (left != right) return (left < right) != bool(flags & kOrderDescending) ? -1 : 1;
        return flags & kOrderNullsZero ? 0 : nullOrder;
    };
    if (column.isString()) {
        if (nullness != 0 || x.index() == 0) return nullOrder;
        const bool exact = flags & kOrderCaseSensitive;
        return by(foldText(std::get<std::string>(x), exact),
                  foldText(std::get<std::string>(y), exact));
    }
    const auto orNull = [&](const Value& value, auto low, auto high) {
        using T = decltype(low);
        if (const auto* d = std::get_if<double>(&value)) return static_cast<T>(*d);
        if (const auto* i = std::get_if<int64_t>(&value)) return static_cast<T>(*i);
        return flags & kOrderNullsZero ? T{0} : nullsLast ? high : low;
    };
    const auto between = [&](auto low, auto high) {
        return by(orNull(x, low, high), orNull(y, low, high));
    };
    using Float = std::numeric_limits<float>;
    using Double = std::numeric_limits<double>;
    if (column.type == PropertyType::Float) return between(Float::min(), Float::max());
    if (column.type == PropertyType::Double) return between(Double::min(), Double::max());
    const uint64_t bits = 8 * column.width();
    const uint64_t all = ~uint64_t{0} >> (64 - bits);
    if (column.isUnsigned() || (flags & kOrderUnsigned) || column.type == PropertyType::Bool) {
        const auto cut = [&](const Value& value) {
            return orNull(value, uint64_t{0}, all) & all;
        };
        return by(cut(x), cut(y));
    }
    const auto high = static_cast<int64_t>(all / 2);
    return between(-high - 1, high);
}

TEST_F(Differential, OrdersAsASortDoes) {
    if (withNan_) random_ = RandomRows(seed_, false);  // no order that a sort could take
    fill(250);
    const auto tx = read();
    const auto indexed = cursor(*tx, kIndexed), plain = cursor(*tx, kPlain);
    std::vector<Column> sortable;
    for (const Column& column : kColumns) {
        if (!column.isVector() && column.type != PropertyType::Relation) sortable.push_back(column);
    }
    for (int round = 0; round < 120 && !HasFailure(); ++round) {
        const RandomCondition condition = conditions_.tree(1);
        std::vector<std::pair<Column, uint32_t>> orders;
        for (uint64_t count = 1 + random_.below(3); count > 0; --count) {
            const Column& column = sortable[random_.below(sortable.size())];
            uint32_t flags = random_.below(8);
            const uint64_t nulls = random_.below(column.isString() ? 2 : 3);
            if (nulls == 1) flags |= kOrderNullsLast;
            if (nulls == 2) flags |= kOrderNullsZero;
            orders.emplace_back(column, flags);
        }
        Ids expected = matching(condition);
        std::stable_sort(expected.begin(), expected.end(), [&](uint64_t a, uint64_t b) {
            for (const auto& [column, flags] : orders) {
                const int order = compareForOrder(rows_[a], rows_[b], column, flags);
                if (order != 0) return order < 0;
            }
            return false;
        });
        for (const uint32_t entityId : {kIndexed, kPlain}) {
            QueryBuilder queryBuilder = builder(entityId);
            condition.make(queryBuilder);
            std::string trace;
            for (const auto& [column, flags] : orders) {
                queryBuilder.order(entity(entityId).propertyById(column.id), flags);
                trace += std::string(column.name) + " " + std::to_string(flags) + ", ";
            }
            SCOPED_TRACE(trace);
            expectFinds(*queryBuilder.build(), entityId == kIndexed ? *indexed : *plain, expected);
        }
    }
}

// --- aggregates -----------------------------------------------------------------------------------

TEST_F(Differential, AggregatesOfIntegersAreExact) {
    fill(200);
    const auto tx = read();
    const auto indexed = cursor(*tx, kIndexed), plain = cursor(*tx, kPlain);
    for (int round = 0; round < 100 && !HasFailure(); ++round) {
        // Now and then all objects, for the answers that come from an index.
        const RandomCondition condition =
            round % 4 == 0 ? RandomCondition{nullptr, [](const Row&) { return true; }, "all"}
                           : conditions_.tree(1);
        const Column& column = kColumns[random_.below(12)];
        SCOPED_TRACE(std::string(column.name) + ": " + condition.sql);
        std::vector<Int128> values;
        std::set<Int128> distinct;
        for (const auto& [id, row] : rows_) {
            const auto* value = row.get<int64_t>(column.id);
            if (!value || !condition.matches(row)) continue;
            values.push_back(column.isUnsigned() ? static_cast<Int128>(static_cast<uint64_t>(*value))
                                                 : static_cast<Int128>(*value));
            distinct.insert(values.back());
        }
        const Int128 sum = std::accumulate(values.begin(), values.end(), Int128{0});
        const auto count = static_cast<int64_t>(values.size());
        for (const uint32_t entityId : {kIndexed, kPlain}) {
            QueryBuilder queryBuilder = builder(entityId);
            if (condition.make) condition.make(queryBuilder);
            const auto query = queryBuilder.build();
            PropertyQuery property(*query, entity(entityId).propertyById(column.id));
            Cursor& objects = entityId == kIndexed ? *indexed : *plain;

            EXPECT_EQ(values.size(), property.count(objects));
            const auto total = property.sumDouble(objects);
            EXPECT_EQ(count, total.count);
            EXPECT_DOUBLE_EQ(static_cast<double>(sum), total.value);
            if (column.isUnsigned() && sum > INT64_MAX) {
                EXPECT_THROW(property.sumInt(objects), NumericOverflowException);
            } else if (sum == static_cast<int64_t>(sum)) {
                EXPECT_EQ(static_cast<int64_t>(sum), property.sumInt(objects).value);
            } else {
                EXPECT_THROW(property.sumInt(objects), NumericOverflowException);
            }
            if (count == 0) {
                EXPECT_EQ(0, property.avgInt(objects).count);
                EXPECT_TRUE(std::isnan(property.avgDouble(objects).value));
            } else {
                const Int128 magnitude = sum < 0 ? -sum : sum;
                const Int128 rounded = (2 * magnitude + count) / (2 * count) * (sum < 0 ? -1 : 1);
                if (rounded == static_cast<int64_t>(rounded)) {
                    EXPECT_EQ(static_cast<int64_t>(rounded), property.avgInt(objects).value);
                }
                EXPECT_DOUBLE_EQ(static_cast<double>(static_cast<long double>(sum) / count),
                                 property.avgDouble(objects).value);
            }
            if (column.type == PropertyType::Bool) continue;
            if (!isDateType(column.type)) {
                EXPECT_EQ(distinct.size(), property.countDistinct(objects));
            }
            const auto least = property.minInt(objects), greatest = property.maxInt(objects);
            EXPECT_EQ(count == 0, least.count == 0);
            EXPECT_EQ(count == 0, greatest.count == 0);
            EXPECT_EQ(count == 0 ? 0 : static_cast<int64_t>(*distinct.begin()), least.value);
            EXPECT_EQ(count == 0 ? 0 : static_cast<int64_t>(*distinct.rbegin()), greatest.value);
        }
    }
}

// --- links ----------------------------------------------------------------------------------------

TEST_F(Differential, LinksRestrictToRelatedObjects) {
    fill(150);
    std::map<uint64_t, int64_t> owners;
    for (int i = 0; i < 40; ++i) owners[random_.id()] = static_cast<int64_t>(random_.below(6));
    Ids ownerIds;
    for (const auto& [id, number] : owners) ownerIds.push_back(id);
    std::map<uint64_t, uint64_t> ownerOf;
    std::set<std::pair<uint64_t, uint64_t>> links;
    {
        const auto tx = write();
        const auto objects = cursor(*tx, kIndexed), ownerCursor = cursor(*tx, kOwners);
        for (const auto& [id, number] : owners) {
            put(*ownerCursor, id, {{kNumber, static_cast<int32_t>(number)}});
        }
        std::vector<Column> columns = kColumns;
        columns.push_back({kOwnerId, "owner", PropertyType::Relation});
        for (auto& [id, row] : rows_) {
            const uint64_t owner = random_.oneIn(5) ? 0 : ownerIds[random_.below(ownerIds.size())];
            if (!random_.oneIn(5)) row.values[kOwnerId] = static_cast<int64_t>(owner);
            if (row.at(kOwnerId).index() != 0 && owner != 0) ownerOf[id] = owner;
            const ObjectBytes object = RowEncoder::encode(row, columns);
            objects->put(id, object.data(), object.size(), kPut);
            for (uint64_t count = random_.below(3); count > 0; --count) {
                const uint64_t target = ownerIds[random_.below(ownerIds.size())];
                objects->relationCursor(kLinks).put(id, target);
                links.emplace(id, target);
            }
        }
        tx->commit();
    }

    const auto tx = read();
    const auto objects = cursor(*tx, kIndexed), ownerCursor = cursor(*tx, kOwners);
    const Entity& source = entity(kIndexed);
    const Entity& target = entity(kOwners);
    const Property& property = source.propertyById(kOwnerId);
    const Relation* const relation = source.findRelationById(kLinks);
    for (int round = 0; round < 120 && !HasFailure(); ++round) {
        const RandomCondition condition = conditions_.tree(1);
        const auto limit = static_cast<int64_t>(random_.below(7));
        const bool throughProperty = random_.oneIn(2);
        const bool backlink = random_.oneIn(2);
        const bool otherToo = random_.oneIn(3);
        SCOPED_TRACE(condition.sql);
        const auto related = [&](uint64_t id, uint64_t owner, bool byProperty) {
            if (!byProperty) return links.contains({id, owner});
            const auto found = ownerOf.find(id);
            return found != ownerOf.end() && found->second == owner;
        };
        const auto matchesOwner = [&](uint64_t owner) { return owners.at(owner) < limit; };

        Ids expected;
        QueryBuilder queryBuilder = builder(backlink ? kOwners : kIndexed);
        if (backlink) {
            for (const uint64_t owner : ownerIds) {
                if (std::any_of(rows_.begin(), rows_.end(), [&](const auto& row) {
                        return condition.matches(row.second) &&
                               related(row.first, owner, throughProperty);
                    })) {
                    expected.push_back(owner);
                }
            }
            condition.make(throughProperty ? queryBuilder.link(&source, &property, true)
                                           : queryBuilder.link(&source, relation, true));
        } else {
            const auto linked = [&](uint64_t id, bool byProperty) {
                return std::any_of(ownerIds.begin(), ownerIds.end(), [&](uint64_t owner) {
                    return matchesOwner(owner) && related(id, owner, byProperty);
                });
            };
            for (const uint64_t id : matching(condition)) {
                if (linked(id, throughProperty) && (!otherToo || linked(id, !throughProperty))) {
                    expected.push_back(id);
                }
            }
            condition.make(queryBuilder);
            const auto addLink = [&](bool byProperty) {
                QueryBuilder& owner = byProperty ? queryBuilder.link(&target, &property, false)
                                                 : queryBuilder.link(&target, relation, false);
                owner.less(target.propertyById(kNumber), limit, false);
            };
            addLink(throughProperty);
            if (otherToo) addLink(!throughProperty);
        }
        expectFinds(*queryBuilder.build(), backlink ? *ownerCursor : *objects, expected);

        const auto wanted = static_cast<int32_t>(random_.below(8));
        QueryBuilder countBuilder = builder(kOwners);
        countBuilder.relationCount(property, wanted);
        Ids withCount;
        for (const uint64_t owner : ownerIds) {
            const auto count =
                std::count_if(ownerOf.begin(), ownerOf.end(),
                              [&](const auto& entry) { return entry.second == owner; });
            if (count == wanted) withCount.push_back(owner);
        }
        expectFinds(*countBuilder.build(), *ownerCursor, withCount);
    }
}

// --- SQLite ---------------------------------------------------------------------------------------

class Sqlite {
public:
    Sqlite() {
        if (sqlite3_open(":memory:", &db_) != SQLITE_OK) throw std::runtime_error("sqlite3_open");
        run("PRAGMA case_sensitive_like = 1");
    }
    ~Sqlite() { sqlite3_close(db_); }
    Sqlite(const Sqlite&) = delete;
    Sqlite& operator=(const Sqlite&) = delete;

    // The rows of the result, NULL as NaN.
    std::vector<std::vector<double>> run(const std::string& sql) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
            throw std::runtime_error(sqlite3_errmsg(db_) + (": " + sql));
        }
        std::vector<std::vector<double>> rows;
        while (sqlite3_step(statement) == SQLITE_ROW) {
            std::vector<double> row;
            for (int i = 0; i < sqlite3_column_count(statement); ++i) {
                row.push_back(sqlite3_column_type(statement, i) == SQLITE_NULL
                                  ? NAN
                                  : sqlite3_column_double(statement, i));
            }
            rows.push_back(std::move(row));
        }
        sqlite3_finalize(statement);
        return rows;
    }

private:
    sqlite3* db_ = nullptr;
};

std::string sqlLiteral(const Value& value) {
    if (const auto* text = std::get_if<std::string>(&value)) return "'" + *text + "'";
    if (const auto* integer = std::get_if<int64_t>(&value)) return std::to_string(*integer);
    const auto* number = std::get_if<double>(&value);
    if (!number) return "NULL";
    if (std::isinf(*number)) return *number > 0 ? "9e999" : "-9e999";
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", *number);
    return text;
}

TEST_F(Differential, AgreesWithSqlite) {
    random_ = RandomRows(seed_, false);
    fill(250);
    // What SQL knows: no vectors, no unsigned 64-bit integers.
    std::vector<Column> columns;
    for (const Column& column : kColumns) {
        if (!column.isVector() && !(column.isUnsigned() && column.width() == 8)) {
            columns.push_back(column);
        }
    }
    Sqlite sqlite;
    std::string create = "CREATE TABLE t (id INTEGER PRIMARY KEY";
    for (const Column& column : columns) {
        create += ", " + sqlName(column) +
                  (column.isFloat() ? " REAL" : column.isString() ? " TEXT" : " INTEGER");
    }
    sqlite.run(create + ")");
    for (const auto& [id, row] : rows_) {
        std::string insert = "INSERT INTO t VALUES (" + std::to_string(id);
        for (const Column& column : columns) insert += ", " + sqlLiteral(row.at(column.id));
        sqlite.run(insert + ")");
    }

    RandomConditions conditions(random_, columns);
    const auto tx = read();
    const auto objects = cursor(*tx, kIndexed);
    for (int round = 0; round < 200 && !HasFailure(); ++round) {
        const RandomCondition condition = conditions.tree(2);
        const std::string where = " FROM t WHERE " + condition.sql;
        SCOPED_TRACE(where);
        Ids expected;
        for (const auto& row : sqlite.run("SELECT id" + where + " ORDER BY id")) {
            expected.push_back(static_cast<uint64_t>(row[0]));
        }
        const auto query = build(kIndexed, condition);
        Ids ids;
        query->findIds(*objects, ids);
        EXPECT_EQ(expected, ids);

        const Column& column = columns[random_.below(columns.size())];
        if (column.width() > 4 || !column.isInteger() || column.type == PropertyType::Bool) {
            continue;
        }
        const std::string name = sqlName(column);
        const auto answer = sqlite.run("SELECT count(" + name + "), count(DISTINCT " + name +
                                       "), sum(" + name + "), min(" + name + "), max(" + name +
                                       "), avg(" + name + ")" + where)[0];
        PropertyQuery property(*query, entity(kIndexed).propertyById(column.id));
        EXPECT_EQ(answer[0], static_cast<double>(property.count(*objects)));
        EXPECT_EQ(answer[1], static_cast<double>(property.countDistinct(*objects)));
        if (answer[0] == 0) continue;
        EXPECT_EQ(answer[2], static_cast<double>(property.sumInt(*objects).value));
        EXPECT_EQ(answer[3], static_cast<double>(property.minInt(*objects).value));
        EXPECT_EQ(answer[4], static_cast<double>(property.maxInt(*objects).value));
        EXPECT_DOUBLE_EQ(answer[5], property.avgDouble(*objects).value);
    }
}

}  // namespace
}  // namespace quillmere
