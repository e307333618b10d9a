#include "kv/lmdb/lmdb_cursor.h"

#include <pthread.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <string>

#include "core/checks.h"
#include "core/error.h"
#include "core/log.h"
#include "kv/lmdb/lmdb_store.h"
#include "kv/lmdb/lmdb_transaction.h"

namespace quillmere {

namespace {

constexpr size_t kSizeUnit = 4;  // of key size plus value size

MDB_val engineVal(const void* data, size_t size) {
    return {size, const_cast<void*>(data)};
}

bool sameBytes(const MDB_val& a, const Bytes& b) {
    return a.mv_size == b.size() && std::memcmp(a.mv_data, b.data(), b.size()) == 0;
}

[[noreturn, gnu::cold]] void failSizes(const MDB_val& key, const MDB_val& value) {
    throw DbFileCorruptException("Key + value length is not a multiple of 4: " +
                                 std::to_string(key.mv_size) + " + " +
                                 std::to_string(value.mv_size));
}

void checkPutArguments(const void* key, size_t keySize, const void* value, size_t valueSize) {
    if (!key) throw ArgumentNullException("Can not put with a null key");
    if (!value && valueSize != 0) {
        throw ArgumentNullException("Can not put a null value with a size");
    }
    if ((keySize + valueSize) % kSizeUnit != 0) {
        throwIllegalArgument("Can not put: key + value length is not multiple of 4");
    }
}

}  // namespace

LmdbCursor::LmdbCursor(LmdbTransaction& transaction)
    : store_(transaction.lmdbStore()),
      transaction_(&transaction),
      creatorThread_(threadNumber()),
      readOnly_(transaction.readOnly()) {
    MDB_cursor* cursor = nullptr;
    store_.errors().check(mdb_cursor_open(transaction.handle(), store_.dbi(), &cursor),
                          "Could not create LMDB cursor");
    cursor_ = cursor;
}

LmdbCursor::~LmdbCursor() {
    try {
        close(true);
    } catch (const std::exception& e) {
        logLine("%s [ERROR] Could not release LMDB cursor on destruction: %s\n", logTimestamp(),
                e.what());
    } catch (...) {
        logLine("%s [ERROR] Could not release LMDB cursor on destruction\n", logTimestamp());
    }
}

// ---- Life cycle ---------------------------------------------------------------------------------

void LmdbCursor::release() {
    const std::lock_guard lock(mutex_);
    closeHandle(false, true);
    transaction_ = nullptr;
}

void LmdbCursor::close(bool warn) {
    const std::lock_guard lock(mutex_);
    closeHandle(warn, false);
}

void LmdbCursor::detach() {
    const std::lock_guard lock(mutex_);
    cursor_ = nullptr;
    unregister();
}

void LmdbCursor::renew() {
    CHECK_STATE_HERE(cursor_);
    if (threadNumber() != creatorThread_) {
        throwIllegalState("This operation is only allowed in the creator thread");
    }
    if (!readOnly_) {
        throwIllegalState("Only cursors bound to read-only transactions may be renewed");
    }
    if (!transaction_) throwIllegalState("Transaction is not active");
    clearKey();  // it may lie in pages of the old snapshot
    store_.errors().check(mdb_cursor_renew(transaction_->handle(), cursor_),
                          "Could not renew cursor");
}

// Expects mutex_ to be held. With `transactionGone`, the transaction has dropped its list already
// and is about to end.
void LmdbCursor::closeHandle(bool warn, bool transactionGone) {
    MDB_cursor* const cursor = cursor_.exchange(nullptr);
    if (!cursor) return;
    if (threadNumber() != creatorThread_) {
        char threadName[16] = "";
        pthread_getname_np(pthread_self(), threadName, sizeof threadName);
        if (readOnly_) {
            logLine("%s [WARN ] Skipping low-level close for read-only cursor (non-creator thread "
                    "'%s')\n",
                    logTimestamp(), threadName);
            store_.requestStaleReaderCheck();
        } else {
            logLine("%s [INFO ] Skipping low-level close for writable cursor (non-creator thread "
                    "'%s')\n",
                    logTimestamp(), threadName);
        }
        unregister();
        return;
    }
    if (!transactionGone) unregister();
    if (readOnly_ || transaction_) {
        mdb_cursor_close(cursor);
    } else if (warn) {
        logLine("%s [WARN ] Writeable cursor was not released before its TX (minor; this is not a "
                "leak)\n",
                logTimestamp());
    }
}

void LmdbCursor::unregister() {
    if (transaction_) transaction_->unregisterCursor(this);
}

// ---- Moves --------------------------------------------------------------------------------------

bool LmdbCursor::first(Bytes& outKey, Bytes& outValue) {
    return give(get(MDB_FIRST), outKey, outValue);
}

bool LmdbCursor::next(Bytes& outKey, Bytes& outValue) {
    return give(standsOnKey() ? step() : moveBehindKey(), outKey, outValue);
}

bool LmdbCursor::previous(Bytes& outKey, Bytes& outValue) {
    return give(standsOnKey() ? get(MDB_PREV) : moveBeforeKey(), outKey, outValue);
}

bool LmdbCursor::seek(const Bytes& key) {
    return moveTo(key, MDB_SET);
}

bool LmdbCursor::seekOrNext(const Bytes& key) {
    if (!moveTo(key, MDB_SET_RANGE)) return false;
    adoptKey();
    return true;
}

bool LmdbCursor::seekOrPrevious(const Bytes& key) {
    if (moveTo(key, MDB_SET_KEY)) return true;
    if (!get(MDB_PREV)) return false;  // the engine waits where the key would be
    adoptKey();
    return true;
}

bool LmdbCursor::get(const Bytes& key, Bytes& outValue) {
    if (!moveTo(key, MDB_SET_KEY)) return false;
    outValue.setView(engineValue_.mv_data, engineValue_.mv_size);
    return true;
}

bool LmdbCursor::getOrNext(const Bytes& key, Bytes& outValue) {
    if (!seekOrNext(key)) return false;
    outValue.setView(engineValue_.mv_data, engineValue_.mv_size);
    return true;
}

bool LmdbCursor::getOrPrevious(const Bytes& key, Bytes& outValue) {
    if (!seekOrPrevious(key)) return false;
    outValue.setView(engineValue_.mv_data, engineValue_.mv_size);
    return true;
}

bool LmdbCursor::current() {
    return standsOnKey() ? get(MDB_GET_CURRENT) : moveToKey();
}

bool LmdbCursor::currentValue(Bytes& outValue) {
    if (!current()) return false;
    outValue.setView(engineValue_.mv_data, engineValue_.mv_size);
    return true;
}

bool LmdbCursor::currentValueSize(size_t& outSize) {
    if (!current()) return false;
    outSize = engineValue_.mv_size;
    return true;
}

// ---- Writes -------------------------------------------------------------------------------------

void LmdbCursor::put(const void* keyData, size_t keySize, const void* valueData,
                     size_t valueSize) {
    checkPutArguments(keyData, keySize, valueData, valueSize);
    CHECK_STATE_HERE(cursor_);
    onKey_ = false;
    engineKey_ = engineVal(keyData, keySize);
    engineValue_ = engineVal(valueData ? valueData : "", valueSize);  // it copies from it
    const int result = qmr_mdb_cursor_put(cursor_, &engineKey_, &engineValue_);
    store_.errors().check(result, readOnly_ ? "Cannot put in a read-only transaction"
                                            : "Could not put");
    transaction_->countWrite();
    key_.setView(keyData, keySize);
    setOnKey();
}

bool LmdbCursor::removeCurrent(bool& outHasNext) {
    outHasNext = false;
    if (!standsOnKey() && !moveToKey()) return false;
    CHECK_STATE_HERE(cursor_);
    onKey_ = false;
    const int result = mdb_cursor_del(cursor_, 0);
    if (result == EINVAL || result == MDB_NOTFOUND) return false;
    store_.errors().check(result, readOnly_ ? "Cannot remove in a read-only transaction"
                                            : "Remove failed");
    transaction_->countWrite();
    outHasNext = hasElementAfterRemoval();
    if (outHasNext) adoptKey();
    return true;
}

// The engine stands on the following element, if there is one. Asking for it also ends the engine's
// state "just removed", in which a step would not move.
bool LmdbCursor::hasElementAfterRemoval() {
    const int result = mdb_cursor_get(cursor_, &engineKey_, &engineValue_, MDB_GET_CURRENT);
    if (result == EINVAL || result == MDB_NOTFOUND) return false;
    store_.errors().check(result, "Could not get current key after remove");
    return true;
}

// ---- Engine -------------------------------------------------------------------------------------

inline bool LmdbCursor::get(MDB_cursor_op operation) {
    CHECK_STATE_AT(123, cursor_);
    return found(mdb_cursor_get(cursor_, &engineKey_, &engineValue_, operation));
}

inline bool LmdbCursor::step() {
    CHECK_STATE_AT(123, cursor_);
    return found(qmr_mdb_cursor_next(cursor_, &engineKey_, &engineValue_));
}

inline bool LmdbCursor::found(int result) {
    const bool wholeUnits = (engineKey_.mv_size + engineValue_.mv_size) % kSizeUnit == 0;
    if (result == MDB_SUCCESS && wholeUnits) [[likely]] return true;
    onKey_ = false;  // wherever the engine stopped
    if (result == MDB_NOTFOUND) return false;
    store_.errors().check(result, "Could not get from cursor");
    failSizes(engineKey_, engineValue_);
}

inline bool LmdbCursor::standsOnKey() const {
    return onKey_ &&
           (readOnly_ || (transaction_ && writeCount_ == transaction_->writeCount()));
}

inline void LmdbCursor::setOnKey() {
    onKey_ = true;
    if (!readOnly_) writeCount_ = transaction_->writeCount();
}

// The engine's key becomes the current one.
inline void LmdbCursor::adoptKey() {
    key_.setView(engineKey_.mv_data, engineKey_.mv_size);
    setOnKey();
}

inline bool LmdbCursor::moveTo(const Bytes& key, MDB_cursor_op operation) {
    onKey_ = false;
    key_.setView(key.data(), key.size());
    engineKey_ = engineVal(key.data(), key.size());
    if (!get(operation)) return false;
    setOnKey();
    return true;
}

inline bool LmdbCursor::give(bool moved, Bytes& outKey, Bytes& outValue) {
    if (!moved) return false;
    adoptKey();
    outKey.setView(engineKey_.mv_data, engineKey_.mv_size);
    outValue.setView(engineValue_.mv_data, engineValue_.mv_size);
    return true;
}

bool LmdbCursor::moveToKey() {
    requireKey();
    engineKey_ = engineVal(key_.data(), key_.size());
    if (!get(MDB_SET_KEY)) return false;
    setOnKey();
    return true;
}

bool LmdbCursor::moveBehindKey() {
    requireKey();
    engineKey_ = engineVal(key_.data(), key_.size());
    if (!get(MDB_SET_RANGE)) return false;
    return !sameBytes(engineKey_, key_) || get(MDB_NEXT);
}

// Whether the key is found or not, the engine then is where it belongs.
bool LmdbCursor::moveBeforeKey() {
    requireKey();
    engineKey_ = engineVal(key_.data(), key_.size());
    get(MDB_SET_KEY);
    return get(MDB_PREV);
}

}  // namespace quillmere
