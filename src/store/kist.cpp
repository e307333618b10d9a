#include "store/kist.h"

#include <algorithm>
#include <string>

#include "core/error.h"
#include "schema/schema.h"
#include "store/cursor.h"
#include "store/object_store.h"
#include "store/relation_cursor.h"
#include "store/thread_tx.h"

namespace quillmere {

namespace {

// Views into the transaction would die with one that was made for the call.
constexpr bool kExistingRequired = true;

// A write handle that is left without success aborts, so that any exception undoes the work.
template <class Work>
auto inWriteTx(ObjectStore& store, const Entity& entity, Work work) {
    ThreadTx tx(store, TxMode::Write, &entity);
    auto result = work(tx.cursor());
    tx.markSuccess();
    return result;
}

}  // namespace

Kist::Kist(ObjectStore& store, const Entity& entity)
    : store_(store), entity_(entity), entityState_(store.entityState(entity)) {}

bool Kist::isEmpty() {
    ThreadTx tx(store_, TxMode::Read, &entity_);
    return tx.cursor().isEmpty();
}

uint64_t Kist::count(uint64_t max) {
    ThreadTx tx(store_, TxMode::Read, &entity_);
    return tx.cursor().count(max);
}

bool Kist::contains(uint64_t id) {
    ThreadTx tx(store_, TxMode::Read, &entity_);
    return tx.cursor().seek(id);
}

bool Kist::containsAll(const std::vector<uint64_t>& ids) {
    if (ids.empty()) return true;
    ThreadTx tx(store_, TxMode::Read, &entity_);
    for (const uint64_t id : ids) {
        if (!tx.cursor().seek(id)) return false;
    }
    return true;
}

bool Kist::get(uint64_t id, Bytes& out) {
    ThreadTx tx(store_, TxMode::Read, &entity_, kExistingRequired);
    return tx.cursor().get(id, out);
}

void Kist::getMany(const std::vector<uint64_t>& ids, std::vector<Bytes>& out) {
    ThreadTx tx(store_, TxMode::Read, &entity_, kExistingRequired);
    out.assign(ids.size(), Bytes());
    for (size_t i = 0; i < ids.size(); ++i) tx.cursor().get(ids[i], out[i]);
}

void Kist::getAll(std::vector<Bytes>& out) {
    ThreadTx tx(store_, TxMode::Read, &entity_, kExistingRequired);
    Cursor& cursor = tx.cursor();
    out.clear();
    Bytes object;
    for (bool found = cursor.first(object); found; found = cursor.next(object)) {
        out.emplace_back(object.data(), object.size());
    }
}

uint64_t Kist::idForPut(uint64_t id) {
    return entityState_.prepareIdForPut(id);
}

uint64_t Kist::idsForPut(int64_t count) {
    return entityState_.idsForPut(count);
}

void Kist::put(uint64_t id, const void* data, size_t size, int32_t mode) {
    ThreadTx tx(store_, TxMode::Write, &entity_);
    tx.cursor().put(id, data, size, mode);
    tx.markSuccess();
}

uint64_t Kist::putObject(void* data, size_t size, int32_t mode, bool stopOnFalse) {
    ThreadTx tx(store_, TxMode::Write, &entity_);
    const uint64_t id = tx.cursor().putObject(data, size, mode);
    if (id != 0 || !stopOnFalse) tx.markSuccess();
    return id;
}

bool Kist::putMany(const std::vector<uint64_t>& ids, const std::vector<Bytes>& objects,
                   int32_t mode, bool stopOnFalse) {
    if (ids.size() != objects.size()) {
        throwIllegalArgument("Number of IDs does not match number of objects");
    }
    ThreadTx tx(store_, TxMode::Write, &entity_);
    bool allPut = true;
    for (size_t i = 0; i < ids.size(); ++i) {
        const bool put = tx.cursor().tryPut(ids[i], objects[i].data(), objects[i].size(), mode);
        if (!put && stopOnFalse) return false;
        allPut = allPut && put;
    }
    tx.markSuccess();
    return allPut;
}

bool Kist::remove(uint64_t id) {
    return inWriteTx(store_, entity_, [&](Cursor& cursor) { return cursor.remove(id); });
}

uint64_t Kist::removeMany(const std::vector<uint64_t>& ids) {
    return inWriteTx(store_, entity_, [&](Cursor& cursor) {
        uint64_t removed = 0;
        for (const uint64_t id : ids) removed += cursor.remove(id) ? 1 : 0;
        return removed;
    });
}

uint64_t Kist::removeAll() {
    return inWriteTx(store_, entity_, [](Cursor& cursor) { return cursor.removeAll(); });
}

// --- relations -----------------------------------------------------------------------------------

void Kist::relationPut(uint32_t relationId, uint64_t sourceId, uint64_t targetId) {
    ThreadTx tx(store_, TxMode::Write, &entity_);
    tx.cursor().relationCursor(relationId).put(sourceId, targetId);
    tx.markSuccess();
}

bool Kist::relationRemove(uint32_t relationId, uint64_t sourceId, uint64_t targetId) {
    return inWriteTx(store_, entity_, [&](Cursor& cursor) {
        return cursor.relationCursor(relationId).remove(sourceId, targetId);
    });
}

// The relation, if this entity is its source or, with `backlink`, its target.
const Relation& Kist::relationWithThisSide(uint32_t relationId, bool backlink) const {
    const Relation* const outgoing = entity_.findRelationById(relationId);
    const auto& incomingRelations = entity_.incomingRelations();
    const auto found = std::ranges::find(incomingRelations, relationId, &Relation::id);
    const Relation* const incoming = found == incomingRelations.end() ? nullptr : *found;
    if (const Relation* const relation = backlink ? incoming : outgoing) return *relation;
    if (outgoing || incoming) {
        throwIllegalArgument(
            "Wrong relation direction (source vs. target) for the given relation with ID ",
            std::to_string(relationId), " and this kist type (", entity_.name(),
            "). Solutions: 1) if you expect results for this kist, use the other relation "
            "direction; 2) or, use the kist of the other relation type.");
    }
    throwIllegalArgument("The given relation with ID ", std::to_string(relationId),
                         " does not include this kist type (", entity_.name(), ")");
}

void Kist::relationIds(uint32_t relationId, uint64_t id, std::vector<uint64_t>& out,
                       bool backlink) {
    const Relation& relation = relationWithThisSide(relationId, backlink);
    ThreadTx tx(store_, TxMode::Read, &entity_);
    Cursor& source = tx.cursor().cursorFor(relation.sourceEntityId());
    source.relationCursor(relationId).findIds(id, out, backlink);
}

void Kist::backlinkIds(const Property& property, uint64_t id, std::vector<uint64_t>& out) {
    ThreadTx tx(store_, TxMode::Read, &entity_);
    tx.cursor().backlinkIds(property, id, out);
}

Kist& ObjectStore::kist(uint32_t entityId) {
    if (closed()) throwWith<StoreClosedException>("Store is already closed");
    std::lock_guard lock(kistsMutex_);
    const auto found = kists_.find(entityId);
    if (found != kists_.end()) return *found->second;
    auto kist = std::make_unique<Kist>(*this, requireSchema()->entityById(entityId));
    return *kists_.emplace(entityId, std::move(kist)).first->second;
}

}  // namespace quillmere
