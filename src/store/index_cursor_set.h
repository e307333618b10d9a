#pragma once

// The index cursors of one entity: fans every put and remove of an object out to them.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "store/lent_buffer.h"

namespace quillmere {

class Cursor;
class Entity;
class IndexCursor;
class ObjectTable;
class Transaction;

// Owned by an entity's Cursor and used on the transaction's thread; only renew() and the messages
// of the transaction's end may come from another. The index cursors are built on first use, all at
// once.
class IndexCursorSet {
public:
    IndexCursorSet(const Entity& entity, Transaction& tx);
    ~IndexCursorSet();
    IndexCursorSet(const IndexCursorSet&) = delete;
    IndexCursorSet& operator=(const IndexCursorSet&) = delete;

    // Before the object is put. All unique checks come before all writes, so that a violation
    // leaves every index as it was. With `isUpdate` the old object, if there is one, is read
    // through `cursor`.
    void onPut(uint64_t id, const void* data, size_t size, bool isUpdate, Cursor& cursor);
    // Before the object is removed. The view is copied, as writes may move what it points to.
    void onRemove(uint64_t id, const Bytes& old);
    // Adds the number of entries removed; with `stopAtFirst` stops behind the first index that had
    // any.
    void removeAll(uint64_t& count, bool stopAtFirst);

    // Null if the property has no such cursor.
    IndexCursor* findIndexCursor(uint32_t propertyId);
    // Throws if an index can not be served, or on another thread than the transaction's.
    const std::vector<std::unique_ptr<IndexCursor>>& indexCursors();

    // The transaction reads on from a newer snapshot, has ended, is being destroyed.
    void renew();
    void txEnded();
    void txGone();

private:
    void build();
    void checkUnique(uint64_t id, const ObjectTable& newTable, Cursor& cursor);

    const Entity& entity_;
    Transaction& tx_;
    std::mutex mutex_;  // guards the building, the renewing and the end of the cursors
    std::atomic<bool> initialized_{false};
    bool txGone_ = false;
    std::vector<std::unique_ptr<IndexCursor>> cursors_;
    int firstUnique_ = -1;  // positions of the first and the last unique index
    int lastUnique_ = -1;
    LentBuffer putBuffer_;
    LentBuffer removeBuffer_;
};

}  // namespace quillmere
