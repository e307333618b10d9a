#pragma once

// The catalog record: what a store remembers of its schema beside the entities themselves.

#include <cstdint>
#include <memory>

#include "core/bytes.h"

namespace quillmere {

class Model;
class Schema;

// A plain value. A new one takes the present time and a random value.
class Catalog {
public:
    static constexpr uint32_t kSupportedMetaVersion = 2;

    uint32_t version = 2;
    uint32_t minVersion = 1;
    uint64_t randomValue = 0;
    uint64_t creationTimeNanos = 0;
    uint64_t updateTimeNanos = 0;
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

}  // namespace quillmere
