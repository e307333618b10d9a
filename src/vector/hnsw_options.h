#pragma once

// The options of an HNSW index, as a model gives them and the catalog keeps them.

#include <cstdint>

namespace quillmere {

enum class VectorDistanceType : uint32_t {
    Unknown = 0,
    Euclidean = 1,
    Cosine = 2,
    DotProduct = 3,
    Manhattan = 4,
    Hamming = 5,
    DotProductNonNormalized = 10,
};

// Bits of the flags word in models and in the catalog.
enum HnswFlags : uint32_t {
    kHnswDebugLogs = 1,
    kHnswDebugLogsDetailed = 2,
    kHnswVectorCachePaddingOff = 4,
    kHnswReparationLimitCandidates = 8,
};

struct HnswOptions {
    uint64_t neighborsPerNode = 30;
    uint64_t indexingSearchCount = 100;
    uint64_t dimensions = 0;  // must be set
    VectorDistanceType distanceType = VectorDistanceType::Euclidean;
    uint64_t distanceBatchSize = 0;  // 0: worked out from the dimensions
    float randomAcceptProbability = 0.0f;
    float randomAcceptPosition = 0.5f;
    uint8_t maxLevel = 15;
    bool debugLogs = false;
    bool debugLogsDetailed = false;
    uint64_t randomSeed = 0;  // 0: from the system's random device
    uint32_t randomEngineType = 0;
    uint64_t vectorCacheSize = 2147483648;  // bytes
    bool vectorCacheSizeIsDefault = true;
    bool vectorCacheRelaxedLimits = false;
    bool vectorCachePadding = true;
    bool reparationUnlimitedCandidates = true;
    float reparationBacklinkProbability = 1.0f;
    float levelGrowthFactor = 1.5f;
    uint64_t vectorCacheChunkSize = 0;  // bytes; 0: worked out from vectorCacheSize

    // The flags word that stands for the four switches, and the way back; other bits are ignored.
    uint32_t flags() const;
    void setFlags(uint32_t flags);
    // Throws IllegalArgumentException if the size in bytes exceeds 64 bits.
    void setVectorCacheSizeKb(uint64_t kilobytes);

    bool operator==(const HnswOptions&) const = default;
};

// "Euclidean" and so on; "Unknown" for every other number.
const char* vectorDistanceTypeName(VectorDistanceType type);

}  // namespace quillmere
