// Version, features and diagnostics.

#include <cstring>
#include <string>
#include <tuple>

#include "capi/guard.h"
#include "core/error.h"
#include "core/feature.h"
#include "core/log.h"

using namespace quillmere;

namespace {

constexpr char kVersion[] = "4.0.2";
constexpr char kCoreVersion[] = "4.0.2-2024-10-15";

struct ListedFeature {
    Feature feature;
    const char* word;
};

// The features that the core version names, in this order.
constexpr ListedFeature kListedFeatures[] = {
    {Feature::SyncServer, "SyncServer"},
    {Feature::HttpServer, "http"},
    {Feature::Lmdb, "lmdb"},
    {Feature::VectorSearch, "VectorSearch"},
};

std::string makeCoreVersion() {
    std::string list;
    for (const ListedFeature& listed : kListedFeatures) {
        if (!hasFeature(static_cast<int32_t>(listed.feature))) continue;
        if (!list.empty()) list += ", ";
        list += listed.word;
    }
    return list.empty() ? kCoreVersion : kCoreVersion + (" (" + list + ")");
}

}  // namespace

void qmr_version(int* major, int* minor, int* patch) {
    if (major) *major = QMR_VERSION_MAJOR;
    if (minor) *minor = QMR_VERSION_MINOR;
    if (patch) *patch = QMR_VERSION_PATCH;
}

const char* qmr_version_string(void) {
    return kVersion;
}

bool qmr_version_is_at_least(int major, int minor, int patch) {
    return std::tuple(major, minor, patch) <=
           std::tuple(QMR_VERSION_MAJOR, QMR_VERSION_MINOR, QMR_VERSION_PATCH);
}

const char* qmr_version_core_string(void) {
    return pointerCall([] {
        static const std::string version = makeCoreVersion();
        return version.c_str();
    });
}

bool qmr_has_feature(int32_t feature) {
    return boolCall([&] {
        if (feature == 0) throwIllegalArgument("Illegal feature (zero)");
        return hasFeature(feature);
    });
}

qmr_err qmr_debug_log(bool) {
    return statusCall([] { requireFeature(Feature::DebugLog); });
}

bool qmr_debug_log_enabled(void) {
    return false;
}

int32_t qmr_thread_number(void) {
    return threadNumber();
}

qmr_err qmr_posix_sem_prefix_set(const char* prefix) {
    return statusCall([&] {
        constexpr size_t kMaxPrefixSize = 20;
        CHECK_ARG_NOT_NULL(prefix);
        const size_t size = std::strlen(prefix);
        if (size > kMaxPrefixSize) {
            throwIllegalArgument("Given prefix must not exceed 20 chars");
        }
        if (size == 0) throwIllegalArgument("Given prefix was empty");
        if (prefix[size - 1] != '/') {
            throwIllegalArgument("Given prefix must end with a slash '/'");
        }
        // No named semaphores on this platform.
    });
}
