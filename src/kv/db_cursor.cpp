#include "kv/db_cursor.h"

#include "core/error.h"

namespace quillmere {

bool DbCursor::next(Bytes& outValue) {
    Bytes key;
    return next(key, outValue);
}

bool DbCursor::previous(Bytes& outValue) {
    Bytes key;
    return previous(key, outValue);
}

bool DbCursor::first() {
    Bytes key, value;
    return first(key, value);
}

bool DbCursor::next() {
    Bytes key, value;
    return next(key, value);
}

bool DbCursor::previous() {
    Bytes key, value;
    return previous(key, value);
}

bool DbCursor::remove(const Bytes& key, bool& outHasNext) {
    if (seek(key)) return removeCurrent(outHasNext);
    outHasNext = false;
    return false;
}

void DbCursor::failWithoutKey() const {
    if (key_.empty() && !key_.data()) {
        throwIllegalState("Key was not set before, but this operation requires it");
    }
    throwIllegalState(key_.data() ? "Invalid key size (zero)" : "Invalid key value (nullptr)");
}

}  // namespace quillmere
