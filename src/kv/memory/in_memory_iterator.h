#pragma once

#include "core/bytes.h"
#include "kv/memory/in_memory_data.h"

namespace quillmere {

// A position in data, which must outlive it. Registered on data that is not sealed yet: it survives
// whatever other iterators erase. Belongs to one thread, but may be destroyed on another.
//
// It remembers a key: that of its element, or the one last asked for. An asked key is viewed and
// must stay valid for as long as it is remembered; the key of an erased element is kept as a copy.
// Steps continue from the remembered key. Keys and values given out die with the next write.
class InMemoryIterator {
public:
    enum class State {
        Unset = 0,
        Before = 1,  // in front of the first element
        On = 2,
        Behind = 3,  // behind the last element, or on no element at all
    };

    // Unset. Read-only if the data is sealed.
    explicit InMemoryIterator(InMemoryData& data);
    ~InMemoryIterator();
    InMemoryIterator(const InMemoryIterator&) = delete;
    InMemoryIterator& operator=(const InMemoryIterator&) = delete;

    bool isOn() const { return state_ == State::On; }
    const Bytes& key() const { return key_; }
    const Bytes& value() const { return place_->second; }  // REQUIRES: isOn()

    // Remembers the key without moving; an empty one is forgotten, and the position with it.
    void setKey(const Bytes& key);

    // All tell whether the iterator then is on an element.
    bool first();
    bool next();
    bool previous();
    bool seek(const Bytes& key);
    bool seekOrNext(const Bytes& key);
    bool seekOrPrevious(const Bytes& key);
    // Seeks the remembered key unless it is on its element already.
    bool current();

    // Then on the element.
    void put(const Bytes& key, const Bytes& value);
    // Then on the following element, if there is one. False without an element to erase.
    bool erase();

    // What the data tells before it loses elements.
    void onPreErase(const Bytes& key);
    void onPreClear();

private:
    using Place = InMemoryData::Place;

    InMemoryData::Entries& entries() const { return data_.entries(); }
    const Bytes& keyAt(Place place) const { return place->first.bytes(); }
    bool isAt(Place place, const Bytes& key) const;
    bool enter(Place place);
    bool leave(State state);
    void requirePosition() const;
    void remember(const Bytes& key);
    Place placeFor(const Bytes& key);

    InMemoryData& data_;
    Place place_;  // end() unless on an element
    Bytes key_;
    State state_ = State::Unset;
    const bool readOnly_;
};

}  // namespace quillmere
