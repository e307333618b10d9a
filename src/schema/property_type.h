#pragma once

// Types and flags of properties and entities. The numbers are stored: do not change them.

#include <cstddef>
#include <cstdint>

namespace quillmere {

enum class PropertyType : uint16_t {
    Unknown = 0,
    Bool = 1,
    Byte = 2,
    Short = 3,
    Char = 4,
    Int = 5,
    Long = 6,
    Float = 7,
    Double = 8,
    String = 9,
    Date = 10,
    Relation = 11,
    DateNano = 12,
    Flex = 13,
    // 14 to 21 are reserved.
    BoolVector = 22,
    ByteVector = 23,
    ShortVector = 24,
    CharVector = 25,
    IntVector = 26,
    LongVector = 27,
    FloatVector = 28,
    DoubleVector = 29,
    StringVector = 30,
    DateVector = 31,
    DateNanoVector = 32,
};

enum PropertyFlags : uint32_t {
    kPropertyId = 0x1,
    kPropertyNullableScalar = 0x2,
    kPropertyNotNull = 0x4,
    kPropertyIndexed = 0x8,
    kPropertyReserved = 0x10,
    kPropertyUnique = 0x20,
    kPropertyIdOptionA = 0x40,
    kPropertyIdSelfAssignable = 0x80,
    kPropertyIndexSkipAbsent = 0x100,
    kPropertyIndexSkipZero = 0x200,
    kPropertyVirtual = 0x400,
    kPropertyIndexHash = 0x800,
    kPropertyIndexHash64 = 0x1000,
    kPropertyUnsigned = 0x2000,
    kPropertyIdCompanion = 0x4000,
    kPropertyReplaceOnConflict = 0x8000,
    kPropertyExpirationTime = 0x10000,
};

// All bits that say whether and how a property is indexed.
inline constexpr uint32_t kPropertyIndexMask = 0x1B08;

enum EntityFlags : uint32_t {
    kEntityFlag1 = 0x1,  // carried, without effect
    kEntitySyncEnabled = 0x2,
    kEntitySharedGlobalIds = 0x4,
};

// "Bool", "Byte" and so on; "Unknown" for a value that is no type.
const char* propertyTypeName(PropertyType type);
// Bytes of a fixed-size type, 0 for one of variable length. Throws for a value that is no type.
size_t propertyTypeSize(PropertyType type);

constexpr bool isDateType(PropertyType type) {
    return type == PropertyType::Date || type == PropertyType::DateNano;
}

}  // namespace quillmere
