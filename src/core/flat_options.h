#pragma once

// Store options given as a FlatBuffers table.

#include <cstddef>

#include "core/store_options.h"

namespace quillmere {

// The options of the table at the root of the bytes; what the table leaves out keeps its default.
// `modelBytes` of the result is a view into the bytes. Throws IllegalArgumentException for bytes
// that are no such table, and for modes that do not exist or do not go together.
StoreOptions convertFlatOptions(const void* bytes, size_t size);

}  // namespace quillmere
