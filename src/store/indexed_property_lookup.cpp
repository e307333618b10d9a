#include "store/indexed_property_lookup.h"

#include "core/endian.h"
#include "core/error.h"
#include "schema/index.h"
#include "schema/property.h"
#include "store/cursor.h"
#include "store/index_cursor.h"
#include "store/index_cursor_set.h"
#include "store/object_id.h"
#include "store/object_table.h"

namespace quillmere {

namespace {

void requireType(const Property& property, PropertyType type) {
    if (property.type() == type) return;
    throwIllegalArgument("Property \"", property.name(), "\" is of type ",
                         propertyTypeName(property.type()),
                         " and cannot be compared to a value of type ", propertyTypeName(type));
}

// Whether an object has the string, of which the first `known` bytes are known to be equal if the
// sizes are.
bool hasString(const Bytes& object, uint16_t flatOffset, std::string_view value, size_t known) {
    const std::string_view text = ObjectTable(object.data(), object.size()).string(flatOffset);
    return text.data() && text.size() == value.size() &&
           text.substr(known) == value.substr(known);
}

}  // namespace

Bytes IndexedPropertyLookup::findBool(const Property& property, bool value,
                                      std::vector<Bytes>* objects) {
    requireType(property, PropertyType::Bool);
    const uint8_t bits = value ? 1 : 0;
    return findScalar(property, bits, bits, objects);
}

Bytes IndexedPropertyLookup::findByte(const Property& property, int8_t value,
                                      std::vector<Bytes>* objects) {
    requireType(property, PropertyType::Byte);
    const auto widened = static_cast<uint32_t>(int32_t{value});
    return findScalar(property, static_cast<uint8_t>(value), widened, objects);
}

Bytes IndexedPropertyLookup::findShort(const Property& property, int16_t value,
                                       std::vector<Bytes>* objects) {
    requireType(property, PropertyType::Short);
    const auto bits = static_cast<uint16_t>(value);
    return findScalar(property, bits, bits, objects);
}

Bytes IndexedPropertyLookup::findInt(const Property& property, int32_t value,
                                     std::vector<Bytes>* objects) {
    requireType(property, PropertyType::Int);
    const auto bits = static_cast<uint32_t>(value);
    return findScalar(property, bits, bits, objects);
}

Bytes IndexedPropertyLookup::findLong(const Property& property, int64_t value,
                                      std::vector<Bytes>* objects) {
    requireType(property, PropertyType::Long);
    const auto bits = static_cast<uint64_t>(value);
    return findScalar(property, bits, bits, objects);
}

void IndexedPropertyLookup::findString(const Property& property, std::string_view value,
                                       std::vector<Bytes>& objects) {
    requireType(property, PropertyType::String);
    if (IndexCursor* const index = indexCursorFor(property)) {
        return findStringByIndex(*index, value, objects);
    }
    scan([&](const Bytes& object) { return hasString(object, property.flatOffset(), value, 0); },
         &objects);
}

IndexCursor* IndexedPropertyLookup::indexCursorFor(const Property& property) const {
    cursor_.requireStorage();
    IndexCursorSet* const indexes = cursor_.indexCursorSet();
    return indexes ? indexes->findIndexCursor(property.id()) : nullptr;
}

template <std::unsigned_integral T>
Bytes IndexedPropertyLookup::findScalar(const Property& property, T value, uint64_t entryValue,
                                        std::vector<Bytes>* objects) {
    IndexCursor* const index = indexCursorFor(property);
    if (!index) {
        const auto matches = [&](const Bytes& object) {
            const ObjectTable table(object.data(), object.size());
            const uint8_t* const field = table.field(property.flatOffset(), sizeof(T));
            return field && loadLittle<T>(field) == value;
        };
        return scan(matches, objects);
    }
    if (!objects) {
        const uint64_t id = index->findScalarIds64(entryValue, nullptr);
        return id == kNoId ? Bytes() : indexedObject(id);
    }
    std::vector<uint64_t> ids;
    index->findScalarIds64(entryValue, &ids);
    const size_t start = objects->size();
    for (const uint64_t id : ids) objects->push_back(indexedObject(id));
    return ids.empty() ? Bytes() : (*objects)[start];
}

// Not by findExactStringIds(), which would read the objects once more. A value index has compared
// the bytes that its entries hold.
void IndexedPropertyLookup::findStringByIndex(IndexCursor& index, std::string_view value,
                                              std::vector<Bytes>& objects) {
    std::vector<uint64_t> ids;
    bool notDefinite = false;
    index.findIds(value, &ids, notDefinite, IndexMatch::Equal);
    const size_t known =
        index.index().type() == IndexType::Value ? IndexCursor::kMaxStringValue : 0;
    const uint16_t flatOffset = index.property().flatOffset();
    for (const uint64_t id : ids) {
        const Bytes object = indexedObject(id);
        if (notDefinite && !hasString(object, flatOffset, value, known)) continue;
        objects.push_back(object);
    }
}

template <class Matches>
Bytes IndexedPropertyLookup::scan(Matches matches, std::vector<Bytes>* objects) {
    Bytes firstMatch;
    Bytes object;
    for (bool found = cursor_.first(object); found; found = cursor_.next(object)) {
        if (!matches(object)) continue;
        if (!firstMatch.data()) firstMatch.setView(object.data(), object.size());
        if (!objects) break;
        objects->emplace_back(object.data(), object.size());
    }
    return firstMatch;
}

Bytes IndexedPropertyLookup::indexedObject(uint64_t id) {
    Bytes object;
    if (!cursor_.get(id, object)) throwIllegalState("Indexed entity is unavailable");
    return object;
}

}  // namespace quillmere
