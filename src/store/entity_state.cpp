#include "store/entity_state.h"

#include <string>

#include "core/checks.h"
#include "core/endian.h"
#include "core/error.h"
#include "core/feature.h"
#include "core/log.h"
#include "core/store_options.h"
#include "schema/entity.h"
#include "store/cursor.h"
#include "store/object_id.h"
#include "store/object_store.h"
#include "store/object_table.h"
#include "store/thread_tx.h"
#include "store/transaction.h"

namespace quillmere {

namespace {

constexpr int64_t kMaxIdsForPut = 10000;

void refuseIdCompanion(const Entity& entity) {
    const Property* const companion = entity.idCompanion();
    if (!companion) return;
    if (isDateType(companion->type())) requireFeature(Feature::TimeSeries);
    throwIllegalState("Entity ", entity.name(), " has an ID companion of unsupported type: ",
                      propertyTypeName(companion->type()));
}

template <class E>
[[noreturn, gnu::cold]] void throwBeyondSequence(uint64_t id, uint64_t nextId) {
    throwWith<E>("ID is higher or equal to internal ID sequence: ", std::to_string(id), " (vs. ",
                 std::to_string(nextId), "). Use ID 0 (zero) to insert new objects.");
}

}  // namespace

void throwIllegalId(uint64_t id) {
    throwIllegalArgument("Illegal ID value: ", std::to_string(id));
}

EntityState::EntityState(const Entity& entity, uint64_t highestId, uint32_t debugFlags)
    : entity_(entity),
      nextId_(highestId + 1),
      idFlatOffset_(entity.idProperty().flatOffset()),
      idSelfAssignable_(entity.idProperty().hasFlag(kPropertyIdSelfAssignable)) {
    refuseIdCompanion(entity);
    setDebugFlags(debugFlags);
}

uint64_t EntityState::prepareIdForPut(uint64_t id) {
    if (!idSelfAssignable_) return settleId(id);
    std::lock_guard lock(idMutex_);
    return settleId(id);
}

// For self-assignable IDs under idMutex_.
uint64_t EntityState::settleId(uint64_t id) {
    if (id == kNoId) return reserveIds(1);
    const uint64_t nextId = nextId_.load();
    if (id < nextId) return id;
    if (!idSelfAssignable_) throwBeyondSequence<IllegalArgumentException>(id, nextId);
    if (id == kIdAllOnes) throwIllegalId(id);
    nextId_.store(id + 1);
    return id;
}

// Compares before it adds: a sequence that wrapped around would overwrite the oldest objects.
uint64_t EntityState::reserveIds(uint64_t count) {
    uint64_t first = nextId_.load();
    do {
        if (count > kIdAllOnes - first) throwIllegalState("ID sequence is exhausted");
    } while (!nextId_.compare_exchange_weak(first, first + count));
    return first;
}

uint64_t EntityState::idsForPut(int64_t count) {
    if (count < 0 || count > kMaxIdsForPut) {
        throwIllegalArgument("Limit for getting IDs is 10,000, but requested: ", count);
    }
    if (!idSelfAssignable_) return reserveIds(static_cast<uint64_t>(count));
    std::lock_guard lock(idMutex_);
    return reserveIds(static_cast<uint64_t>(count));
}

uint64_t EntityState::prepareObjectForPut(bool hasCursor, const MutableObjectTable& table,
                                          int32_t& mode) {
    uint8_t* const field = table.field(idFlatOffset_, sizeof(uint64_t));
    if (!field) {
        throwIllegalArgument(
            "No ID value found in the given data - please prepare the ID field with a value (use 0 "
            "or 0xFFFFFFFFFFFFFFFF for new objects) to make it mutable");
    }
    uint64_t idRead = loadLittle<uint64_t>(field);
    if (idRead == kIdAllOnes) idRead = kNoId;
    if (mode == kPutUpdate) {
        if (idRead == kNoId) {
            throwIllegalArgument(
                "Putting object failed because ID is not set (zero) for object to update");
        }
        const uint64_t nextId = nextId_.load();
        if (idRead >= nextId) throwBeyondSequence<IdNotFoundException>(idRead, nextId);
    }
    const uint64_t id = prepareIdForPut(idRead);
    if (id == idRead) return id;
    CHECK_STATE_AT(114, idRead == 0);
    // An ID just drawn cannot exist.
    if (hasCursor && mode == kPut) mode = kPutIdGuaranteedToBeNew;
    storeLittle(field, id);
    return id;
}

bool EntityState::cacheGet(uint64_t baseTx, uint64_t max, uint64_t& outCount) {
    std::lock_guard lock(cacheMutex_);
    if (!cacheAnswers(baseTx, max)) return false;
    outCount = cacheCount_;
    ++cacheHits_;
    if (logCacheHits_) {
        logLine("%s [INFO ] Cache hit for base TX #%zu and entity %s: count %llu, max=%llu\n",
                logTimestamp(), static_cast<size_t>(baseTx), entity_.name().c_str(),
                static_cast<unsigned long long>(cacheCount_), static_cast<unsigned long long>(max));
        logFlush();
    }
    return true;
}

// A count that stopped at its limit says nothing about more than that.
bool EntityState::cacheAnswers(uint64_t baseTx, uint64_t max) const {
    if (!cacheValid_ || baseTx != cacheBaseTx_) return false;
    const bool stoppedAtLimit = cacheMax_ != 0 && cacheCount_ >= cacheMax_;
    return !stoppedAtLimit || (max != 0 && max <= cacheMax_);
}

void EntityState::cachePut(uint64_t baseTx, uint64_t max, uint64_t count) {
    std::lock_guard lock(cacheMutex_);
    if (cacheKeeps(baseTx, max)) return;
    cacheBaseTx_ = baseTx;
    cacheMax_ = max;
    cacheCount_ = count;
    cacheValid_ = true;
    if (logCacheAll_) {
        logLine("%s [INFO ] Caching value for base TX #%zu and entity %s: count=%llu, max=%llu\n",
                logTimestamp(), static_cast<size_t>(baseTx), entity_.name().c_str(),
                static_cast<unsigned long long>(count), static_cast<unsigned long long>(max));
        logFlush();
    }
}

// Whether the cached entry is better than one with these values. An old reader must not displace a
// newer entry. But an entry with a higher number is of no more use once the number of the latest
// commit fell below it, as it can when stores commit out of order.
bool EntityState::cacheKeeps(uint64_t baseTx, uint64_t max) const {
    if (!cacheValid_) return false;
    if (baseTx != cacheBaseTx_) return baseTx < cacheBaseTx_ && cacheBaseTx_ <= lastCommittedTx();
    return cacheMax_ == 0 || (max != 0 && max <= cacheMax_);
}

void EntityState::cacheClear() {
    std::lock_guard lock(cacheMutex_);
    cacheValid_ = false;
    if (logCacheAll_) {
        logLine("%s [INFO ] Cache cleared for entity %s\n", logTimestamp(),
                entity_.name().c_str());
        logFlush();
    }
}

void EntityState::setDebugFlags(uint32_t flags) {
    std::lock_guard lock(cacheMutex_);
    logCacheAll_ = (flags & kDebugLogCacheAll) != 0;
    logCacheHits_ = (flags & (kDebugLogCacheHits | kDebugLogCacheAll)) != 0;
}

uint64_t EntityState::cacheHits() {
    std::lock_guard lock(cacheMutex_);
    return cacheHits_;
}

EntityState& ObjectStore::entityState(const Entity& entity, Cursor* cursor) {
    {
        std::lock_guard lock(entityStatesMutex_);
        const auto found = entityStates_.find(entity.id());
        if (found != entityStates_.end()) return *found->second;
        if (cursor) {
            auto state =
                std::make_unique<EntityState>(entity, cursor->highestId(), debugFlags_.load());
            return *entityStates_.emplace(entity.id(), std::move(state)).first->second;
        }
    }
    // Joins the thread's transaction if there is one: a read transaction of its own would not see
    // what a writer on this thread did.
    ThreadTx tx(*this, TxMode::Read, &entity);
    return entityState(entity, &tx.cursor());
}

}  // namespace quillmere
