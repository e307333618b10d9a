#pragma once

// HNSW options as a FlatBuffers table, the same in models and in the catalog. An absent field
// stands for the default. Do not change.
//
//     field 0  u32  dimensions
//           1  u32  neighbours per node
//           2  u32  indexing search count
//           3  u32  flags
//           4  u16  distance type
//           5  f32  reparation backlink probability
//           6  u64  vector cache size in KB, unless it is the default

#include <memory>

#include "schema/flat_table.h"
#include "vector/hnsw_options.h"

namespace quillmere {

// Values of zero are left out. Throws NumericOverflowException for values beyond their fields.
TableOffset writeHnswTable(flatbuffers::FlatBufferBuilder& builder, const HnswOptions& options);

bool verifyHnswTable(flatbuffers::Verifier& verifier, const flatbuffers::Table& table);

// REQUIRES: verified. Throws IllegalArgumentException for a cache size beyond 64 bits.
std::shared_ptr<const HnswOptions> readHnswTable(const flatbuffers::Table& table);

}  // namespace quillmere
