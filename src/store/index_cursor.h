#pragma once

// Writes and reads one value or hash index of an entity inside one transaction.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "core/bytes.h"
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
    // removes the others through `cursor` if the property replaces on conflict.
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

    // All entries, one after the other: for a walk over the references to removed objects.
    bool firstEntry();
    bool nextEntry();
    uint64_t entryValue() const;
    uint64_t entryId() const;

    void renew();
    void txEnded();

private:
    static constexpr size_t kKeyBufferSize = 512;

    const Index& index_;
    Transaction& tx_;
    const uint32_t prefix_;
    PartitionCursor kv_;
    std::array<uint8_t, kKeyBufferSize> keyBuffer_;
    Bytes key_;  // the key last built or last read
    const Property& property_;
    const uint16_t fieldOffset_;
    const PropertyType type_;
    const IndexType indexType_;
    const bool unique_;
    const bool replaceOnConflict_;
    const bool readOnly_;
};

}  // namespace quillmere
