/* Asks the store that hello.c has written to. */
#include <quillmere/quillmere.h>
#include <stdio.h>
#include <stdlib.h>

static void check(int fine) {
    if (fine) return;
    fprintf(stderr, "%s\n", qmr_last_error_message());
    exit(1);
}

int main(void) {
    QMR_store_options* options = qmr_opt();
    check(qmr_opt_directory(options, "hello-store") == 0);
    QMR_store* store = qmr_store_open(options); /* without a model: with the one that is stored */
    check(store != NULL);

    QMR_query_builder* builder = qmr_query_builder(store, 1); /* of Greeting; property 2: text */
    qmr_qb_starts_with_string(builder, 2, "hello", false);    /* in any case of letters */
    qmr_qb_greater_than_int(builder, 1, 0);
    qmr_qb_order(builder, 1, QMROrderFlags_DESCENDING);
    QMR_query* query = qmr_query(builder); /* reports what went wrong in the calls above */
    check(query != NULL && qmr_qb_close(builder) == 0);
    printf("%s\n", qmr_query_describe_params(query));

    uint64_t count;
    check(qmr_query_count(query, &count) == 0);
    check(qmr_query_limit(query, 3) == 0);
    QMR_id_array* newest = qmr_query_find_ids(query);
    check(newest != NULL);
    printf("%llu greetings, the newest:", (unsigned long long)count);
    for (size_t i = 0; i < newest->count; ++i) {
        printf(" %llu", (unsigned long long)newest->ids[i]);
    }
    printf("\n");
    qmr_id_array_free(newest);
    check(qmr_query_close(query) == 0 && qmr_store_close(store) == 0);
    return 0;
}
