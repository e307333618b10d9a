#pragma once

// Hashes that tell whether two schemas are the same, each under its own view of what matters.
//
// SipHash-2-4-128 under one fixed key over a canonical byte sequence; numbers are little-endian,
// names are their bytes alone. In brackets the switch that an item depends on:
//
//     entity    id u32, uid u64, name [names], flags u32, external name [names],
//               its properties by ID,
//               last property ID u32 [lastPropertyId],
//               count u32 of relations, and by ID each: id u32, uid u64, target entity ID u32,
//               [indexIds] count u32 of indexes, and by ID each:
//                   id u32, uid u64, flags u32, property ID u32
//     property  id u32, uid u64, name [names], type u32, flags u32, target entity ID u32,
//               index ID u32 [indexIds], secondary name and virtual target [secondaryNames]
//     schema    the hashes of its entities by ID
//     catalog   the hash of its schema, then [lastIds] the last entity, index, relation and fourth
//               ID, u32 each
//
// Stored hashes are compared across opens: do not change any of it, the key included.

#include <cstdint>

#include "core/bytes.h"

namespace quillmere {

class Catalog;

// What goes into a hash.
struct SchemaHashOptions {
    uint32_t entityFlagsOut;  // flags to leave out
    uint32_t propertyFlagsOut;
    uint32_t indexFlagsOut;
    bool indexIds;
    bool secondaryNames;
    bool names;
    bool lastPropertyId;
    bool lastIds;
};

// All that a binding sees; models carry this one.
inline constexpr SchemaHashOptions kBindingHash{0, 0, 0, true, true, true, true, true};
// Without what only a binding cares about.
inline constexpr SchemaHashOptions kFullHash{0x1, 0x402, 0, true, false, true, true, true};
// The shape of stored objects alone.
inline constexpr SchemaHashOptions kBaseHash{0x1, 0x13FCE, 0, false, false, false, false, false};

// 16 bytes, over the catalog's default schema, which must be linked and not empty.
Bytes schemaHash(const Catalog& catalog, const SchemaHashOptions& options);

}  // namespace quillmere
