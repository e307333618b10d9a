#pragma once

// Answers a question about one property over a query's matches. Objects whose field is null are
// left out, unless a replacement for null is given.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/int128.h"

namespace quillmere {

class Cursor;
class Property;
class Query;

// Wraps a query that must outlive it; used like the query. An operation that the property's type
// does not support throws IllegalStateException, or PropertyTypeMismatchException for lists.
class PropertyQuery {
public:
    template <class T>
    struct Result {
        int64_t count = 0;  // values that went in; -1: some, read from an index
        T value{};
    };

    // Throws if the property is not of the query's entity.
    PropertyQuery(Query& query, const Property& property);

    uint64_t count(Cursor& cursor);
    uint64_t countDistinct(Cursor& cursor, bool caseSensitive = true);
    // Of an unsigned property: its bit pattern. 0 without values.
    Result<int64_t> minInt(Cursor& cursor);
    Result<int64_t> maxInt(Cursor& cursor);
    // NaN without values; a NaN is never the answer to other values.
    Result<double> minDouble(Cursor& cursor);
    Result<double> maxDouble(Cursor& cursor);
    // Throws NumericOverflowException for a sum that the result can not hold.
    Result<int64_t> sumInt(Cursor& cursor);
    // A NaN ends the visit of this and the average.
    Result<double> sumDouble(Cursor& cursor);
    // The nearest integer, away from zero at a tie. 0 without values.
    Result<int64_t> avgInt(Cursor& cursor);
    Result<double> avgDouble(Cursor& cursor);  // NaN without values

    // The first value. With `unique` all others throw, with `distinct` those that differ.
    std::optional<std::string> findString(Cursor& cursor, bool unique, bool distinct,
                                          bool caseSensitive, const char* nullReplacement);
    // In the order of matches; with `distinct` the first spelling stays.
    std::vector<std::string> findStrings(Cursor& cursor, bool distinct, bool caseSensitive,
                                         const char* nullReplacement);
    // T: int8_t, int16_t, int32_t, int64_t, float or double, as wide as the property.
    template <class T>
    std::vector<T> findScalars(Cursor& cursor, bool distinct, const T* nullReplacement);

    Query& query() const { return query_; }
    const Property& property() const { return property_; }

private:
    enum class Extreme { Min, Max };

    [[noreturn]] void failUnsupported(std::string_view text) const;
    void start(const char* logText) const;
    template <class T, class Visitor>
    void visitValues(Cursor& cursor, const T* nullReplacement, Visitor&& visitor);
    template <class Visitor>
    void visitStrings(Cursor& cursor, const char* nullReplacement, Visitor&& visitor);

    Result<int64_t> extremeInt(Cursor& cursor, Extreme extreme);
    template <class T>
    Result<int64_t> visitExtremeInt(Cursor& cursor, Extreme extreme);
    template <class T>
    std::optional<Result<int64_t>> getIndexedScalarMinMax(Cursor& cursor, Extreme extreme);
    Result<double> extremeDouble(Cursor& cursor, Extreme extreme);
    Result<Int128> sumExactly(Cursor& cursor);
    Result<int64_t> sumUnsigned(Cursor& cursor);

    Query& query_;
    const Property& property_;
    const uint16_t fieldOffset_;
};

}  // namespace quillmere
