#pragma once

// Finds objects by the value of one property: through its index, or else by a walk over all
// objects. For callers that have a value and no query.

#include <concepts>
#include <cstdint>
#include <string_view>
#include <vector>

#include "core/bytes.h"

namespace quillmere {

class Cursor;
class IndexCursor;
class Property;
enum class PropertyType : uint16_t;

// Lives no longer than its cursor, whose place it moves; used on the thread of its transaction. The
// objects are views as the cursor gives them.
//
// Each operation is for exactly one type of property, which must belong to the cursor's entity;
// another type fails with IllegalArgumentException. An absent field matches nothing. Matches are
// appended to `objects`, by an index in the order of its keys, else by increasing ID; without a
// list, the search ends at the first one. The first one is returned too, empty if there is none. An
// index entry without its object fails with IllegalStateException.
class IndexedPropertyLookup {
public:
    explicit IndexedPropertyLookup(Cursor& cursor) : cursor_(cursor) {}

    Bytes findBool(const Property& property, bool value, std::vector<Bytes>* objects);
    // By an index, finds no negative value: entries hold the 8 bits alone, while the value is
    // widened with its sign.
    Bytes findByte(const Property& property, int8_t value, std::vector<Bytes>* objects);
    Bytes findShort(const Property& property, int16_t value, std::vector<Bytes>* objects);
    Bytes findInt(const Property& property, int32_t value, std::vector<Bytes>* objects);
    Bytes findLong(const Property& property, int64_t value, std::vector<Bytes>* objects);
    void findString(const Property& property, std::string_view value,
                    std::vector<Bytes>& objects);

private:
    IndexCursor* indexCursorFor(const Property& property) const;
    // `entryValue` is what the index is asked for.
    template <std::unsigned_integral T>
    Bytes findScalar(const Property& property, T value, uint64_t entryValue,
                     std::vector<Bytes>* objects);
    void findStringByIndex(IndexCursor& index, std::string_view value,
                           std::vector<Bytes>& objects);
    template <class Matches>
    Bytes scan(Matches matches, std::vector<Bytes>* objects);
    Bytes indexedObject(uint64_t id);

    Cursor& cursor_;
};

}  // namespace quillmere
