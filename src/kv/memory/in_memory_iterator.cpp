#include "kv/memory/in_memory_iterator.h"

#include <iterator>

#include "core/checks.h"
#include "core/error.h"

namespace quillmere {

InMemoryIterator::InMemoryIterator(InMemoryData& data)
    : data_(data), place_(data.entries().end()), readOnly_(data.sealed()) {
    if (!readOnly_) data_.registerIterator(*this);
}

InMemoryIterator::~InMemoryIterator() {
    if (!readOnly_) data_.unregisterIterator(*this);
}

// ---- Position -----------------------------------------------------------------------------------

inline bool InMemoryIterator::isAt(Place place, const Bytes& key) const {
    return place != entries().end() && keyAt(place).equals(key);
}

// On the element at the place, if there is one; else behind the last, with the key remembered.
inline bool InMemoryIterator::enter(Place place) {
    if (place == entries().end()) return leave(State::Behind);
    place_ = place;
    state_ = State::On;
    const Bytes& key = keyAt(place);
    key_.setView(key.data(), key.size());
    return true;
}

bool InMemoryIterator::leave(State state) {
    place_ = entries().end();
    state_ = state;
    return false;
}

void InMemoryIterator::requirePosition() const {
    if (state_ == State::Unset) {
        throwIllegalState("This operation requires to set a position first");
    }
}

// The key may be a view of the very copy that is remembered now: look at key_ from here on.
inline void InMemoryIterator::remember(const Bytes& key) {
    if (key_.owned()) [[unlikely]] {
        key_ = Bytes::copyOf(key.data(), key.size());
    } else {
        key_.setView(key.data(), key.size());
    }
}

void InMemoryIterator::setKey(const Bytes& key) {
    if (!key.hasBytes()) {
        leave(State::Unset);
        key_.clear();
    } else if (!isOn() || !keyAt(place_).equals(key)) {
        leave(State::Behind);
        remember(key);
    }
}

// ---- Moves --------------------------------------------------------------------------------------

bool InMemoryIterator::first() {
    return enter(entries().begin());
}

bool InMemoryIterator::next() {
    if (isOn()) return enter(std::next(place_));
    requirePosition();
    return enter(key_.empty() ? entries().end() : entries().upper_bound(key_));
}

bool InMemoryIterator::previous() {
    Place place = place_;
    if (!isOn()) {
        requirePosition();
        place = key_.empty() ? entries().end() : entries().lower_bound(key_);
    }
    return place == entries().begin() ? leave(State::Before) : enter(std::prev(place));
}

// Neighbours are looked at before the tree is searched.
bool InMemoryIterator::seek(const Bytes& key) {
    if (isOn()) {
        if (isAt(place_, key)) return enter(place_);
        if (!InMemoryKeyLess::less(key, keyAt(place_))) {
            if (isAt(std::next(place_), key)) return enter(std::next(place_));
        } else if (place_ != entries().begin() && isAt(std::prev(place_), key)) {
            return enter(std::prev(place_));
        }
    }
    remember(key);
    return enter(entries().find(key_));
}

bool InMemoryIterator::seekOrNext(const Bytes& key) {
    if (isAt(place_, key)) return enter(place_);
    remember(key);
    return enter(entries().lower_bound(key_));
}

bool InMemoryIterator::seekOrPrevious(const Bytes& key) {
    if (isAt(place_, key)) return enter(place_);
    remember(key);
    const Place place = entries().lower_bound(key_);
    if (isAt(place, key_)) return enter(place);
    return place == entries().begin() ? leave(State::Before) : enter(std::prev(place));
}

bool InMemoryIterator::current() {
    if (isOn()) return true;
    requirePosition();
    return !key_.empty() && enter(entries().find(key_));
}

// ---- Writes -------------------------------------------------------------------------------------

void InMemoryIterator::put(const Bytes& key, const Bytes& value) {
    CHECK_STATE_AT(443, !readOnly_);
    const Place place = key.hasBytes() ? placeFor(key) : entries().end();
    enter(data_.put(place, key, value));
}

// Of the key or of the first element behind it. Keys often come in order, so that no search is
// needed.
InMemoryIterator::Place InMemoryIterator::placeFor(const Bytes& key) {
    if (isOn() && !InMemoryKeyLess::less(key, keyAt(place_))) {
        if (isAt(place_, key)) return place_;
        const Place next = std::next(place_);
        if (next == entries().end() || !InMemoryKeyLess::less(keyAt(next), key)) return next;
    }
    return entries().lower_bound(key);
}

bool InMemoryIterator::erase() {
    requirePosition();
    if (readOnly_) throwIllegalState("Cannot erase from a read-only iterator");
    if (!isOn()) return false;
    const bool isLast = std::next(place_) == entries().end();
    if (isLast) key_ = Bytes::copyOf(key_.data(), key_.size());
    enter(data_.erase(*this, place_));
    return true;
}

// By address: also without an element, the remembered key may be the one of the erased element.
void InMemoryIterator::onPreErase(const Bytes& key) {
    if (readOnly_) throwIllegalState("Cannot (pre-)erase from a read-only iterator");
    if (key_.data() != key.data()) return;
    key_ = Bytes::copyOf(key.data(), key.size());
    leave(State::Behind);
}

void InMemoryIterator::onPreClear() {
    CHECK_STATE_AT(512, !readOnly_);
    leave(State::Behind);
    key_.clear();
}

}  // namespace quillmere
