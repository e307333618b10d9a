#pragma once

// Random objects with a property of every type, in a form that a test can reason about on its own.

#include <flatbuffers/flatbuffers.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <variant>
#include <vector>

#include "schema/property_type.h"
#include "support/object.h"

namespace quillmere {

// Integers are widened as their type says; unsigned 64-bit ones keep their bits.
using Value = std::variant<std::monostate, int64_t, double, std::string, std::vector<int64_t>,
                           std::vector<double>, std::vector<std::string>>;

struct Row {
    uint64_t id = 0;
    std::map<uint32_t, Value> values;  // by property ID; null values are absent

    const Value& at(uint32_t propertyId) const {
        static const Value kNull;
        const auto found = values.find(propertyId);
        return found == values.end() ? kNull : found->second;
    }
    template <class T>
    const T* get(uint32_t propertyId) const {
        return std::get_if<T>(&at(propertyId));
    }
};

struct Column {
    uint32_t id;
    const char* name;
    PropertyType type;
    uint32_t flags = 0;  // without those of an index
    uint32_t indexFlags = 0;

    bool isUnsigned() const { return flags & kPropertyUnsigned || type == PropertyType::Relation; }
    // The bytes of an element of a vector, or of a scalar.
    size_t width() const {
        switch (type) {
            case PropertyType::BoolVector:
            case PropertyType::ByteVector: return 1;
            case PropertyType::ShortVector:
            case PropertyType::CharVector: return 2;
            case PropertyType::IntVector:
            case PropertyType::FloatVector: return 4;
            case PropertyType::LongVector:
            case PropertyType::DoubleVector:
            case PropertyType::DateVector:
            case PropertyType::DateNanoVector: return 8;
            default: return propertyTypeSize(type);
        }
    }
    bool isFloat() const { return type == PropertyType::Float || type == PropertyType::Double; }
    bool isFloatVector() const {
        return type == PropertyType::FloatVector || type == PropertyType::DoubleVector;
    }
    bool isString() const { return type == PropertyType::String; }
    bool isInteger() const { return width() != 0 && !isFloat() && !isVector(); }
    bool isVector() const { return type >= PropertyType::BoolVector; }
    bool isIntegerVector() const { return isVector() && !isFloatVector() && width() != 0; }
};

class RandomRows {
public:
    RandomRows(uint32_t seed, bool withNan) : random_(seed), withNan_(withNan) {}

    uint64_t below(uint64_t end) { return random_() % end; }
    bool oneIn(uint64_t n) { return below(n) == 0; }

    uint64_t id() {
        switch (below(4)) {
            case 0: return (uint64_t{1} << 32) - 40 + below(80);
            case 1: return (uint64_t{1} << 40) + below(60);
            default: return 1 + below(300);
        }
    }
    // Few different ones, so that rows share them, and the extremes.
    int64_t integer(const Column& column) {
        if (column.type == PropertyType::Bool || column.type == PropertyType::BoolVector) {
            return static_cast<int64_t>(below(2));
        }
        const auto bits = static_cast<int>(8 * column.width());
        const uint64_t all = ~uint64_t{0} >> (64 - bits);
        uint64_t value = below(8);
        switch (below(8)) {
            case 0: value = 0 - below(4); break;
            case 1: value = all / 2 + below(2); break;
            case 2: value = random_(); break;
            default: break;
        }
        value &= all;
        if (column.isUnsigned() || bits == 64) return static_cast<int64_t>(value);
        return static_cast<int64_t>(value << (64 - bits)) >> (64 - bits);
    }
    double floating(bool single) {
        constexpr double kExtremes[] = {0.0, -0.0, INFINITY, -INFINITY, 1e-40, 3.4e38, -3.4e38};
        double value = (static_cast<double>(below(17)) - 8) / 4;
        if (oneIn(8)) value = kExtremes[below(std::size(kExtremes))];
        if (withNan_ && oneIn(12)) value = std::nan("");
        return single ? static_cast<double>(static_cast<float>(value)) : value;
    }
    std::string text() {
        static const char* const kParts[] = {"a", "A", "b", "ab", "Abc", "z", "\xC3\xA4", "Z"};
        std::string text;
        if (oneIn(12)) text.assign(475 + below(8), 'x');  // around what fits into a key
        for (uint64_t parts = below(4); parts > 0; --parts) text += kParts[below(std::size(kParts))];
        return text;
    }
    Value value(const Column& column) {
        if (oneIn(5)) return {};
        if (column.type == PropertyType::StringVector) return list<std::string>([&] { return text(); });
        if (column.isFloatVector()) {
            return list<double>([&] { return floating(column.width() == 4); });
        }
        if (column.isVector()) return list<int64_t>([&] { return integer(column); });
        if (column.isString()) return text();
        if (column.isFloat()) return floating(column.width() == 4);
        return integer(column);
    }

private:
    template <class T, class Make>
    std::vector<T> list(Make&& make) {
        std::vector<T> values;
        for (uint64_t size = below(4); size > 0; --size) values.push_back(make());
        return values;
    }

