#include "query/combination_condition.h"

namespace quillmere {

std::unique_ptr<QueryCondition> QueryConditionTrue::clone() const {
    return std::make_unique<QueryConditionTrue>(*this);
}

bool QueryConditionCombination::check(const QueryContext& context) const {
    for (const QueryCondition* const child : children_) {
        if (child->check(context) == isAny_) return isAny_;
    }
    return !isAny_;
}

std::string QueryConditionCombination::describe(uint32_t indent) const {
    std::string text = "(";
    for (const QueryCondition* const child : children_) {
        if (text.size() > 1) text += isAny_ ? "\n OR " : "\n AND ";
        text += child->describe(indent);
    }
    return text + ")";
}

}  // namespace quillmere
