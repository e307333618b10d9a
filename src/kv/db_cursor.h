#pragma once

// A cursor over all records of a store, as each storage provider implements it.

#include <cstddef>
#include <cstdint>

#include "core/bytes.h"

namespace quillmere {

class DbTransaction;

// Belongs to the thread that created its transaction; only release() and close() may be called on
// another. Views given out are the provider's memory: read-only, valid until the next write of the
// transaction or its end. Seeks and steps tell whether an element was found. The found key is the
// "current key"; a step continues from the current key, wherever the engine stands: after a missed
// seek, from the key that was asked for. Failures of the engine are StorageExceptions.
class DbCursor {
public:
    virtual ~DbCursor() = default;
    DbCursor(const DbCursor&) = delete;
    DbCursor& operator=(const DbCursor&) = delete;

    // Forgets the transaction, which has ended; closes the low-level cursor under its mutex.
    virtual void release() = 0;
    // The low-level cursor is gone.
    virtual bool isReleased() const = 0;
    // Closes the low-level cursor. On a thread that must not touch it, it is left to the engine.
    virtual void close(bool warn) = 0;
    // Rebinds a cursor to its renewed read transaction.
    virtual void renew() = 0;
    // Drops the low-level cursor without closing it.
    virtual void detach() = 0;

    // The current key: the one found, or the one that setKey(), put() or a seek was given. A given
    // key is viewed, not copied: it must stay valid for as long as it is current.
    Bytes key() const { return Bytes::copyOf(key_.data(), key_.size()); }
    void keyView(Bytes& out) const { out.setView(key_.data(), key_.size()); }
    // Sets the current key without moving: the next step seeks it first.
    void setKey(const Bytes& key) {
        key_.setView(key.data(), key.size());
        onKey_ = false;
    }
    // The same key at another address; the engine keeps standing where it is.
    void rebindKey(const void* data, size_t size) { key_.setView(data, size); }
    void clearKey() {
        key_.setView(nullptr, 0);
        onKey_ = false;
    }

    virtual bool first(Bytes& outKey, Bytes& outValue) = 0;
    virtual bool next(Bytes& outKey, Bytes& outValue) = 0;
    virtual bool previous(Bytes& outKey, Bytes& outValue) = 0;
    bool next(Bytes& outValue);
    bool previous(Bytes& outValue);
    bool first();
    bool next();
    bool previous();

    // Exact match.
    virtual bool seek(const Bytes& key) = 0;
    // The first key at or behind the given one.
    virtual bool seekOrNext(const Bytes& key) = 0;
    // The given key, else the nearest before it.
    virtual bool seekOrPrevious(const Bytes& key) = 0;
    virtual bool get(const Bytes& key, Bytes& outValue) = 0;
    virtual bool getOrNext(const Bytes& key, Bytes& outValue) = 0;
    virtual bool getOrPrevious(const Bytes& key, Bytes& outValue) = 0;

    // Whether the cursor stands on an element.
    virtual bool current() = 0;
    virtual bool currentValue(Bytes& outValue) = 0;
    virtual bool currentValueSize(size_t& outSize) = 0;

    // Inserts or replaces; the current key follows.
    virtual void put(const void* keyData, size_t keySize, const void* valueData,
                     size_t valueSize) = 0;
    // Removes at the current key; false if nothing was removed. The cursor then stands on the
    // following element, if `outHasNext`.
    virtual bool removeCurrent(bool& outHasNext) = 0;
    bool remove(const Bytes& key, bool& outHasNext);

protected:
    DbCursor() = default;
    // Throws IllegalStateException unless a key is set.
    void requireKey() const {
        if (!key_.hasBytes()) [[unlikely]] failWithoutKey();
    }

    Bytes key_;           // a view, never owned
    bool onKey_ = false;  // the engine stands on the record of key_

private:
    [[noreturn]] void failWithoutKey() const;
};

}  // namespace quillmere
