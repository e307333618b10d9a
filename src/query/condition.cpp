#include "query/condition.h"

#include <array>

#include "core/error.h"
#include "schema/property.h"

namespace quillmere {
namespace {

constexpr std::array<const char*, 20> kWords = {
    "==",  "!=",      "is null",     "is not null", "<",        "<=",           ">",
    ">=",  "in",      "between",     "starts with", "ends with", "contains",    "contains k/v",
    "all of", "any of", "true",      "link",        "??",       "nearest neighbors",
};

[[noreturn]] void throwWrongParameter() {
    throwIllegalArgument("Parameter type does not match with condition");
}

}  // namespace

const char* queryOpWord(QueryOp op) {
    const auto number = static_cast<size_t>(op);
    return number < kWords.size() ? kWords[number] : "??";
}

void throwUnsupportedOp(QueryOp op) {
    throwIllegalState("State condition failed in ",
                      "Given operation type isn't supported by this condition: ", queryOpWord(op));
}

bool QueryCondition::check(const QueryContext&) const {
    throwIllegalState("Illegal query condition detected with op type \"", queryOpWord(op_), "\"");
}

std::string QueryCondition::describe(uint32_t) const {
    return std::string("illegal op \"") + queryOpWord(op_) + '"';
}

std::unique_ptr<QueryCondition> QueryCondition::clone() const {
    throwException("Cloning unavailable");
}

QueryConditionWithProperty::QueryConditionWithProperty(QueryOp op, const Property& property,
                                                       ParamKind paramKind)
    : QueryCondition(op, true), property_(&property), paramKind_(paramKind),
      fieldOffset_(property.flatOffset()) {}

bool QueryConditionWithProperty::lookupIndex(IndexCursor&, std::vector<uint64_t>&, bool&) {
    return false;
}

bool QueryConditionWithProperty::lookup(Cursor&, std::vector<uint64_t>&, bool&) { return false; }

void QueryConditionWithProperty::setNumber(int64_t) { throwWrongParameter(); }
void QueryConditionWithProperty::setNumber(double) { throwWrongParameter(); }
void QueryConditionWithProperty::setTwoNumbers(int64_t, int64_t) { throwWrongParameter(); }
void QueryConditionWithProperty::setTwoNumbers(double, double) { throwWrongParameter(); }
void QueryConditionWithProperty::setString(std::string_view) { throwWrongParameter(); }
void QueryConditionWithProperty::setTwoStrings(std::string_view, std::string_view) {
    throwWrongParameter();
}
void QueryConditionWithProperty::setStrings(const std::vector<std::string_view>&) {
    throwWrongParameter();
}
void QueryConditionWithProperty::setBytes(const void*, size_t) { throwWrongParameter(); }
void QueryConditionWithProperty::setIntegers(const std::vector<int32_t>&) { throwWrongParameter(); }
void QueryConditionWithProperty::setIntegers(const std::vector<int64_t>&) { throwWrongParameter(); }
void QueryConditionWithProperty::setFloatVector(std::span<const float>) { throwWrongParameter(); }

}  // namespace quillmere
