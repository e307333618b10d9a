#pragma once

// The conditions without a property of their own: "all of", "any of" and "true".

#include <memory>
#include <string>
#include <vector>

#include "query/condition.h"

namespace quillmere {

class QueryConditionTrue final : public QueryCondition {
public:
    QueryConditionTrue() : QueryCondition(QueryOp::True) {}

    bool check(const QueryContext&) const override { return true; }
    std::string describe(uint32_t) const override { return "TRUE"; }
    std::unique_ptr<QueryCondition> clone() const override;
};

// Children belong to the same builder or query as this. To clone it takes their clones: see
// Query::clone().
class QueryConditionCombination final : public QueryCondition {
public:
    // REQUIRES: `op` is AllOf or AnyOf.
    QueryConditionCombination(QueryOp op, std::vector<QueryCondition*> children)
        : QueryCondition(op), children_(std::move(children)), isAny_(op == QueryOp::AnyOf) {}

    bool check(const QueryContext& context) const override;
    std::string describe(uint32_t indent) const override;

    const std::vector<QueryCondition*>& children() const { return children_; }

private:
    const std::vector<QueryCondition*> children_;
    const bool isAny_;
};

}  // namespace quillmere
