/* A program of somebody else's, built against the installed library: puts one object and reads it
 * back. usage: consumer NEW_STORE_DIRECTORY */
#include <quillmere/quillmere.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { ENTITY = 1, ID_PROPERTY = 1, COUNT_PROPERTY = 2 };

static void check(int ok, const char* step) {
    if (ok) return;
    fprintf(stderr, "%s failed: %s\n", step, qmr_last_error_message());
    exit(1);
}

static QMR_model* counter_model(void) {
    QMR_model* model = qmr_model();
    check(model != NULL, "model");
    check(qmr_model_entity(model, "Counter", ENTITY, 1001) == 0, "entity");
    check(qmr_model_property(model, "id", QMRPropertyType_Long, ID_PROPERTY, 1002) == 0, "id");
    check(qmr_model_property_flags(model, QMRPropertyFlags_ID) == 0, "id flags");
    check(qmr_model_property(model, "count", QMRPropertyType_Int, COUNT_PROPERTY, 1003) == 0,
          "count");
    check(qmr_model_entity_last_property_id(model, COUNT_PROPERTY, 1003) == 0, "last property");
    qmr_model_last_entity_id(model, ENTITY, 1001);
    return model;
}

int main(int argc, char** argv) {
    check(argc == 2, "usage: consumer NEW_STORE_DIRECTORY; start");
    printf("Quillmere %s\n", qmr_version_string());

    QMR_store_options* options = qmr_opt();
    check(options != NULL, "options");
    check(qmr_opt_directory(options, argv[1]) == 0, "directory");
    check(qmr_opt_model(options, counter_model()) == 0, "set model");
    QMR_store* store = qmr_store_open(options);
    check(store != NULL, "open");
    QMR_kist* counters = qmr_kist(store, ENTITY);
    check(counters != NULL, "kist");

    _Alignas(8) unsigned char object[] = {
        12, 0, 0, 0,            /* the table stands at 12 */
        8,  0, 16, 0,           /* its field list: 8 bytes, for a table of 16 */
        8,  0, 4,  0,           /* id at 8 in the table, count at 4 */
        8,  0, 0,  0,           /* the table: its field list is 8 bytes before */
        42, 0, 0,  0,           /* count */
        0,  0, 0,  0, 0, 0, 0, 0 /* id, filled in by the put */
    };
    qmr_id id = qmr_kist_put_object(counters, object, sizeof(object));
    check(id != 0, "put");

    QMR_txn* txn = qmr_txn_read(store);
    check(txn != NULL, "read transaction");
    const void* data = NULL;
    size_t size = 0;
    check(qmr_kist_get(counters, id, &data, &size) == 0, "get");
    check(size == sizeof(object) && memcmp(data, object, size) == 0, "comparing the object");
    check(qmr_txn_close(txn) == 0, "close of the transaction");
    check(qmr_store_close(store) == 0, "close of the store");
    return 0;
}
