#pragma once

// Assembles an object from property values, one at a time.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include <flatbuffers/flatbuffer_builder.h>

namespace quillmere {

class Entity;
class Property;

// Used on the thread of its cursor, and reused from object to object. An object's values of
// variable length (strings, vectors) come before all its scalars: a FlatBuffers table cannot be
// interrupted for them. Each property is collected once at most. Every collected value gets a
// field, a 0 too. Data given in is copied at once.
class Collector {
public:
    // Resets on the way out, whatever happened.
    class ResetAtEnd {
    public:
        explicit ResetAtEnd(Collector& collector) : collector_(collector) {}
        ~ResetAtEnd() { collector_.reset(); }
        ResetAtEnd(const ResetAtEnd&) = delete;
        ResetAtEnd& operator=(const ResetAtEnd&) = delete;

    private:
        Collector& collector_;
    };

    explicit Collector(const Entity& entity);

    // Each throws IllegalStateException after the first scalar.
    void collectString(const Property& property, std::string_view text);
    void collectBytes(const Property& property, const void* data, size_t size);
    // Remembers a string for the next collectStringVector().
    void addStringToVector(std::string_view text);
    void collectStringVector(const Property& property);
    template <class T>
    void collectScalarVector(const Property& property, const T* values, size_t count);

    // The type of the property decides how the value is stored. Throws IllegalArgumentException for
    // another type, and for the ID property.
    void collectInteger(const Property& property, int64_t value);
    void collectFloatingPoint(const Property& property, double value);

    // Adds the ID and gives the object, valid until reset().
    std::span<const uint8_t> finish(uint16_t idFlatOffset, uint64_t id);
    void reset();
    // An object is under way.
    bool dirty() const { return start_ != kNoTable || !pending_.empty(); }

private:
    struct PendingField {
        flatbuffers::uoffset_t offset;
        uint16_t flatOffset;
    };

    static constexpr flatbuffers::uoffset_t kNoTable = ~flatbuffers::uoffset_t{0};

    void prepareObject(size_t count, size_t elementSize);
    void addPending(const Property& property, flatbuffers::uoffset_t offset);
    void startTable();
    template <class T>
    void addScalar(uint16_t flatOffset, T value);

    flatbuffers::FlatBufferBuilder builder_;  // also the pool of equal strings
    std::vector<PendingField> pending_;
    std::vector<flatbuffers::Offset<flatbuffers::String>> strings_;
    flatbuffers::uoffset_t start_ = kNoTable;  // of the open table
    const uint32_t idPropertyId_;
};

template <class T>
void Collector::collectScalarVector(const Property& property, const T* values, size_t count) {
    prepareObject(count, sizeof(T));
    addPending(property, builder_.CreateVector(values, count).o);
}

}  // namespace quillmere
