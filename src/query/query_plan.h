#pragma once

#include <cstdint>
#include <vector>

namespace quillmere {

class QueryCondition;
class QueryConditionLink;
class QueryConditionWithProperty;

// How a query can start from candidate IDs instead of a scan. Computed once, from the tree alone.
struct QueryPlan {
    struct Prioritized {
        QueryConditionWithProperty* condition;
        int priority;  // kept for the record: look-ups run in tree order
    };

    QueryPlan(QueryCondition& root, std::vector<QueryConditionLink*> links);

    std::vector<Prioritized> prioritized;
    std::vector<QueryConditionLink*> linkConditions;
    uint64_t leafCount = 0;
    bool hasAny = false;

private:
    void walk(QueryCondition& condition);
};

}  // namespace quillmere
