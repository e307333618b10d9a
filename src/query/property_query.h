#pragma once

// Answers a question about one property over a query's matches. Objects whose field is null are
// left out, unless a replacement for null is given.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillmere {

class Cursor;
class Property;
class Query;

// Wraps a query that must outlive it; used like the query.
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
    // Of an unsigned property: its bit pattern.
    Result<int64_t> minInt(Cursor& cursor);
    Result<int64_t> maxInt(Cursor& cursor);
    Result<double> minDouble(Cursor& cursor);
    Result<double> maxDouble(Cursor& cursor);
    Result<int64_t> sumInt(Cursor& cursor);
    Result<double> sumDouble(Cursor& cursor);
    Result<int64_t> avgInt(Cursor& cursor);
    Result<double> avgDouble(Cursor& cursor);

    std::optional<std::string> findString(Cursor& cursor, bool unique, bool distinct,
                                          bool caseSensitive, const char* nullReplacement);
    std::vector<std::string> findStrings(Cursor& cursor, bool distinct, bool caseSensitive,
                                         const char* nullReplacement);
    // T: int8_t, int16_t, int32_t, int64_t, float or double, as wide as the property.
    template <class T>
    std::vector<T> findScalars(Cursor& cursor, bool distinct, const T* nullReplacement);

    Query& query() const { return query_; }
    const Property& property() const { return property_; }

private:
    Query& query_;
    const Property& property_;
    const uint32_t queryNumber_;
    const uint16_t fieldOffset_;
    const bool logQueries_;
};

}  // namespace quillmere
