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

    ObjectStore& store() const { return store_; }
    const Entity& entity() const { return entity_; }
    EntityState& entityState() const { return entityState_; }

private:
    ObjectStore& store_;
    const Entity& entity_;
    EntityState& entityState_;
};

}  // namespace quillmere
