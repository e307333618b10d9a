#include "query/query_plan.h"

#include <utility>

#include "query/combination_condition.h"
#include "query/condition.h"
#include "schema/property.h"

namespace quillmere {
namespace {

// 0 for an op that is no start for a query.
int priorityOf(QueryOp op) {
    switch (op) {
        case QueryOp::Equal: return 100;
        case QueryOp::In: return 80;
        case QueryOp::Between: return 70;
        case QueryOp::StartsWith: return 60;
        case QueryOp::Less:
        case QueryOp::LessOrEqual:
        case QueryOp::Greater:
        case QueryOp::GreaterOrEqual: return 50;
        case QueryOp::NearestNeighbors: return 10;
        default: return 0;
    }
}

bool canLookup(const QueryConditionWithProperty& condition) {
    const Property& property = condition.property();
    return (condition.canLookupIndex() && property.isIndexed()) ||
           (condition.canLookup() && property.hasFlag(kPropertyIdCompanion));
}

}  // namespace

QueryPlan::QueryPlan(QueryCondition& root, std::vector<QueryConditionLink*> links)
    : linkConditions(std::move(links)) {
    walk(root);
}

void QueryPlan::walk(QueryCondition& condition) {
    if (condition.op() == QueryOp::AllOf) {
        const auto& combination = static_cast<const QueryConditionCombination&>(condition);
        for (QueryCondition* child : combination.children()) walk(*child);
        return;
    }
    if (condition.op() == QueryOp::AnyOf) {
        hasAny = true;
        return;
    }
    ++leafCount;
    if (!condition.withProperty()) return;
    auto& withProperty = static_cast<QueryConditionWithProperty&>(condition);
    const int priority = priorityOf(condition.op());
    if (priority != 0 && canLookup(withProperty)) prioritized.push_back({&withProperty, priority});
}

}  // namespace quillmere
