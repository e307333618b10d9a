/* Stores a greeting and reads it back. */
#include <quillmere/quillmere.h>
#include <stdio.h>
#include <stdlib.h>

/* An object is a FlatBuffers table. This one is laid out by hand, for a little-endian machine;
 * real programs let a FlatBuffers builder do it. */
typedef struct {
    uint32_t table;     /* bytes from here to the table */
    uint16_t fields[4]; /* size of this list, size of the table, places of property 1 and 2 in it */
    int32_t back;       /* the table begins: bytes back to the list */
    uint32_t text_at;   /* property 2: bytes from here to the text */
    uint64_t id;        /* property 1: 0 for a new object */
    uint32_t length;    /* the text, which ends in a zero */
    char text[16];
} Greeting;

static void check(int fine) {
    if (fine) return;
    fprintf(stderr, "%s\n", qmr_last_error_message());
    exit(1);
}

int main(void) {
    QMR_model* model = qmr_model(); /* names may change later: the last number identifies */
    qmr_model_entity(model, "Greeting", 1, 7001);
    qmr_model_property(model, "id", QMRPropertyType_Long, 1, 7002);
    qmr_model_property_flags(model, QMRPropertyFlags_ID);
    qmr_model_property(model, "text", QMRPropertyType_String, 2, 7003);
    qmr_model_entity_last_property_id(model, 2, 7003);
    qmr_model_last_entity_id(model, 1, 7001);

    QMR_store_options* options = qmr_opt();
    check(qmr_opt_directory(options, "hello-store") == 0);
    check(qmr_opt_model(options, model) == 0); /* also reports what went wrong in the model */
    QMR_store* store = qmr_store_open(options);
    check(store != NULL);

    Greeting hello = {12, {8, 20, 12, 4}, 8, 16, 0, 12, "Hello, world"};
    QMR_kist* greetings = qmr_kist(store, 1); /* belongs to the store */
    qmr_id id = qmr_kist_put_object(greetings, &hello, sizeof hello);
    check(id != 0);

    QMR_txn* txn = qmr_txn_read(store); /* what is read lives as long as this */
    const void* data;
    size_t size;
    check(txn != NULL && qmr_kist_get(greetings, id, &data, &size) == 0);
    printf("object %llu: %s\n", (unsigned long long)id, ((const Greeting*)data)->text);
    check(qmr_txn_close(txn) == 0 && qmr_store_close(store) == 0);
    return 0;
}
