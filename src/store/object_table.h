#pragma once

// An object is one FlatBuffers table. This reads it without trusting its bytes.
//
//     object   offset of the table (u32) ... vtable ... table ...
//     table    distance back to its vtable (i32), then the fields
//     vtable   its size (u16), the table's size (u16), then per field its place in the table (u16),
//              0 if absent
//     string   size in bytes (u32), the bytes, a zero; a field holds the distance to it (u32)
//     vector   number of elements (u32), the elements; likewise

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/endian.h"

namespace quillmere {

// The elements of a vector, at any alignment.
struct ObjectVector {
    const uint8_t* data = nullptr;  // null: the field is absent
    size_t count = 0;               // of elements

    explicit operator bool() const { return data != nullptr; }
    // REQUIRES: `index` < count, and elements of this type.
    template <std::unsigned_integral T>
    T at(size_t index) const {
        return loadLittle<T>(data + index * sizeof(T));
    }
};

// A view of an object's bytes. Never reads outside of them, whatever they hold, and at any
// alignment.
class ObjectTable {
public:
    // Empty if there is no table in the bytes.
    ObjectTable(const void* data, size_t size)
        : data_(static_cast<const uint8_t*>(data)), size_(size) {
        if (!findTable()) vtableSize_ = 0;
    }

    explicit operator bool() const { return vtableSize_ != 0; }

    // The `size` bytes of a fixed-size field; null if it is absent, or not whole inside the object.
    const uint8_t* field(uint16_t flatOffset, size_t size) const {
        if (flatOffset < kFirstSlot || size_t{flatOffset} + sizeof(uint16_t) > vtableSize_) {
            return nullptr;
        }
        const size_t place = loadLittle<uint16_t>(data_ + vtable_ + flatOffset);
        if (place == 0 || place + size > size_ - table_) return nullptr;
        return data_ + table_ + place;
    }

    // 0 if the field is absent.
    template <std::unsigned_integral T>
    T scalar(uint16_t flatOffset) const {
        const uint8_t* const bytes = field(flatOffset, sizeof(T));
        return bytes ? loadLittle<T>(bytes) : T{0};
    }

    // data() is null if the field is absent, or not whole inside the object.
    std::string_view string(uint16_t flatOffset) const {
        const uint8_t* const bytes = field(flatOffset, sizeof(uint32_t));
        return bytes ? textBehind(bytes) : std::string_view();
    }

    // Null if the field is absent, or not whole inside the object.
    ObjectVector vector(uint16_t flatOffset, size_t elementSize) const {
        const uint8_t* const bytes = field(flatOffset, sizeof(uint32_t));
        return bytes ? elementsBehind(bytes, elementSize) : ObjectVector();
    }
    // A vector of strings, whose elements stringAt() reads.
    ObjectVector stringVector(uint16_t flatOffset) const {
        return vector(flatOffset, sizeof(uint32_t));
    }
    // REQUIRES: `index` < strings.count. data() is null if the string is not whole inside.
    std::string_view stringAt(const ObjectVector& strings, size_t index) const {
        return textBehind(strings.data + index * sizeof(uint32_t));
    }

private:
    static constexpr size_t kFirstSlot = 4;

    // What lies as far behind these bytes as the number in them says.
    ObjectVector elementsBehind(const uint8_t* distanceBytes, size_t elementSize) const {
        const auto from = static_cast<size_t>(distanceBytes - data_);
        const size_t distance = loadLittle<uint32_t>(distanceBytes);
        if (distance > size_ - from || size_ - from - distance < sizeof(uint32_t)) return {};
        const uint8_t* const head = distanceBytes + distance;
        const size_t count = loadLittle<uint32_t>(head);
        const size_t room = size_ - from - distance - sizeof(uint32_t);
        if (count > room / elementSize) return {};
        return {head + sizeof(uint32_t), count};
    }
    std::string_view textBehind(const uint8_t* distanceBytes) const {
        const ObjectVector bytes = elementsBehind(distanceBytes, 1);
        return {reinterpret_cast<const char*>(bytes.data), bytes.count};
    }

    bool findTable() {
        if (!data_ || size_ < 2 * sizeof(uint32_t)) return false;
        table_ = loadLittle<uint32_t>(data_);
        if (table_ < sizeof(uint32_t) || table_ > size_ - sizeof(int32_t)) return false;
        const auto distance = static_cast<int32_t>(loadLittle<uint32_t>(data_ + table_));
        const int64_t vtable = static_cast<int64_t>(table_) - distance;
        if (vtable < 0 || static_cast<uint64_t>(vtable) > size_ - kFirstSlot) return false;
        vtable_ = static_cast<size_t>(vtable);
        vtableSize_ = loadLittle<uint16_t>(data_ + vtable_);
        return vtableSize_ >= kFirstSlot && vtableSize_ <= size_ - vtable_;
    }

    const uint8_t* data_;
    size_t size_;
    size_t table_ = 0;
    size_t vtable_ = 0;
    size_t vtableSize_ = 0;
};

// The same on bytes that may be changed in place.
class MutableObjectTable : public ObjectTable {
public:
    MutableObjectTable(void* data, size_t size) : ObjectTable(data, size) {}

    uint8_t* field(uint16_t flatOffset, size_t size) const {
        return const_cast<uint8_t*>(ObjectTable::field(flatOffset, size));
    }
};

}  // namespace quillmere
