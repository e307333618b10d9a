#pragma once

// Putting and walking objects of the demo's model.

#include "demo_model.h"
#include "handles.h"
#include "object.h"

// Gives the new ID if the object's own is 0.
template <class T>
qmr_id put(QMR_cursor* cursor, ObjectWriter& writer, const T& object) {
    const auto [data, size] = write(writer, object);
    const qmr_id id = qmr_cursor_put_object(cursor, data, size);
    if (id == 0) fail("put an object");
    return id;
}

// The bytes that `use` gets are those of the database itself: nothing is copied.
template <class Use>
void forEachObject(QMR_cursor* cursor, Use&& use) {
    const void* data;
    size_t size;
    qmr_err result = qmr_cursor_first(cursor, &data, &size);
    for (; result == QMR_SUCCESS; result = qmr_cursor_next(cursor, &data, &size)) use(data);
    if (result != QMR_NOT_FOUND) fail("step to the next object");
}
