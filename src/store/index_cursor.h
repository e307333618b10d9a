#pragma once

// Writes and reads one value or hash index of an entity inside one transaction. An entry is a key
// with an (almost) empty value:
//
//     numbers, hashes   prefix (u32), value (u32 or u64), ID (u32 if it fits, else u64)
//     strings by value  prefix (u32), at most 479 bytes of the string and its final zero, ID (u64)
//
// Numbers are big-endian, so that keys sort like unsigned numbers: negative ones behind all others.
// The value is 0 to 3 zero bytes, which make the size of the entry a multiple of 4.

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "kv/partition_cursor.h"
#include "schema/index.h"
#include "schema/property_type.h"

namespace quillmere {

class Cursor;
class ObjectTable;
class Property;
class Transaction;

enum class IndexMatch : uint32_t {
    Equal = 0,
    StartsWith = 1,
    Greater = 2,         // ascending
    Less = 3,            // descending
    GreaterOrEqual = 4,  // ascending
    LessOrEqual = 5,     // descending
};

// Owned by an IndexCursorSet; used on its transaction's thread. Keys are built in the cursor's own
// buffer: upkeep and look-ups allocate nothing but the growth of a result list.
class IndexCursor {
public:
    // A string value in a key, terminating zero included.
    static constexpr size_t kMaxStringValue = 479;

    // Throws for an index that this kind of cursor can not hold.
    IndexCursor(const Index& index, Transaction& tx);
    IndexCursor(const IndexCursor&) = delete;
    IndexCursor& operator=(const IndexCursor&) = delete;

    const Index& index() const { return index_; }
    const Property& property() const { return property_; }
    bool unique() const { return unique_; }

    // Throws UniqueViolationException if another object than `id` has the new object's value, or
    // removes the others through `cursor` if the property replaces on conflict. No value conflicts
    // if it is absent, an empty string or a to-one relation to nothing.
    void checkUnique(uint64_t id, const ObjectTable& newTable, Cursor& cursor);
    // Brings the index in line for one put; `oldTable` is null for a new object.
    void updateEntry(uint64_t id, const ObjectTable& newTable, const ObjectTable* oldTable);
    void removeEntry(uint64_t id, const ObjectTable& table);
    uint64_t removeAllEntries();

    // Look-ups of strings. IDs are appended in key order, which is not numeric order; without a
    // list the first ID is returned, 0 for none. `outNotDefinite` is set if an object must be read
    // to know that it matches.
    uint64_t findIds(std::string_view value, std::vector<uint64_t>* ids, bool& outNotDefinite,
                     IndexMatch match);
    // Throws if the index alone does not know.
    uint64_t findFirstId(std::string_view value);
    // Reads the objects through `cursor` where the index alone does not know.
    void findExactStringIds(std::string_view value, std::vector<uint64_t>& ids, Cursor& cursor);
    // Look-ups of numbers and hashes.
    uint64_t findScalarIds32(uint32_t value, std::vector<uint64_t>* ids);
    uint64_t findScalarIds64(uint64_t value, std::vector<uint64_t>* ids);
    // Entries with this 64-bit value, at most `limit` of them (0: all).
    uint64_t countScalarIds64(uint64_t value, uint64_t limit);

    // The values at the ends of a scalar index, in the order of its keys; false if it is empty.
    bool firstValue(uint64_t& outValue);
    bool lastValue(uint64_t& outValue);

    // All entries of a scalar index, one after the other, at least until the next write to it: for
    // a walk over the references to removed objects.
    bool firstEntry();
    bool nextEntry();
    uint64_t entryValue() const;
    uint64_t entryId() const;

    // The transaction reads on from a newer snapshot, has ended, is being destroyed.
    void renew();
    void txEnded() { kv_.txEnded(); }
    void txGone() { kv_.txDestroyed(); }

private:
    static constexpr size_t kPrefixSize = 4;
    static constexpr size_t kKeyBufferSize = 512;

    bool isString() const { return type_ == PropertyType::String; }
    bool readScalar(const ObjectTable& table, uint64_t& outValue) const;
    void updateScalar(uint64_t id, const ObjectTable& newTable, const ObjectTable* oldTable);
    void updateString(uint64_t id, const ObjectTable& newTable, const ObjectTable* oldTable);
    void findHolders(const ObjectTable& newTable, Cursor& cursor, std::vector<uint64_t>& ids);
    void replaceHolder(uint64_t holder, Cursor& cursor);

    // Building a key: the value part, then all of it. Each gives the size so far.
    size_t setScalar(uint64_t value);
    size_t setStringPart(std::string_view value, size_t limit);
    size_t setScalarKey(uint64_t value, uint64_t id);
    size_t setStringKey(std::string_view value, uint64_t id);
    uint64_t hashOf(std::string_view value) const;
    void putEntry(size_t keySize);
    bool removeEntryAt(size_t keySize);

    template <std::unsigned_integral T>
    bool hasValue(T value) const;
    // Walks the entries of one value, for as long as `visit` (by ID) gives true.
    template <class Visit>
    void visitScalar(uint64_t value, Visit&& visit);
    uint64_t findScalarIds(uint64_t value, std::vector<uint64_t>* ids);
    uint64_t findByHash(std::string_view value, std::vector<uint64_t>* ids, bool& outNotDefinite);
    bool seekString(size_t searchSize, bool backward);
    bool hasSearched(size_t searchSize) const;
    uint64_t idOfStringEntry() const;
    uint64_t idOfScalarEntry() const;

    const Index& index_;
    Transaction& tx_;
    const Property& property_;
    const PropertyType type_;
    const uint16_t fieldOffset_;
    const uint8_t fieldSize_;  // of a number in an object
    const uint8_t valueSize_;  // of a number or hash in a key
    const IndexType indexType_;
    const bool unique_;
    const bool replaceOnConflict_;
    const bool readOnly_;
    std::array<uint8_t, kKeyBufferSize> keyBuffer_;  // the key last built; the prefix always
    PartitionCursor kv_;
    std::vector<uint64_t> holders_;  // scratch of checkUnique()
};

}  // namespace quillmere
