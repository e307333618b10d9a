#include "store/relation_cursor.h"

#include <cstring>
#include <string>

#include "core/checks.h"
#include "core/endian.h"
#include "core/error.h"
#include "core/log.h"
#include "kv/partition.h"
#include "schema/entity.h"
#include "schema/relation.h"
#include "store/object_id.h"
#include "store/transaction.h"

namespace quillmere {

namespace {

constexpr uint32_t kLongFirstId = 1;  // the bits of a sub partition
constexpr uint32_t kReverse = 2;
constexpr size_t kIdOffset = sizeof(uint32_t);
constexpr size_t kMinKeySize = 12;

PartitionCursor::Config partitionOf(const Relation& relation) {
    PartitionCursor::Config config;
    config.firstPrefix = partitionPrefix(PartitionType::Relation, relation.id());
    config.lastPrefix = config.firstPrefix | kReverse | kLongFirstId;
    return config;
}

void checkRelationId(uint64_t id) {
    if (!isObjectId(id)) throwIllegalArgument("Illegal entity ID: ", std::to_string(id));
}

uint32_t prefixFor(uint32_t basePrefix, uint64_t firstId, bool reverse) {
    return basePrefix | (reverse ? kReverse : 0) | (firstId > kHighestShortId ? kLongFirstId : 0);
}

// An ID takes 4 bytes if it fits, else 8.
uint8_t* storeId(uint8_t* to, uint64_t id) {
    if (id <= kHighestShortId) {
        storeBig(to, static_cast<uint32_t>(id));
        return to + sizeof(uint32_t);
    }
    storeBig(to, id);
    return to + sizeof(uint64_t);
}

}  // namespace

// One range read: all entries of a first ID in one direction.
class RelationIdScan {
public:
    RelationIdScan(PartitionCursor& kv, uint32_t basePrefix, uint64_t id, bool reverse)
        : kv_(kv), prefix_(prefixFor(basePrefix, id, reverse)) {
        checkRelationId(id);
        storeBig(start_, prefix_);
        startSize_ = static_cast<size_t>(storeId(start_ + kIdOffset, id) - start_);
    }

