#pragma once

// The features that a build of the library has or lacks. The numbers are part of the C interface.

#include <cstdint>

namespace quillmere {

enum class Feature : int32_t {
    ResultArray = 1,
    TimeSeries = 2,
    Sync = 3,
    DebugLog = 4,
    Admin = 5,
    Tree = 6,
    SyncServer = 7,
    WebSockets = 8,
    Cluster = 9,
    HttpServer = 10,
    GraphQL = 11,
    Backup = 12,
    Lmdb = 13,
    VectorSearch = 14,
    Wal = 15,
    SyncMongoDb = 16,
};

bool hasFeature(int32_t number);
// The name of a feature number; "Invalid" below 1 and "Unknown" above 16. With `known` required,
// such a number is an argument failure.
const char* featureName(int32_t number, bool mustBeKnown = false);
// Throws FeatureNotAvailableException if this build lacks the feature.
void requireFeature(Feature feature);

}  // namespace quillmere
