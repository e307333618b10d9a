#include "kv/partition.h"

#include <bit>

#include "core/endian.h"
#include "core/error.h"

namespace quillmere {

void checkPartitionId(uint64_t id) {
    if (!isPartitionId(id)) {
        throwIllegalArgument("Invalid ID for partition prefix: ", static_cast<int64_t>(id));
    }
}

uint32_t partitionPrefix(uint32_t type, uint64_t id, uint32_t subPartition) {
    if (type > 63) throwIllegalArgument("Invalid partition type: ", int64_t{type});
    if (subPartition > 3) throwIllegalArgument("Invalid sub partition: ", int64_t{subPartition});
    checkPartitionId(id);
    return ((type << 24 | static_cast<uint32_t>(id)) << 2) | subPartition;
}

uint32_t partitionPrefixBigEndian(uint32_t type, uint64_t id, uint32_t subPartition) {
    const uint32_t prefix = partitionPrefix(type, id, subPartition);
    return std::endian::native == std::endian::little ? byteSwap(prefix) : prefix;
}

}  // namespace quillmere
