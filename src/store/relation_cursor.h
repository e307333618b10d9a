#pragma once

// Reads and writes one standalone relation inside one transaction. Each link is stored in both
// directions, so that either side is one range read. An entry is a key without a value:
//
//     prefix (u32), first ID, second ID      an ID: u32 if it fits, else u64; big-endian
//
//     sub partition 0   forward, the first ID is a source of 4 bytes
//     sub partition 1   forward, of 8 bytes
//     sub partition 2   reverse, the first ID is a target of 4 bytes
//     sub partition 3   reverse, of 8 bytes

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "kv/partition_cursor.h"

namespace quillmere {

class Entity;
class Relation;
class Transaction;

// Owned by a RelationCursorSet; used on the transaction's thread. IDs 0 and all ones are refused on
// every path. A range read allocates nothing but the growth of its result list.
class RelationCursor {
public:
    RelationCursor(const Relation& relation, Transaction& tx);
    RelationCursor(const RelationCursor&) = delete;
    RelationCursor& operator=(const RelationCursor&) = delete;

    const Relation& relation() const { return relation_; }

    void put(uint64_t sourceId, uint64_t targetId);
    // Whether there was such a link.
    bool remove(uint64_t sourceId, uint64_t targetId);
    // Appends the targets of a source, or with `reverse` the sources of a target, in key order,
    // which is not numeric order.
    void findIds(uint64_t id, std::vector<uint64_t>& ids, bool reverse);
    // Removes all links of a source, or with `reverse` of a target; gives their number.
    uint64_t removeAllFor(uint64_t id, bool reverse);
    // Gives the number of entries, two for each link.
    uint64_t removeAll();

    // The transaction reads on from a newer snapshot, has ended, is being destroyed.
    void renew();
    void txEnded() { kv_.txEnded(); }
    void txGone() { kv_.txDestroyed(); }

private:
    void setKey(uint64_t firstId, uint64_t secondId, bool reverse);
    void putKey();
    bool removeKey();

    const Relation& relation_;
    Transaction& tx_;
    const uint32_t basePrefix_;  // of sub partition 0
    PartitionCursor kv_;
    std::array<uint8_t, 20> keyBuffer_;  // the key last built
    size_t keySize_ = 0;
    const bool readOnly_;
};

// The relation cursors of an entity as the source, built on first use. Owned by the entity's
// Cursor.
class RelationCursorSet {
public:
    RelationCursorSet(const Entity& entity, Transaction& tx);
    ~RelationCursorSet();
    RelationCursorSet(const RelationCursorSet&) = delete;
    RelationCursorSet& operator=(const RelationCursorSet&) = delete;

    // Null if the entity has no such relation.
    RelationCursor* find(uint32_t relationId);
    const std::vector<std::unique_ptr<RelationCursor>>& all();

    void renew();
    void txEnded();
    void txGone();

private:
    const Entity& entity_;
    Transaction& tx_;
    std::mutex mutex_;  // guards the building of the list and its walks by the transaction
    bool txGone_ = false;
    std::vector<std::unique_ptr<RelationCursor>> cursors_;
};

}  // namespace quillmere
