#pragma once

// The index cursors of one entity: fans every put and remove of an object out to them.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "core/bytes.h"

namespace quillmere {

class Cursor;
class Entity;
class IndexCursor;
class Transaction;

// Owned by an entity's Cursor and used on the transaction's thread; only renew() and closing may
// come from another. The index cursors are built on first use, all at once.
class IndexCursorSet {
public:
    IndexCursorSet(const Entity& entity, Transaction& tx);
    ~IndexCursorSet();

    // All unique checks come before all writes, so that a violation leaves every index as it was.
    // `old` is null for a new object; it is copied, as writes may move it.
    void onPut(uint64_t id, const void* data, size_t size, const Bytes* old, Cursor& cursor);
    void onRemove(uint64_t id, const Bytes& old);
    // Adds the number of entries removed; with `stopAtFirst` stops behind the first index that had
    // any.
    void removeAll(uint64_t& count, bool stopAtFirst);

    // Null if the property has no such cursor.
    IndexCursor* findIndexCursor(uint32_t propertyId);
    const std::vector<std::unique_ptr<IndexCursor>>& indexCursors();
    // Whether a put needs the old object; true for every entity with an index.
    bool empty() const;

    void renew();
    void txEnded();

private:
    const Entity& entity_;
    Transaction& tx_;
    std::mutex mutex_;  // guards the building and the renewing of the cursors
    std::atomic<bool> initialized_{false};
    std::vector<std::unique_ptr<IndexCursor>> cursors_;
    int firstUnique_ = -1;
    int lastUnique_ = -1;
};

}  // namespace quillmere
