#pragma once

// FlexBuffers data: one value of any type, which may hold others. This reads it without trusting
// its bytes; the library's own reader needs aligned and verified data.
//
// The data ends with the root: ... value, its packed type (u8), its width (u8). A packed type is
// the type in the upper six bits and the width of the value's insides in the lower two. Values that
// are not inline are the distance back to:
//
//     string        size, * bytes
//     key           * bytes, a zero
//     vector        size, * elements, packed types (u8 each)
//     typed vector  size, * elements
//     map           distance back to the keys, their width, size, * as a vector; sorted by key

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace quillmere {

class FlexList;
class FlexMap;

// A view into FlexBuffers data. Never reads outside of it, whatever it holds, and at any alignment;
// what is not whole inside the data counts as absent.
class FlexValue {
public:
    // Absent if there is no value in the data.
    static std::optional<FlexValue> root(std::string_view data);

    // Whether this is a key or a string with these bytes, or an integer with this decimal text.
    bool equals(std::string_view text, bool caseSensitive) const;
    std::optional<FlexMap> map() const;
    // The elements of a vector, typed or not; absent for a vector of fixed size.
    std::optional<FlexList> list() const;
    // The bytes of a key or a string.
    std::optional<std::string_view> text() const;

private:
    friend class FlexList;
    friend class FlexMap;

    FlexValue(std::string_view data, size_t place, uint8_t parentWidth, uint8_t packedType);
    FlexValue(std::string_view data, size_t place, uint8_t parentWidth, uint8_t width, uint8_t type)
        : data_(data), place_(place), parentWidth_(parentWidth), width_(width), type_(type) {}

    std::optional<size_t> target() const;
    bool equalsInteger(std::string_view text) const;

    std::string_view data_;
    size_t place_;
    uint8_t parentWidth_;  // of the value at its place, in bytes
    uint8_t width_;        // of what it leads to, in bytes
    uint8_t type_;
};

// The elements of a vector.
class FlexList {
public:
    size_t size() const { return size_; }
    // REQUIRES: `index` < size().
    FlexValue at(size_t index) const;

private:
    friend class FlexValue;
    friend class FlexMap;

    // `elementType` 0: each element has a type of its own. Absent if not whole inside the data.
    static std::optional<FlexList> make(std::string_view data, size_t place, uint8_t width,
                                        uint8_t elementType);
    FlexList(std::string_view data, size_t place, size_t size, uint8_t width, uint8_t elementType)
        : data_(data), place_(place), size_(size), width_(width), elementType_(elementType) {}

    std::string_view data_;
    size_t place_;
    size_t size_;
    uint8_t width_;
    uint8_t elementType_;
};

class FlexMap {
public:
    size_t size() const { return keys_.size(); }
    // REQUIRES: `index` < size(). A key that is damaged counts as empty.
    std::string_view keyAt(size_t index) const;
    FlexValue valueAt(size_t index) const { return values_.at(index); }
    // The value of exactly this key, by binary search.
    std::optional<FlexValue> find(std::string_view key) const;

private:
    friend class FlexValue;

    FlexMap(FlexList keys, FlexList values) : keys_(keys), values_(values) {}

    FlexList keys_;
    FlexList values_;
};

}  // namespace quillmere
