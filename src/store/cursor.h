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

namespace quillmere {

class Collector;
class Entity;
class ObjectStore;
class Property;
class Transaction;

// Made by Transaction::createCursor and used on the thread of its transaction; only destruction may
// race with the transaction's. After the transaction's end it may be destroyed only; a read
// transaction that is recycled and renewed keeps its cursors. Object bytes given out are views into
// the store: read-only, valid until the next write of the transaction or its end. IDs 0 and all
// ones are refused. Put, get and step allocate nothing in the steady state.
class Cursor {
public:
    struct Config {
        const Entity* entity = nullptr;  // null: raw key-value cursor
        uint32_t prefix = 0;
        bool registered = true;
        bool allowAnyId = false;
    };

    Cursor(Transaction& tx, const Config& config);
    ~Cursor();
    Cursor(const Cursor&) = delete;
    Cursor& operator=(const Cursor&) = delete;

    bool get(uint64_t id, Bytes& out);
    // By increasing ID.
    bool first(Bytes& out);
    bool next(Bytes& out);
    bool current(Bytes& out);
    bool seek(uint64_t id);
    // The first element at or behind `id`.
    bool seekOrNext(uint64_t id);
    uint64_t seekFirstId();  // 0 at the end
    uint64_t seekNextId();   // 0 at the end
    uint64_t currentId();    // 0 before the first, all ones behind the last
    uint64_t highestId();    // 0 if empty
    // Stops at `max`; 0 means exact.
    uint64_t count(uint64_t max = 0);
    bool isEmpty() { return count(1) == 0; }

    // Throws IdAlreadyExistsException, IdNotFoundException.
    void put(uint64_t id, const void* data, size_t size, int32_t mode);
    // False in these two cases.
    bool tryPut(uint64_t id, const void* data, size_t size, int32_t mode);
    // The ID stands in the object: settles it and writes it there. 0 if tryPut() was false.
    uint64_t putObject(void* data, size_t size, int32_t mode);
    uint64_t idForPut(uint64_t id);
    // Neither padding by mode nor index work.
    void putRaw(uint64_t id, const void* data, size_t size);
    void writeValue(uint64_t id, const void* data, size_t size, bool isUpdate);

    bool remove(uint64_t id);
    bool removeCurrent();
    uint64_t removeAll();
    // With `stopEarly`, returns after the first step that changed anything.
    uint64_t removeAllBatch(uint64_t& outChanges, bool stopEarly);

    // A cursor of another entity on the same transaction, closed with this one.
    Cursor& cursorFor(uint32_t entityId);
    // The collector of this cursor, clean.
    Collector& collector();
    // Writes what was collected; gives the ID.
    uint64_t collectorPut(uint64_t id);

    // Messages of the transaction.
    void txEnded(bool committed) noexcept;
    void txRenewed();
    // Only with mutex() held.
    void txGone() noexcept;
    std::mutex& mutex() { return mutex_; }

    const Entity* entity() const { return entity_; }
    Transaction& tx() const { return *tx_; }

private:
    static void onPosition(void* context, const Bytes& key, PartitionCursor::Position position);
    void setKey(uint64_t id);
    void requireWrite() const;
    EntityState& requireEntityState();
    uint64_t countThroughCache(uint64_t max);
    size_t storedSize(size_t size) const;

    Transaction* tx_;
    ObjectStore& store_;
    const Entity* entity_;
    std::array<uint8_t, 12> keyBuffer_{};  // prefix and ID
    size_t keySize_ = 8;
    uint64_t id_ = 0;  // of the current key
    uint32_t shortPrefix_;  // IDs of up to 32 bits
    uint32_t longPrefix_;
    PartitionCursor kv_;
    std::mutex mutex_;
    const uint64_t txNumber_;
    uint16_t paddingMode_;
    uint16_t idFlatOffset_ = 0;
    const bool readOnly_;
    const bool registered_;
    bool trackSize_ = false;
    const bool allowAnyId_;
    std::atomic<bool> txGone_{false};
    EntityState* entityState_ = nullptr;
    std::unique_ptr<Collector> collector_;
    std::unordered_map<uint32_t, std::unique_ptr<Cursor>, FnvHash<uint32_t>> siblings_;
};

}  // namespace quillmere
