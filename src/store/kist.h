#pragma once

// Access to the objects of one entity in complete units of work: each operation joins the thread's
// transaction, or makes one and commits it.

#include <cstdint>
#include <vector>

#include "core/bytes.h"
#include "store/entity_state.h"

namespace quillmere {

class Entity;
class ObjectStore;
class Property;
class Relation;

// Kept by the store as long as it lives. Any thread.
class Kist {
public:
    Kist(ObjectStore& store, const Entity& entity);

    bool isEmpty();
    uint64_t count(uint64_t max);
    bool contains(uint64_t id);
    // True for an empty list.
    bool containsAll(const std::vector<uint64_t>& ids);

    // Views into the thread's transaction, which must exist already.
    bool get(uint64_t id, Bytes& out);
    // An absent ID leaves an empty entry.
    void getMany(const std::vector<uint64_t>& ids, std::vector<Bytes>& out);
    void getAll(std::vector<Bytes>& out);

    uint64_t idForPut(uint64_t id);
    uint64_t idsForPut(int64_t count);
    void put(uint64_t id, const void* data, size_t size, int32_t mode);
    // 0 if the mode refused the ID. With `stopOnFalse` nothing is committed then.
    uint64_t putObject(void* data, size_t size, int32_t mode, bool stopOnFalse);
    // False if the mode refused an ID. With `stopOnFalse` nothing is committed then.
    bool putMany(const std::vector<uint64_t>& ids, const std::vector<Bytes>& objects, int32_t mode,
                 bool stopOnFalse);
    bool remove(uint64_t id);
    uint64_t removeMany(const std::vector<uint64_t>& ids);
    uint64_t removeAll();

    // Links of a standalone relation with this entity as the source.
    void relationPut(uint32_t relationId, uint64_t sourceId, uint64_t targetId);
    bool relationRemove(uint32_t relationId, uint64_t sourceId, uint64_t targetId);
    // Appends the targets of `id` or, with `backlink`, its sources. This entity must be on the side
    // of `id`, else IllegalArgumentException.
    void relationIds(uint32_t relationId, uint64_t id, std::vector<uint64_t>& out, bool backlink);
    // Appends the objects that refer to `id` by a to-one relation.
    void backlinkIds(const Property& property, uint64_t id, std::vector<uint64_t>& out);

    ObjectStore& store() const { return store_; }
    const Entity& entity() const { return entity_; }
    EntityState& entityState() const { return entityState_; }

private:
    const Relation& relationWithThisSide(uint32_t relationId, bool backlink) const;

    ObjectStore& store_;
    const Entity& entity_;
    EntityState& entityState_;
};

}  // namespace quillmere
