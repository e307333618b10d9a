#include "core/feature.h"

#include <array>

#include "core/checks.h"
#include "core/error.h"

namespace quillmere {

namespace {

struct FeatureEntry {
    const char* name;
    bool available;
};

// By number; 0 is no feature.
constexpr std::array<FeatureEntry, 17> kFeatures{{
    {"Invalid", false},
    {"ResultArray", true},
    {"TimeSeries", false},
    {"Sync", false},
    {"DebugLog", false},
    {"Admin", false},
    {"Tree", false},
    {"SyncServer", false},
    {"WebSockets", false},
    {"Cluster", false},
    {"HttpServer", false},
    {"GraphQL", false},
    {"Backup", false},
    {"Lmdb", true},
    {"VectorSearch", true},
    {"Wal", true},
    {"SyncMongoDb", false},
}};

bool isKnown(int32_t number) {
    return number >= 1 && number < static_cast<int32_t>(kFeatures.size());
}

}  // namespace

bool hasFeature(int32_t number) {
    return isKnown(number) && kFeatures[static_cast<size_t>(number)].available;
}

const char* featureName(int32_t number, bool mustBeKnown) {
    const bool known = isKnown(number);
    if (mustBeKnown) CHECK_ARG(known);
    if (known) return kFeatures[static_cast<size_t>(number)].name;
    return number < 1 ? "Invalid" : "Unknown";
}

void requireFeature(Feature feature) {
    const auto number = static_cast<int32_t>(feature);
    if (hasFeature(number)) return;
    throwWith<FeatureNotAvailableException>("Feature '", featureName(number),
                                            "' is not available in this edition.");
}

}  // namespace quillmere
