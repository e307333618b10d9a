#include "query/property_query.h"

#include <limits>
#include <type_traits>

#include "core/cast.h"
#include "core/checks.h"
#include "core/error.h"
#include "core/int128.h"
#include "query/distinct_values.h"
#include "query/float_sum.h"
#include "query/number_value.h"
#include "query/property_rules.h"
#include "query/query.h"
#include "query/visit_matches.h"
#include "schema/entity.h"
#include "schema/property.h"
#include "store/index_cursor.h"
#include "store/index_cursor_set.h"

namespace quillmere {
namespace {

constexpr int64_t kCountUnknown = -1;  // some values, read from an index

bool hasIntegers(const Property& property) {
    return isIntegerScalar(property.type());
}

bool hasFloats(const Property& property) {
    return isFloatScalar(property.type());
}

// Types that have an order of integers.
bool hasOrderedIntegers(const Property& property) {
    return hasIntegers(property) && property.type() != PropertyType::Bool;
}

// The types that a list of T is made of; the first is the one that messages name.
template <class T>
void requireListType(const Property& property) {
    const PropertyType type = property.type();
    if constexpr (std::is_same_v<T, int8_t>) {
        if (type != PropertyType::Bool) requireType(property, PropertyType::Byte);
    } else if constexpr (std::is_same_v<T, int16_t>) {
        if (type != PropertyType::Char) requireType(property, PropertyType::Short);
    } else if constexpr (std::is_same_v<T, int32_t>) {
        requireType(property, PropertyType::Int);
    } else if constexpr (std::is_same_v<T, int64_t>) {
        if (isDateType(type) || type == PropertyType::Relation) return;
        requireType(property, PropertyType::Long);
    } else if constexpr (std::is_same_v<T, float>) {
        requireType(property, PropertyType::Float);
    } else {
        requireType(property, PropertyType::Double);
    }
}

}  // namespace

PropertyQuery::PropertyQuery(Query& query, const Property& property)
    : query_(query), property_(property), fieldOffset_(property.flatOffset()) {
    if (query.entity().findPropertyById(property.id()) == &property) return;
    throwIllegalArgument("Cannot create property query: ", property.text(),
                         " is not part of type ", query.entity().name(),
                         ", which the Query was built for");
}

// --- the frame ------------------------------------------------------------------------------------

void PropertyQuery::failUnsupported(std::string_view text) const {
    throwIllegalState(text, "This operation is not supported for ", property_.text());
}

void PropertyQuery::start(const char* logText) const {
    query_.checkUsable();
    query_.logOperation(logText);
}

// Until the visitor returns false.
template <class T, class Visitor>
void PropertyQuery::visitValues(Cursor& cursor, const T* nullReplacement, Visitor&& visitor) {
    query_.visitMatches(cursor, [&](uint64_t, const ObjectTable& table, const Bytes&) -> bool {
        const uint8_t* const field = table.field(fieldOffset_, sizeof(T));
        if (field) return visitor(loadNumber<T>(field));
        return !nullReplacement || visitor(*nullReplacement);
    });
}

template <class Visitor>
void PropertyQuery::visitStrings(Cursor& cursor, const char* nullReplacement, Visitor&& visitor) {
    query_.visitMatches(cursor, [&](uint64_t, const ObjectTable& table, const Bytes&) -> bool {
        const std::string_view text = table.string(fieldOffset_);
        if (text.data()) return visitor(text);
        return !nullReplacement || visitor(std::string_view(nullReplacement));
    });
}

// --- counts ---------------------------------------------------------------------------------------

uint64_t PropertyQuery::count(Cursor& cursor) {
    start("Getting count property using query");
    uint64_t count = 0;
    query_.visitMatches(cursor, [&](uint64_t, const ObjectTable& table, const Bytes&) {
        // Fields of any type: a single byte is within each.
        if (table.field(fieldOffset_, 1)) ++count;
        return true;
    });
    return count;
}

uint64_t PropertyQuery::countDistinct(Cursor& cursor, bool caseSensitive) {
    const PropertyType type = property_.type();
    if (type < PropertyType::Byte || type > PropertyType::String) failUnsupported("");
    start("Getting count property using query");
    if (type == PropertyType::String) {
        DistinctStrings seen(caseSensitive);
        visitStrings(cursor, nullptr, [&](std::string_view text) {
            seen.add(text);
            return true;
        });
        return seen.size();
    }
    const auto countScalars = [&]<class T>(std::type_identity<T>) {
        DistinctScalars<T> seen;
        visitValues<T>(cursor, nullptr, [&](T value) {
            seen.add(value);
            return true;
        });
        return seen.size();
    };
    return hasFloats(property_) ? withFloatType(property_, countScalars)
                                : withIntegerType(property_, countScalars);
}

// --- minimum and maximum --------------------------------------------------------------------------

PropertyQuery::Result<int64_t> PropertyQuery::minInt(Cursor& cursor) {
    if (hasFloats(property_)) {
        failUnsupported("Use double based min (e.g. `minDouble()`) instead. ");
    }
    if (!hasOrderedIntegers(property_)) failUnsupported("");
    start("Getting min using query");
    return extremeInt(cursor, Extreme::Min);
}

PropertyQuery::Result<int64_t> PropertyQuery::maxInt(Cursor& cursor) {
    if (hasFloats(property_)) {
        failUnsupported("Use double based max (e.g. `maxDouble()`) instead. ");
    }
    if (!hasOrderedIntegers(property_)) failUnsupported("");
    start("Getting max using query");
    return extremeInt(cursor, Extreme::Max);
}

PropertyQuery::Result<int64_t> PropertyQuery::extremeInt(Cursor& cursor, Extreme extreme) {
    return withIntegerType(property_, [&]<class T>(std::type_identity<T>) {
        CHECK_STATE_TEXT_AT(526, hasUnsignedValues(property_) == std::is_unsigned_v<T>,
                            "minMaxInt", "property_.isUnsigned() == std::is_unsigned<T>::value");
        if (!query_.hasConditions() && !query_.hasLookups() && property_.isIndexed()) {
            if (const auto indexed = getIndexedScalarMinMax<T>(cursor, extreme)) return *indexed;
        }
        return visitExtremeInt<T>(cursor, extreme);
    });
}

template <class T>
PropertyQuery::Result<int64_t> PropertyQuery::visitExtremeInt(Cursor& cursor, Extreme extreme) {
    Result<int64_t> result;
    T best{};
    visitValues<T>(cursor, nullptr, [&](T value) {
        const bool better = extreme == Extreme::Min ? value < best : value > best;
        if (better || result.count == 0) best = value;
        ++result.count;
        return true;
    });
    result.value = static_cast<int64_t>(best);
    return result;
}

// Empty if the index can not answer: its entries sort as unsigned, so that negative values stand
// behind all others.
template <class T>
std::optional<PropertyQuery::Result<int64_t>> PropertyQuery::getIndexedScalarMinMax(
    Cursor& cursor, Extreme extreme) {
    if (hasUnsignedValues(property_) != std::is_unsigned_v<T>) {
        throwIllegalArgument("Type sign mismatch");
    }
    query_.checkCursor(cursor);
    IndexCursorSet* const indexCursorSet = cursor.indexCursorSet();
    CHECK_STATE_AT(67, indexCursorSet);
    IndexCursor* const indexCursor = indexCursorSet->findIndexCursor(property_.id());
    CHECK_STATE_AT(69, indexCursor);

    uint64_t firstValue = 0;
    if (!indexCursor->firstValue(firstValue)) return Result<int64_t>{};
    uint64_t lastValue = 0;
    const bool lastValueFound = indexCursor->lastValue(lastValue);
    CHECK_STATE_TEXT_AT(48, lastValueFound, "readIndexedScalarMinMax", "lastValueFound");
    if (std::is_signed_v<T> && static_cast<std::make_signed_t<T>>(lastValue) < 0) return {};
    query_.setRunState(1, 1, true);
    return Result<int64_t>{
        kCountUnknown, static_cast<int64_t>(extreme == Extreme::Min ? firstValue : lastValue)};
}

PropertyQuery::Result<double> PropertyQuery::minDouble(Cursor& cursor) {
    if (!hasFloats(property_)) failUnsupported("Not a floating point type. ");
    start("Getting min double using query");
    return extremeDouble(cursor, Extreme::Min);
}

PropertyQuery::Result<double> PropertyQuery::maxDouble(Cursor& cursor) {
    if (!hasFloats(property_)) failUnsupported("Not a floating point type. ");
    start("Getting max double using query");
    return extremeDouble(cursor, Extreme::Max);
}

PropertyQuery::Result<double> PropertyQuery::extremeDouble(Cursor& cursor, Extreme extreme) {
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    return withFloatType(property_, [&]<class T>(std::type_identity<T>) {
        Result<double> result{0, extreme == Extreme::Min ? kInfinity : -kInfinity};
        visitValues<T>(cursor, nullptr, [&](double value) {
            const bool better =
                extreme == Extreme::Min ? value < result.value : value > result.value;
            if (better) result.value = value;
            ++result.count;
            return true;
        });
        if (result.count == 0) result.value = std::numeric_limits<double>::quiet_NaN();
        return result;
    });
}

// --- sums and averages ----------------------------------------------------------------------------

// Can not overflow.
PropertyQuery::Result<Int128> PropertyQuery::sumExactly(Cursor& cursor) {
    return withIntegerType(property_, [&]<class T>(std::type_identity<T>) {
        Result<Int128> sum;
        visitValues<T>(cursor, nullptr, [&](T value) {
            sum.value += value;
            ++sum.count;
            return true;
        });
        return sum;
    });
}

PropertyQuery::Result<int64_t> PropertyQuery::sumInt(Cursor& cursor) {
    if (hasFloats(property_)) failUnsupported("Please use the double based sum instead. ");
    if (!hasIntegers(property_)) {
        failUnsupported("Cannot calculate sum. This function is for integer types only. ");
    }
    start("Getting sum using query");
    if (hasUnsignedValues(property_)) return sumUnsigned(cursor);
    const auto [count, sum] = sumExactly(cursor);
    const auto result = static_cast<int64_t>(sum);
    if (result != sum) {
        throwNumeric(NumericFailure::Overflow, static_cast<uint64_t>(sum), " high: ",
                     static_cast<int64_t>(sum >> 64));
    }
    return {count, result};
}

PropertyQuery::Result<int64_t> PropertyQuery::sumUnsigned(Cursor& cursor) {
    Result<uint64_t> sum;
    withIntegerType(property_, [&]<class T>(std::type_identity<T>) {
        visitValues<T>(cursor, nullptr, [&](T value) {
            const uint64_t before = sum.value;
            if (__builtin_add_overflow(before, static_cast<uint64_t>(value), &sum.value)) {
                throwNumeric(NumericFailure::Overflow, before, " + ", value);
            }
            ++sum.count;
            return true;
        });
    });
    const auto result = static_cast<int64_t>(sum.value);
    if (result < 0) {
        throwNumeric(NumericFailure::Overflow, sum.value, " conversion to signed int ", result);
    }
    return {sum.count, result};
}

PropertyQuery::Result<double> PropertyQuery::sumDouble(Cursor& cursor) {
    if (!hasIntegers(property_) && !hasFloats(property_)) {
        failUnsupported("Cannot calculate sum. ");
    }
    start("Getting double sum using query");
    if (hasIntegers(property_)) {
        const auto [count, sum] = sumExactly(cursor);
        return {count, toDouble(sum)};
    }
    return withFloatType(property_, [&]<class T>(std::type_identity<T>) {
        CompensatedSum sum;
        int64_t count = 0;
        visitValues<T>(cursor, nullptr, [&](double value) {
            ++count;
            return sum.add(value);
        });
        return Result<double>{count, sum.value()};
    });
}

PropertyQuery::Result<int64_t> PropertyQuery::avgInt(Cursor& cursor) {
    if (!hasIntegers(property_)) {
        failUnsupported("Please use the double based average instead. ");
    }
    start("Getting average using query");
    const auto [count, sum] = sumExactly(cursor);
    if (count == 0) return {};
    const Int128 average = divideRounded(sum, static_cast<uint64_t>(count));
    const auto result = static_cast<int64_t>(average);
    if (result != average) {
        throwNumeric(NumericFailure::Overflow, static_cast<uint64_t>(average), " avg with count ",
                     count);
    }
    return {count, result};
}

PropertyQuery::Result<double> PropertyQuery::avgDouble(Cursor& cursor) {
    if (!hasIntegers(property_) && !hasFloats(property_)) failUnsupported("");
    start("Getting double average using query");
    if (hasFloats(property_)) {
        return withFloatType(property_, [&]<class T>(std::type_identity<T>) {
            FloatMean mean;
            visitValues<T>(cursor, nullptr, [&](double value) { return mean.add(value); });
            return Result<double>{mean.count(), mean.value()};
        });
    }
    const auto [count, sum] = sumExactly(cursor);
    if (count == 0) return {0, std::numeric_limits<double>::quiet_NaN()};
    if (propertyTypeSize(property_.type()) <= sizeof(uint32_t)) {
        return {count, toDouble(sum) / static_cast<double>(count)};
    }
    const auto [quotient, remainder] = divideFloor(sum, static_cast<uint64_t>(count));
    return {count, static_cast<double>(quotient) +
                       static_cast<double>(remainder) / static_cast<double>(count)};
}

// --- values ---------------------------------------------------------------------------------------

std::optional<std::string> PropertyQuery::findString(Cursor& cursor, bool unique, bool distinct,
                                                     bool caseSensitive,
                                                     const char* nullReplacement) {
    requireType(property_, PropertyType::String);
    start("Finding string using query");
    std::optional<std::string> first;
    visitStrings(cursor, nullReplacement, [&](std::string_view text) {
        if (!first) {
            first.emplace(text);
            return unique;
        }
        const bool same = caseSensitive ? *first == text : foldAscii(*first) == foldAscii(text);
        if (!distinct || !same) {
            throwException("Query does not have a unique string result (more than one result)!");
        }
        return true;
    });
    return first;
}

std::vector<std::string> PropertyQuery::findStrings(Cursor& cursor, bool distinct,
                                                    bool caseSensitive,
                                                    const char* nullReplacement) {
    if (property_.type() != PropertyType::ByteVector) requireType(property_, PropertyType::String);
    start("Finding strings using query");
    std::vector<std::string> found;
    DistinctStrings seen(caseSensitive);
    visitStrings(cursor, nullReplacement, [&](std::string_view text) {
        if (!distinct || seen.add(text)) found.emplace_back(text);
        return true;
    });
    return found;
}

template <class T>
std::vector<T> PropertyQuery::findScalars(Cursor& cursor, bool distinct,
                                          const T* nullReplacement) {
    requireListType<T>(property_);
    start(distinct ? "Finding distinct scalars using query" : "Finding scalars using query");
    std::vector<T> found;
    DistinctScalars<T> seen;
    visitValues<T>(cursor, nullReplacement, [&](T value) {
        if (!distinct || seen.add(value)) found.push_back(value);
        return true;
    });
    return found;
}

template std::vector<int8_t> PropertyQuery::findScalars(Cursor&, bool, const int8_t*);
template std::vector<int16_t> PropertyQuery::findScalars(Cursor&, bool, const int16_t*);
template std::vector<int32_t> PropertyQuery::findScalars(Cursor&, bool, const int32_t*);
template std::vector<int64_t> PropertyQuery::findScalars(Cursor&, bool, const int64_t*);
template std::vector<float> PropertyQuery::findScalars(Cursor&, bool, const float*);
template std::vector<double> PropertyQuery::findScalars(Cursor&, bool, const double*);

}  // namespace quillmere
