#include "schema/relation.h"

#include "kv/partition.h"

namespace quillmere {

Relation::Relation(uint32_t id, uint64_t uid, uint32_t sourceEntityId, uint32_t targetEntityId)
    : id_(id), uid_(uid), sourceEntityId_(sourceEntityId), targetEntityId_(targetEntityId) {
    checkPartitionId(id);
    checkPartitionId(sourceEntityId);
    checkPartitionId(targetEntityId);
}

std::string Relation::text() const {
    return "Relation " + std::to_string(id_) + " (from entity " + std::to_string(sourceEntityId_) +
           " to " + std::to_string(targetEntityId_) + ")";
}

}  // namespace quillmere
