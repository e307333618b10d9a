#pragma once

// Which types of properties a condition or a parameter takes, and the failures for the others.

#include <string_view>

#include "schema/property_type.h"

namespace quillmere {

class Property;

bool isFloatScalar(PropertyType type);
bool isIntegerScalar(PropertyType type);  // Bool and the dates too
bool isFloatVector(PropertyType type);
bool isIntegerVector(PropertyType type);
// Whether the property's integers, or those in its vector, count as unsigned.
bool hasUnsignedValues(const Property& property);

// IllegalArgumentException "Property is not a integer scalar type: " or, for the type of a vector,
// "Property is not a integer vector: ".
[[noreturn]] void throwNotIntegers(const Property& property);
[[noreturn]] void throwNotIntegerScalar(const Property& property);
[[noreturn]] void throwNotFloats(const Property& property);
[[noreturn]] void throwNotFloatScalar(const Property& property);

// PropertyTypeMismatchException, also for the two below.
[[noreturn]] void throwUnexpectedType(const Property& property, PropertyType expected,
                                      std::string_view prefix = {});
void requireType(const Property& property, PropertyType expected, std::string_view prefix = {});
[[noreturn]] void throwNotComparable(const Property& property, PropertyType valueType);

}  // namespace quillmere
