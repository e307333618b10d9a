#pragma once

// What an open store remembers of an entity: the ID sequence and a small cache of the object count.

#include <atomic>
#include <cstdint>
#include <mutex>

namespace quillmere {

class Entity;
class MutableObjectTable;

enum PutMode : int32_t {
    kPut = 1,
    kPutInsert = 2,                // the ID must not exist
    kPutUpdate = 3,                // the ID must exist
    kPutIdGuaranteedToBeNew = 4,   // no look at an old value, on the caller's word
};

// Made by ObjectStore::entityState and kept as long as the store. Any thread.
class EntityState {
public:
    // Throws for an entity with an ID companion.
    EntityState(const Entity& entity, uint64_t highestId, uint32_t debugFlags);

    // The final ID for a put: 0 draws the next one. Throws IllegalArgumentException for an ID that
    // the sequence has not reached, unless callers may assign IDs. IDs are not given back.
    uint64_t prepareIdForPut(uint64_t id);
    // Reserves `count` IDs, at most 10000, and gives the first one.
    uint64_t idsForPut(int64_t count);
    // Settles the ID of an object and writes it into the object, which must have the field. May
    // change mode kPut into kPutIdGuaranteedToBeNew if `hasCursor`.
    uint64_t prepareObjectForPut(bool hasCursor, const MutableObjectTable& table, int32_t& mode);

    // Counts of a state of the database that its base transaction number names. `max` 0 means
    // exact. A hit may give more than `max`.
    bool cacheGet(uint64_t baseTx, uint64_t max, uint64_t& outCount);
    void cachePut(uint64_t baseTx, uint64_t max, uint64_t count);
    void cacheClear();

    void setDebugFlags(uint32_t flags);
    const Entity& entity() const { return entity_; }
    uint64_t cacheHits();

private:
    uint64_t settleId(uint64_t id);
    uint64_t reserveIds(uint64_t count);
    bool cacheAnswers(uint64_t baseTx, uint64_t max) const;
    bool cacheKeeps(uint64_t baseTx, uint64_t max) const;

    const Entity& entity_;
    std::atomic<uint64_t> nextId_;  // never falls
    std::mutex idMutex_;            // only for self-assignable IDs
    const uint16_t idFlatOffset_;
    const bool idSelfAssignable_;

    std::mutex cacheMutex_;  // guards all below
    uint64_t cacheHits_ = 0;
    uint64_t cacheBaseTx_ = 0;
    uint64_t cacheCount_ = 0;
    uint64_t cacheMax_ = 0;
    bool cacheValid_ = false;
    bool logCacheHits_ = false;
    bool logCacheAll_ = false;
};

}  // namespace quillmere
