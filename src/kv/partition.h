#pragma once

// Key layout: the flat map of a store is carved into partitions by the first four bytes of a key,
// a big-endian number of three fields.
//
//     bits 31..26  partition type   0..63
//     bits 25..2   ID               1..0xFFFFFF
//     bits  1..0   sub partition    0..3
//
// These numbers are on disk: do not change them.

#include <cstdint>

namespace quillmere {

enum class PartitionType : uint32_t {
    System = 0,
    Sync = 1,             // no writer in this build
    Relation = 2,
    Reserved = 4,         // no writer in this build
    Entity = 6,
    Index = 8,
    VectorNeighbors = 9,
    KeyValue = 16,
};

inline constexpr uint32_t kMaxPartitionId = 0xFFFFFF;

// The schema catalog: prefix 0, which the builders refuse.
inline constexpr uint32_t kSchemaPrefix = 0;
inline constexpr uint32_t kUserPrefix = 0x00000004;
// The sum of all object bytes: this prefix alone is the key.
inline constexpr uint32_t kTotalSizePrefix = 0x00000400;
inline constexpr uint32_t kKeyValuePrefix = 0x40000004;

constexpr bool isPartitionId(uint64_t id) { return id >= 1 && id <= kMaxPartitionId; }
// Throws IllegalArgumentException unless 1 to 0xFFFFFF.
void checkPartitionId(uint64_t id);

// The prefix as a number; checks type, sub partition and ID, in this order.
uint32_t partitionPrefix(uint32_t type, uint64_t id, uint32_t subPartition);
inline uint32_t partitionPrefix(PartitionType type, uint64_t id, uint32_t subPartition = 0) {
    return partitionPrefix(static_cast<uint32_t>(type), id, subPartition);
}
// The same with its bytes in big-endian order.
uint32_t partitionPrefixBigEndian(uint32_t type, uint64_t id, uint32_t subPartition);

constexpr uint32_t partitionTypeOf(uint32_t prefix) { return prefix >> 26; }
constexpr uint32_t partitionIdOf(uint32_t prefix) { return (prefix >> 2) & kMaxPartitionId; }
constexpr uint32_t subPartitionOf(uint32_t prefix) { return prefix & 3; }

}  // namespace quillmere
