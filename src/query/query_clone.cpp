#include <unordered_map>
#include <utility>

#include "core/checks.h"
#include "query/combination_condition.h"
#include "query/link_condition.h"
#include "query/query.h"

namespace quillmere {
namespace {

using Clones = std::unordered_map<const QueryCondition*, QueryCondition*>;

std::vector<QueryCondition*> copyConditionsToVector(const std::vector<QueryCondition*>& conditions,
                                                    const Clones& map) {
    std::vector<QueryCondition*> copies;
    copies.reserve(conditions.size());
    for (const QueryCondition* const condition : conditions) {
        const auto iterator = map.find(condition);
        CHECK_STATE_AT(92, iterator != map.end());
        copies.push_back(iterator->second);
    }
    return copies;
}

// REQUIRES: the clones of a combination's children are in the map.
std::unique_ptr<QueryCondition> cloneCondition(const QueryCondition& condition,
                                               const Clones& clones) {
    if (condition.op() != QueryOp::AllOf && condition.op() != QueryOp::AnyOf) {
        return condition.clone();
    }
    const auto& combination = static_cast<const QueryConditionCombination&>(condition);
    return std::make_unique<QueryConditionCombination>(
        condition.op(), copyConditionsToVector(combination.children(), clones));
}

}  // namespace

std::unique_ptr<Query> Query::clone() const {
    checkUsable();
    Definition definition;
    Clones clones;
    // Children stand before their parents.
    for (const auto& condition : allConditions_) {
        definition.conditions.push_back(cloneCondition(*condition, clones));
        QueryCondition& copy = *definition.conditions.back();
        copy.setBuilder(nullptr);
        clones.emplace(condition.get(), &copy);
    }
    for (const auto& link : links_) {
        definition.links.push_back(link->cloneWith(nullptr, link->subQuery().clone()));
    }
    definition.entity = entity_;
    definition.schema = schema_;
    definition.hadSchema = hadSchema_;
    definition.root = clones.at(root_);
    definition.comparator = comparator_;
    definition.logQueries = logQueries_;
    definition.logParameters = logParameters_;
    definition.reverse = reverse_;
    auto copy = std::make_unique<Query>(std::move(definition));

    // A clone goes by the number of its source. Its own goes back unless a later one was taken.
    uint32_t afterOwn = copy->number_ + 1;
    nextNumber_.compare_exchange_strong(afterOwn, copy->number_);
    copy->number_ = number_;
    return copy;
}

}  // namespace quillmere
