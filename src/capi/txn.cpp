#include <memory>

#include "capi/guard.h"
#include "capi/handles.h"
#include "core/checks.h"
#include "store/thread_tx.h"
#include "store/transaction.h"

using namespace quillmere;

QMR_txn* qmr_txn_read(QMR_store* store) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(store);
        CHECK_STATE(store->store);
        return new QMR_txn(*store->store, TxMode::Read);
    });
}

QMR_txn* qmr_txn_write(QMR_store* store) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(store);
        CHECK_STATE(store->store);
        return new QMR_txn(*store->store, TxMode::Write);
    });
}

qmr_err qmr_txn_success(QMR_txn* txn) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(txn);
        const std::unique_ptr<QMR_txn> consumed(txn);
        txn->tx.markSuccess();
    });
}

qmr_err qmr_txn_abort(QMR_txn* txn) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(txn);
        txn->tx.abort();
    });
}

qmr_err qmr_txn_close(QMR_txn* txn) {
    return statusCall([&] {
        const std::unique_ptr<QMR_txn> consumed(txn);
        if (txn) txn->tx.close(true);
    });
}

qmr_err qmr_txn_data_size(QMR_txn* txn, uint64_t* out_committed_size, int64_t* out_size_change) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(txn);
        Transaction& tx = txn->tx.tx();
        if (out_committed_size) *out_committed_size = tx.getDataSize();
        if (out_size_change) *out_size_change = tx.dataSizeChange();
    });
}
