#pragma once

// Walks one partition of a store: every cursor of the layers above goes through this one.

#include <atomic>
#include <cstdint>
#include <memory>

#include "core/bytes.h"
#include "kv/db_cursor.h"

namespace quillmere {

class TxContext;

// Belongs to the thread that created the transaction; only closing may happen on another. Values
// and keys given out are views, valid until the next write of the transaction or its end, the key
// also only until the cursor moves. Allocates nothing in the steady state: the key buffer and the
// padding buffer grow and are kept.
class PartitionCursor {
public:
    enum class Position {
        None = 0,
        Before = 1,  // in front of the partition, or no element in the backward direction
        On = 2,
        Behind = 3,  // behind the partition, or no element in the forward direction
    };

    // Runs after every move and put, with the key of the element if the position is On.
    using PositionCallback = void (*)(void* context, const Bytes& key, Position position);

    struct Config {
        uint32_t firstPrefix = 0;
        uint32_t lastPrefix = 0;  // inclusive
        uint32_t dataPadding = 1;
        bool shortPrefix = false;  // keys start with the upper 16 bits of the prefix alone
        bool closeInDestructor = true;
    };

    PartitionCursor(TxContext& tx, const Config& config);
    ~PartitionCursor();
    PartitionCursor(const PartitionCursor&) = delete;
    PartitionCursor& operator=(const PartitionCursor&) = delete;

    void setPositionCallback(PositionCallback callback, void* context) {
        callback_ = callback;
        callbackContext_ = context;
    }
    // Retargets; the position is None and there is no key.
    void setPartition(uint32_t first, uint32_t last);

    bool first();
    bool first(Bytes& outValue);
    bool next();
    bool next(Bytes& outValue);
    bool previous();
    bool previous(Bytes& outValue);
    bool seek(const void* key, size_t size);
    bool seekOrNext(const void* key, size_t size);
    bool seekOrPrevious(const void* key, size_t size);
    bool get(const void* key, size_t size, Bytes& outValue);
    bool getOrNext(const void* key, size_t size, Bytes& outValue);
    bool getOrPrevious(const void* key, size_t size, Bytes& outValue);
    bool current() { return position_ == Position::On && dbCursor_->current(); }
    bool currentValue(Bytes& outValue);
    bool currentValueSize(size_t& outSize);

    // Inserts or replaces; the cursor then stands on the element.
    void put(const Bytes& key, const Bytes& value);
    void put(const void* key, size_t keySize, const void* value, size_t valueSize);
    // Leaves the cursor on the following element: keep the key of the removed one before, and do
    // not step after it.
    bool removeCurrent();
    // Removes all elements; gives their number and, if asked, the sum of their value sizes.
    uint64_t removeAll(uint64_t* outByteCount = nullptr);
    // Limit 0 means none.
    uint64_t count(uint64_t limit = 0);

    Position position() const { return position_; }
    const Bytes& key() const { return keyView_; }      // in the cursor's own buffer
    uint32_t currentPrefix() const { return currentPrefix_; }
    // The size that a value of this size takes in the store.
    size_t paddedSize(size_t size) const {
        return (size + dataPadding_ - 1) / dataPadding_ * dataPadding_;
    }

    // The transaction is committed or aborted: the low-level cursor is closed with it.
    void txEnded();
    // The transaction's destructor is running; closes the low-level cursor for the last time.
    void txDestroyed();
    void renew();
    void close(bool warn);
    bool isReleased() const;

private:
    enum class Direction { Forward, Backward };

    // The position step after a move of the DbCursor: onto its key, or onto the key asked for.
    bool stepToFound(bool moved, Direction direction);
    bool stepToAsked(bool found);
    bool enterFromFront(Bytes& outValue);
    Position locate(const Bytes& key);
    bool settle(Position position);
    static bool valueOf(bool found, Bytes& outValue);
    void putPadded(const void* value, size_t size);
    void askFor(const void* key, size_t size);
    void holdKey(const void* key, size_t size);
    void growKeyBuffer(size_t size);
    void forgetPlace();

    TxContext& tx_;
    const uint64_t txNumber_;
    uint32_t firstPrefix_;
    uint32_t lastPrefix_;
    uint8_t firstPrefixBytes_[4];
    uint32_t currentPrefix_ = 0;
    std::shared_ptr<DbCursor> dbCursor_;
    std::unique_ptr<uint8_t[]> keyBuffer_;
    size_t keyBufferSize_ = 0;
    Bytes keyView_;       // the current key, in keyBuffer_
    Bytes foundKey_;      // the key that the last move gave, in the provider's memory
    Bytes ignoredValue_;
    Bytes padding_;       // scratch for padded values
    PositionCallback callback_ = nullptr;
    void* callbackContext_ = nullptr;
    const uint32_t minKeySize_;
    const uint32_t dataPadding_;
    Position position_ = Position::None;
    const bool readOnly_;
    const bool shortPrefix_;
    const bool closeInDestructor_;
    std::atomic<bool> txDestroyed_{false};
};

}  // namespace quillmere
