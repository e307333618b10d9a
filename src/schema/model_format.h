#pragma once

// Model bytes: the data model of an application as one FlatBuffer, the contract with language
// bindings and code generators. Do not change.
//
// The constants are field IDs; field n has the vtable offset 4 + 2 n. Strings and vectors are left
// out when empty, an IdUid when both halves are 0. There is no file identifier and no size prefix.
//
//     Model            root
//       entities         ModelEntity *
//         properties       ModelProperty +
//           HNSW options     HnswTable ?
//         relations        ModelRelation *

#include <flatbuffers/flatbuffers.h>

#include <cstdint>

#include "schema/entity.h"

namespace quillmere::model_format {

inline constexpr uint32_t kModelVersion = 2;
inline constexpr uint64_t kUserVersion = 1;
inline constexpr size_t kHashSize = 16;

// The struct in a buffer:
//     0  u32 id     4  zeros     8  u64 uid
struct IdUidField {
    explicit IdUidField(const IdUid& value)
        : id(flatbuffers::EndianScalar(value.id)), uid(flatbuffers::EndianScalar(value.uid)) {}
    IdUid value() const {
        return {flatbuffers::EndianScalar(id), flatbuffers::EndianScalar(uid)};
    }

    uint32_t id;
    uint32_t padding = 0;
    uint64_t uid;
};
static_assert(sizeof(IdUidField) == 16 && alignof(IdUidField) == 8);

enum ModelField : uint32_t {
    kModelVersionField = 0,    // u32
    kModelName = 1,            // string
    kModelUserVersion = 2,     // u64
    kModelEntities = 3,        // [ModelEntity]
    kModelLastEntityId = 4,    // IdUid
    kModelLastIndexId = 5,     // IdUid
    kModelFourthLastId = 6,    // IdUid
    kModelLastRelationId = 7,  // IdUid
    kModelHash = 8,            // [u8], 16 of them
};

enum ModelEntityField : uint32_t {
    kEntityId = 0,              // IdUid
    kEntityName = 1,            // string
    kEntityProperties = 2,      // [ModelProperty]
    kEntityLastPropertyId = 3,  // IdUid
    kEntityRelations = 4,       // [ModelRelation]
    kEntityFlags = 5,           // u32
    kEntityExternalName = 6,    // string
};

enum ModelPropertyField : uint32_t {
    kPropertyIdUid = 0,          // IdUid
    kPropertyName = 1,           // string
    kPropertyType = 2,           // u16
    kPropertyFlagsWord = 3,      // u32
    kPropertyIndex = 4,          // IdUid
    kPropertyTargetEntity = 5,   // string
    kPropertyVirtualTarget = 6,  // string
    kPropertySecondaryName = 7,  // string
    kPropertyHnsw = 9,           // HnswTable
    kPropertySmallValue = 10,    // u16, without a meaning here
};

enum ModelRelationField : uint32_t {
    kRelationId = 0,      // IdUid
    kRelationTarget = 2,  // IdUid
};

}  // namespace quillmere::model_format
