#pragma once

// The one way to read and write the objects of an entity.

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "core/bytes.h"
#include "core/hash.h"
#include "kv/partition_cursor.h"
#include "store/entity_state.h"
#include "store/store_activity.h"

namespace quillmere {

class Collector;
class Entity;
class IndexCursor;
class IndexCursorSet;
class ObjectStore;
class Property;
class RelationCursor;
class RelationCursorSet;
class Transaction;

// Made by Transaction::createCursor and used on the thread of its transaction; only destruction may
// race with the transaction's. After the transaction's end it may be destroyed only; a read
// transaction that is recycled and renewed keeps its cursors. Object bytes given out are views into
// the store: read-only, valid until the next write of the transaction or its end. IDs 0 and all
// ones are refused with IllegalArgumentException. Put, get and step allocate nothing in the steady
// state.
//
// The place: a found object is current; a miss leaves the cursor behind the last one. A put makes
// its object current, a removal the following one. Counting does not move the cursor.
class Cursor {
public:
    struct Config {
        const Entity* entity = nullptr;  // null: raw key-value cursor
        uint32_t prefix = 0;             // of the partition; its sub partition must be 0
        bool registered = true;          // the transaction knows the cursor and tells it of its end
        bool allowAnyId = false;
    };

    // Throws IllegalStateException for an entity that this transaction may not write.
    Cursor(Transaction& tx, const Config& config);
    ~Cursor();
    Cursor(const Cursor&) = delete;
    Cursor& operator=(const Cursor&) = delete;

    bool get(uint64_t id, Bytes& out);
    // By increasing ID.
    bool first(Bytes& out);
    bool next(Bytes& out);
    // By decreasing ID.
    bool last(Bytes& out);
    bool previous(Bytes& out);
    bool current(Bytes& out) { return openKv().currentValue(out); }
    bool seek(uint64_t id);
    // The first element at or behind `id`.
    bool seekOrNext(uint64_t id);
    uint64_t seekFirstId();  // 0 at the end
    uint64_t seekNextId();   // 0 at the end
    uint64_t currentId();    // 0 before the first, all ones behind the last
    // The same without a look at whether the object still stands there: for a walk.
    uint64_t placeId() const { return place(); }
    uint64_t highestId();    // 0 if empty; does not move the cursor
    // Stops at `max`; 0 means exact.
    uint64_t count(uint64_t max = 0);
    bool isEmpty() { return count(1) == 0; }

    // Throws IdAlreadyExistsException, IdNotFoundException.
    void put(uint64_t id, const void* data, size_t size, int32_t mode);
    // False in these two cases.
    bool tryPut(uint64_t id, const void* data, size_t size, int32_t mode);
    // The ID stands in the object: settles it and writes it there. 0 if tryPut() was false.
    uint64_t putObject(void* data, size_t size, int32_t mode);
    // The final ID for a put, see EntityState::prepareIdForPut.
    uint64_t idForPut(uint64_t id);
    // Neither padding by mode nor any account or upkeep.
    void putRaw(uint64_t id, const void* data, size_t size);
    // Puts without a look at whether the ID exists. Without `isUpdate` the caller knows that it
    // does not. Brings the indexes in line; a failure may leave part of that done, so that the
    // transaction has to be aborted, except for a refused argument and for a
    // UniqueViolationException without a replacing property.
    void writeValue(uint64_t id, const void* data, size_t size, bool isUpdate);

    // Whether there was such an object. Removing takes the links of the object along, and sets
    // to-one relations of others that refer to it to 0.
    bool remove(uint64_t id);
    // The following object is current then: do not step before looking at it.
    bool removeCurrent();
    // The number of objects removed.
    uint64_t removeAll();
    // The same, and adds the changes of each step. With `stopEarly`, returns after the first step
    // that changed anything.
    uint64_t removeAllBatch(uint64_t& outChanges, bool stopEarly);

