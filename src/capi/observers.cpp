#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "capi/guard.h"
#include "capi/handles.h"
#include "core/checks.h"
#include "store/change_listeners.h"

using namespace quillmere;

namespace {

QMR_observer* addObserver(QMR_store* store, ChangeListeners::Listener listener) {
    std::unique_ptr<QMR_observer> observer(new QMR_observer{store});
    observer->listenerId.store(store->store->addListener(std::move(listener)));
    return observer.release();
}

}  // namespace

QMR_observer* qmr_observe(QMR_store* store, QMR_observer_callback* callback, void* user_data) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(store);
        CHECK_ARG_NOT_NULL(callback);
        return addObserver(store, [callback, user_data](const std::vector<uint32_t>& ids) {
            callback(user_data, ids.data(), ids.size());
        });
    });
}

QMR_observer* qmr_observe_single_type(QMR_store* store, qmr_schema_id entity_id,
                                      QMR_observer_single_type_callback* callback,
                                      void* user_data) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(store);
        CHECK_ARG_NOT_NULL(callback);
        return addObserver(
            store, [entity_id, callback, user_data](const std::vector<uint32_t>& ids) {
                if (std::find(ids.begin(), ids.end(), entity_id) != ids.end()) callback(user_data);
            });
    });
}

qmr_err qmr_observer_close(QMR_observer* observer) {
    return statusCall([&] {
        if (!observer) return;
        // If this throws, the record stays, for another try.
        uint64_t id = observer->listenerId.load();
        if (id != 0) observer->store->store->removeListener(id);
        if (observer->listenerId.compare_exchange_strong(id, 0)) delete observer;
    });
}
