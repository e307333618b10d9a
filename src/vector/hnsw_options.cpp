#include "vector/hnsw_options.h"

#include <limits>

#include "core/error.h"

namespace quillmere {

uint32_t HnswOptions::flags() const {
    return (debugLogs ? kHnswDebugLogs : 0u) |
           (debugLogsDetailed ? kHnswDebugLogsDetailed : 0u) |
           (vectorCachePadding ? 0u : kHnswVectorCachePaddingOff) |
           (reparationUnlimitedCandidates ? 0u : kHnswReparationLimitCandidates);
}

void HnswOptions::setFlags(uint32_t flags) {
    debugLogs = (flags & kHnswDebugLogs) != 0;
    debugLogsDetailed = (flags & kHnswDebugLogsDetailed) != 0;
    vectorCachePadding = (flags & kHnswVectorCachePaddingOff) == 0;
    reparationUnlimitedCandidates = (flags & kHnswReparationLimitCandidates) == 0;
}

void HnswOptions::setVectorCacheSizeKb(uint64_t kilobytes) {
    if (kilobytes > std::numeric_limits<uint64_t>::max() >> 10) {
        throwIllegalArgument("Vector cache size is too large (KB): ", std::to_string(kilobytes));
    }
    vectorCacheSize = kilobytes << 10;
    vectorCacheSizeIsDefault = false;
}

const char* vectorDistanceTypeName(VectorDistanceType type) {
    switch (type) {
        case VectorDistanceType::Euclidean: return "Euclidean";
        case VectorDistanceType::Cosine: return "Cosine";
        case VectorDistanceType::DotProduct: return "DotProduct";
        case VectorDistanceType::Manhattan: return "Manhattan";
        case VectorDistanceType::Hamming: return "Hamming";
        case VectorDistanceType::DotProductNonNormalized: return "DotProductNonNormalized";
        case VectorDistanceType::Unknown: break;
    }
    return "Unknown";
}

}  // namespace quillmere