    std::mt19937_64 random_;
    bool withNan_;
};

// The bytes of a row as an object.
class RowEncoder {
public:
    static ObjectBytes encode(const Row& row, const std::vector<Column>& columns) {
        RowEncoder encoder;
        std::map<uint32_t, flatbuffers::uoffset_t> offsets;
        for (const Column& column : columns) {
            const flatbuffers::uoffset_t offset = encoder.addOutOfLine(row.at(column.id), column);
            if (offset != 0) offsets[column.id] = offset;
        }
        flatbuffers::FlatBufferBuilder& builder = encoder.builder_;
        const auto start = builder.StartTable();
        builder.AddElement<uint64_t>(objectSlot(1), row.id, 0);
        for (const Column& column : columns) {
            encoder.addInline(row.at(column.id), column);
            const auto offset = offsets.find(column.id);
            if (offset == offsets.end()) continue;
            builder.AddOffset(objectSlot(column.id), flatbuffers::Offset<void>(offset->second));
        }
        builder.Finish(flatbuffers::Offset<flatbuffers::Table>(builder.EndTable(start)));
        return {builder.GetBufferPointer(), builder.GetBufferPointer() + builder.GetSize()};
    }

private:
    RowEncoder() { builder_.ForceDefaults(true); }

    flatbuffers::uoffset_t addOutOfLine(const Value& value, const Column& column) {
        if (const auto* text = std::get_if<std::string>(&value)) {
            return builder_.CreateString(*text).o;
        }
        if (const auto* texts = std::get_if<std::vector<std::string>>(&value)) {
            return builder_.CreateVectorOfStrings(*texts).o;
        }
        if (const auto* floats = std::get_if<std::vector<double>>(&value)) {
            return column.width() == 4 ? addVector<float>(*floats) : addVector<double>(*floats);
        }
        const auto* integers = std::get_if<std::vector<int64_t>>(&value);
        if (!integers) return 0;
        switch (column.width()) {
            case 1: return addVector<int8_t>(*integers);
            case 2: return addVector<int16_t>(*integers);
            case 4: return addVector<int32_t>(*integers);
            default: return addVector<int64_t>(*integers);
        }
    }
    template <class T, class Values>
    flatbuffers::uoffset_t addVector(const Values& values) {
        std::vector<T> narrow;
        for (const auto value : values) narrow.push_back(static_cast<T>(value));
        return builder_.CreateVector(narrow).o;
    }

    void addInline(const Value& value, const Column& column) {
        const auto slot = objectSlot(column.id);
        if (const auto* number = std::get_if<double>(&value)) {
            if (column.width() == 4) {
                builder_.AddElement<float>(slot, static_cast<float>(*number), 0);
            } else {
                builder_.AddElement<double>(slot, *number, 0);
            }
        }
        const auto* number = std::get_if<int64_t>(&value);
        if (!number) return;
        switch (column.width()) {
            case 1: builder_.AddElement<int8_t>(slot, static_cast<int8_t>(*number), 0); break;
            case 2: builder_.AddElement<int16_t>(slot, static_cast<int16_t>(*number), 0); break;
            case 4: builder_.AddElement<int32_t>(slot, static_cast<int32_t>(*number), 0); break;
            default: builder_.AddElement<int64_t>(slot, *number, 0); break;
        }
    }

    flatbuffers::FlatBufferBuilder builder_;
};

}  // namespace quillmere
