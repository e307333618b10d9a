#include "schema/property_type.h"

#include <array>
#include <string>

#include "core/error.h"

namespace quillmere {
namespace {

constexpr uint8_t kIllegal = 0xFF;

struct TypeInfo {
    const char* name;
    uint8_t size;
};

constexpr std::array<TypeInfo, 33> kTypes = {{
    {"Unknown", kIllegal},   {"Bool", 1},             {"Byte", 1},
    {"Short", 2},            {"Char", 2},             {"Int", 4},
    {"Long", 8},             {"Float", 4},            {"Double", 8},
    {"String", 0},           {"Date", 8},             {"Relation", 8},
    {"DateNano", 8},         {"Flex", 0},             {"Reserved3", kIllegal},
    {"Reserved4", kIllegal}, {"Reserved5", kIllegal}, {"Reserved6", kIllegal},
    {"Reserved7", kIllegal}, {"Reserved8", kIllegal}, {"Reserved9", kIllegal},
    {"Reserved10", kIllegal}, {"BoolVector", 0},      {"ByteVector", 0},
    {"ShortVector", 0},      {"CharVector", 0},       {"IntVector", 0},
    {"LongVector", 0},       {"FloatVector", 0},      {"DoubleVector", 0},
    {"StringVector", 0},     {"DateVector", 0},       {"DateNanoVector", 0},
}};

}  // namespace

const char* propertyTypeName(PropertyType type) {
    const auto number = static_cast<uint16_t>(type);
    return kTypes[number < kTypes.size() ? number : 0].name;
}

size_t propertyTypeSize(PropertyType type) {
    const auto number = static_cast<uint16_t>(type);
    if (number >= kTypes.size() || kTypes[number].size == kIllegal) {
        throwIllegalArgument("Unknown property type: ", static_cast<int64_t>(number));
    }
    return kTypes[number].size;
}

}  // namespace quillmere
