#include "store/index_cursor.h"

#include <xxhash.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

#include "core/endian.h"
#include "core/error.h"
#include "core/log.h"
#include "kv/db_store.h"
#include "kv/partition.h"
#include "schema/entity.h"
#include "schema/property.h"
#include "store/cursor.h"
#include "store/object_id.h"
#include "store/object_store.h"
#include "store/object_table.h"
#include "store/transaction.h"

namespace quillmere {

namespace {

constexpr size_t kShortIdSize = sizeof(uint32_t);
constexpr size_t kLongIdSize = sizeof(uint64_t);
// Around the value part of a string's entry: the prefix and the ID.
constexpr size_t kStringKeyOverhead = sizeof(uint32_t) + kLongIdSize;
constexpr size_t kSizeUnit = 4;  // of key size plus value size
constexpr uint8_t kZeroValue[kSizeUnit] = {};

// Takes the transaction's flag away again, however the replacing ends. One may be inside another.
class SilentChanges {
public:
    explicit SilentChanges(Transaction& tx) : tx_(tx), before_(tx.setSilentChanges(true)) {}
    ~SilentChanges() { tx_.setSilentChanges(before_); }
    SilentChanges(const SilentChanges&) = delete;
    SilentChanges& operator=(const SilentChanges&) = delete;

private:
    Transaction& tx_;
    const bool before_;
};

bool isScalar(PropertyType type) {
    return type >= PropertyType::Bool && type <= PropertyType::DateNano &&
           type != PropertyType::String;
}

uint8_t fieldSizeOf(PropertyType type) {
    return isScalar(type) ? static_cast<uint8_t>(propertyTypeSize(type)) : uint8_t{0};
}

uint8_t valueSizeOf(const Index& index, PropertyType type) {
    if (type == PropertyType::String) return index.type() == IndexType::Hash64 ? 8 : 4;
    return fieldSizeOf(type) == sizeof(uint64_t) ? 8 : 4;
}

const Property& checkedProperty(const Index& index, Transaction& tx) {
    const Property& property = index.property();
    if (index.type() != IndexType::Value && property.type() != PropertyType::String) {
        throwIllegalArgument("Only string types may have non-value index types for now");
    }
    if (property.type() == PropertyType::Float || property.type() == PropertyType::Double) {
        throwSchema("Indexing of float and double is currently unavailable. ",
                    "Please remove the index on ", property.name());
    }
    const auto limit = static_cast<int64_t>(tx.store().dbStore().maxKeySize()) -
                       static_cast<int64_t>(kStringKeyOverhead);
    if (limit < static_cast<int64_t>(IndexCursor::kMaxStringValue)) {
        throwIllegalState("Env size limit insufficient for index: ", limit);
    }
    return property;
}

PartitionCursor::Config partitionOf(const Index& index) {
    PartitionCursor::Config config;
    config.firstPrefix = partitionPrefix(PartitionType::Index, index.id());
    config.lastPrefix = config.firstPrefix;
    return config;
}

[[noreturn, gnu::cold, gnu::noinline]] void throwUnsupported(const char* what, PropertyType type) {
    if (type == PropertyType::Float) throwException("Float indexes are currently not supported");
    if (type == PropertyType::Double) throwException("Double indexes are currently not supported");
    throwIllegalArgument(what, static_cast<int64_t>(type));
}

[[noreturn, gnu::cold, gnu::noinline]] void throwEntrySize(size_t size) {
    throwWith<DbFileCorruptException>("Illegal index entry size: ", std::to_string(size));
}

[[noreturn, gnu::cold, gnu::noinline]] void throwUniqueViolation(const Property& property, uint64_t id,
                                                  uint64_t holder, const Cursor& cursor) {
    throwWith<UniqueViolationException>(
        "Unique constraint for ", cursor.entity() ? cursor.entity()->name() + "." : std::string(),
        property.name(), " would be violated by putting object with ID ", std::to_string(id),
        " because same property value already exists in object with ID ", std::to_string(holder));
}

}  // namespace

IndexCursor::IndexCursor(const Index& index, Transaction& tx)
    : index_(index),
      tx_(tx),
      property_(checkedProperty(index, tx)),
      type_(property_.type()),
      fieldOffset_(property_.flatOffset()),
      fieldSize_(fieldSizeOf(type_)),
      valueSize_(valueSizeOf(index, type_)),
      indexType_(index.type()),
      unique_(index.unique()),
      replaceOnConflict_(property_.hasFlag(kPropertyReplaceOnConflict)),
      readOnly_(tx.readOnly()),
      kv_(tx, partitionOf(index)) {
    storeBig(keyBuffer_.data(), partitionPrefix(PartitionType::Index, index.id()));
}

void IndexCursor::renew() {
    if (!readOnly_) {
        throwIllegalState("Only index cursors bound to read-only transactions may be renewed");
    }
    if (!tx_.active()) throwIllegalState("Transaction is not active");
    kv_.renew();
}

// --- keys ----------------------------------------------------------------------------------------

size_t IndexCursor::setScalar(uint64_t value) {
    uint8_t* const place = keyBuffer_.data() + kPrefixSize;
    if (valueSize_ == sizeof(uint64_t)) {
        storeBig(place, value);
    } else {
        storeBig(place, static_cast<uint32_t>(value));
    }
    return kPrefixSize + valueSize_;
}

// The first `limit` bytes, at most, of the string and its final zero.
size_t IndexCursor::setStringPart(std::string_view value, size_t limit) {
    uint8_t* const place = keyBuffer_.data() + kPrefixSize;
    const size_t copied = value.copy(reinterpret_cast<char*>(place), limit);
    if (copied == limit) return kPrefixSize + limit;
    place[copied] = 0;
    return kPrefixSize + copied + 1;
}

size_t IndexCursor::setScalarKey(uint64_t value, uint64_t id) {
    if (id == kNoId) throwIllegalArgument("ID must not be zero");
    const size_t size = setScalar(value);
    if (id <= kHighestShortId) [[likely]] {
        storeBig(keyBuffer_.data() + size, static_cast<uint32_t>(id));
        return size + kShortIdSize;
    }
    storeBig(keyBuffer_.data() + size, id);
    return size + kLongIdSize;
}

size_t IndexCursor::setStringKey(std::string_view value, uint64_t id) {
    if (indexType_ != IndexType::Value) return setScalarKey(hashOf(value), id);
    if (id == kNoId) throwIllegalArgument("Key must not be zero");
    const size_t size = setStringPart(value, kMaxStringValue);
    storeBig(keyBuffer_.data() + size, id);
    return size + kLongIdSize;
}

uint64_t IndexCursor::hashOf(std::string_view value) const {
    switch (indexType_) {
        case IndexType::Hash:
            return XXH32(value.data(), value.size(), 0);
        case IndexType::Hash64:
            return XXH64(value.data(), value.size(), 0);
        default:
            throwIllegalState("Unexpected index type");
    }
}

void IndexCursor::putEntry(size_t keySize) {
    kv_.put(keyBuffer_.data(), keySize, kZeroValue, (size_t{0} - keySize) % kSizeUnit);
}

bool IndexCursor::removeEntryAt(size_t keySize) {
    return kv_.seek(keyBuffer_.data(), keySize) && kv_.removeCurrent();
}

// --- upkeep --------------------------------------------------------------------------------------

// Whether the object has the field; gives 0 if not.
bool IndexCursor::readScalar(const ObjectTable& table, uint64_t& outValue) const {
    outValue = 0;
    const uint8_t* const field = table.field(fieldOffset_, fieldSize_);
    if (!field) return false;
    switch (fieldSize_) {
        case sizeof(uint8_t):
            outValue = *field;
            break;
        case sizeof(uint16_t):
            outValue = loadLittle<uint16_t>(field);
            break;
        case sizeof(uint32_t):
            outValue = loadLittle<uint32_t>(field);
            break;
        default:
            outValue = loadLittle<uint64_t>(field);
    }
    return true;
}

void IndexCursor::updateEntry(uint64_t id, const ObjectTable& newTable,
                              const ObjectTable* oldTable) {
    if (fieldSize_ != 0) {
        updateScalar(id, newTable, oldTable);
    } else if (isString()) {
        updateString(id, newTable, oldTable);
    } else if (type_ != PropertyType::FloatVector) {
        throwUnsupported("Unsupported type for indexing: ", type_);
    }
}

// An absent new field compares like 0: a present old 0 then keeps its entry.
void IndexCursor::updateScalar(uint64_t id, const ObjectTable& newTable,
                               const ObjectTable* oldTable) {
    uint64_t newValue = 0;
    uint64_t oldValue = 0;
    const bool hasNew = readScalar(newTable, newValue);
    if (oldTable && readScalar(*oldTable, oldValue)) {
        if (oldValue == newValue) return;
        removeEntryAt(setScalarKey(oldValue, id));
    }
    if (hasNew) putEntry(setScalarKey(newValue, id));
}

// The same for an absent new string and an empty old one.
void IndexCursor::updateString(uint64_t id, const ObjectTable& newTable,
                               const ObjectTable* oldTable) {
    const std::string_view newValue = newTable.string(fieldOffset_);
    if (oldTable) {
        const std::string_view oldValue = oldTable->string(fieldOffset_);
        if (oldValue.data()) {
            if (oldValue == newValue) return;
            removeEntryAt(setStringKey(oldValue, id));
        }
    }
    if (newValue.data()) putEntry(setStringKey(newValue, id));
}

void IndexCursor::removeEntry(uint64_t id, const ObjectTable& table) {
    size_t keySize = 0;
    if (fieldSize_ != 0) {
        uint64_t value = 0;
        if (readScalar(table, value)) keySize = setScalarKey(value, id);
    } else if (isString()) {
        const std::string_view value = table.string(fieldOffset_);
        if (value.data()) keySize = setStringKey(value, id);
    }
    if (keySize != 0 && !removeEntryAt(keySize)) {
        logLine("%s [ERROR] Could not remove index entry: not found\n", logTimestamp());
    }
}

uint64_t IndexCursor::removeAllEntries() {
    return kv_.removeAll();
}

// --- uniqueness ----------------------------------------------------------------------------------

void IndexCursor::checkUnique(uint64_t id, const ObjectTable& newTable, Cursor& cursor) {
    // Replacing may come back to this index, and then needs a list of its own.
    std::vector<uint64_t> ids = std::exchange(holders_, {});
    ids.clear();
    findHolders(newTable, cursor, ids);
    for (const uint64_t holder : ids) {
        if (holder == id) continue;
        if (!replaceOnConflict_) throwUniqueViolation(property_, id, holder, cursor);
        replaceHolder(holder, cursor);
    }
    holders_ = std::move(ids);
}

// The objects with the value of this one. Absent fields, empty strings and to-one relations that
// refer to nothing never conflict: else removing the targets of two objects would fail, or remove
// one of the two.
void IndexCursor::findHolders(const ObjectTable& newTable, Cursor& cursor,
                              std::vector<uint64_t>& ids) {
    if (fieldSize_ != 0) {
        uint64_t value = 0;
        if (!readScalar(newTable, value)) return;
        if (value == kNoId && type_ == PropertyType::Relation) return;
        findScalarIds(value, &ids);
    } else if (isString()) {
        const std::string_view value = newTable.string(fieldOffset_);
        if (!value.empty()) findExactStringIds(value, ids, cursor);
    } else {
        throwUnsupported("Unsupported type for unique: ", type_);
    }
}

void IndexCursor::replaceHolder(uint64_t holder, Cursor& cursor) {
    const SilentChanges silentChanges(tx_);
    cursor.remove(holder);
}

// --- look-ups of numbers and hashes --------------------------------------------------------------

// Of the entry under the cursor, which must have the size of a scalar one.
inline uint64_t IndexCursor::idOfScalarEntry() const {
    const Bytes& key = kv_.key();
    const size_t idPlace = kPrefixSize + valueSize_;
    if (key.size() == idPlace + kShortIdSize) return loadBig<uint32_t>(key.data() + idPlace);
    if (key.size() == idPlace + kLongIdSize) return loadBig<uint64_t>(key.data() + idPlace);
    throwEntrySize(key.size());
}

// The prefix need not be compared: the cursor does not leave its partition.
template <std::unsigned_integral T>
inline bool IndexCursor::hasValue(T value) const {
    const Bytes& key = kv_.key();
    return key.size() >= kPrefixSize + sizeof(T) && loadBig<T>(key.data() + kPrefixSize) == value;
}

template <class Visit>
void IndexCursor::visitScalar(uint64_t value, Visit&& visit) {
    bool found = kv_.seekOrNext(keyBuffer_.data(), setScalar(value));
    if (valueSize_ == sizeof(uint32_t)) {
        const auto shortValue = static_cast<uint32_t>(value);
        while (found && hasValue(shortValue) && visit(idOfScalarEntry())) found = kv_.next();
    } else {
        while (found && hasValue(value) && visit(idOfScalarEntry())) found = kv_.next();
    }
}

// Whether the entry under the cursor starts with what was searched for.
bool IndexCursor::hasSearched(size_t searchSize) const {
    const Bytes& key = kv_.key();
    return key.size() >= searchSize &&
           std::memcmp(key.data(), keyBuffer_.data(), searchSize) == 0;
}

uint64_t IndexCursor::findScalarIds(uint64_t value, std::vector<uint64_t>* ids) {
    uint64_t first = kNoId;
    visitScalar(value, [&](uint64_t id) {
        if (first == kNoId) first = id;
        if (ids) ids->push_back(id);
        return ids != nullptr;
    });
    return first;
}

uint64_t IndexCursor::findScalarIds32(uint32_t value, std::vector<uint64_t>* ids) {
    return findScalarIds(value, ids);
}

uint64_t IndexCursor::findScalarIds64(uint64_t value, std::vector<uint64_t>* ids) {
    return findScalarIds(value, ids);
}

uint64_t IndexCursor::countScalarIds64(uint64_t value, uint64_t limit) {
    uint64_t count = 0;
    visitScalar(value, [&](uint64_t) { return ++count != limit; });
    return count;
}

bool IndexCursor::firstValue(uint64_t& outValue) {
    if (!firstEntry()) return false;
    outValue = entryValue();
    return true;
}

bool IndexCursor::lastValue(uint64_t& outValue) {
    // Behind every ID of the highest value: IDs are never all ones.
    const size_t valueEnd = setScalar(std::numeric_limits<uint64_t>::max());
    std::memset(keyBuffer_.data() + valueEnd, 0xFF, kLongIdSize);
    if (!kv_.seekOrPrevious(keyBuffer_.data(), valueEnd + kLongIdSize)) return false;
    outValue = entryValue();
    return true;
}

bool IndexCursor::firstEntry() {
    return kv_.first();
}

bool IndexCursor::nextEntry() {
    return kv_.next();
}

uint64_t IndexCursor::entryValue() const {
    idOfScalarEntry();  // checks the size
    const uint8_t* const value = kv_.key().data() + kPrefixSize;
    return valueSize_ == sizeof(uint64_t) ? loadBig<uint64_t>(value) : loadBig<uint32_t>(value);
}

uint64_t IndexCursor::entryId() const {
    return idOfScalarEntry();
}

// --- look-ups of strings -------------------------------------------------------------------------

uint64_t IndexCursor::idOfStringEntry() const {
    const Bytes& key = kv_.key();
    if (key.size() <= kStringKeyOverhead || key.size() > kStringKeyOverhead + kMaxStringValue) {
        throwEntrySize(key.size());
    }
    return loadBig<uint64_t>(key.data() + key.size() - kLongIdSize);
}

// A hash alone proves nothing.
uint64_t IndexCursor::findByHash(std::string_view value, std::vector<uint64_t>* ids,
                                 bool& outNotDefinite) {
    const uint64_t first = findScalarIds(hashOf(value), ids);
    outNotDefinite = first != kNoId;
    return first;
}

// Whether an entry that starts with the searched bytes matches. If it ends with them, its string is
// the value; else it has a zero behind the value, or the value is but a prefix.
static bool matchesSearched(IndexMatch match, bool ends) {
    switch (match) {
        case IndexMatch::Equal:
        case IndexMatch::LessOrEqual: return ends;
        case IndexMatch::Greater: return !ends;
        case IndexMatch::Less: return false;
        default: return true;
    }
}

// Moves to the first entry that may match.
bool IndexCursor::seekString(size_t searchSize, bool backward) {
    if (!backward) return kv_.seekOrNext(keyBuffer_.data(), searchSize);
    std::memset(keyBuffer_.data() + searchSize, 0xFF, kLongIdSize);
    return kv_.seekOrPrevious(keyBuffer_.data(), searchSize + kLongIdSize);
}

uint64_t IndexCursor::findIds(std::string_view value, std::vector<uint64_t>* ids,
                              bool& outNotDefinite, IndexMatch match) {
    if (match > IndexMatch::LessOrEqual) throwIllegalArgument("Unsupported match type");
    if (indexType_ != IndexType::Value) return findByHash(value, ids, outNotDefinite);

    const size_t wanted = value.size() + (match == IndexMatch::StartsWith ? 0 : 1);
    outNotDefinite = wanted > kMaxStringValue;
    const size_t searchSize = setStringPart(value, std::min(wanted, kMaxStringValue));
    const bool bounded = match == IndexMatch::Equal || match == IndexMatch::StartsWith;
    const bool backward = match == IndexMatch::Less || match == IndexMatch::LessOrEqual;
    uint64_t first = kNoId;
    bool searched = true;  // the entries that start with the searched bytes come first
    for (bool found = seekString(searchSize, backward); found;
         found = backward ? kv_.previous() : kv_.next()) {
        searched = searched && hasSearched(searchSize);
        if (bounded && !searched) break;
        const bool ends = kv_.key().size() == searchSize + kLongIdSize;
        // Of a value that was cut, only the object tells.
        if (searched && !outNotDefinite && !matchesSearched(match, ends)) continue;
        const uint64_t id = idOfStringEntry();
        if (!ids) return id;
        if (first == kNoId) first = id;
        ids->push_back(id);
    }
    return first;
}

uint64_t IndexCursor::findFirstId(std::string_view value) {
    bool notDefinite = false;
    const uint64_t id = findIds(value, nullptr, notDefinite, IndexMatch::Equal);
    if (notDefinite) throwException("Index could not provide a definite match");
    return id;
}

void IndexCursor::findExactStringIds(std::string_view value, std::vector<uint64_t>& ids,
                                     Cursor& cursor) {
    const auto start = static_cast<std::ptrdiff_t>(ids.size());
    bool notDefinite = false;
    findIds(value, &ids, notDefinite, IndexMatch::Equal);
    if (!notDefinite) return;
    const auto isOther = [&](uint64_t id) {
        Bytes object;
        if (!cursor.get(id, object)) {
            throwWith<DbFileCorruptException>("Entity unavailable for indexed ID ",
                                              std::to_string(id));
        }
        const ObjectTable table(object.data(), object.size());
        const std::string_view text = table.string(fieldOffset_);
        return !text.data() || text != value;
    };
    ids.erase(std::remove_if(ids.begin() + start, ids.end(), isOther), ids.end());
}

}  // namespace quillmere
