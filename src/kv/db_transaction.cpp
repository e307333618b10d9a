#include "kv/db_transaction.h"

#include <utility>

#include "kv/db_cursor.h"

namespace quillmere {

void DbTransaction::registerCursor(const std::shared_ptr<DbCursor>& cursor) {
    const std::lock_guard lock(cursorsMutex_);
    cursors_.push_back({cursor.get(), cursor});
}

void DbTransaction::unregisterCursor(const DbCursor* cursor) noexcept {
    const std::lock_guard lock(cursorsMutex_);
    std::erase_if(cursors_, [&](const RegisteredCursor& entry) { return entry.address == cursor; });
}

void DbTransaction::releaseCursors() {
    std::vector<RegisteredCursor> cursors;
    {
        const std::lock_guard lock(cursorsMutex_);
        cursors.swap(cursors_);
    }
    for (const RegisteredCursor& entry : cursors) {
        if (const std::shared_ptr<DbCursor> cursor = entry.cursor.lock()) cursor->release();
    }
}

}  // namespace quillmere
