#include "query/property_rules.h"

#include "core/error.h"
#include "schema/property.h"

namespace quillmere {
namespace {

bool isVector(PropertyType type) {
    return type >= PropertyType::BoolVector && type <= PropertyType::DateNanoVector;
}

}  // namespace

bool isFloatScalar(PropertyType type) {
    return type == PropertyType::Float || type == PropertyType::Double;
}

bool isIntegerScalar(PropertyType type) {
    return type >= PropertyType::Bool && type <= PropertyType::DateNano &&
           type != PropertyType::String && !isFloatScalar(type);
}

bool isFloatVector(PropertyType type) {
    return type == PropertyType::FloatVector || type == PropertyType::DoubleVector;
}

bool isIntegerVector(PropertyType type) {
    return isVector(type) && type != PropertyType::StringVector && !isFloatVector(type);
}

bool hasUnsignedValues(const Property& property) {
    switch (property.type()) {
        case PropertyType::Bool:
        case PropertyType::BoolVector: return false;
        case PropertyType::Relation: return true;
        default: return (property.flags() & (kPropertyUnsigned | kPropertyId)) != 0;
    }
}

void throwNotIntegers(const Property& property) {
    if (!isVector(property.type())) throwNotIntegerScalar(property);
    throwIllegalArgument("Property is not a integer vector: ", propertyTypeName(property.type()));
}

void throwNotIntegerScalar(const Property& property) {
    throwIllegalArgument("Property is not a integer scalar type: ",
                         propertyTypeName(property.type()));
}

void throwNotFloats(const Property& property) {
    if (!isVector(property.type())) throwNotFloatScalar(property);
    throwIllegalArgument("Property is not a floating point vector: ",
                         propertyTypeName(property.type()));
}

void throwNotFloatScalar(const Property& property) {
    throwIllegalArgument("Property is not a floating point scalar type: ",
                         propertyTypeName(property.type()));
}

void throwUnexpectedType(const Property& property, PropertyType expected,
                         std::string_view prefix) {
    throwWith<PropertyTypeMismatchException>(
        prefix, "Property \"", property.name(), "\" is of type ",
        propertyTypeName(property.type()), ", but we expected a property of type ",
        propertyTypeName(expected), " in this context.");
}

void requireType(const Property& property, PropertyType expected, std::string_view prefix) {
    if (property.type() != expected) throwUnexpectedType(property, expected, prefix);
}

void throwNotComparable(const Property& property, PropertyType valueType) {
    throwWith<PropertyTypeMismatchException>(
        "Property \"", property.name(), "\" is of type ", propertyTypeName(property.type()),
        " and cannot be compared to a value of type ", propertyTypeName(valueType));
}

}  // namespace quillmere
