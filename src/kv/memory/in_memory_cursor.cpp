#include "kv/memory/in_memory_cursor.h"

#include "core/checks.h"
#include "core/error.h"
#include "core/log.h"
#include "kv/memory/in_memory_transaction.h"
#include "kv/memory/wal_storage.h"

namespace quillmere {

InMemoryCursor::InMemoryCursor(InMemoryTransaction& transaction)
    : transaction_(&transaction),
      data_(transaction.data()),
      iterator_(std::in_place, *data_),
      wal_(transaction.wal()),
      sizeLimit_(transaction.sizeLimit()),
      creatorThread_(threadNumber()),
      readOnly_(transaction.readOnly()) {}

InMemoryCursor::~InMemoryCursor() {
    close(false);
}

// ---- Life cycle ---------------------------------------------------------------------------------

void InMemoryCursor::release() {
    const std::lock_guard lock(mutex_);
    drop();
    transaction_ = nullptr;
}

void InMemoryCursor::close(bool) {
    const std::lock_guard lock(mutex_);
    if (released_) return;
    drop();
    if (transaction_) transaction_->unregisterCursor(this);
}

// Expects mutex_ to be held.
void InMemoryCursor::drop() {
    released_ = true;
    iterator_.reset();
    data_.reset();
}

void InMemoryCursor::renew() {
    CHECK_STATE_TEXT_AT(27, !released_, "renew", "!isReleased()");
    if (threadNumber() != creatorThread_) {
        throwIllegalState("This operation is only allowed in the creator thread");
    }
    if (!readOnly_) {
        throwIllegalState("Only cursors bound to read-only transactions may be renewed");
    }
    if (!transaction_ || !transaction_->isInProgress()) {
        throwIllegalState("Transaction is not active");
    }
    clearKey();  // it may lie in the old data
    iterator_.reset();
    data_ = transaction_->data();
    iterator_.emplace(*data_);
}

// ---- Moves --------------------------------------------------------------------------------------

inline InMemoryIterator& InMemoryCursor::iterator() {
    CHECK_STATE_TEXT_AT(__LINE__, iterator_, "iterator", "!data_.isNull()");
    return *iterator_;
}

// The base class may have been given another key since.
inline InMemoryIterator& InMemoryCursor::iteratorAtKey() {
    InMemoryIterator& result = iterator();
    if (!onKey_) [[unlikely]] {
        if (key_.data() || !key_.empty()) requireKey();
        result.setKey(key_);
        onKey_ = true;
    }
    return result;
}

// Found or not: a step goes on from the iterator's key.
inline bool InMemoryCursor::adopt(bool found) {
    const Bytes& key = iterator_->key();
    key_.setView(key.data(), key.size());
    onKey_ = true;
    return found;
}

inline bool InMemoryCursor::give(bool found, Bytes& outKey, Bytes& outValue) {
    if (!giveValue(found, outValue)) return false;
    outKey.setView(key_.data(), key_.size());
    return true;
}

inline bool InMemoryCursor::giveValue(bool found, Bytes& outValue) {
    if (!adopt(found)) return false;
    const Bytes& value = iterator_->value();
    outValue.setView(value.data(), value.size());
    return true;
}

bool InMemoryCursor::first(Bytes& outKey, Bytes& outValue) {
    return give(iterator().first(), outKey, outValue);
}

bool InMemoryCursor::next(Bytes& outKey, Bytes& outValue) {
    return give(iteratorAtKey().next(), outKey, outValue);
}

bool InMemoryCursor::previous(Bytes& outKey, Bytes& outValue) {
    return give(iteratorAtKey().previous(), outKey, outValue);
}

bool InMemoryCursor::seek(const Bytes& key) {
    return adopt(iterator().seek(key));
}

bool InMemoryCursor::seekOrNext(const Bytes& key) {
    return adopt(iterator().seekOrNext(key));
}

bool InMemoryCursor::seekOrPrevious(const Bytes& key) {
    return adopt(iterator().seekOrPrevious(key));
}

bool InMemoryCursor::get(const Bytes& key, Bytes& outValue) {
    return giveValue(iterator().seek(key), outValue);
}

bool InMemoryCursor::getOrNext(const Bytes& key, Bytes& outValue) {
    return giveValue(iterator().seekOrNext(key), outValue);
}

bool InMemoryCursor::getOrPrevious(const Bytes& key, Bytes& outValue) {
    return giveValue(iterator().seekOrPrevious(key), outValue);
}

bool InMemoryCursor::current() {
    return adopt(iteratorAtKey().current());
}

bool InMemoryCursor::currentValue(Bytes& outValue) {
    return giveValue(iteratorAtKey().current(), outValue);
}

bool InMemoryCursor::currentValueSize(size_t& outSize) {
    if (!current()) return false;
    outSize = iterator_->value().size();
    return true;
}

// ---- Writes -------------------------------------------------------------------------------------

// The data has changed already: without its record the change must not be committed.
template <class Write>
void InMemoryCursor::log(Write write) {
    try {
        write();
    } catch (...) {
        transaction_->logFailed();
        throw;
    }
}

void InMemoryCursor::put(const void* keyData, size_t keySize, const void* valueData,
                         size_t valueSize) {
    CHECK_STATE_TEXT_AT(129, data_, "put", "!data_.isNull()");
    if (data_->keyAndValueBytes() >= sizeLimit_) {
        throw DbFullException("Maximum database size reached (note: the maximum can be set via "
                              "store options)");
    }
    iterator_->put(Bytes(keyData, keySize), Bytes(valueData, valueSize));
    adopt(true);
    if (!wal_) return;
    const Bytes& value = iterator_->value();  // what was given may have been the data's own bytes
    log([&] { wal_->put(key_.data(), key_.size(), value.data(), value.size()); });
}

bool InMemoryCursor::removeCurrent(bool& outHasNext) {
    outHasNext = false;
    InMemoryIterator& iterator = iteratorAtKey();
    if (!iterator.current()) return adopt(false);
    if (wal_) removedKey_.assign(iterator.key().data(), iterator.key().size());
    iterator.erase();
    if (wal_) log([&] { wal_->remove(removedKey_.data(), removedKey_.size()); });
    outHasNext = adopt(iterator.isOn());
    return true;
}

}  // namespace quillmere
