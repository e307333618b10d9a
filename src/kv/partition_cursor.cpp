#include "kv/partition_cursor.h"

#include <cstring>
#include <string>

#include "core/checks.h"
#include "core/endian.h"
#include "core/error.h"
#include "core/log.h"
#include "kv/db_transaction.h"
#include "kv/partition.h"
#include "kv/tx_context.h"

namespace quillmere {

namespace {

constexpr size_t kKeyBufferStep = 8;
constexpr size_t kInitialKeyBufferSize = 16;
constexpr size_t kKeptPaddingBufferSize = 8192;

// Object keys have 8 or 12 bytes: two loads and two stores, which may overlap, beat a call.
inline void copyKey(uint8_t* to, const uint8_t* from, size_t size) {
    if (size >= 8 && size <= 16) [[likely]] {
        const uint64_t head = loadNative<uint64_t>(from);
        const uint64_t tail = loadNative<uint64_t>(from + size - 8);
        storeNative(to, head);
        storeNative(to + size - 8, tail);
    } else {
        std::memmove(to, from, size);
    }
}

// Out of line, as all that is rare: it would cost each step the saving of registers.
[[noreturn, gnu::cold, gnu::noinline]] void throwKeyTooShort(size_t size) {
    throw DbFileCorruptException("Corrupt DB, min key size violated: " + std::to_string(size));
}

void checkCreatorThread(const TxContext& tx) {
    const int32_t thread = threadNumber();
    if (thread == tx.ownerThread()) return;
    throwIllegalState("Cannot create cursor in thread #", std::to_string(thread),
                      " as it does not match thread #", std::to_string(tx.ownerThread()),
                      ", which created transaction #", std::to_string(tx.number()));
}

uint32_t checkedDataPadding(uint32_t dataPadding) {
    CHECK_ARG_AT(31, dataPadding);
    return dataPadding;
}

uint32_t checkedFirstPrefix(uint32_t prefix) {
    if (subPartitionOf(prefix) != 0) {
        throwIllegalArgument("Partition prefix must not have sub partition");
    }
    return prefix;
}

}  // namespace

PartitionCursor::PartitionCursor(TxContext& tx, const Config& config)
    : tx_(tx),
      txNumber_(tx.number()),
      firstPrefix_(checkedFirstPrefix(config.firstPrefix)),
      lastPrefix_(config.lastPrefix),
      minKeySize_(config.shortPrefix ? 2 : 4),
      dataPadding_(checkedDataPadding(config.dataPadding)),
      readOnly_(tx.readOnly()),
      shortPrefix_(config.shortPrefix),
      closeInDestructor_(config.closeInDestructor) {
    checkCreatorThread(tx);
    storeBig(firstPrefixBytes_, firstPrefix_);
    growKeyBuffer(kInitialKeyBufferSize);
    dbCursor_ = tx.dbTransaction().createDbCursor();
}

PartitionCursor::~PartitionCursor() {
    if (!closeInDestructor_) return;
    try {
        dbCursor_->close(true);
    } catch (...) {  // the line below tells
    }
    if (!dbCursor_->isReleased()) {
        logLine("%s [WARN ] Skipped low-level close of cursor (%s, TX #%zu %s)\n", logTimestamp(),
                readOnly_ ? "read" : "write", static_cast<size_t>(txNumber_),
                txDestroyed_ ? "destroyed" : "alive");
    }
}

void PartitionCursor::setPartition(uint32_t first, uint32_t last) {
    firstPrefix_ = first;
    lastPrefix_ = last;
    storeBig(firstPrefixBytes_, first);
    forgetPlace();
}

bool PartitionCursor::first() {
    askFor(firstPrefixBytes_, minKeySize_);
    return stepToFound(dbCursor_->seekOrNext(keyView_), Direction::Forward);
}

bool PartitionCursor::first(Bytes& outValue) {
    askFor(firstPrefixBytes_, minKeySize_);
    return valueOf(stepToFound(dbCursor_->getOrNext(keyView_, outValue), Direction::Forward),
                   outValue);
}

bool PartitionCursor::next() {
    return next(ignoredValue_);
}

bool PartitionCursor::next(Bytes& outValue) {
    const bool moved = dbCursor_->next(foundKey_, outValue);
    const Position position = moved ? locate(foundKey_) : Position::Behind;
    if (position == Position::Before) [[unlikely]] {
        // A damaged tree leads back into itself.
        if (position_ == Position::On) throw DbFileCorruptException("Corrupt DB, keys not ordered");
        return enterFromFront(outValue);
    }
    return valueOf(settle(position), outValue);
}

bool PartitionCursor::previous() {
    return previous(ignoredValue_);
}

bool PartitionCursor::previous(Bytes& outValue) {
    Position position;
    do {
        const bool moved = dbCursor_->previous(foundKey_, outValue);
        position = moved ? locate(foundKey_) : Position::Before;
    } while (position == Position::Behind);
    return valueOf(settle(position), outValue);
}

bool PartitionCursor::seek(const void* key, size_t size) {
    askFor(key, size);
    return stepToAsked(dbCursor_->seek(keyView_));
}

bool PartitionCursor::seekOrNext(const void* key, size_t size) {
    askFor(key, size);
    return stepToFound(dbCursor_->seekOrNext(keyView_), Direction::Forward);
}

bool PartitionCursor::seekOrPrevious(const void* key, size_t size) {
    askFor(key, size);
    return stepToFound(dbCursor_->seekOrPrevious(keyView_), Direction::Backward);
}

bool PartitionCursor::get(const void* key, size_t size, Bytes& outValue) {
    askFor(key, size);
    return valueOf(stepToAsked(dbCursor_->get(keyView_, outValue)), outValue);
}

bool PartitionCursor::getOrNext(const void* key, size_t size, Bytes& outValue) {
    askFor(key, size);
    return valueOf(stepToFound(dbCursor_->getOrNext(keyView_, outValue), Direction::Forward),
                   outValue);
}

bool PartitionCursor::getOrPrevious(const void* key, size_t size, Bytes& outValue) {
    askFor(key, size);
    return valueOf(stepToFound(dbCursor_->getOrPrevious(keyView_, outValue), Direction::Backward),
                   outValue);
}

bool PartitionCursor::currentValue(Bytes& outValue) {
    return valueOf(position_ == Position::On && dbCursor_->currentValue(outValue), outValue);
}

bool PartitionCursor::currentValueSize(size_t& outSize) {
    return position_ == Position::On && dbCursor_->currentValueSize(outSize);
}

void PartitionCursor::put(const Bytes& key, const Bytes& value) {
    if (!key.data()) throw ArgumentNullException("Can not put with a null key");
    put(key.data(), key.size(), value.data(), value.size());
}

void PartitionCursor::put(const void* key, size_t keySize, const void* value, size_t valueSize) {
    if (!key || keySize == 0) throwIllegalArgument("Can not put without a key");
    askFor(key, keySize);
    dbCursor_->setKey(keyView_);
    if (valueSize % dataPadding_ == 0 || !value) {  // the provider refuses a null value
        dbCursor_->put(keyView_.data(), keySize, value, valueSize);
    } else {
        putPadded(value, valueSize);
    }
    tx_.markChanged();
    stepToAsked(true);
}

void PartitionCursor::putPadded(const void* value, size_t size) {
    const size_t padded = paddedSize(size);
    padding_.ensure(padded);
    uint8_t* const target = padding_.mutableData();
    std::memcpy(target, value, size);
    std::memset(target + size, 0, padded - size);
    dbCursor_->put(keyView_.data(), keyView_.size(), target, padded);
    // One large value must not pin its memory.
    if (padding_.size() > kKeptPaddingBufferSize) padding_.shrinkTo(kKeptPaddingBufferSize);
}

bool PartitionCursor::removeCurrent() {
    if (position_ != Position::On) {
        throwIllegalState(
            "Can not remove current element: cursor is not positioned at any element");
    }
    bool hasNext = false;
    const bool removed = dbCursor_->removeCurrent(hasNext);
    if (removed) tx_.markChanged();
    stepToFound(hasNext, Direction::Forward);
    return removed;
}

uint64_t PartitionCursor::removeAll(uint64_t* outByteCount) {
    uint64_t removed = 0;
    uint64_t byteCount = 0;
    first();
    while (position_ == Position::On) {
        size_t size = 0;
        if (outByteCount) currentValueSize(size);
        if (!removeCurrent()) break;
        byteCount += size;
        ++removed;
    }
    if (outByteCount) *outByteCount = byteCount;
    return removed;
}

uint64_t PartitionCursor::count(uint64_t limit) {
    uint64_t elements = 0;
    for (bool found = first(); found; found = next()) {
        if (++elements == limit) break;
    }
    return elements;
}

void PartitionCursor::txEnded() {
    dbCursor_->release();
    forgetPlace();
}

void PartitionCursor::txDestroyed() {
    txDestroyed_ = true;
    dbCursor_->close(false);
    forgetPlace();  // nothing may be asked of the transaction any more
}

void PartitionCursor::renew() {
    dbCursor_->renew();
    position_ = Position::None;
    dbCursor_->setKey(keyView_);
}

void PartitionCursor::close(bool warn) {
    dbCursor_->close(warn);
}

bool PartitionCursor::isReleased() const {
    return dbCursor_->isReleased();
}

// A step from in front of the partition skips the elements before it.
bool PartitionCursor::enterFromFront(Bytes& outValue) {
    const Bytes start(firstPrefixBytes_, minKeySize_);
    return valueOf(stepToFound(dbCursor_->getOrNext(start, outValue), Direction::Forward),
                   outValue);
}

bool PartitionCursor::stepToFound(bool moved, Direction direction) {
    if (!moved) {
        return settle(direction == Direction::Forward ? Position::Behind : Position::Before);
    }
    dbCursor_->keyView(foundKey_);
    return settle(locate(foundKey_));
}

// After an exact match the key found is the one asked for, which is held already.
inline bool PartitionCursor::stepToAsked(bool found) {
    const Position position = found ? locate(keyView_) : Position::Behind;
    if (position != Position::On) return settle(position);
    position_ = position;
    dbCursor_->rebindKey(keyView_.data(), keyView_.size());
    if (callback_) callback_(callbackContext_, keyView_, position);
    return true;
}

inline PartitionCursor::Position PartitionCursor::locate(const Bytes& key) {
    if (key.size() < minKeySize_) [[unlikely]] {
        throwKeyTooShort(key.size());
    }
    const uint32_t prefix = shortPrefix_ ? uint32_t{loadBig<uint16_t>(key.data())} << 16
                                         : loadBig<uint32_t>(key.data());
    if (prefix < firstPrefix_) return Position::Before;
    if (prefix > lastPrefix_) return Position::Behind;
    currentPrefix_ = prefix;
    return Position::On;
}

// Outside of the partition, the key last held stays current: a later step continues from there.
inline bool PartitionCursor::settle(Position position) {
    position_ = position;
    if (position == Position::On) [[likely]] {
        holdKey(foundKey_.data(), foundKey_.size());
        dbCursor_->rebindKey(keyView_.data(), keyView_.size());
    } else {
        dbCursor_->setKey(keyView_);
    }
    if (callback_) callback_(callbackContext_, keyView_, position);
    return position == Position::On;
}

inline bool PartitionCursor::valueOf(bool found, Bytes& outValue) {
    if (!found) outValue.setView(nullptr, 0);
    return found;
}

// After a failure the cursor is on no element; a step continues from the key asked for.
inline void PartitionCursor::askFor(const void* key, size_t size) {
    position_ = Position::None;
    holdKey(key, size);
}

inline void PartitionCursor::holdKey(const void* key, size_t size) {
    if (size > keyBufferSize_) [[unlikely]] growKeyBuffer(size);
    copyKey(keyBuffer_.get(), static_cast<const uint8_t*>(key), size);
    keyView_.setView(keyBuffer_.get(), size);
}

// The old content goes: a key that does not fit comes from elsewhere.
[[gnu::cold, gnu::noinline]] void PartitionCursor::growKeyBuffer(size_t size) {
    const size_t rounded = (size + kKeyBufferStep - 1) / kKeyBufferStep * kKeyBufferStep;
    keyBuffer_ = std::make_unique<uint8_t[]>(rounded);
    keyBufferSize_ = rounded;
}

void PartitionCursor::forgetPlace() {
    position_ = Position::None;
    keyView_.setView(nullptr, 0);
    dbCursor_->clearKey();
}

}  // namespace quillmere
