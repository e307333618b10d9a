#pragma once

// An object is one FlatBuffers table. This reads it without trusting its bytes.
//
//     object   offset of the table (u32) ... vtable ... table ...
//     table    distance back to its vtable (i32), then the fields
//     vtable   its size (u16), the table's size (u16), then per field its place in the table (u16),
//              0 if absent

#include <concepts>
#include <cstddef>
#include <cstdint>

#include "core/endian.h"

namespace quillmere {

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

private:
    static constexpr size_t kFirstSlot = 4;

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
