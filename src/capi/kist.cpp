#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "capi/guard.h"
#include "capi/handles.h"
#include "capi/results.h"
#include "core/cast.h"
#include "core/checks.h"
#include "core/error.h"
#include "core/feature.h"
#include "schema/entity.h"
#include "store/cursor.h"
#include "store/entity_state.h"
#include "store/kist.h"
#include "store/thread_tx.h"

using namespace quillmere;

namespace {

void checkStoreOpen(const QMR_kist* kist) {
    ObjectStore::checkOpen(kist->store->store, false);
}

// A null array is an empty list.
std::vector<uint64_t> copyIds(const QMR_id_array* ids) {
    std::vector<uint64_t> copy;
    if (!ids || ids->count == 0) return copy;
    CHECK_ARG_NOT_NULL(ids->ids);
    copy.reserve(ids->count);  // refuses a count that no array can have
    copy.assign(ids->ids, ids->ids + ids->count);
    return copy;
}

std::vector<Bytes> viewObjects(const QMR_bytes_array* objects) {
    std::vector<Bytes> views;
    if (objects->count == 0) return views;
    CHECK_ARG_NOT_NULL(objects->bytes);
    views.reserve(objects->count);
    for (size_t i = 0; i < objects->count; ++i) {
        const QMR_bytes& object = objects->bytes[i];
        CHECK_ARG_NOT_NULL(object.data);
        CHECK_ARG(object.size > 0);
        views.emplace_back(object.data, object.size);
    }
    return views;
}

void putWithMode(QMR_kist* kist, qmr_id id, const void* data, size_t size, int32_t mode) {
    CHECK_ARG_NOT_NULL(kist);
    CHECK_ARG_NOT_NULL(data);
    CHECK_ARG(size > 0);
    kist->kist.put(id, data, size, mode);
}

qmr_id putObjectWithMode(QMR_kist* kist, void* data, size_t size, int32_t mode) {
    CHECK_ARG_NOT_NULL(kist);
    CHECK_ARG_NOT_NULL(data);
    CHECK_ARG(size > 0);
    return kist->kist.putObject(data, size, mode, false);
}

// The code of a put of many in which the mode refused an ID.
qmr_err refusedIdCode(int32_t mode) {
    switch (mode) {
        case kPutInsert: return QMR_ERROR_ID_ALREADY_EXISTS;
        case kPutUpdate: return QMR_ERROR_ID_NOT_FOUND;
        default:
            throwIllegalState("Internal error; put should not result in !allOk for mode ",
                              int64_t{mode});
    }
}

QMR_id_array* relationIds(QMR_kist* kist, qmr_schema_id relationId, qmr_id id, bool backlink) {
    CHECK_ARG_NOT_NULL(kist);
    checkStoreOpen(kist);
    std::vector<uint64_t> ids;
    kist->kist.relationIds(relationId, id, ids, backlink);
    return makeIdArray(ids);
}

}  // namespace

QMR_kist* qmr_kist(QMR_store* store, qmr_schema_id entity_id) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(store);
        const std::lock_guard lock(store->kistsMutex);
        auto found = store->kists.find(entity_id);
        if (found == store->kists.end()) {
            const QMR_kist record{store, store->store->kist(entity_id)};
            found = store->kists.emplace(entity_id, record).first;
        }
        return &found->second;
    });
}

QMR_store* qmr_kist_store(QMR_kist* kist) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        checkStoreOpen(kist);
        return kist->store;
    });
}

qmr_id qmr_kist_id_for_put(QMR_kist* kist, qmr_id id) {
    return numberCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        return kist->kist.idForPut(id);
    });
}

qmr_err qmr_kist_ids_for_put(QMR_kist* kist, uint64_t count, qmr_id* out_first_id) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        CHECK_ARG_NOT_NULL(out_first_id);
        checkStoreOpen(kist);
        *out_first_id = kist->kist.idsForPut(checkedCast<int64_t>(count));
    });
}

