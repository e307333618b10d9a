// How a query starts from candidate IDs: index look-ups, intersected with each other and with what
// its links give.

#include <algorithm>
#include <utility>

#include "core/error.h"
#include "query/lent_ids.h"
#include "query/link_condition.h"
#include "query/query.h"
#include "query/visit_matches.h"
#include "schema/property.h"
#include "store/index_cursor.h"
#include "store/index_cursor_set.h"

namespace quillmere {
namespace {

using Ids = std::vector<uint64_t>;

// Index entries of one value come in the order of IDs, unless some are wider than others.
void sortIds(Ids& ids) {
    if (!std::is_sorted(ids.begin(), ids.end())) std::sort(ids.begin(), ids.end());
}

// Keeps what both have. Both are ascending.
void intersect(Ids& ids, const Ids& others) {
    auto other = others.begin();
    auto kept = ids.begin();
    for (const uint64_t id : ids) {
        while (other != others.end() && *other < id) ++other;
        if (other == others.end()) break;
        if (*other == id) *kept++ = id;
    }
    ids.erase(kept, ids.end());
}

// False if the condition declines.
bool lookup(QueryConditionWithProperty& condition, Cursor& cursor, Ids& ids, bool& notDefinite) {
    if (condition.canLookupIndex()) {
        IndexCursorSet* const set = cursor.indexCursorSet();
        IndexCursor* const indexCursor =
            set ? set->findIndexCursor(condition.property().id()) : nullptr;
        CHECK_STATE_TEXT_AT(315, indexCursor, "lookupIndexIds", "indexCursor");
        return condition.lookupIndex(*indexCursor, ids, notDefinite);
    }
    if (!condition.canLookup()) {
        throwIllegalState("Prioritized condition does not offer look-up");
    }
    return condition.lookup(cursor, ids, notDefinite);
}

}  // namespace

bool Query::lookupCandidateIds(Cursor& cursor, Ids& result) {
    CHECK_STATE_AT(255, result.empty());
    const uint64_t lookups = lookupIndexIds(cursor, result);
    if (lookups == 0 || !result.empty()) intersectWithLinks(cursor, lookups != 0, result);
    // With nothing but links to hold, they know each of these to match; that they all exist, one
    // must know that found them as entries of their own index.
    if (!result.empty() && root_->op() == QueryOp::True && anyLinkFindsObjects()) {
        setRunState(result.size(), lookups, true);
    }
    return lookups != 0 || hasLinks();
}

uint64_t Query::lookupIndexIds(Cursor& cursor, Ids& result) {
    result.clear();
    uint64_t lookups = 0;
    bool anyNotDefinite = false;
    LentIds scratch(scratch_);
    for (const QueryPlan::Prioritized& prioritized : plan_.prioritized) {
        CHECK_STATE_TEXT_AT(278, prioritized.condition->withProperty(), "lookupIndexIds",
                            "condition.condition_->withProperty()");
        (*scratch).clear();
        bool notDefinite = false;
        if (!lookup(*prioritized.condition, cursor, *scratch, notDefinite)) continue;
        anyNotDefinite |= notDefinite;
        sortIds(*scratch);
        if (lookups == 0) {
            result.assign((*scratch).begin(), (*scratch).end());
        } else {
            intersect(result, *scratch);
        }
        ++lookups;
        if (result.empty()) break;
    }
    // Every leaf of a tree of "all of" was answered exactly: the objects need no check.
    const bool allDefinite =
        !anyNotDefinite && definiteLookupsNeeded_ != 0 && lookups == definiteLookupsNeeded_;
    setRunState(result.size(), lookups, allDefinite);
    return lookups;
}

bool Query::anyLinkFindsObjects() const {
    return std::any_of(plan_.linkConditions.begin(), plan_.linkConditions.end(),
                       [](const QueryConditionLink* link) { return link->findsObjects(); });
}

void Query::intersectWithLinks(Cursor& cursor, bool lookedUp, Ids& result) {
    LentIds scratch(scratch_);
    for (const QueryConditionLink* link : plan_.linkConditions) {
        (*scratch).clear();
        link->lookupIds(cursor, *scratch);
        if (lookedUp) {
            intersect(result, *scratch);
        } else {
            result.assign((*scratch).begin(), (*scratch).end());
            lookedUp = true;
        }
        if (result.empty()) return;
    }
}

void Query::findIdsWithoutComparator(Cursor& cursor, Ids& out, uint64_t limit) {
    out.clear();
    if (hasLookups_) {
        checkCursor(cursor);
        resetRun();
        if (lookupCandidateIds(cursor, out)) {
            if (!lastAllDefinite_) keepMatches(cursor, out, limit);
            if (limit != 0 && out.size() > limit) out.resize(limit);
            return;
        }
    }
    CHECK_STATE_TEXT_AT(598, cursor.entity(), "findIdsWithoutComparator", "entity");
    visitMatches(cursor, [&](uint64_t id, const ObjectTable&, const Bytes&) {
        out.push_back(id);
        return out.size() != limit;
    });
}

// Removes candidates whose object is gone or no match. Stops at the limit, if there is one.
void Query::keepMatches(Cursor& cursor, Ids& candidates, uint64_t limit) {
    Bytes object;
    uint64_t kept = 0;
    for (const uint64_t id : candidates) {
        if (!cursor.get(id, object)) continue;
        const ObjectTable table(object.data(), object.size());
        if (!root_->check({cursor, table})) continue;
        candidates[kept++] = id;
        if (kept == limit) break;
    }
    candidates.resize(kept);
}

}  // namespace quillmere
