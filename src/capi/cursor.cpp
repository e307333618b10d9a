#include <memory>
#include <vector>

#include "capi/guard.h"
#include "capi/handles.h"
#include "capi/results.h"
#include "core/checks.h"
#include "core/feature.h"
#include "schema/schema.h"
#include "store/cursor.h"
#include "store/entity_state.h"
#include "store/relation_cursor.h"

using namespace quillmere;

namespace {

// Reads an object into the record by a call of the cursor, and hands out the view if there is one.
template <class Read, class... Id>
bool readObject(QMR_cursor* cursor, const void** data, size_t* size, Read read, Id... id) {
    CHECK_ARG_NOT_NULL(cursor);
    CHECK_ARG_NOT_NULL(data);
    CHECK_ARG_NOT_NULL(size);
    if (!((*cursor->cursor).*read)(id..., cursor->object)) return false;
    *data = cursor->object.data();
    *size = cursor->object.size();
    return true;
}

// Gives the ID unless it is 0, which stands for none.
bool foundId(uint64_t id, qmr_id* out_id) {
    if (id == 0) return false;
    if (out_id) *out_id = id;
    return true;
}

void putWithMode(QMR_cursor* cursor, qmr_id id, const void* data, size_t size, int32_t mode) {
    CHECK_ARG_NOT_NULL(cursor);
    CHECK_ARG_NOT_NULL(data);
    cursor->cursor->put(id, data, size, mode);
}

qmr_id putObjectWithMode(QMR_cursor* cursor, void* data, size_t size, int32_t mode) {
    CHECK_ARG_NOT_NULL(cursor);
    CHECK_ARG_NOT_NULL(data);
    return cursor->cursor->putObject(data, size, mode);
}

const Property& getProperty(const QMR_cursor* cursor, qmr_schema_id entityId,
                            qmr_schema_id propertyId) {
    CHECK_STATE_TEXT_AT(232, cursor->cursor, __func__, "cursor->cursor");
    const auto schema = liveTx(*cursor).store().requireSchema();
    return schema->entityById(entityId).propertyById(propertyId);
}

std::vector<uint64_t> backlinkIds(Cursor& cursor, const Property& property, qmr_id id) {
    std::vector<uint64_t> ids;
    cursor.backlinkIds(property, id, ids);
    return ids;
}

}  // namespace

QMR_cursor* qmr_cursor(QMR_txn* txn, qmr_schema_id entity_id) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(txn);
        const std::shared_ptr<Schema> schema = txn->tx.store().requireSchema();
        return new QMR_cursor{txn->tx.createCursor(schema->entityById(entity_id)), {}};
    });
}

qmr_err qmr_cursor_close(QMR_cursor* cursor) {
    return statusCall([&] { delete cursor; });
}

qmr_id qmr_cursor_id_for_put(QMR_cursor* cursor, qmr_id id) {
    return numberCall([&] {
        CHECK_ARG_NOT_NULL(cursor);
        return cursor->cursor->idForPut(id);
    });
}

qmr_err qmr_cursor_put(QMR_cursor* cursor, qmr_id id, const void* data, size_t size) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(cursor);
        CHECK_ARG_NOT_NULL(data);
        cursor->cursor->writeValue(id, data, size, true);
    });
}

qmr_err qmr_cursor_put_new(QMR_cursor* cursor, qmr_id id, const void* data, size_t size) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(cursor);
        CHECK_ARG_NOT_NULL(data);
        cursor->cursor->writeValue(id, data, size, false);
    });
}

qmr_err qmr_cursor_put4(QMR_cursor* cursor, qmr_id id, const void* data, size_t size,
                        int32_t mode) {
    return statusCall([&] { putWithMode(cursor, id, data, size, mode); });
}

qmr_err qmr_cursor_insert(QMR_cursor* cursor, qmr_id id, const void* data, size_t size) {
    return statusCall([&] { putWithMode(cursor, id, data, size, kPutInsert); });
}

qmr_err qmr_cursor_update(QMR_cursor* cursor, qmr_id id, const void* data, size_t size) {
    return statusCall([&] { putWithMode(cursor, id, data, size, kPutUpdate); });
}

qmr_id qmr_cursor_put_object(QMR_cursor* cursor, void* data, size_t size) {
    return numberCall([&] { return putObjectWithMode(cursor, data, size, kPut); });
}

qmr_id qmr_cursor_put_object4(QMR_cursor* cursor, void* data, size_t size, int32_t mode) {
    return numberCall([&] { return putObjectWithMode(cursor, data, size, mode); });
}

qmr_err qmr_cursor_get(QMR_cursor* cursor, qmr_id id, const void** data, size_t* size) {
    return foundCall([&] { return readObject(cursor, data, size, &Cursor::get, id); });
}

qmr_err qmr_cursor_first(QMR_cursor* cursor, const void** data, size_t* size) {
    return foundCall([&] { return readObject(cursor, data, size, &Cursor::first); });
}

qmr_err qmr_cursor_next(QMR_cursor* cursor, const void** data, size_t* size) {
    return foundCall([&] { return readObject(cursor, data, size, &Cursor::next); });
}

