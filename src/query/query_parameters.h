#pragma once

// Changes the values of a condition of a built query. Each function throws
// IllegalArgumentException, and changes nothing, for a condition that takes another kind of value
// or has a property of another type, and NumericOverflowException for a number that the property
// can not have.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace quillmere {

class QueryConditionWithProperty;

void setStringParam(QueryConditionWithProperty& condition, std::string_view value);
void setTwoStringsParam(QueryConditionWithProperty& condition, std::string_view key,
                        std::string_view value);
void setStringsParam(QueryConditionWithProperty& condition,
                     const std::vector<std::string_view>& values);
void setNumberParam(QueryConditionWithProperty& condition, int64_t value);
void setNumberParam(QueryConditionWithProperty& condition, double value);
void setTwoNumbersParam(QueryConditionWithProperty& condition, int64_t a, int64_t b);
void setTwoNumbersParam(QueryConditionWithProperty& condition, double a, double b);
void setIntegersParam(QueryConditionWithProperty& condition, const std::vector<int32_t>& values);
void setIntegersParam(QueryConditionWithProperty& condition, const std::vector<int64_t>& values);
void setBytesParam(QueryConditionWithProperty& condition, const void* data, size_t size);
void setFloatVectorParam(QueryConditionWithProperty& condition, std::span<const float> values);

// Bytes of a value of the condition's property, 0 for a type of variable length.
size_t paramSize(const QueryConditionWithProperty& condition);

}  // namespace quillmere
