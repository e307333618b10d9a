#include "store/expired_objects.h"

#include "capi/guard.h"
#include "capi/handles.h"
#include "core/checks.h"

using namespace quillmere;

qmr_err qmr_expired_objects_remove(QMR_txn* txn, qmr_schema_id entity_id, uint64_t* out_removed) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(txn);
        txn->tx.store();  // throws once it is closed
        const uint64_t removed = removeExpiredObjects(txn->tx.tx(), entity_id);
        if (out_removed) *out_removed = removed;
    });
}
