#include "query/in_set_condition.h"

#include <algorithm>
#include <string>
#include <type_traits>
#include <unordered_set>

#include "core/error.h"
#include "core/hash.h"
#include "query/number_value.h"
#include "store/object_table.h"

namespace quillmere {
namespace {

[[noreturn]] void throwWrongSize(size_t given, size_t expected) {
    throwIllegalArgument("The given integer values are of size ", std::to_string(given),
                         " but the condition expects values of size ", std::to_string(expected));
}

template <class T>
class QueryConditionInSet final : public QueryConditionWithProperty {
public:
    QueryConditionInSet(const Property& property, const std::vector<T>& values, bool positive)
        : QueryConditionWithProperty(QueryOp::In, property, ParamKind::IntegerSet),
          values_(values.begin(), values.end()), positive_(positive) {}

    bool check(const QueryContext& context) const override {
        const uint8_t* const field = context.table.field(fieldOffset(), sizeof(T));
        const bool found = field && values_.contains(loadNumber<T>(field));
        return found == positive_;
    }
    // The values in ascending order.
    std::string describe(uint32_t) const override {
        std::vector<T> values(values_.begin(), values_.end());
        std::sort(values.begin(), values.end());
        std::string text = property().name() + (positive_ ? " in [" : " not in [");
        const char* separator = "";
        for (const T value : values) {
            text.append(separator).append(std::to_string(value));
            separator = "|";
        }
        return text + ']';
    }
    std::unique_ptr<QueryCondition> clone() const override {
        return std::make_unique<QueryConditionInSet>(*this);
    }
    void setIntegers(const std::vector<int32_t>& values) override { replaceValues(values); }
    void setIntegers(const std::vector<int64_t>& values) override { replaceValues(values); }

private:
    template <class Given>
    void replaceValues(const std::vector<Given>& values) {
        if constexpr (std::is_same_v<Given, T>) {
            values_ = {values.begin(), values.end()};
        } else {
            throwWrongSize(sizeof(Given), sizeof(T));
        }
    }

    std::unordered_set<T, FnvHash<T>> values_;
    const bool positive_;
};

}  // namespace

std::unique_ptr<QueryCondition> makeInSetCondition(const Property& property,
                                                   const std::vector<int32_t>& values,
                                                   bool negate) {
    return std::make_unique<QueryConditionInSet<int32_t>>(property, values, !negate);
}

std::unique_ptr<QueryCondition> makeInSetCondition(const Property& property,
                                                   const std::vector<int64_t>& values,
                                                   bool negate) {
    return std::make_unique<QueryConditionInSet<int64_t>>(property, values, !negate);
}

}  // namespace quillmere
