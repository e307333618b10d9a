#pragma once

// Objects as applications make them: a FlatBuffers table with one field per property.

#include <flatbuffers/flatbuffers.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <variant>
#include <vector>

namespace quillmere {

using ObjectBytes = std::vector<uint8_t>;

struct ObjectField {
    uint32_t propertyId;
    std::variant<uint64_t, int64_t, int32_t, int16_t, int8_t, float, double, bool, std::string> value;
};

// The slot of a property in the vtable of an object.
inline flatbuffers::voffset_t objectSlot(uint32_t propertyId) {
    return static_cast<flatbuffers::voffset_t>(propertyId * 2 + 2);
}

// Writes every field, also zeros. Strings go before the table, as the format asks.
template <class Fields>
ObjectBytes makeObjectFrom(const Fields& fields) {
    flatbuffers::FlatBufferBuilder builder;
    builder.ForceDefaults(true);
    std::vector<flatbuffers::Offset<flatbuffers::String>> strings;
    for (const ObjectField& field : fields) {
        const auto* text = std::get_if<std::string>(&field.value);
        strings.push_back(text ? builder.CreateString(*text)
                               : flatbuffers::Offset<flatbuffers::String>());
    }
    const auto start = builder.StartTable();
    size_t i = 0;
    for (const ObjectField& field : fields) {
        const auto slot = objectSlot(field.propertyId);
        const auto string = strings[i++];
        std::visit(
            [&](const auto& value) {
                using Value = std::decay_t<decltype(value)>;
                if constexpr (std::is_same_v<Value, std::string>) {
                    builder.AddOffset(slot, string);
                } else {
                    builder.AddElement<Value>(slot, value, Value{});
                }
            },
            field.value);
    }
    builder.Finish(flatbuffers::Offset<flatbuffers::Table>(builder.EndTable(start)));
    return {builder.GetBufferPointer(), builder.GetBufferPointer() + builder.GetSize()};
}

inline ObjectBytes makeObject(std::initializer_list<ObjectField> fields) {
    return makeObjectFrom(fields);
}

template <class T>
T objectValue(const void* object, uint32_t propertyId) {
    const auto* table = flatbuffers::GetRoot<flatbuffers::Table>(object);
    return table->GetField<T>(objectSlot(propertyId), T{});
}

// Empty if the field is absent.
inline std::string objectText(const void* object, uint32_t propertyId) {
    const auto* table = flatbuffers::GetRoot<flatbuffers::Table>(object);
    const auto* text = table->GetPointer<const flatbuffers::String*>(objectSlot(propertyId));
    return text ? text->str() : std::string();
}

}  // namespace quillmere
