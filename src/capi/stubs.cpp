// Functions of features that this build lacks. They report so, and have no other body.

#include "capi/guard.h"
#include "capi/options.h"

using namespace quillmere;

namespace {

#define VENDOR_PAGE "https://quillmere.io"

constexpr char kNoSync[] =
    "Sync is not available in the loaded Quillmere runtime library. "
    "Please visit " VENDOR_PAGE " for options.";
constexpr char kNoSyncServer[] =
    "SyncServer is not available in the loaded Quillmere runtime library. "
    "Please visit " VENDOR_PAGE " for options.";
constexpr char kNoTree[] =
    "The tree feature is not available in the loaded Quillmere runtime library.";
constexpr char kNoAdmin[] =
    "The admin feature is not available in the loaded Quillmere runtime library.";

void report(const char* message) {
    setLastError(QMR_ERROR_FEATURE_NOT_AVAILABLE, 0, message);
}

}  // namespace

QMR_sync* qmr_sync(QMR_store*, const char*) {
    report(kNoSync);
    return nullptr;
}

QMR_sync_server* qmr_sync_server(QMR_store_options* opt, const char*) {
    delete opt;
    report(kNoSyncServer);
    return nullptr;
}

QMR_sync_server* qmr_sync_server_from_flat_options(QMR_store_options* opt, const void*, size_t) {
    delete opt;
    report(kNoSyncServer);
    return nullptr;
}

QMR_tree* qmr_tree(QMR_txn*, const char*) {
    report(kNoTree);
    return nullptr;
}

qmr_id qmr_tree_leaves_info_id(QMR_tree_leaves_info*, size_t) {
    return 0;
}

size_t qmr_tree_leaves_info_size(QMR_tree_leaves_info*) {
    return 0;
}

uint32_t qmr_tree_leaves_info_type(QMR_tree_leaves_info*, size_t) {
    return 0;
}

size_t qmr_tree_node_conflict_count(QMR_tree_node*) {
    return 0;
}

QMR_admin* qmr_admin(void*) {
    report(kNoAdmin);
    return nullptr;
}

uint16_t qmr_admin_port(QMR_admin*) {
    report(kNoAdmin);
    return 0;
}
