#include "query/query_parameters.h"

#include "core/checks.h"
#include "core/error.h"
#include "query/condition.h"
#include "query/property_rules.h"
#include "query/query.h"
#include "schema/property.h"

namespace quillmere {
namespace {

void checkKind(const QueryConditionWithProperty& condition, ParamKind kind) {
    if (condition.paramKind() == kind) return;
    throwIllegalArgument("Parameter type does not match with condition");
}

void checkStringKind(const QueryConditionWithProperty& condition, ParamKind kind,
                     const char* failure) {
    if (condition.paramKind() == kind) return;
    throwIllegalArgument(failure, " (op: ", queryOpWord(condition.op()), ")");
}

void checkNumberProperty(const QueryConditionWithProperty& condition) {
    const Property& property = condition.property();
    const PropertyType type = property.type();
    if (isIntegerScalar(type) || isFloatScalar(type) || isIntegerVector(type) ||
        isFloatVector(type)) {
        return;
    }
    throwIllegalArgument("Property type expected to be a scalar or a scalar vector: ",
                         property.text());
}

void checkProperty(const QueryConditionWithProperty& condition, PropertyType expected) {
    requireType(condition.property(), expected, "Wrong query parameter type. ");
}

template <class Number>
void setNumber(QueryConditionWithProperty& condition, Number value) {
    checkKind(condition, ParamKind::Number);
    checkNumberProperty(condition);
    condition.setNumber(value);
}

template <class Number>
void setTwoNumbers(QueryConditionWithProperty& condition, Number a, Number b) {
    checkKind(condition, ParamKind::TwoNumbers);
    checkNumberProperty(condition);
    condition.setTwoNumbers(a, b);
}

template <class Integer>
void setIntegers(QueryConditionWithProperty& condition, const std::vector<Integer>& values) {
    checkKind(condition, ParamKind::IntegerSet);
    checkNumberProperty(condition);
    condition.setIntegers(values);
}

}  // namespace

void setStringParam(QueryConditionWithProperty& condition, std::string_view value) {
    checkStringKind(condition, ParamKind::String,
                    "Property condition does not expect parameter of type string");
    const PropertyType type = condition.property().type();
    if (type != PropertyType::String && type != PropertyType::ByteVector &&
        type != PropertyType::StringVector) {
        throwIllegalArgument("Param type does not match with condition");
    }
    condition.setString(value);
}

void setTwoStringsParam(QueryConditionWithProperty& condition, std::string_view key,
                        std::string_view value) {
    checkStringKind(condition, ParamKind::TwoStrings,
                    "Property condition does not expect 2 parameters of type string");
    if (condition.property().type() != PropertyType::Flex) {
        throwIllegalArgument("Param type does not match with condition");
    }
    condition.setTwoStrings(key, value);
}

void setStringsParam(QueryConditionWithProperty& condition,
                     const std::vector<std::string_view>& values) {
    checkKind(condition, ParamKind::StringSet);
    checkProperty(condition, PropertyType::String);
    condition.setStrings(values);
}

void setNumberParam(QueryConditionWithProperty& condition, int64_t value) {
    // Of a search for the nearest neighbours it is the maximum number of results.
    if (condition.paramKind() == ParamKind::FloatVector) {
        checkNumberProperty(condition);
        condition.setNumber(value);
        return;
    }
    setNumber(condition, value);
}

void setNumberParam(QueryConditionWithProperty& condition, double value) {
    setNumber(condition, value);
}

void setTwoNumbersParam(QueryConditionWithProperty& condition, int64_t a, int64_t b) {
    setTwoNumbers(condition, a, b);
}

void setTwoNumbersParam(QueryConditionWithProperty& condition, double a, double b) {
    setTwoNumbers(condition, a, b);
}

void setIntegersParam(QueryConditionWithProperty& condition, const std::vector<int32_t>& values) {
    setIntegers(condition, values);
}

void setIntegersParam(QueryConditionWithProperty& condition, const std::vector<int64_t>& values) {
    setIntegers(condition, values);
}

void setBytesParam(QueryConditionWithProperty& condition, const void* data, size_t size) {
    checkKind(condition, ParamKind::Bytes);
    checkProperty(condition, PropertyType::ByteVector);
    condition.setBytes(data, size);
}

void setFloatVectorParam(QueryConditionWithProperty& condition, std::span<const float> values) {
    checkKind(condition, ParamKind::FloatVector);
    checkProperty(condition, PropertyType::FloatVector);
    if (condition.op() != QueryOp::NearestNeighbors) {
        throwIllegalArgument(
            "The condition does not yet support setting a parameter of type float vector",
            queryOpWord(condition.op()));
    }
    condition.setFloatVector(values);
}

size_t paramSize(const QueryConditionWithProperty& condition) {
    return propertyTypeSize(condition.property().type());
}

QueryConditionWithProperty& Query::findCondition(std::string_view alias) {
    checkUsable();
    const auto found = conditionsByAlias_.find(alias);
    if (found == conditionsByAlias_.end()) {
        throwIllegalArgument("Parameter alias unavailable: ", alias);
    }
    return *found->second;
}

QueryConditionWithProperty& Query::findCondition(uint32_t entityId, uint32_t propertyId) {
    checkUsable();
    CHECK_ARG_AT(666, entityId);
    CHECK_ARG_AT(667, propertyId);
    const auto found = conditionsByProperty_.find(propertyKey(entityId, propertyId));
    if (found == conditionsByProperty_.end()) {
        throwIllegalArgument("Query condition not found for entity ", std::to_string(entityId),
                             " property ", std::to_string(propertyId));
    }
    return *found->second;
}

}  // namespace quillmere
