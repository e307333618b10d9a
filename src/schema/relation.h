#pragma once

#include <cstdint>
#include <string>

namespace quillmere {

// A standalone many-to-many relation from a source entity to a target entity. Immutable.
class Relation {
public:
    // Throws IllegalArgumentException unless the three IDs are partition IDs.
    Relation(uint32_t id, uint64_t uid, uint32_t sourceEntityId, uint32_t targetEntityId);

    uint32_t id() const { return id_; }
    uint64_t uid() const { return uid_; }
    uint32_t sourceEntityId() const { return sourceEntityId_; }
    uint32_t targetEntityId() const { return targetEntityId_; }
    // "Relation 3 (from entity 1 to 2)"
    std::string text() const;

private:
    uint32_t id_;
    uint64_t uid_;
    uint32_t sourceEntityId_;
    uint32_t targetEntityId_;
};

}  // namespace quillmere
