#include "store/index_cursor_set.h"

#include <utility>

#include "core/checks.h"
#include "schema/entity.h"
#include "schema/index.h"
#include "schema/property.h"
#include "store/cursor.h"
#include "store/index_cursor.h"
#include "store/object_table.h"
#include "store/transaction.h"

namespace quillmere {

IndexCursorSet::IndexCursorSet(const Entity& entity, Transaction& tx)
    : entity_(entity), tx_(tx) {}

IndexCursorSet::~IndexCursorSet() {
    std::vector<std::unique_ptr<IndexCursor>> cursors;
    const std::lock_guard lock(mutex_);
    cursors.swap(cursors_);
}

const std::vector<std::unique_ptr<IndexCursor>>& IndexCursorSet::indexCursors() {
    if (!initialized_.load(std::memory_order_acquire)) [[unlikely]] build();
    return cursors_;
}

void IndexCursorSet::build() {
    const std::lock_guard lock(mutex_);
    if (initialized_) return;
    CHECK_STATE_HERE(!txGone_);
    CHECK_STATE_TEXT_AT(27, tx_.isOwnerThread(), "indexCursors", "tx_.isOwnerThread()");
    std::vector<std::unique_ptr<IndexCursor>> cursors;
    int firstUnique = -1;
    int lastUnique = -1;
    for (const auto& index : entity_.indexes()) {
        CHECK_STATE_TEXT_AT(31, index, "indexCursors", "index");
        if (index->type() == IndexType::Hnsw) continue;
        if (index->property().hasFlag(kPropertyUnique)) {
            lastUnique = static_cast<int>(cursors.size());
            if (firstUnique < 0) firstUnique = lastUnique;
        }
        cursors.push_back(std::make_unique<IndexCursor>(*index, tx_));
    }
    cursors_ = std::move(cursors);
    firstUnique_ = firstUnique;
    lastUnique_ = lastUnique;
    initialized_.store(true, std::memory_order_release);
}

IndexCursor* IndexCursorSet::findIndexCursor(uint32_t propertyId) {
    for (const auto& cursor : indexCursors()) {
        if (cursor->property().id() == propertyId) return cursor.get();
    }
    return nullptr;
}

void IndexCursorSet::onPut(uint64_t id, const void* data, size_t size, bool isUpdate,
                           Cursor& cursor) {
    const auto& cursors = indexCursors();
    if (cursors.empty()) return;
    const ObjectTable newTable(data, size);
    if (firstUnique_ >= 0) checkUnique(id, newTable, cursor);

    // Read only now: the check may have changed or removed the old object, by replacing another.
    Bytes old;
    if (!isUpdate || !cursor.get(id, old)) {
        for (const auto& index : cursors) index->updateEntry(id, newTable, nullptr);
        return;
    }
    const LentCopy copy(putBuffer_, old);
    const ObjectTable oldTable(copy.data(), copy.size());
    for (const auto& index : cursors) index->updateEntry(id, newTable, &oldTable);
}

void IndexCursorSet::checkUnique(uint64_t id, const ObjectTable& newTable, Cursor& cursor) {
    for (int i = firstUnique_; i <= lastUnique_; ++i) {
        IndexCursor& index = *cursors_[static_cast<size_t>(i)];
        if (index.unique()) index.checkUnique(id, newTable, cursor);
    }
}

void IndexCursorSet::onRemove(uint64_t id, const Bytes& old) {
    const auto& cursors = indexCursors();
    const LentCopy copy(removeBuffer_, old);
    const ObjectTable table(copy.data(), copy.size());
    for (const auto& index : cursors) index->removeEntry(id, table);
}

void IndexCursorSet::removeAll(uint64_t& count, bool stopAtFirst) {
    for (const auto& index : indexCursors()) {
        const uint64_t removed = index->removeAllEntries();
        count += removed;
        if (stopAtFirst && removed != 0) return;
    }
}

void IndexCursorSet::renew() {
    const std::lock_guard lock(mutex_);
    for (const auto& cursor : cursors_) cursor->renew();
}

void IndexCursorSet::txEnded() {
    const std::lock_guard lock(mutex_);
    for (const auto& cursor : cursors_) cursor->txEnded();
}

void IndexCursorSet::txGone() {
    const std::lock_guard lock(mutex_);
    txGone_ = true;
    for (const auto& cursor : cursors_) cursor->txGone();
}

}  // namespace quillmere