    // The second ID of the first entry, 0 if there is none.
    uint64_t start() {
        found_ = kv_.seekOrNext(start_, startSize_) && kv_.currentPrefix() == prefix_;
        return found_ ? currentId() : kNoId;
    }
    // Of the entry under the cursor; 0 ends the scan.
    uint64_t currentId() const {
        if (!found_) throwIllegalState("Cannot get relation target ID (no initial result)");
        if (kv_.position() != PartitionCursor::Position::On) return kNoId;
        const Bytes& key = kv_.key();
        if (key.size() < kMinKeySize || std::memcmp(key.data(), start_, startSize_) != 0) {
            return kNoId;
        }
        const uint8_t* const second = key.data() + startSize_;
        const size_t secondSize = key.size() - startSize_;
        if (secondSize == sizeof(uint32_t)) return loadBig<uint32_t>(second);
        if (secondSize == sizeof(uint64_t)) return loadBig<uint64_t>(second);
        throwWith<DbFileCorruptException>("Unexpected entity ID size: ",
                                          std::to_string(secondSize));
    }
    uint64_t next() { return kv_.next() ? currentId() : kNoId; }

private:
    PartitionCursor& kv_;
    const uint32_t prefix_;
    uint8_t start_[kIdOffset + sizeof(uint64_t)];  // what all keys of the range start with
    size_t startSize_ = 0;
    bool found_ = false;
};

RelationCursor::RelationCursor(const Relation& relation, Transaction& tx)
    : relation_(relation),
      tx_(tx),
      basePrefix_(partitionPrefix(PartitionType::Relation, relation.id())),
      kv_(tx, partitionOf(relation)),
      readOnly_(tx.readOnly()) {}

void RelationCursor::setKey(uint64_t firstId, uint64_t secondId, bool reverse) {
    checkRelationId(firstId);
    checkRelationId(secondId);
    storeBig(keyBuffer_.data(), prefixFor(basePrefix_, firstId, reverse));
    uint8_t* const end = storeId(storeId(keyBuffer_.data() + kIdOffset, firstId), secondId);
    keySize_ = static_cast<size_t>(end - keyBuffer_.data());
}

void RelationCursor::putKey() {
    kv_.put(keyBuffer_.data(), keySize_, nullptr, 0);
}

bool RelationCursor::removeKey() {
    return kv_.seek(keyBuffer_.data(), keySize_) && kv_.removeCurrent();
}

void RelationCursor::put(uint64_t sourceId, uint64_t targetId) {
    setKey(sourceId, targetId, false);
    putKey();
    setKey(targetId, sourceId, true);
    putKey();
}

bool RelationCursor::remove(uint64_t sourceId, uint64_t targetId) {
    setKey(sourceId, targetId, false);
    if (!removeKey()) return false;
    setKey(targetId, sourceId, true);
    if (!removeKey()) {
        logLine("%s [ERROR] Relation backlink unavailable for removal\n", logTimestamp());
    }
    return true;
}

void RelationCursor::findIds(uint64_t id, std::vector<uint64_t>& ids, bool reverse) {
    RelationIdScan scan(kv_, basePrefix_, id, reverse);
    for (uint64_t found = scan.start(); found != kNoId; found = scan.next()) ids.push_back(found);
}

uint64_t RelationCursor::removeAllFor(uint64_t id, bool reverse) {
    std::vector<uint64_t> removed;
    RelationIdScan scan(kv_, basePrefix_, id, reverse);
    uint64_t otherId = scan.start();
    while (otherId != kNoId) {
        if (!kv_.removeCurrent()) {  // which moves on to the following entry
            throwException("Could not remove just read relation: ", std::to_string(otherId));
        }
        removed.push_back(otherId);
        otherId = scan.currentId();
    }
    for (const uint64_t other : removed) {
        setKey(other, id, !reverse);
        if (!removeKey()) {
            logLine("%s [WARN ] Could not remove a reverse relation\n", logTimestamp());
        }
    }
    return removed.size();
}

uint64_t RelationCursor::removeAll() {
    return kv_.removeAll();
}

void RelationCursor::renew() {
    if (!readOnly_) {
        throwIllegalState("Only relation cursors bound to read-only transactions may be renewed");
    }
    if (!tx_.active()) throwIllegalState("Transaction is not active");
    kv_.renew();
}

RelationCursorSet::RelationCursorSet(const Entity& entity, Transaction& tx)
    : entity_(entity), tx_(tx) {}

RelationCursorSet::~RelationCursorSet() = default;

RelationCursor* RelationCursorSet::find(uint32_t relationId) {
    for (const auto& cursor : all()) {
        if (cursor->relation().id() == relationId) return cursor.get();
    }
    return nullptr;
}

const std::vector<std::unique_ptr<RelationCursor>>& RelationCursorSet::all() {
    const std::lock_guard lock(mutex_);
    if (!cursors_.empty()) return cursors_;
    CHECK_STATE_HERE(!txGone_);
    std::vector<std::unique_ptr<RelationCursor>> cursors;
    for (const auto& relation : entity_.relations()) {
        cursors.push_back(std::make_unique<RelationCursor>(*relation, tx_));
    }
    cursors_ = std::move(cursors);
    return cursors_;
}

void RelationCursorSet::renew() {
    const std::lock_guard lock(mutex_);
    for (const auto& cursor : cursors_) cursor->renew();
}

void RelationCursorSet::txEnded() {
    const std::lock_guard lock(mutex_);
    for (const auto& cursor : cursors_) cursor->txEnded();
}

void RelationCursorSet::txGone() {
    const std::lock_guard lock(mutex_);
    txGone_ = true;
    for (const auto& cursor : cursors_) cursor->txGone();
}

}  // namespace quillmere
