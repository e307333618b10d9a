#include <memory>
#include <utility>

#include "capi/guard.h"
#include "capi/handles.h"
#include "core/checks.h"
#include "store/object_store.h"

using namespace quillmere;

QMR_weak_store* qmr_weak_store(QMR_store* store) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(store);
        return new QMR_weak_store{store->shared};
    });
}

QMR_weak_store* qmr_weak_store_by_id(uint64_t store_id) {
    return pointerCall([&] {
        std::weak_ptr<ObjectStore> store = ObjectStore::weakById(store_id);
        return store.expired() ? nullptr : new QMR_weak_store{std::move(store)};
    });
}

QMR_store* qmr_weak_store_lock(QMR_weak_store* weak_store) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(weak_store);
        return makeStoreRecord(weak_store->store.lock());
    });
}

void qmr_weak_store_free(QMR_weak_store* weak_store) {
    delete weak_store;
}
