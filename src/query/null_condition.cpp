#include "query/null_condition.h"

#include "schema/property.h"
#include "store/object_table.h"

namespace quillmere {
namespace {

class NullCondition : public QueryConditionWithProperty {
public:
    NullCondition(QueryOp op, const Property& property)
        : QueryConditionWithProperty(op, property, ParamKind::None) {}

    std::string describe(uint32_t) const override {
        return property().name() + ' ' + queryOpWord(op());
    }

protected:
    bool isPresent(const QueryContext& context) const {
        return context.table.field(fieldOffset(), 1) != nullptr;
    }
};

class QueryConditionIsNull final : public NullCondition {
public:
    explicit QueryConditionIsNull(const Property& property)
        : NullCondition(QueryOp::IsNull, property) {}
    bool check(const QueryContext& context) const override { return !isPresent(context); }
    std::unique_ptr<QueryCondition> clone() const override {
        return std::make_unique<QueryConditionIsNull>(*this);
    }
};

class QueryConditionIsNotNull final : public NullCondition {
public:
    explicit QueryConditionIsNotNull(const Property& property)
        : NullCondition(QueryOp::IsNotNull, property) {}
    bool check(const QueryContext& context) const override { return isPresent(context); }
    std::unique_ptr<QueryCondition> clone() const override {
        return std::make_unique<QueryConditionIsNotNull>(*this);
    }
};

}  // namespace

std::unique_ptr<QueryCondition> makeNullCondition(const Property& property, QueryOp op) {
    if (op == QueryOp::IsNull) return std::make_unique<QueryConditionIsNull>(property);
    return std::make_unique<QueryConditionIsNotNull>(property);
}

}  // namespace quillmere
