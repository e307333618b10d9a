#pragma once

// The walk over a query's matches, for the operations that bring a visitor of their own.

#include <algorithm>
#include <utility>

#include "core/bytes.h"
#include "core/checks.h"
#include "query/condition.h"
#include "query/lent_ids.h"
#include "query/query.h"
#include "store/cursor.h"
#include "store/object_store.h"
#include "store/object_table.h"
#include "store/store_activity.h"
#include "store/transaction.h"

namespace quillmere {

template <class Visitor>
void Query::visitMatches(Cursor& cursor, Visitor&& visitor) {
    // Counted before the look: a store that starts to close sees this query, or is seen here.
    const RunningQuery running(cursor.tx().store().activity());
    startRun(cursor);
    LentIds candidates(candidates_);
    if (hasLookups_ && lookupCandidateIds(cursor, *candidates)) {
        visitCandidates(cursor, *candidates, visitor);
    } else {
        visitAll(cursor, visitor);
    }
}

template <class Visitor>
void Query::visitCandidates(Cursor& cursor, const Ids& candidates, Visitor& visitor) {
    Bytes object;
    const bool mustCheck = !lastAllDefinite_;  // a run inside of the visitor has its own state
    const auto visit = [&](uint64_t id) {
        if (id == 0) [[unlikely]] checks::failState("id", 193);
        if (!cursor.get(id, object)) return true;
        const ObjectTable table(object.data(), object.size());
        if (mustCheck && !root_->check({cursor, table})) return true;
        return static_cast<bool>(visitor(id, table, std::as_const(object)));
    };
    if (reverse_) {
        std::all_of(candidates.rbegin(), candidates.rend(), visit);
    } else {
        std::all_of(candidates.begin(), candidates.end(), visit);
    }
}

template <class Visitor>
void Query::visitAll(Cursor& cursor, Visitor& visitor) {
    Bytes object;
    const QueryCondition& root = *root_;
    bool found = reverse_ ? cursor.last(object) : cursor.first(object);
    while (found) {
        const ObjectTable table(object.data(), object.size());
        if (root.check({cursor, table}) &&
            !visitor(cursor.placeId(), table, std::as_const(object))) {
            return;
        }
        found = reverse_ ? cursor.previous(object) : cursor.next(object);
    }
}

}  // namespace quillmere