    // Null if the entity has no index.
    IndexCursorSet* indexCursorSet() const { return indexCursorSet_.get(); }
    // Throws IllegalStateException if the property has no value or hash index.
    IndexCursor& getIndexCursor(const Property& property);
    // Of a relation with this cursor's entity as the source. Throws IllegalStateException if there
    // is none.
    RelationCursor& relationCursor(uint32_t relationId);
    // Appends the IDs of the objects that refer to `id` by the to-one relation `property`, which
    // may be of any entity. They come in key order, which is not numeric order.
    void backlinkIds(const Property& property, uint64_t id, std::vector<uint64_t>& ids);

    // The cursor of an entity on the same transaction: this one, or another one that is closed with
    // this one.
    Cursor& cursorFor(uint32_t entityId);
    // The collector of this cursor. Throws IllegalStateException while an object is collected.
    Collector& collector();
    // Writes what was collected and gives the ID; 0 means a new object. Resets the collector.
    uint64_t collectorPut(uint64_t id);
    // Lives as long as this cursor. May be set once.
    void setExternalCollectorOwner(std::shared_ptr<void> owner);

    // Messages of the transaction: it has committed or aborted; it reads on from a newer snapshot;
    // it is being destroyed, told with mutex() held.
    void txEnded() noexcept;
    void txRenewed();
    void txGone() noexcept;
    std::mutex& mutex() { return mutex_; }

    const Entity* entity() const { return entity_; }
    // REQUIRES: txAlive()
    Transaction& tx() const { return *tx_; }
    // False once the transaction has been destroyed.
    bool txAlive() const { return !txGone_.load(); }

    // Throws StoreClosedException once the store has given up waiting for this transaction: it, its
    // storage and its schema are gone then.
    void requireStorage() const {
        if (activity_->storeClosed.load(std::memory_order_relaxed)) [[unlikely]] failClosed();
    }

private:
    bool checked(bool found) const;
    uint64_t place() const;
    PartitionCursor& openKv() {
        requireStorage();
        return kv_;
    }
    [[noreturn, gnu::cold]] static void failClosed();
    void setKey(uint64_t id);
    void moveTo(uint64_t id);
    void refuseWithoutSync() const;
    EntityState& requireEntityState() const;
    uint64_t countThroughCache(uint64_t baseTx, uint64_t max);
    uint64_t countObjects(uint64_t max);
    size_t sizeToStore(size_t size) const;
    size_t storedSize();
    void removeOutgoing(uint64_t id);
    void removeIncoming(uint64_t id);
    uint64_t removeAllIncomingRelations();
    uint64_t clearAllReferences();
    uint64_t removeAllObjects();
    static uint64_t clearReference(const Property& property, Cursor& owner, uint64_t ownerId,
                                   Bytes& copy);
    void leaveTransaction() noexcept;
    void closeLowLevel() noexcept;

    Transaction* const tx_;
    ObjectStore& store_;
    const std::shared_ptr<const StoreActivity> activity_;
    const Entity* const entity_;
    std::array<uint8_t, 12> keyBuffer_{};  // the key last asked for: prefix and ID
    size_t keySize_ = 0;
    const uint32_t shortPrefix_;  // IDs of up to 32 bits
    const uint32_t longPrefix_;
    PartitionCursor kv_;
    std::mutex mutex_;  // held by closing and by the destruction of the transaction
    const uint64_t txNumber_;
    const uint16_t paddingMode_;
    const uint16_t idFlatOffset_;
    const bool readOnly_;
    const bool registered_;
    const bool trackSize_;
    const bool allowAnyId_;
    std::atomic<bool> txGone_{false};
    std::unique_ptr<IndexCursorSet> indexCursorSet_;        // null: the entity has no index
    std::unique_ptr<RelationCursorSet> relationCursorSet_;  // null: no standalone relation
    EntityState* entityState_ = nullptr;  // of a write cursor always, of a read cursor once needed
    std::unique_ptr<Collector> collector_;
    std::shared_ptr<void> externalCollectorOwner_;
    std::unordered_map<uint32_t, std::unique_ptr<Cursor>, FnvHash<uint32_t>> siblings_;
};

}  // namespace quillmere
