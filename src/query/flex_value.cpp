#include "query/flex_value.h"

#include <flatbuffers/flexbuffers.h>

#include <charconv>

#include "core/endian.h"
#include "query/text_compare.h"

namespace quillmere {
namespace {

bool isWidth(uint64_t width) { return width == 1 || width == 2 || width == 4 || width == 8; }

std::optional<uint64_t> readUnsigned(std::string_view data, size_t place, uint8_t width) {
    if (place > data.size() || width > data.size() - place) return std::nullopt;
    const char* const from = data.data() + place;
    switch (width) {
        case 1: return loadLittle<uint8_t>(from);
        case 2: return loadLittle<uint16_t>(from);
        case 4: return loadLittle<uint32_t>(from);
        case 8: return loadLittle<uint64_t>(from);
        default: return std::nullopt;
    }
}

std::optional<int64_t> readSigned(std::string_view data, size_t place, uint8_t width) {
    const std::optional<uint64_t> bits = readUnsigned(data, place, width);
    if (!bits) return std::nullopt;
    const int unused = 64 - 8 * width;
    return static_cast<int64_t>(*bits << unused) >> unused;
}

// The distance at `place` leads back from there.
std::optional<size_t> followBack(std::string_view data, size_t place, uint8_t width) {
    const std::optional<uint64_t> distance = readUnsigned(data, place, width);
    if (!distance || *distance > place) return std::nullopt;
    return place - *distance;
}

template <class Integer>
bool isDecimalOf(std::string_view text, Integer value) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    return text == std::string_view(digits, static_cast<size_t>(end - digits));
}

// Vectors of strings were written without the widths of the strings: these read as keys.
flexbuffers::Type elementTypeOf(flexbuffers::Type vectorType) {
    const auto type = flexbuffers::ToTypedVectorElementType(vectorType);
    return type == flexbuffers::FBT_STRING ? flexbuffers::FBT_KEY : type;
}

}  // namespace

FlexValue::FlexValue(std::string_view data, size_t place, uint8_t parentWidth, uint8_t packedType)
    : FlexValue(data, place, parentWidth, static_cast<uint8_t>(1 << (packedType & 3)),
                packedType >> 2) {}

std::optional<FlexValue> FlexValue::root(std::string_view data) {
    if (data.size() < 3) return std::nullopt;
    const auto width = static_cast<uint8_t>(data[data.size() - 1]);
    const auto packedType = static_cast<uint8_t>(data[data.size() - 2]);
    if (!isWidth(width) || width > data.size() - 2) return std::nullopt;
    return FlexValue(data, data.size() - 2 - width, width, packedType);
}

std::optional<size_t> FlexValue::target() const { return followBack(data_, place_, parentWidth_); }

std::optional<std::string_view> FlexValue::text() const {
    if (type_ != flexbuffers::FBT_KEY && type_ != flexbuffers::FBT_STRING) return std::nullopt;
    const std::optional<size_t> start = target();
    if (!start) return std::nullopt;
    if (type_ == flexbuffers::FBT_KEY) {
        const size_t end = data_.find('\0', *start);
        if (end == std::string_view::npos) return std::nullopt;
        return data_.substr(*start, end - *start);
    }
    if (*start < width_) return std::nullopt;
    const std::optional<uint64_t> size = readUnsigned(data_, *start - width_, width_);
    if (!size || *size > data_.size() - *start) return std::nullopt;
    return data_.substr(*start, *size);
}

bool FlexValue::equalsInteger(std::string_view text) const {
    const bool indirect =
        type_ == flexbuffers::FBT_INDIRECT_INT || type_ == flexbuffers::FBT_INDIRECT_UINT;
    const std::optional<size_t> place = indirect ? target() : place_;
    const uint8_t width = indirect ? width_ : parentWidth_;
    if (!place) return false;
    if (type_ == flexbuffers::FBT_INT || type_ == flexbuffers::FBT_INDIRECT_INT) {
        const auto value = readSigned(data_, *place, width);
        return value && isDecimalOf(text, *value);
    }
    const auto value = readUnsigned(data_, *place, width);
    return value && isDecimalOf(text, *value);
}

bool FlexValue::equals(std::string_view text, bool caseSensitive) const {
    switch (type_) {
        case flexbuffers::FBT_KEY:
        case flexbuffers::FBT_STRING: {
            const std::optional<std::string_view> own = this->text();
            return own && equalText(*own, text, caseSensitive);
        }
        case flexbuffers::FBT_INT:
        case flexbuffers::FBT_UINT:
        case flexbuffers::FBT_INDIRECT_INT:
        case flexbuffers::FBT_INDIRECT_UINT: return equalsInteger(text);
        default: return false;
    }
}

std::optional<FlexList> FlexValue::list() const {
    const auto type = static_cast<flexbuffers::Type>(type_);
    const bool typed = flexbuffers::IsTypedVector(type);
    if (!typed && type != flexbuffers::FBT_VECTOR) return std::nullopt;
    const std::optional<size_t> place = target();
    if (!place) return std::nullopt;
    return FlexList::make(data_, *place, width_,
                          typed ? elementTypeOf(type) : flexbuffers::FBT_NULL);
}

std::optional<FlexMap> FlexValue::map() const {
    if (type_ != flexbuffers::FBT_MAP) return std::nullopt;
    const std::optional<size_t> place = target();
    if (!place || *place < size_t{3} * width_) return std::nullopt;
    const std::optional<size_t> keysPlace = followBack(data_, *place - 3 * width_, width_);
    const std::optional<uint64_t> keysWidth = readUnsigned(data_, *place - 2 * width_, width_);
    if (!keysPlace || !keysWidth || !isWidth(*keysWidth)) return std::nullopt;
    const auto keys = FlexList::make(data_, *keysPlace, static_cast<uint8_t>(*keysWidth),
                                     flexbuffers::FBT_KEY);
    const auto values = FlexList::make(data_, *place, width_, flexbuffers::FBT_NULL);
    if (!keys || !values || keys->size() != values->size()) return std::nullopt;
    return FlexMap(*keys, *values);
}

std::optional<FlexList> FlexList::make(std::string_view data, size_t place, uint8_t width,
                                       uint8_t elementType) {
    if (place < width) return std::nullopt;
    const std::optional<uint64_t> size = readUnsigned(data, place - width, width);
    const size_t perElement = elementType == flexbuffers::FBT_NULL ? width + 1u : width;
    if (!size || *size > (data.size() - place) / perElement) return std::nullopt;
    return FlexList(data, place, *size, width, elementType);
}

FlexValue FlexList::at(size_t index) const {
    const size_t place = place_ + index * width_;
    if (elementType_ != flexbuffers::FBT_NULL) {
        return FlexValue(data_, place, width_, 1, elementType_);
    }
    const auto packedType = static_cast<uint8_t>(data_[place_ + size_ * width_ + index]);
    return FlexValue(data_, place, width_, packedType);
}

std::string_view FlexMap::keyAt(size_t index) const {
    return keys_.at(index).text().value_or(std::string_view());
}

std::optional<FlexValue> FlexMap::find(std::string_view key) const {
    size_t low = 0;
    size_t high = size();
    while (low < high) {
        const size_t middle = low + (high - low) / 2;
        if (keyAt(middle) < key) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    if (low == size() || keyAt(low) != key) return std::nullopt;
    return valueAt(low);
}

}  // namespace quillmere
