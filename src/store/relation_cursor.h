#pragma once

// Reads and writes one standalone relation inside one transaction. Each link is stored in both
// directions, so that either side is one range read.

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "core/bytes.h"
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

    void renew();
    void txEnded();

private:
    const Relation& relation_;
    Transaction& tx_;
    std::array<uint32_t, 4> subPrefixes_;  // in the byte order of keys
    PartitionCursor kv_;
    std::array<uint8_t, 20> keyBuffer_;
    Bytes key_;  // the key last built or last read
    const bool readOnly_;
};

// The relation cursors of an entity as the source, built on first use. Owned by the entity's
// Cursor.
class RelationCursorSet {
public:
    RelationCursorSet(const Entity& entity, Transaction& tx);
    ~RelationCursorSet();

    // Null if the entity has no such relation.
    RelationCursor* find(uint32_t relationId);
    const std::vector<std::unique_ptr<RelationCursor>>& all();

    void renew();
    void txEnded();

private:
    const Entity& entity_;
    Transaction& tx_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<RelationCursor>> cursors_;
};

}  // namespace quillmere
