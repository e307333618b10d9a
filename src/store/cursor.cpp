#include "store/cursor.h"

#include <string>
#include <thread>

#include "core/cast.h"
#include "core/checks.h"
#include "core/endian.h"
#include "core/error.h"
#include "core/log.h"
#include "core/store_options.h"
#include "kv/partition.h"
#include "schema/entity.h"
#include "schema/relation.h"
#include "schema/schema.h"
#include "store/collector.h"
#include "store/index_cursor.h"
#include "store/index_cursor_set.h"
#include "store/object_id.h"
#include "store/object_store.h"
#include "store/object_table.h"
#include "store/relation_cursor.h"
#include "store/transaction.h"

namespace quillmere {

namespace {

constexpr uint32_t kObjectPadding = 4;
constexpr size_t kPrefixSize = 4;
constexpr size_t kShortKeySize = kPrefixSize + sizeof(uint32_t);
constexpr size_t kLongKeySize = kPrefixSize + sizeof(uint64_t);
constexpr size_t kMaxObjectSize = 0xFFFFFFFC;  // what the engine takes, in multiples of 4

uint32_t checkedPrefix(uint32_t prefix) {
    if (subPartitionOf(prefix) != 0) throwIllegalArgument("Illegal sub partition");
    return prefix;
}

[[noreturn, gnu::cold, gnu::noinline]] void throwTooLarge(size_t size) {
    throwIllegalArgument("Object is too large to be stored: ", std::to_string(size));
}

[[noreturn, gnu::cold, gnu::noinline]] void throwUnexpectedKey(size_t size) {
    throw DbFileCorruptException(
        (size < kPrefixSize ? "Corrupt entity partition, min key size violated: "
                            : "Unexpected key size: ") +
        std::to_string(size));
}

// Makes a copy of the object with another value in a field that it has.
void copyWithScalar(const Bytes& object, uint16_t flatOffset, uint64_t value, Bytes& outCopy) {
    if (!object.data()) throwIllegalArgument("For copy on write, you must define source data");
    outCopy.assign(object.data(), object.size(), CopyMode::KeepSize);
    const MutableObjectTable table(outCopy.mutableData(), object.size());
    if (!table) throwIllegalArgument("No table given");
    uint8_t* const field = table.field(flatOffset, sizeof value);
    if (!field) {
        throwException("Setting scalar to new value failed for offset ",
                       std::to_string(flatOffset));
    }
    storeLittle(field, value);
}

[[noreturn, gnu::cold, gnu::noinline]] void throwPutRefused(int32_t mode, uint64_t id) {
    if (mode == kPutInsert) {
        throwWith<IdAlreadyExistsException>("Insert failed, given ID already exists: ",
                                            std::to_string(id));
    }
    if (mode == kPutUpdate) {
        throwWith<IdNotFoundException>("Update failed, given ID doesn't exist: ",
                                       std::to_string(id));
    }
    throwException("Put failed with an unknown error");
}

}  // namespace

Cursor::Cursor(Transaction& tx, const Config& config)
    : tx_(&tx),
      store_(tx.store()),
      activity_(store_.activity_),
      entity_(config.entity),
      shortPrefix_(checkedPrefix(config.prefix)),
      longPrefix_(shortPrefix_ | 1),
      kv_(tx, {.firstPrefix = shortPrefix_,
               .lastPrefix = longPrefix_,
               .dataPadding = kObjectPadding,
               .closeInDestructor = false}),
      txNumber_(tx.number()),
      paddingMode_(store_.putPaddingMode()),
      idFlatOffset_(entity_ ? entity_->idProperty().flatOffset() : 0),
      readOnly_(tx.readOnly()),
      registered_(config.registered),
      trackSize_(entity_ && tx.trackDataSize()),
      allowAnyId_(config.allowAnyId) {
    if (!entity_) return;
    if (!readOnly_) refuseWithoutSync();
    if (!entity_->indexes().empty()) {
        indexCursorSet_ = std::make_unique<IndexCursorSet>(*entity_, tx);
    }
    if (!entity_->relations().empty()) {
        relationCursorSet_ = std::make_unique<RelationCursorSet>(*entity_, tx);
    }
    if (!readOnly_) entityState_ = &store_.entityState(*entity_, this);
}

void Cursor::refuseWithoutSync() const {
    if (!entity_->hasFlag(kEntitySyncEnabled) || tx_->skipSyncCheck()) return;
    throwIllegalState("Can not modify object of sync-enabled type \"", entity_->name(),
                      "\" because sync has not been activated for this store.");
}

Cursor::~Cursor() {
    leaveTransaction();
    externalCollectorOwner_.reset();
    if (!kv_.isReleased()) {
        logLine("%s [WARN ] Skipped low-level close of cursor (%s, TX #%zu %s)\n", logTimestamp(),
                readOnly_ ? "read" : "write", static_cast<size_t>(txNumber_),
                txGone_ ? "destroyed" : "alive");
    }
}

// The destroying transaction holds its mutex of cursors and tries the one of a cursor; this one
// goes the other way round, and so must not wait either. As long as this mutex is held and txGone_
// is false, the transaction is alive; from then on as long as its mutex of cursors is held.
void Cursor::leaveTransaction() noexcept {
    if (!registered_) {
        if (!txGone_) closeLowLevel();
        return;
    }
    std::unique_lock own(mutex_);
    while (!txGone_) {
        const std::unique_lock cursors(tx_->cursorsMutex(), std::try_to_lock);
        if (cursors.owns_lock()) {
            tx_->removeCursorLocked(this);
            closeLowLevel();
            return;
        }
        own.unlock();
        std::this_thread::yield();
        own.lock();
    }
}

void Cursor::closeLowLevel() noexcept {
    siblings_.clear();
    indexCursorSet_.reset();
    relationCursorSet_.reset();
    try {
        kv_.close(true);
    } catch (...) {  // the destructor tells
    }
}

void Cursor::txEnded() noexcept {
    kv_.txEnded();
    if (indexCursorSet_) indexCursorSet_->txEnded();
    if (relationCursorSet_) relationCursorSet_->txEnded();
    for (const auto& [id, sibling] : siblings_) sibling->txEnded();
}

void Cursor::txRenewed() {
    kv_.renew();
    if (indexCursorSet_) indexCursorSet_->renew();
    if (relationCursorSet_) relationCursorSet_->renew();
    for (const auto& [id, sibling] : siblings_) sibling->txRenewed();
}

void Cursor::txGone() noexcept {
    txGone_ = true;
    kv_.txDestroyed();
    if (indexCursorSet_) indexCursorSet_->txGone();
    if (relationCursorSet_) relationCursorSet_->txGone();
    for (const auto& [id, sibling] : siblings_) sibling->txGone();
}

void Cursor::failClosed() {
    throwWith<StoreClosedException>("Store is already closed");
}

// --- the place --------------------------------------------------------------------------------

// Of a move that may have found any key. An exact match needs no check.
inline bool Cursor::checked(bool found) const {
    if (found) {
        const size_t size = kv_.key().size();
        if (size != kShortKeySize && size != kLongKeySize) [[unlikely]] throwUnexpectedKey(size);
    }
    return found;
}

// The ID of the current object; 0 before the first, all ones behind the last.
uint64_t Cursor::place() const {
    switch (kv_.position()) {
        case PartitionCursor::Position::On:
            break;
        case PartitionCursor::Position::Behind:
            return kIdAllOnes;
        default:
            return kNoId;
    }
    checked(true);
    const Bytes& key = kv_.key();
    return key.size() == kShortKeySize ? loadBig<uint32_t>(key.data() + kPrefixSize)
                                       : loadBig<uint64_t>(key.data() + kPrefixSize);
}

inline void Cursor::setKey(uint64_t id) {
    if (!isObjectId(id) && !allowAnyId_) [[unlikely]] throwIllegalId(id);
    if (id <= kHighestShortId) [[likely]] {
        storeBig(keyBuffer_.data(), shortPrefix_);
        storeBig(keyBuffer_.data() + kPrefixSize, static_cast<uint32_t>(id));
        keySize_ = kShortKeySize;
    } else {
        storeBig(keyBuffer_.data(), longPrefix_);
        storeBig(keyBuffer_.data() + kPrefixSize, id);
        keySize_ = kLongKeySize;
    }
}

// Back to a place left for a look elsewhere. What was current then still exists.
void Cursor::moveTo(uint64_t id) {
    if (isObjectId(id)) {
        seek(id);
    } else if (id == kNoId) {
        kv_.setPartition(shortPrefix_, longPrefix_);
    } else {
        setKey(kHighestId);
        if (kv_.seekOrNext(keyBuffer_.data(), keySize_)) kv_.next();
    }
}

// --- reading ----------------------------------------------------------------------------------

bool Cursor::get(uint64_t id, Bytes& out) {
    setKey(id);
    return openKv().get(keyBuffer_.data(), keySize_, out);
}

bool Cursor::first(Bytes& out) {
    return checked(openKv().first(out));
}

bool Cursor::next(Bytes& out) {
    return checked(openKv().next(out));
}

bool Cursor::last(Bytes& out) {
    setKey(kHighestId);
    return checked(openKv().getOrPrevious(keyBuffer_.data(), keySize_, out));
}

bool Cursor::previous(Bytes& out) {
    return checked(openKv().previous(out));
}

bool Cursor::seek(uint64_t id) {
    setKey(id);
    return openKv().seek(keyBuffer_.data(), keySize_);
}

bool Cursor::seekOrNext(uint64_t id) {
    setKey(id);
    return checked(openKv().seekOrNext(keyBuffer_.data(), keySize_));
}

uint64_t Cursor::seekFirstId() {
    return openKv().first() ? place() : kNoId;
}

uint64_t Cursor::seekNextId() {
    return openKv().next() ? place() : kNoId;
}

// An object that another cursor removed meanwhile is no longer current.
uint64_t Cursor::currentId() {
    const uint64_t id = place();
    return isObjectId(id) && !openKv().current() ? kNoId : id;
}

uint64_t Cursor::highestId() {
    const uint64_t before = place();
    setKey(kHighestId);
    const uint64_t highest =
        openKv().seekOrPrevious(keyBuffer_.data(), keySize_) ? place() : kNoId;
    moveTo(before);
    return highest;
}

uint64_t Cursor::count(uint64_t max) {
    requireStorage();
    uint64_t baseTx = 0;
    if (entity_ && !txGone_ && tx_->isLatest(baseTx)) return countThroughCache(baseTx, max);
    return countObjects(max);
}

uint64_t Cursor::countThroughCache(uint64_t baseTx, uint64_t max) {
    if (!entityState_) entityState_ = &store_.entityState(*entity_, this);
    uint64_t count = 0;
    if (entityState_->cacheGet(baseTx, max, count)) return max != 0 && count > max ? max : count;
    count = countObjects(max);
    entityState_->cachePut(baseTx, max, count);
    return count;
}

uint64_t Cursor::countObjects(uint64_t max) {
    const uint64_t before = place();
    const uint64_t count = kv_.count(max);
    moveTo(before);
    return count;
}

// --- putting ----------------------------------------------------------------------------------

void Cursor::put(uint64_t id, const void* data, size_t size, int32_t mode) {
    if (!tryPut(id, data, size, mode)) throwPutRefused(mode, id);
}

bool Cursor::tryPut(uint64_t id, const void* data, size_t size, int32_t mode) {
    switch (mode) {
        case kPut:
            writeValue(id, data, size, true);
            return true;
        case kPutInsert:
            if (seek(id)) return false;
            writeValue(id, data, size, false);
            return true;
        case kPutUpdate:
            if (!seek(id)) return false;
            writeValue(id, data, size, true);
            return true;
        case kPutIdGuaranteedToBeNew:
            writeValue(id, data, size, false);
            return true;
        default:
            throwIllegalArgument("Illegal put mode: ", int64_t{mode});
    }
}

uint64_t Cursor::putObject(void* data, size_t size, int32_t mode) {
    void* const objectFlatBuffer = data;
    CHECK_ARG_NOT_NULL(objectFlatBuffer);
    const MutableObjectTable table(data, size);
    CHECK_STATE_AT(313, table);
    const uint64_t id = requireEntityState().prepareObjectForPut(true, table, mode);
    return tryPut(id, data, size, mode) ? id : kNoId;
}

uint64_t Cursor::idForPut(uint64_t id) {
    return requireEntityState().prepareIdForPut(id);
}

EntityState& Cursor::requireEntityState() const {
    if (readOnly_) throwException("Cannot put in read transaction");
    CHECK_STATE_TEXT_AT(729, entityState_, "prepareIdForPut", "entityState_");
    return *entityState_;
}

void Cursor::putRaw(uint64_t id, const void* data, size_t size) {
    setKey(id);
    openKv().put(keyBuffer_.data(), keySize_, data, size);
}

// The one place where objects are written. Arguments are refused before the indexes change.
void Cursor::writeValue(uint64_t id, const void* data, size_t size, bool isUpdate) {
    requireStorage();  // the indexes come before the object
    // Rounded up, a size near the end of the range would become 0.
    if (size > kMaxObjectSize) [[unlikely]] throwTooLarge(size);
    const size_t newSize = sizeToStore(size);
    setKey(id);
    if (indexCursorSet_) {
        indexCursorSet_->onPut(id, data, size, isUpdate, *this);
        setKey(id);  // objects were read meanwhile
    }
    const size_t oldSize = trackSize_ ? storedSize() : 0;
    openKv().put(keyBuffer_.data(), keySize_, data, newSize);
    if (trackSize_) {
        tx_->addDataSizeChange(checkedCast<int64_t>(kv_.paddedSize(newSize)) -
                               checkedCast<int64_t>(oldSize));
    }
    if (entity_) tx_->entityAffected(entity_->id());
}

size_t Cursor::sizeToStore(size_t size) const {
    if (paddingMode_ == kPaddingAutomatic) return (size + 3) & ~size_t{3};
    if (paddingMode_ == kPaddingByCaller && size % kObjectPadding != 0) {
        throwIllegalArgument("Object data is not correctly padded by caller: ",
                             std::to_string(size));
    }
    return size;
}

// Of the object that the key asks for, 0 if there is none.
size_t Cursor::storedSize() {
    size_t size = 0;
    if (kv_.seek(keyBuffer_.data(), keySize_)) kv_.currentValueSize(size);
    return size;
}

// --- removing ---------------------------------------------------------------------------------

bool Cursor::remove(uint64_t id) {
    return seek(id) && removeCurrent();
}

bool Cursor::removeCurrent() {
    requireStorage();
    const uint64_t id = place();
    if (!isObjectId(id)) return false;
    Bytes old;
    if (indexCursorSet_ && kv_.currentValue(old)) indexCursorSet_->onRemove(id, old);
    size_t oldSize = 0;
    if (trackSize_) kv_.currentValueSize(oldSize);
    if (!openKv().removeCurrent()) return false;
    if (trackSize_) tx_->addDataSizeChange(-checkedCast<int64_t>(oldSize));
    if (!entity_) return true;
    const uint64_t following = place();
    removeOutgoing(id);
    removeIncoming(id);
    // An object of this entity may have referred to the removed one, and was put then.
    if (place() != following) moveTo(following);
    tx_->entityAffected(entity_->id());
    return true;
}

void Cursor::removeOutgoing(uint64_t id) {
    if (!relationCursorSet_) return;
    for (const auto& relation : relationCursorSet_->all()) relation->removeAllFor(id, false);
}

// What others hold of this object: to-one relations, then standalone ones.
void Cursor::removeIncoming(uint64_t id) {
    for (const Property* const property : entity_->incomingToOne()) {
        Cursor& owner = cursorFor(property->entityId());
        std::vector<uint64_t> ownerIds;
        owner.getIndexCursor(*property).findScalarIds64(id, &ownerIds);
        Bytes copy;
        for (const uint64_t ownerId : ownerIds) clearReference(*property, owner, ownerId, copy);
    }
    for (const Relation* const relation : entity_->incomingRelations()) {
        cursorFor(relation->sourceEntityId()).relationCursor(relation->id()).removeAllFor(id, true);
    }
}

// Gives the number of objects changed, 0 or 1. The object may be gone by now: writing another one
// may have replaced it under a unique index.
uint64_t Cursor::clearReference(const Property& property, Cursor& owner, uint64_t ownerId,
                                Bytes& copy) {
    Bytes object;
    if (!owner.get(ownerId, object)) return 0;
    const ObjectTable table(object.data(), object.size());
    if (table.scalar<uint64_t>(property.flatOffset()) == 0) return 0;
    copyWithScalar(object, property.flatOffset(), 0, copy);
    owner.writeValue(ownerId, copy.data(), object.size(), true);
    return 1;
}

uint64_t Cursor::removeAll() {
    uint64_t changes = 0;
    return removeAllBatch(changes, false);
}

uint64_t Cursor::removeAllBatch(uint64_t& outChanges, bool stopEarly) {
    requireStorage();
    const uint64_t before = outChanges;
    const auto stop = [&] { return stopEarly && outChanges != before; };
    if (indexCursorSet_) indexCursorSet_->removeAll(outChanges, stopEarly);
    if (stop()) return 0;
    if (relationCursorSet_) {
        for (const auto& relation : relationCursorSet_->all()) {
            outChanges += relation->removeAll();
        }
    }
    if (stop()) return 0;
    if (entity_) {
        outChanges += removeAllIncomingRelations();
        if (stop()) return 0;
        outChanges += clearAllReferences();
        if (stop()) return 0;
    }
    const uint64_t removed = removeAllObjects();
    outChanges += removed;
    return removed;
}

uint64_t Cursor::removeAllIncomingRelations() {
    uint64_t removed = 0;
    for (const Relation* const relation : entity_->incomingRelations()) {
        Cursor& source = cursorFor(relation->sourceEntityId());
        removed += source.relationCursor(relation->id()).removeAll();
    }
    return removed;
}

// Gives the number of objects changed.
uint64_t Cursor::clearAllReferences() {
    uint64_t cleared = 0;
    Bytes copy;
    for (const Property* const property : entity_->incomingToOne()) {
        Cursor& owner = cursorFor(property->entityId());
        IndexCursor& index = owner.getIndexCursor(*property);
        std::vector<uint64_t> ownerIds;
        for (bool found = index.firstEntry(); found; found = index.nextEntry()) {
            if (index.entryValue() != kNoId) ownerIds.push_back(index.entryId());
        }
        for (const uint64_t ownerId : ownerIds) {
            cleared += clearReference(*property, owner, ownerId, copy);
        }
    }
    return cleared;
}

uint64_t Cursor::removeAllObjects() {
    uint64_t bytes = 0;
    const uint64_t removed = openKv().removeAll(trackSize_ ? &bytes : nullptr);
    if (trackSize_) tx_->addDataSizeChange(-checkedCast<int64_t>(bytes));
    if (entity_) tx_->entityAffected(entity_->id());
    return removed;
}

// --- indexes and relations --------------------------------------------------------------------

IndexCursor& Cursor::getIndexCursor(const Property& property) {
    requireStorage();
    const bool propertyIsIndexed = property.isIndexed();
    CHECK_STATE_AT(604, propertyIsIndexed);
    CHECK_STATE_AT(606, indexCursorSet_);
    IndexCursor* const indexCursor = indexCursorSet_->findIndexCursor(property.id());
    CHECK_STATE_AT(608, indexCursor);
    return *indexCursor;
}

RelationCursor& Cursor::relationCursor(uint32_t relationId) {
    requireStorage();
    RelationCursor* const found = relationCursorSet_ ? relationCursorSet_->find(relationId)
                                                     : nullptr;
    if (!found) {
        throwIllegalState("No relation for relation ID ", std::to_string(relationId), " in ",
                          entity_ ? entity_->name() : std::string());
    }
    return *found;
}

void Cursor::backlinkIds(const Property& property, uint64_t id, std::vector<uint64_t>& ids) {
    const bool isRelation = property.isRelation();
    CHECK_ARG(isRelation);
    const uint32_t entityId = property.targetEntityId();
    CHECK_ARG(entityId);
    if (!isObjectId(id)) throwIllegalId(id);
    cursorFor(property.entityId()).getIndexCursor(property).findScalarIds64(id, &ids);
}

// --- other cursors and the collector ----------------------------------------------------------

Cursor& Cursor::cursorFor(uint32_t entityId) {
    CHECK_ARG(entityId);
    requireStorage();
    CHECK_STATE_HERE(!txGone_);
    if (entity_ && entity_->id() == entityId) return *this;
    const auto found = siblings_.find(entityId);
    if (found != siblings_.end()) return *found->second;
    auto sibling = tx_->createCursor(&store_.requireSchema()->entityById(entityId), false);
    return *siblings_.emplace(entityId, std::move(sibling)).first->second;
}

Collector& Cursor::collector() {
    requireStorage();
    if (!entity_) throwIllegalState("No entity available in Cursor");
    if (!collector_) collector_ = std::make_unique<Collector>(*entity_);
    if (collector_->dirty()) throwIllegalState("Collector is dirty");
    return *collector_;
}

uint64_t Cursor::collectorPut(uint64_t id) {
    if (!collector_) throwIllegalState("Property collection not started before");
    const Collector::ResetAtEnd reset(*collector_);
    const uint64_t finalId = requireEntityState().prepareIdForPut(id);
    const std::span<const uint8_t> object = collector_->finish(idFlatOffset_, finalId);
    writeValue(finalId, object.data(), object.size(), id != kNoId);
    return finalId;
}

void Cursor::setExternalCollectorOwner(std::shared_ptr<void> owner) {
    if (externalCollectorOwner_) throwIllegalState("Already set");
    externalCollectorOwner_ = std::move(owner);
}

}  // namespace quillmere