qmr_err qmr_kist_put(QMR_kist* kist, qmr_id id, const void* data, size_t size) {
    return statusCall([&] { putWithMode(kist, id, data, size, kPut); });
}

qmr_err qmr_kist_put5(QMR_kist* kist, qmr_id id, const void* data, size_t size, int32_t mode) {
    return statusCall([&] { putWithMode(kist, id, data, size, mode); });
}

qmr_err qmr_kist_insert(QMR_kist* kist, qmr_id id, const void* data, size_t size) {
    return statusCall([&] { putWithMode(kist, id, data, size, kPutInsert); });
}

qmr_err qmr_kist_update(QMR_kist* kist, qmr_id id, const void* data, size_t size) {
    return statusCall([&] { putWithMode(kist, id, data, size, kPutUpdate); });
}

qmr_id qmr_kist_put_object(QMR_kist* kist, void* data, size_t size) {
    return numberCall([&] { return putObjectWithMode(kist, data, size, kPut); });
}

qmr_id qmr_kist_put_object4(QMR_kist* kist, void* data, size_t size, int32_t mode) {
    return numberCall([&] { return putObjectWithMode(kist, data, size, mode); });
}

qmr_err qmr_kist_put_many(QMR_kist* kist, const QMR_bytes_array* objects, const QMR_id_array* ids,
                          int32_t mode) {
    return qmr_kist_put_many5(kist, objects, ids, mode, false);
}

qmr_err qmr_kist_put_many5(QMR_kist* kist, const QMR_bytes_array* objects, const QMR_id_array* ids,
                           int32_t mode, bool stop_on_failure) {
    qmr_err refused = 0;
    const qmr_err failed = statusCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        CHECK_ARG_NOT_NULL(objects);
        CHECK_ARG_NOT_NULL(ids);
        checkStoreOpen(kist);
        if (!kist->kist.putMany(copyIds(ids), viewObjects(objects), mode, stop_on_failure)) {
            refused = refusedIdCode(mode);
        }
    });
    return failed ? failed : refused;
}

qmr_err qmr_kist_get(QMR_kist* kist, qmr_id id, const void** data, size_t* size) {
    return foundCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        CHECK_ARG_NOT_NULL(data);
        CHECK_ARG_NOT_NULL(size);
        Bytes object;
        if (!kist->kist.get(id, object)) return false;
        *data = object.data();
        *size = object.size();
        return true;
    });
}

QMR_bytes_array* qmr_kist_get_all(QMR_kist* kist) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        checkStoreOpen(kist);
        std::vector<Bytes> objects;
        kist->kist.getAll(objects);
        return makeBytesArray(objects);
    });
}

QMR_bytes_array* qmr_kist_get_many(QMR_kist* kist, const QMR_id_array* ids) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        CHECK_ARG_NOT_NULL(ids);
        checkStoreOpen(kist);
        std::vector<Bytes> objects;
        kist->kist.getMany(copyIds(ids), objects);
        return makeBytesArray(objects);
    });
}

qmr_err qmr_kist_visit_all(QMR_kist* kist, QMR_data_visitor* visitor, void* user_data) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        CHECK_ARG_NOT_NULL(visitor);
        checkStoreOpen(kist);
        ThreadTx tx(kist->kist.store(), TxMode::Read, &kist->kist.entity());
        Cursor& cursor = tx.cursor();
        Bytes object;
        bool go = cursor.first(object);
        while (go && visitor(object.data(), object.size(), user_data)) go = cursor.next(object);
    });
}