qmr_err qmr_cursor_current(QMR_cursor* cursor, const void** data, size_t* size) {
    return foundCall([&] { return readObject(cursor, data, size, &Cursor::current); });
}

qmr_err qmr_cursor_seek(QMR_cursor* cursor, qmr_id id) {
    return foundCall([&] {
        CHECK_ARG_NOT_NULL(cursor);
        return cursor->cursor->seek(id);
    });
}

qmr_err qmr_cursor_seek_first_id(QMR_cursor* cursor, qmr_id* out_id) {
    return foundCall([&] {
        CHECK_ARG_NOT_NULL(cursor);
        return foundId(cursor->cursor->seekFirstId(), out_id);
    });
}

qmr_err qmr_cursor_seek_next_id(QMR_cursor* cursor, qmr_id* out_id) {
    return foundCall([&] {
        CHECK_ARG_NOT_NULL(cursor);
        return foundId(cursor->cursor->seekNextId(), out_id);
    });
}

qmr_err qmr_cursor_current_id(QMR_cursor* cursor, qmr_id* out_id) {
    return foundCall([&] {
        CHECK_ARG_NOT_NULL(cursor);
        return foundId(cursor->cursor->currentId(), out_id);
    });
}

QMR_bytes_array* qmr_cursor_get_all(QMR_cursor* cursor) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(cursor);
        std::vector<Bytes> objects;
        Bytes object;
        for (bool found = cursor->cursor->first(object); found;
             found = cursor->cursor->next(object)) {
            objects.emplace_back(object.data(), object.size());
        }
        return makeBytesArray(objects);
    });
}

qmr_err qmr_cursor_remove(QMR_cursor* cursor, qmr_id id) {
    return foundCall([&] {
        CHECK_ARG_NOT_NULL(cursor);
        return cursor->cursor->remove(id);
    });
}

qmr_err qmr_cursor_remove_all(QMR_cursor* cursor) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(cursor);
        cursor->cursor->removeAll();
    });
}

qmr_err qmr_cursor_count(QMR_cursor* cursor, uint64_t* out_count) {
    return qmr_cursor_count_max(cursor, 0, out_count);
}

qmr_err qmr_cursor_count_max(QMR_cursor* cursor, uint64_t max_count, uint64_t* out_count) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(cursor);
        CHECK_ARG_NOT_NULL(out_count);
        *out_count = cursor->cursor->count(max_count);
    });
}

qmr_err qmr_cursor_is_empty(QMR_cursor* cursor, bool* out_is_empty) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(cursor);
        CHECK_ARG_NOT_NULL(out_is_empty);
        *out_is_empty = cursor->cursor->isEmpty();
    });
}

QMR_bytes_array* qmr_cursor_backlinks(QMR_cursor* cursor, qmr_schema_id entity_id,
                                      qmr_schema_id property_id, qmr_id id) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(cursor);
        const Property& property = getProperty(cursor, entity_id, property_id);
        const std::vector<uint64_t> ids = backlinkIds(*cursor->cursor, property, id);
        Cursor& owner = cursor->cursor->cursorFor(entity_id);
        std::vector<Bytes> objects(ids.size());
        for (size_t i = 0; i < ids.size(); ++i) owner.get(ids[i], objects[i]);
        return makeBytesArray(objects);
    });
}

QMR_id_array* qmr_cursor_backlink_ids(QMR_cursor* cursor, qmr_schema_id entity_id,
                                      qmr_schema_id property_id, qmr_id id) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(cursor);
        const Property& property = getProperty(cursor, entity_id, property_id);
        return makeIdArray(backlinkIds(*cursor->cursor, property, id));
    });
}

qmr_err qmr_cursor_rel_put(QMR_cursor* cursor, qmr_schema_id relation_id, qmr_id source_id,
                           qmr_id target_id) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(cursor);
        cursor->cursor->relationCursor(relation_id).put(source_id, target_id);
    });
}

qmr_err qmr_cursor_rel_remove(QMR_cursor* cursor, qmr_schema_id relation_id, qmr_id source_id,
                              qmr_id target_id) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(cursor);
        cursor->cursor->relationCursor(relation_id).remove(source_id, target_id);
    });
}

QMR_id_array* qmr_cursor_rel_ids(QMR_cursor* cursor, qmr_schema_id relation_id,
                                 qmr_id source_id) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(cursor);
        std::vector<uint64_t> ids;
        cursor->cursor->relationCursor(relation_id).findIds(source_id, ids, false);
        return makeIdArray(ids);
    });
}

qmr_err qmr_cursor_ts_min_max(QMR_cursor* cursor, qmr_id*, int64_t*, qmr_id*, int64_t*) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(cursor);
        requireFeature(Feature::TimeSeries);
    });
}

qmr_err qmr_cursor_ts_min_max_range(QMR_cursor* cursor, int64_t, int64_t, qmr_id*, int64_t*,
                                    qmr_id*, int64_t*) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(cursor);
        requireFeature(Feature::TimeSeries);
    });
}
