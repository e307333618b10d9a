#pragma once

// Reads the data model that an application hands over when a store is opened.

#include <cstdint>
#include <memory>
#include <optional>

#include "core/bytes.h"
#include "schema/entity.h"

namespace quillmere {

class Schema;

// The content of model bytes.
struct Model {
    uint64_t userVersion = 0;
    IdUid lastEntityId;
    IdUid lastIndexId;
    IdUid fourthLastId;
    IdUid lastRelationId;
    Bytes hash;  // 16 bytes, or empty
    // Its entities are finished; it is not linked yet, so that relation properties may know their
    // targets by name only.
    std::shared_ptr<Schema> schema;
};

// Empty if the bytes, which may be any, are no valid buffer. Throws SchemaException if something
// that every model has is missing or contradictory. Copies what it keeps.
std::optional<Model> readModel(const Bytes& modelBytes);

}  // namespace quillmere