qmr_err qmr_kist_visit_many(QMR_kist* kist, const QMR_id_array* ids, QMR_data_visitor* visitor,
                            void* user_data) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        CHECK_ARG_NOT_NULL(ids);
        CHECK_ARG_NOT_NULL(visitor);
        checkStoreOpen(kist);
        const std::vector<uint64_t> list = copyIds(ids);
        ThreadTx tx(kist->kist.store(), TxMode::Read, &kist->kist.entity());
        Cursor& cursor = tx.cursor();
        Bytes object;
        for (const uint64_t id : list) {
            if (!cursor.get(id, object)) object.clear();
            if (!visitor(object.data(), object.size(), user_data)) return;
        }
    });
}

qmr_err qmr_kist_remove(QMR_kist* kist, qmr_id id) {
    return foundCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        return kist->kist.remove(id);
    });
}

qmr_err qmr_kist_remove_many(QMR_kist* kist, const QMR_id_array* ids, uint64_t* out_count) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        CHECK_ARG_NOT_NULL(ids);
        checkStoreOpen(kist);
        const uint64_t count = kist->kist.removeMany(copyIds(ids));
        if (out_count) *out_count = count;
    });
}

qmr_err qmr_kist_remove_all(QMR_kist* kist, uint64_t* out_count) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        checkStoreOpen(kist);
        const uint64_t count = kist->kist.removeAll();
        if (out_count) *out_count = count;
    });
}

qmr_err qmr_kist_contains(QMR_kist* kist, qmr_id id, bool* out_contains) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        CHECK_ARG_NOT_NULL(out_contains);
        *out_contains = kist->kist.contains(id);
    });
}

qmr_err qmr_kist_contains_many(QMR_kist* kist, const QMR_id_array* ids, bool* out_contains) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        CHECK_ARG_NOT_NULL(out_contains);
        checkStoreOpen(kist);
        *out_contains = kist->kist.containsAll(copyIds(ids));
    });
}

qmr_err qmr_kist_count(QMR_kist* kist, uint64_t max_count, uint64_t* out_count) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        CHECK_ARG_NOT_NULL(out_count);
        checkStoreOpen(kist);
        *out_count = kist->kist.count(max_count);
    });
}

qmr_err qmr_kist_is_empty(QMR_kist* kist, bool* out_is_empty) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        CHECK_ARG_NOT_NULL(out_is_empty);
        *out_is_empty = kist->kist.isEmpty();
    });
}

QMR_id_array* qmr_kist_get_backlink_ids(QMR_kist* kist, qmr_schema_id property_id, qmr_id id) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        checkStoreOpen(kist);
        std::vector<uint64_t> ids;
        kist->kist.backlinkIds(kist->kist.entity().propertyById(property_id), id, ids);
        return makeIdArray(ids);
    });
}

qmr_err qmr_kist_rel_put(QMR_kist* kist, qmr_schema_id relation_id, qmr_id source_id,
                         qmr_id target_id) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        kist->kist.relationPut(relation_id, source_id, target_id);
    });
}

qmr_err qmr_kist_rel_remove(QMR_kist* kist, qmr_schema_id relation_id, qmr_id source_id,
                            qmr_id target_id) {
    return foundCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        return kist->kist.relationRemove(relation_id, source_id, target_id);
    });
}

QMR_id_array* qmr_kist_rel_get_ids(QMR_kist* kist, qmr_schema_id relation_id, qmr_id id) {
    return pointerCall([&] { return relationIds(kist, relation_id, id, false); });
}

QMR_id_array* qmr_kist_rel_get_backlink_ids(QMR_kist* kist, qmr_schema_id relation_id,
                                            qmr_id id) {
    return pointerCall([&] { return relationIds(kist, relation_id, id, true); });
}

qmr_err qmr_kist_ts_min_max(QMR_kist* kist, qmr_id*, int64_t*, qmr_id*, int64_t*) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        requireFeature(Feature::TimeSeries);
    });
}

qmr_err qmr_kist_ts_min_max_range(QMR_kist* kist, int64_t, int64_t, qmr_id*, int64_t*, qmr_id*,
                                  int64_t*) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(kist);
        requireFeature(Feature::TimeSeries);
    });
}
