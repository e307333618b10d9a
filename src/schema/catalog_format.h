#pragma once

// Records of the schema partition: FlatBuffers without file identifier and size prefix, their sizes
// a multiple of 4. Element 0 is the catalog, element n the entity with ID n. On disk: do not
// change.
//
// The constants are field IDs; field n has the vtable offset 4 + 2 n. Values of zero, empty strings
// and empty vectors are left out.
//
//     Catalog        element 0
//       schemas        Schema, one: the default schema
//     Entity         elements 1 to 0xFFFFFF; higher ones belong to later versions
//       properties     Property +
//         HNSW options   HnswTable ?   (hnsw_table.h)
//       relations      Relation *

#include <cstdint>

namespace quillmere::catalog_format {

inline constexpr uint64_t kCatalogElement = 0;
inline constexpr uint64_t kElementLimit = 1u << 25;  // beyond every element

inline constexpr uint32_t kCatalogVersion = 2;
inline constexpr uint32_t kCatalogMinVersion = 1;
inline constexpr uint32_t kEntityVersion = 1;
inline constexpr size_t kHashSize = 16;

enum CatalogField : uint32_t {
    kCatalogSchemas = 0,          // [Schema]
    kCatalogVersionField = 2,     // u32
    kCatalogMinVersionField = 3,  // u32
    kCatalogRandomValue = 4,      // u64
    kCatalogCreationTime = 5,     // u64, nanoseconds since the Unix epoch
    kCatalogUpdateTime = 6,       // u64, the same
    kCatalogLastEntityId = 7,     // u32
    kCatalogCarried = 8,          // u32, 0
    kCatalogLastIndexId = 9,      // u32
    kCatalogFourthLastId = 10,    // u32
    kCatalogLastRelationId = 11,  // u32
    kCatalogBindingHash = 12,     // [u8], 16 of them
    kCatalogFullHash = 13,        // the same
    kCatalogBaseHash = 14,        // the same
};

enum SchemaField : uint32_t {
    kSchemaName = 0,         // string
    kSchemaId = 1,           // u32
    kSchemaUserVersion = 2,  // u64
};

enum EntityField : uint32_t {
    kEntityUid = 0,              // u64
    kEntityId = 1,               // u32
    kEntitySchemaId = 2,         // u32
    kEntityName = 3,             // string
    kEntityProperties = 4,       // [Property]
    kEntityRelations = 5,        // [Relation]
    kEntityCarried = 6,          // u32, kept as it is
    kEntityVersionField = 7,     // u32
    kEntityMinVersionField = 8,  // u32
    kEntityLastPropertyId = 9,   // u32
    kEntityLastRelationId = 10,  // u32
    kEntityFlags = 11,           // u32
    kEntityExternalName = 13,    // string
};

enum PropertyField : uint32_t {
    kPropertyUid = 0,             // u64
    kPropertyIdField = 1,         // u32
    kPropertyEntityId = 2,        // u32
    kPropertyTargetEntityId = 3,  // u32
    kPropertyIndexId = 4,         // u32
    kPropertyIndexUid = 5,        // u64
    kPropertyName = 6,            // string
    kPropertyType = 7,            // u16
    kPropertyFlatOffset = 8,      // u16
    kPropertyFlagsWord = 9,       // u32
    kPropertyVirtualTarget = 10,  // string
    kPropertySecondaryName = 11,  // string
    kPropertyHnsw = 13,           // HnswTable
};

enum RelationField : uint32_t {
    kRelationId = 0,      // u32
    kRelationUid = 1,     // u64
    kRelationSource = 2,  // u32
    kRelationTarget = 3,  // u32
};

}  // namespace quillmere::catalog_format
