#include "query/query.h"

#include <limits>
#include <utility>

#include "core/cast.h"
#include "core/error.h"
#include "core/log.h"
#include "query/comparator.h"
#include "query/condition.h"
#include "query/lent_ids.h"
#include "query/link_condition.h"
#include "query/ordered_matches.h"
#include "query/visit_matches.h"
#include "schema/entity.h"

namespace quillmere {
namespace {

constexpr uint64_t kMaxCountOfNonUnique = 100;

std::vector<QueryConditionLink*> viewOf(
    const std::vector<std::unique_ptr<QueryConditionLink>>& links) {
    std::vector<QueryConditionLink*> view;
    for (const auto& link : links) view.push_back(link.get());
    return view;
}

// Of the matches asked for, or 0 if there is no limit.
uint64_t windowEnd(uint64_t offset, uint64_t limit) {
    if (limit == 0) return 0;
    if (limit > std::numeric_limits<uint64_t>::max() - offset) {
        throwNumeric(NumericFailure::Overflow, offset, " + ", limit);
    }
    return offset + limit;
}

// A count above the maximum stands for any number.
void requireUnique(uint64_t count) {
    if (count <= 1) return;
    throwWith<NonUniqueResultException>(
        "Query does not have a unique result (more than one result): ",
        std::to_string(std::min(count, kMaxCountOfNonUnique)),
        count > kMaxCountOfNonUnique ? "+" : "");
}

}  // namespace

// --- making ---------------------------------------------------------------------------------------

std::atomic<uint32_t> Query::nextNumber_{1};

Query::Query(Definition definition)
    : entity_(definition.entity),
      schema_(std::move(definition.schema)),
      root_(definition.root),
      allConditions_(std::move(definition.conditions)),
      links_(std::move(definition.links)),
      plan_(*root_, viewOf(links_)),
      comparator_(std::move(definition.comparator)),
      number_(nextNumber_.fetch_add(1)),
      definiteLookupsNeeded_(plan_.hasAny ? 0 : plan_.leafCount),
      hadSchema_(definition.hadSchema),
      hasConditions_(allConditions_.size() > 1 || root_->op() != QueryOp::True),
      hasLookups_(!plan_.prioritized.empty() || !links_.empty()),
      logQueries_(definition.logQueries),
      logParameters_(definition.logParameters),
      reverse_(definition.reverse) {
    indexConditions();
    indexSubQueries();
    if (logQueries_) {
        logLine("%s [INFO ] Creating query #%lu for %s with %zu condition(s)\n", logTimestamp(),
                static_cast<unsigned long>(number_), entity_->name().c_str(),
                allConditions_.size());
    }
}

Query::~Query() = default;

// The first condition on a property wins.
void Query::indexConditions() {
    for (const auto& condition : allConditions_) {
        if (!condition->withProperty()) continue;
        auto* const withProperty = static_cast<QueryConditionWithProperty*>(condition.get());
        const Property& property = withProperty->property();
        conditionsByProperty_.emplace(propertyKey(property.entityId(), property.id()),
                                      withProperty);
        if (!withProperty->alias().empty()) indexAlias(withProperty->alias(), withProperty);
    }
}

void Query::indexSubQueries() {
    for (const auto& link : links_) {
        const Query& subQuery = link->subQuery();
        for (const auto& entry : subQuery.conditionsByProperty_) {
            conditionsByProperty_.insert(entry);
        }
        for (const auto& [alias, condition] : subQuery.conditionsByAlias_) {
            indexAlias(alias, condition);
        }
    }
}

void Query::indexAlias(const std::string& alias, QueryConditionWithProperty* condition) {
    if (!conditionsByAlias_.emplace(alias, condition).second) {
        throwIllegalArgument("Query parameter alias is not unique: ", alias);
    }
}

// --- the frame of the operations ------------------------------------------------------------------

void Query::checkUsable() const {
    if (hadSchema_ && schema_.expired()) {
        throwIllegalState(
            "Query cannot be used after entity type was deleted (e.g. store was closed)");
    }
}

void Query::logParameters() const {
    if (!logParameters_) return;
    const std::string text = describeParameters();
    if (text == "TRUE") return;
    logLine("%s [INFO ] Parameters for query #%lu:\n%s\n", logTimestamp(),
            static_cast<unsigned long>(number_), text.c_str());
}

void Query::checkCursor(const Cursor& cursor) const {
    const Entity* const entity = cursor.entity();
    if (!entity) throwIllegalArgument("The given cursor has no type");
    if (entity->id() != entity_->id()) {
        throwIllegalArgument("The given cursor is for type ", entity->name(),
                             ", but the Query expects type ", entity_->name());
    }
}

void Query::startRun(const Cursor& cursor) {
    checkCursor(cursor);
    cursor.tx().store().checkOpen(false);
    resetRun();
}

void Query::resetRun() {
    setRunState(0, 0, false);
    if (scores_) scores_->clear();
}

void Query::setRunState(uint64_t candidates, uint64_t lookups, bool allDefinite) {
    lastCandidateCount_ = candidates;
    lastLookupCount_ = lookups;
    lastAllDefinite_ = allDefinite;
}

// Of a result, as far as the candidates of this run tell.
size_t Query::expectedSize(uint64_t limit) const {
    return limit == 0 ? lastCandidateCount_ : std::min(limit, lastCandidateCount_);
}

// The matches from the offset on, up to the limit, in the query's order.
template <class Visitor>
void Query::visitWindow(Cursor& cursor, uint64_t offset, uint64_t limit, Visitor&& visitor) {
    if (comparator_) {
        visitMatchesOrdered(cursor, offset, limit, [&](const Match& match) {
            return visitor(Bytes(match.object.data(), match.object.size()));
        });
        return;
    }
    const uint64_t end = windowEnd(offset, limit);
    uint64_t count = 0;
    visitMatches(cursor, [&](uint64_t, const ObjectTable&, const Bytes& object) {
        ++count;
        if (count > offset && !visitor(object)) return false;
        return count != end;
    });
}

template <class Visitor>
void Query::visitMatchesOrdered(Cursor& cursor, uint64_t offset, uint64_t limit,
                                Visitor&& visitor) {
    OrderedMatches matches(*comparator_, windowEnd(offset, limit));
    visitMatches(cursor, [&](uint64_t id, const ObjectTable& table, const Bytes& object) {
        matches.offer(id, table, object);
        return true;
    });
    uint64_t lastId = 0;
    matches.visit(offset, [&](const Match& match) {
        const uint64_t id = match.id;
        CHECK_STATE_TEXT_AT(241, id != lastId, "visitMatchesOrdered", "id != lastId");
        lastId = id;
        return visitor(match);
    });
}

// --- objects --------------------------------------------------------------------------------------

uint64_t Query::count(Cursor& cursor, uint64_t limit) {
    checkUsable();
    logOperation("Counting using query");
    const RunningQuery running(cursor.tx().store().activity());
    startRun(cursor);
    uint64_t count = 0;
    const auto visitor = [&](uint64_t, const ObjectTable&, const Bytes&) {
        return ++count != limit;
    };
    LentIds candidates(candidates_);
    if (!hasLookups_ || !lookupCandidateIds(cursor, *candidates)) {
        visitAll(cursor, visitor);
    } else if (!lastAllDefinite_) {
        visitCandidates(cursor, *candidates, visitor);
    } else {  // each is an object that the index knows to match
        const uint64_t found = (*candidates).size();
        count = limit == 0 ? found : std::min(limit, found);
    }
    return count;
}

void Query::find(Cursor& cursor, std::vector<Bytes>& out, uint64_t offset, uint64_t limit) {
    checkUsable();
    logFind(offset, limit);
    visitWindow(cursor, offset, limit, [&](const Bytes& object) {
        if (out.empty()) out.reserve(expectedSize(limit));
        out.emplace_back(object.data(), object.size());
        return true;
    });
}

void Query::visit(Cursor& cursor, uint64_t offset, uint64_t limit,
                  const std::function<bool(const Bytes& object)>& visitor) {
    checkUsable();
    visitWindow(cursor, offset, limit, visitor);
}

bool Query::findFirst(Cursor& cursor, Bytes& out) {
    checkUsable();
    logOperation("Finding first using query");
    Match best{0, ObjectTable(nullptr, 0), {}};
    visitMatches(cursor, [&](uint64_t id, const ObjectTable& table, const Bytes& object) {
        if (best.id == 0 || comparator_->before(table, best.table)) {
            best = {id, table, object.span()};
        }
        return comparator_ != nullptr;
    });
    if (best.id == 0) return false;
    out.setView(best.object.data(), best.object.size());
    return true;
}

bool Query::findUnique(Cursor& cursor, Bytes& out) {
    checkUsable();
    std::span<const uint8_t> found;
    uint64_t count = 0;
    visitMatches(cursor, [&](uint64_t, const ObjectTable&, const Bytes& object) {
        found = object.span();
        return ++count <= kMaxCountOfNonUnique;
    });
    if (logQueries_) {
        logLine("%s [INFO ] Finding unique using query #%lu had %zu results\n", logTimestamp(),
                static_cast<unsigned long>(number_),
                static_cast<size_t>(std::min(count, kMaxCountOfNonUnique)));
    }
    logParameters();
    requireUnique(count);
    if (count == 0) return false;
    out.setView(found.data(), found.size());
    return true;
}

uint64_t Query::remove(Cursor& cursor, std::vector<uint64_t>* removedIds) {
    checkUsable();
    Ids ids;
    findIdsWithoutComparator(cursor, ids, 0);
    if (removedIds) *removedIds = ids;
    uint64_t removed = 0;
    for (const uint64_t id : ids) {
        if (cursor.remove(id)) {
            ++removed;
        } else {
            logLine("%s [ERROR] Found ID was not removed: %llu\n", logTimestamp(),
                    static_cast<unsigned long long>(id));
        }
    }
    if (logQueries_) {
        logLine("%s [INFO ] Removed %llu objects using query #%lu\n", logTimestamp(),
                static_cast<unsigned long long>(removed), static_cast<unsigned long>(number_));
    }
    logParameters();
    return removed;
}

void Query::logOperation(const char* what) const {
    if (logQueries_) {
        logLine("%s [INFO ] %s #%lu\n", logTimestamp(), what, static_cast<unsigned long>(number_));
    }
    logParameters();
}

void Query::logFind(uint64_t offset, uint64_t limit) const {
    if (logQueries_) {
        const auto number = static_cast<unsigned long>(number_);
        const char* const sorted = comparator_ ? " (sorted)" : "";
        if (offset == 0 && limit == 0) {
            logLine("%s [INFO ] Finding using query #%lu%s\n", logTimestamp(), number, sorted);
        } else {
            logLine("%s [INFO ] Finding with offset %zu and limit %zu using query #%lu%s\n",
                    logTimestamp(), static_cast<size_t>(offset), static_cast<size_t>(limit),
                    number, sorted);
        }
    }
    logParameters();
}

// --- IDs ------------------------------------------------------------------------------------------

void Query::findIds(Cursor& cursor, std::vector<uint64_t>& out, uint64_t offset, uint64_t limit) {
    checkUsable();
    if (comparator_) {
        out.clear();
        visitMatchesOrdered(cursor, offset, limit, [&](const Match& match) {
            out.push_back(match.id);
            return true;
        });
        return;
    }
    findIdsWithoutComparator(cursor, out, windowEnd(offset, limit));
    out.erase(out.begin(), out.begin() + static_cast<ptrdiff_t>(std::min(offset, out.size())));
}

uint64_t Query::findFirstId(Cursor& cursor) {
    Ids ids;
    findIds(cursor, ids, 0, 1);
    return ids.empty() ? 0 : ids.front();
}

uint64_t Query::findUniqueId(Cursor& cursor) {
    Ids ids;
    findIds(cursor, ids, 0, kMaxCountOfNonUnique + 1);
    requireUnique(ids.size());
    return ids.empty() ? 0 : ids.front();
}

// --- scores ---------------------------------------------------------------------------------------

// The window of the scores whose ID `contains` knows, best first.
template <class Contains, class Visitor>
void Query::visitScores(uint64_t offset, uint64_t limit, Contains&& contains,
                        Visitor&& visitor) const {
    const uint64_t end = windowEnd(offset, limit);
    if (!scores_) return;
    uint64_t count = 0;
    for (const IdScore& score : *scores_) {
        if (!contains(score.id)) continue;
        if (++count > offset) visitor(score);
        if (count == end) return;
    }
}

std::vector<Query::IdScore> Query::findIdsWithScores(Cursor& cursor, uint64_t offset,
                                                     uint64_t limit) {
    checkUsable();
    Ids ids;  // ascending
    findIdsWithoutComparator(cursor, ids, 0);
    std::vector<IdScore> found;
    visitScores(
        offset, limit,
        [&](uint64_t id) { return std::binary_search(ids.begin(), ids.end(), id); },
        [&](const IdScore& score) { found.push_back(score); });
    return found;
}

std::vector<uint64_t> Query::findIdsByScore(Cursor& cursor, uint64_t offset, uint64_t limit) {
    Ids ids;
    for (const IdScore& score : findIdsWithScores(cursor, offset, limit)) ids.push_back(score.id);
    return ids;
}

std::vector<Query::ScoredObject> Query::findWithScores(Cursor& cursor, uint64_t offset,
                                                       uint64_t limit) {
    checkUsable();
    std::unordered_map<uint64_t, Bytes, FnvHash<uint64_t>> objects;
    visitMatches(cursor, [&](uint64_t id, const ObjectTable&, const Bytes& object) {
        objects[id].setView(object.data(), object.size());
        return true;
    });
    std::vector<ScoredObject> found;
    visitScores(
        offset, limit, [&](uint64_t id) { return objects.contains(id); },
        [&](const IdScore& score) {
            found.push_back({score.id, score.score, objects.at(score.id)});
        });
    return found;
}

}  // namespace quillmere
