#pragma once

// The catalog record: what a store remembers of its schema beside the entities themselves.

#include <cstdint>
#include <memory>

#include "core/bytes.h"

namespace quillmere {

struct Model;
class Schema;

// A plain value. IDs that were given out once are never given out again, which is what the last IDs
// are for.
class Catalog {
public:
    static constexpr uint32_t kSupportedMetaVersion = 2;

    // With the last IDs of the model, an empty default schema, the present time and a random value.
    static Catalog create(const Model& model);
    // The catalog as the bytes of element 0 have it; the schema is without its entities. Throws
    // DbFileCorruptException for damaged records, SchemaException for versions that this library
    // cannot read.
    static Catalog parse(const Bytes& record);

    // The bytes of element 0.
    Bytes build() const;
    // Replaces the default schema by an empty one, to be filled from the stored entities.
    std::shared_ptr<Schema> renewDefaultSchema();

    uint32_t version = 2;
    uint32_t minVersion = 1;
    uint64_t randomValue = 0;
    uint64_t creationTimeNanos = 0;  // since the Unix epoch
    uint64_t updateTimeNanos = 0;    // the same
    uint32_t lastEntityId = 0;
    uint32_t lastIndexId = 0;
    uint32_t fourthLastId = 0;  // kept and hashed; nothing draws on it
    uint32_t lastRelationId = 0;
    uint64_t userVersion = 0;
    std::shared_ptr<Schema> defaultSchema;
    Bytes bindingHash;  // 16 bytes each, or empty
    Bytes fullHash;
    Bytes baseHash;
};

// Nanoseconds since the Unix epoch.
uint64_t currentTimeNanos();

}  // namespace quillmere
