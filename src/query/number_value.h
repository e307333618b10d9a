#pragma once

// The C++ types behind the number properties: choosing, reading, and converting to them.

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "core/cast.h"
#include "core/endian.h"
#include "core/error.h"
#include "query/property_rules.h"
#include "schema/property.h"

namespace quillmere {

// Unsigned, and as wide as T.
template <class T>
using BitsOf = std::conditional_t<
    sizeof(T) == 8, uint64_t,
    std::conditional_t<sizeof(T) == 4, uint32_t,
                       std::conditional_t<sizeof(T) == 2, uint16_t, uint8_t>>>;

template <class T>
T loadNumber(const uint8_t* from) {
    return std::bit_cast<T>(loadLittle<BitsOf<T>>(from));
}

template <class Signed, class Visitor>
auto withSignOf(const Property& property, Visitor&& visit) {
    if (hasUnsignedValues(property)) return visit(std::type_identity<BitsOf<Signed>>());
    return visit(std::type_identity<Signed>());
}

// Calls `visit` with the std::type_identity of the property's values, or of a vector's elements.
template <class Visitor>
auto withIntegerType(const Property& property, Visitor&& visit) {
    switch (property.type()) {
        case PropertyType::Bool:
        case PropertyType::Byte:
        case PropertyType::BoolVector:
        case PropertyType::ByteVector: return withSignOf<int8_t>(property, visit);
        case PropertyType::Short:
        case PropertyType::Char:
        case PropertyType::ShortVector:
        case PropertyType::CharVector: return withSignOf<int16_t>(property, visit);
        case PropertyType::Int:
        case PropertyType::IntVector: return withSignOf<int32_t>(property, visit);
        case PropertyType::Long:
        case PropertyType::Date:
        case PropertyType::Relation:
        case PropertyType::DateNano:
        case PropertyType::LongVector:
        case PropertyType::DateVector:
        case PropertyType::DateNanoVector: return withSignOf<int64_t>(property, visit);
        default: throwNotIntegers(property);
    }
}

template <class Visitor>
auto withFloatType(const Property& property, Visitor&& visit) {
    switch (property.type()) {
        case PropertyType::Float:
        case PropertyType::FloatVector: return visit(std::type_identity<float>());
        case PropertyType::Double:
        case PropertyType::DoubleVector: return visit(std::type_identity<double>());
        default: throwNotFloats(property);
    }
}

inline bool holdsBools(const Property& property) {
    return property.type() == PropertyType::Bool || property.type() == PropertyType::BoolVector;
}

// From a double or a 64-bit integer to a type of the other kind; a value that would change throws
// NumericOverflowException with the value as it would have been cut.
template <class Target, class Source>
Target exactCast(Source value) {
    using Integer = std::conditional_t<std::integral<Target>, Target, Source>;
    using Float = std::conditional_t<std::integral<Target>, Source, Target>;
    // The integers end below this power of two, which every float can hold.
    using Limits = std::numeric_limits<Integer>;
    constexpr Float kEnd = Float{2} * static_cast<Float>(Limits::max() / 2 + 1);
    constexpr Float kStart = static_cast<Float>(Limits::min());

    const auto asFloat = static_cast<Float>(value);
    Integer asInteger = 0;  // also of a NaN
    if (asFloat >= kEnd) {
        asInteger = Limits::max();
    } else if (asFloat <= kStart) {
        asInteger = Limits::min();
    } else if (asFloat == asFloat) {
        asInteger = static_cast<Integer>(asFloat);
    }
    Target result;
    if constexpr (std::integral<Target>) result = asInteger;
    else result = asFloat;
    const bool exact = asFloat < kEnd && static_cast<Source>(asInteger) == value;
    if (!exact) throwNumeric(NumericFailure::Overflow, value, kCastMiddle, result);
    return result;
}

// A parameter as a value of the property. Bools become 0 or 1. An integer of 64 bits keeps its
// bits, so that the upper half of the unsigned ones can be told; others that do not fit throw
// NumericOverflowException. A double is rounded to a float.
template <class T>
T toPropertyValue(const Property& property, int64_t value) {
    if constexpr (std::floating_point<T>) {
        return exactCast<T>(value);
    } else {
        if (holdsBools(property)) return value != 0;
        if constexpr (sizeof(T) == sizeof value) return static_cast<T>(value);
        else return checkedCast<T>(value);
    }
}

template <class T>
T toPropertyValue(const Property& property, double value) {
    if constexpr (std::floating_point<T>) {
        return static_cast<T>(value);
    } else {
        if (holdsBools(property)) return value != 0;
        return exactCast<T>(value);
    }
}

}  // namespace quillmere
