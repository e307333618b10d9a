/*
 * Quillmere: an embedded object database. The C interface.
 *
 * A store is a directory of the application's file system. Its data model is a set of entities
 * with typed properties. Each object is the bytes of one FlatBuffers table, kept under its entity
 * and a 64-bit ID, and read and written in transactions:
 *
 *     QMR_store_options* opt = qmr_opt();
 *     qmr_opt_directory(opt, "people-db");
 *     qmr_opt_model(opt, model);                      // qmr_model() and what follows it
 *     QMR_store* store = qmr_store_open(opt);         // takes opt, success or not
 *     if (!store) { puts(qmr_last_error_message()); return 1; }
 *
 *     QMR_kist* people = qmr_kist(store, 1);          // the objects of entity 1
 *     qmr_id id = qmr_kist_put_object(people, bytes, size);   // a transaction of its own
 *
 *     QMR_txn* txn = qmr_txn_read(store);             // reads happen inside a transaction
 *     const void* data;
 *     size_t data_size;
 *     if (qmr_kist_get(people, id, &data, &data_size) == QMR_SUCCESS) {
 *         ...                                         // valid until the transaction is closed
 *     }
 *     qmr_txn_close(txn);
 *     qmr_store_close(store);
 *
 * Conventions
 *
 * 1. Handles (QMR_store*, QMR_txn*, ...) are opaque. Whoever gets one owns it and ends it with the
 *    function of its family named _close or _free; both accept null. Exception: a QMR_kist belongs
 *    to its store. Functions that take a handle over say so, and do so also when they fail.
 *
 * 2. Each function has one of four shapes:
 *      status   qmr_err: QMR_SUCCESS, QMR_NOT_FOUND where the function says so, else an error code
 *      pointer  null on failure
 *      number   0 on failure; the last error tells a failure from the value 0
 *      boolean  false on failure; the same
 *    On failure code and message are the last error of the calling thread. QMR_NOT_FOUND is a
 *    result and sets no last error, and no success clears one. Results through "out" parameters
 *    are written on success only; a parameter described as optional may be null.
 *
 * 3. Null for an argument that is not optional gives QMR_ERROR_ILLEGAL_ARGUMENT and does nothing.
 *
 * 4. Threads: all functions may be called from any thread. A store, its kists and weak stores may
 *    be used by several threads at once. A transaction, with its cursors, belongs to the thread
 *    that began it. Other handles (options, model, results) are used by one thread at a time.
 *
 * 5. Bytes read from a store are the store's own memory: read-only, and valid until the next write
 *    in the same transaction or until the transaction ends, whichever is first. Bytes given to the
 *    library are copied unless the function says otherwise. Sizes are in bytes; texts are
 *    zero-terminated UTF-8.
 *
 * 6. Modes, flags and types are plain integers, so that a bad one arrives and is refused.
 */
#ifndef QUILLMERE_H
#define QUILLMERE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#define QMR_VERSION_MAJOR 4
#define QMR_VERSION_MINOR 0
#define QMR_VERSION_PATCH 2

#ifndef QMR_API
#if defined(__GNUC__)
#define QMR_API __attribute__((visibility("default")))
#else
#define QMR_API
#endif
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------
 * Types
 * --------------------------------------------------------------------------------------------- */

typedef int32_t qmr_err;        /* a result or error code, below */
typedef uint64_t qmr_id;        /* of an object; neither 0 nor all ones */
typedef uint32_t qmr_schema_id; /* of an entity, property, index or relation; not 0 */
typedef uint64_t qmr_uid;       /* random, follows a schema element through renames; not 0 */
typedef int32_t qmr_qb_cond;    /* of a condition within its query builder; from 1 on */

typedef struct QMR_store QMR_store;
typedef struct QMR_weak_store QMR_weak_store;
typedef struct QMR_store_options QMR_store_options;
typedef struct QMR_model QMR_model;
typedef struct QMR_txn QMR_txn;
typedef struct QMR_cursor QMR_cursor;
typedef struct QMR_kist QMR_kist;
typedef struct QMR_observer QMR_observer;
typedef struct QMR_query_builder QMR_query_builder;
typedef struct QMR_query QMR_query;
typedef struct QMR_query_prop QMR_query_prop;
typedef struct QMR_bytes_lazy QMR_bytes_lazy;

/* ------------------------------------------------------------------------------------------------
 * Codes. They are stable: a number never changes its meaning.
 * --------------------------------------------------------------------------------------------- */

/* Results. */
#define QMR_SUCCESS 0
#define QMR_NOT_FOUND 404

/* Use of the library. */
#define QMR_ERROR_ILLEGAL_STATE 10001
#define QMR_ERROR_ILLEGAL_ARGUMENT 10002
#define QMR_ERROR_ALLOCATION 10003
#define QMR_ERROR_NUMERIC_OVERFLOW 10004
#define QMR_ERROR_FEATURE_NOT_AVAILABLE 10005
#define QMR_ERROR_SHUTTING_DOWN 10006 /* the store closes or has closed */
#define QMR_ERROR_IO 10007
#define QMR_ERROR_BACKUP_FILE_INVALID 10008
#define QMR_ERROR_NO_EXCEPTION 10097 /* a failure that came without one: internal */
#define QMR_ERROR_GENERAL 10098
#define QMR_ERROR_UNKNOWN 10099

/* The database. Those marked * have the storage engine's code as secondary code. */
#define QMR_ERROR_DB_FULL 10101              /* maximum file size reached */
#define QMR_ERROR_MAX_READERS_EXCEEDED 10102 /* * */
#define QMR_ERROR_DB_SHUTDOWN 10103          /* * the environment must be closed */
#define QMR_ERROR_MAX_DATA_SIZE_EXCEEDED 10104
#define QMR_ERROR_DB_GENERAL 10198
#define QMR_ERROR_STORAGE_GENERAL 10199 /* * */

/* Objects. */
#define QMR_ERROR_UNIQUE_VIOLATED 10201
#define QMR_ERROR_NON_UNIQUE_RESULT 10202
#define QMR_ERROR_PROPERTY_TYPE_MISMATCH 10203
#define QMR_ERROR_ID_ALREADY_EXISTS 10210
#define QMR_ERROR_ID_NOT_FOUND 10211
#define QMR_ERROR_TIME_SERIES 10212
#define QMR_ERROR_CONSTRAINT_VIOLATED 10299

/* Standard exceptions from inside the library. */
#define QMR_ERROR_STD_ILLEGAL_ARGUMENT 10301
#define QMR_ERROR_STD_OUT_OF_RANGE 10302
#define QMR_ERROR_STD_LENGTH 10303
#define QMR_ERROR_STD_BAD_ALLOC 10304
#define QMR_ERROR_STD_RANGE 10305
#define QMR_ERROR_STD_OVERFLOW 10306
#define QMR_ERROR_STD_OTHER 10399

/* Schema and files. */
#define QMR_ERROR_SCHEMA 10501
#define QMR_ERROR_FILE_CORRUPT 10502
#define QMR_ERROR_FILE_PAGES_CORRUPT 10503
#define QMR_ERROR_SCHEMA_OBJECT_NOT_FOUND 10504 /* a look-up by name found nothing */

/* Trees, which no build has so far. */
#define QMR_ERROR_TREE_SCHEMA 10601
#define QMR_ERROR_TREE_VALUE_TYPE_MISMATCH 10602
#define QMR_ERROR_TREE_PATH_NON_UNIQUE 10603
#define QMR_ERROR_TREE_PATH_ILLEGAL 10604
#define QMR_ERROR_TREE_OTHER 10699

/* ------------------------------------------------------------------------------------------------
 * Last error. One slot per thread: a new failure replaces the old one.
 * --------------------------------------------------------------------------------------------- */

/* 0 if there is none. */
QMR_API qmr_err qmr_last_error_code(void);
/* Empty if there is none. Valid until the thread's next error operation. */
QMR_API const char* qmr_last_error_message(void);
/* The code of the storage engine or the system, 0 if there is none. */
QMR_API qmr_err qmr_last_error_secondary(void);
QMR_API void qmr_last_error_clear(void);
/* Takes the error out of the slot; whether there was one. Both parameters are optional. A message
 * handed out is valid until the thread's next error. */
QMR_API bool qmr_last_error_pop(qmr_err* out_code, const char** out_message);
/* For code that reports through the same slot. A null message counts as empty. */
QMR_API bool qmr_last_error_set(qmr_err code, qmr_err secondary, const char* message);

/* ------------------------------------------------------------------------------------------------
 * Version, features, diagnostics
 * --------------------------------------------------------------------------------------------- */

typedef enum {
    QMRFeature_ResultArray = 1,
    QMRFeature_TimeSeries = 2,
    QMRFeature_Sync = 3,
    QMRFeature_DebugLog = 4,
    QMRFeature_Admin = 5,
    QMRFeature_Tree = 6,
    QMRFeature_SyncServer = 7,
    QMRFeature_WebSockets = 8,
    QMRFeature_Cluster = 9,
    QMRFeature_HttpServer = 10,
    QMRFeature_GraphQL = 11,
    QMRFeature_Backup = 12,
    QMRFeature_Lmdb = 13,
    QMRFeature_VectorSearch = 14,
    QMRFeature_Wal = 15,
    QMRFeature_SyncMongoDb = 16
} QMRFeature;

/* Version of the library that is loaded, to compare with QMR_VERSION_* of this header. All
 * parameters are optional. */
QMR_API void qmr_version(int* major, int* minor, int* patch);
/* "4.0.2" */
QMR_API const char* qmr_version_string(void);
/* Whether the library is at least of the given version. */
QMR_API bool qmr_version_is_at_least(int major, int minor, int patch);
/* Version and date of the core, with its features in parentheses. */
QMR_API const char* qmr_version_core_string(void);

/* Whether this build has a QMRFeature. 0 is a failure; unknown numbers are absent features. */
QMR_API bool qmr_has_feature(int32_t feature);
/* Extended internal logging, a feature of its own: fails where the build lacks it. For the logs
 * of a store see QMRDebugFlags. */
QMR_API qmr_err qmr_debug_log(bool enabled);
QMR_API bool qmr_debug_log_enabled(void);

/* The number of the calling thread, as in log lines: from 1 on, never reused. */
QMR_API int32_t qmr_thread_number(void);

/* For platforms with named semaphores: the prefix of their names, at most 20 characters and with a
 * slash at its end. Checked everywhere, used where there is a use for it. */
QMR_API qmr_err qmr_posix_sem_prefix_set(const char* prefix);

/* ------------------------------------------------------------------------------------------------
 * Results. Each array is owned by whoever got it and ended by its _free, which accepts null.
 * --------------------------------------------------------------------------------------------- */

typedef struct {
    const void* data;
    size_t size;
} QMR_bytes;

/* The array is owned, the bytes of its elements are not (convention 5), except where a function
 * says that they are copies: those live as long as the array. */
typedef struct {
    QMR_bytes* bytes;
    size_t count;
} QMR_bytes_array;

typedef struct {
    qmr_id* ids; /* null if the count is 0 */
    size_t count;
} QMR_id_array;

typedef struct {
    qmr_id id;
    double score;
} QMR_id_score;

typedef struct {
    QMR_id_score* ids_scores;
    size_t count;
} QMR_id_score_array;

typedef struct {
    qmr_id id;
    double score;
    const void* data;
    size_t size;
} QMR_bytes_score;

typedef struct {
    QMR_bytes_score* bytes_scores;
    size_t count;
} QMR_bytes_score_array;

typedef struct {
    const char** items;
    size_t count;
} QMR_string_array;

typedef struct {
    const int64_t* items;
    size_t count;
} QMR_int64_array;

typedef struct {
    const int32_t* items;
    size_t count;
} QMR_int32_array;

typedef struct {
    const int16_t* items;
    size_t count;
} QMR_int16_array;

typedef struct {
    const int8_t* items;
    size_t count;
} QMR_int8_array;

typedef struct {
    const double* items;
    size_t count;
} QMR_double_array;

typedef struct {
    const float* items;
    size_t count;
} QMR_float_array;

/* An array of empty elements, to be filled by qmr_bytes_array_set. */
QMR_API QMR_bytes_array* qmr_bytes_array(size_t count);
/* Points an element to the caller's bytes, which must outlive the use of the array. */
QMR_API qmr_err qmr_bytes_array_set(QMR_bytes_array* array, size_t index, const void* data,
                                    size_t size);
/* A copy of the IDs. */
QMR_API QMR_id_array* qmr_id_array(const qmr_id* ids, size_t count);
/* Produces the bytes; they are valid as long as the lazy bytes themselves. */
QMR_API qmr_err qmr_bytes_lazy_get(QMR_bytes_lazy* lazy, const void** out_data, size_t* out_size);

QMR_API void qmr_bytes_free(QMR_bytes* bytes);
QMR_API void qmr_bytes_array_free(QMR_bytes_array* array);
QMR_API void qmr_bytes_lazy_free(QMR_bytes_lazy* lazy);
QMR_API void qmr_id_array_free(QMR_id_array* array);
QMR_API void qmr_bytes_score_array_free(QMR_bytes_score_array* array);
QMR_API void qmr_id_score_array_free(QMR_id_score_array* array);
QMR_API void qmr_string_array_free(QMR_string_array* array);
QMR_API void qmr_int64_array_free(QMR_int64_array* array);
QMR_API void qmr_int32_array_free(QMR_int32_array* array);
QMR_API void qmr_int16_array_free(QMR_int16_array* array);
QMR_API void qmr_int8_array_free(QMR_int8_array* array);
QMR_API void qmr_double_array_free(QMR_double_array* array);
QMR_API void qmr_float_array_free(QMR_float_array* array);

/* ------------------------------------------------------------------------------------------------
 * Options: everything that decides how a store opens. Values are checked when it opens; setters
 * without a result never fail and ignore a null record. Sizes named _kb are KiB, times are
 * microseconds.
 * --------------------------------------------------------------------------------------------- */

typedef enum {
    QMRPutPaddingMode_None = 1,      /* stored with the size given (default) */
    QMRPutPaddingMode_Automatic = 2, /* size rounded up to 4; bytes behind it must be readable */
    QMRPutPaddingMode_ByCaller = 3   /* a size that is no multiple of 4 is refused */
} QMRPutPaddingMode;

/* Bits that switch groups of log lines on standard output. */
typedef enum {
    QMRDebugFlags_LOG_READ_TXNS = 1,
    QMRDebugFlags_LOG_WRITE_TXNS = 2,
    QMRDebugFlags_LOG_QUERIES = 4,
    QMRDebugFlags_LOG_QUERY_PARAMETERS = 8,
    QMRDebugFlags_LOG_ASYNC_QUEUE = 16,
    QMRDebugFlags_LOG_CACHE_HITS = 32,
    QMRDebugFlags_LOG_CACHE_ALL = 64, /* hits and misses */
    QMRDebugFlags_LOG_STORAGE_FAILURES = 256,
    QMRDebugFlags_RUN_THREAD_SELF_TEST = 512, /* while the store opens */
    QMRDebugFlags_LOG_WAL = 1024
} QMRDebugFlags;

/* `text` has `length` bytes and no terminating zero is promised; it is valid during the call, which
 * comes from the thread that opens the store. */
typedef void QMR_log_callback(int32_t level, const char* text, size_t length, void* user_data);

QMR_API QMR_store_options* qmr_opt(void);
QMR_API qmr_err qmr_opt_free(QMR_store_options* opt);

/* These can fail. A failure of the first two is remembered, and an open refuses the options. */

/* Store directory, "quillmere" by default. "memory:NAME" keeps all data in memory under the name,
 * until the process ends or qmr_remove_db_files; "memory-wal:PATH" keeps it in memory and logs each
 * commit to files in the directory. */
QMR_API qmr_err qmr_opt_directory(QMR_store_options* opt, const char* dir);
/* Finishes and takes over the model, also on failure. */
QMR_API qmr_err qmr_opt_model(QMR_store_options* opt, QMR_model* model);
/* A model as bytes. */
QMR_API qmr_err qmr_opt_model_bytes(QMR_store_options* opt, const void* bytes, size_t size);
/* The same without a copy: the bytes must stay until the store has opened. */
QMR_API qmr_err qmr_opt_model_bytes_direct(QMR_store_options* opt, const void* bytes, size_t size);

/* Maximum size of the database file, 1 GiB by default. */
QMR_API void qmr_opt_max_db_size_in_kb(QMR_store_options* opt, uint64_t size_in_kb);
/* Maximum size of the stored data, at most that of the file; 0 (default): no limit. */
QMR_API void qmr_opt_max_data_size_in_kb(QMR_store_options* opt, uint64_t size_in_kb);
/* Mode of created files, 0644 by default, without executable flags. */
QMR_API void qmr_opt_file_mode(QMR_store_options* opt, uint32_t file_mode);
/* Maximum number of concurrent read transactions; 0 (default): the storage engine's own. */
QMR_API void qmr_opt_max_readers(QMR_store_options* opt, uint32_t max_readers);
/* Read transactions are not tied to a thread; for many short-lived threads. */
QMR_API void qmr_opt_no_reader_thread_locals(QMR_store_options* opt, bool flag);
QMR_API void qmr_opt_read_only(QMR_store_options* opt, bool value);
/* Whether to read the schema at open, true by default; must be true with a model. */
QMR_API void qmr_opt_read_schema(QMR_store_options* opt, bool value);
/* Opens the commit before the last one. Stores in memory have none, and open the last:
 * qmr_store_opened_with_previous_commit tells. */
QMR_API void qmr_opt_use_previous_commit(QMR_store_options* opt, bool value);
/* QMRDebugFlags; the second form adds to what is set. */
QMR_API void qmr_opt_debug_flags(QMR_store_options* opt, uint32_t flags);
QMR_API void qmr_opt_add_debug_flags(QMR_store_options* opt, uint32_t flags);
/* A QMRPutPaddingMode. */
QMR_API void qmr_opt_put_padding_mode(QMR_store_options* opt, uint32_t mode);
/* Checks that many pages at open, from the roots of the trees down; all bits set: all pages; 0
 * (default): none. Bit 0 of the flags: down to the leaves. Stores in memory have no pages. */
QMR_API void qmr_opt_validate_on_open_pages(QMR_store_options* opt, uint64_t page_limit,
                                            uint32_t flags);
/* Checks every record at open. */
QMR_API void qmr_opt_validate_on_open_kv(QMR_store_options* opt);
/* The log of "memory-wal:" stores. Bit 1 of the flags (value 2) syncs each commit to the disk; without
 * it the commits survive the process, but not a failure of the machine. Bit 0 is set by the directory.
 * A log above a size limit, 16384 KB while running and 4096 KB at open unless set, gives way to a
 * snapshot of all data. */
QMR_API void qmr_opt_wal(QMR_store_options* opt, uint32_t flags);
QMR_API void qmr_opt_wal_max_file_size_in_kb(QMR_store_options* opt, uint64_t size_in_kb);
QMR_API void qmr_opt_wal_max_file_size_on_open_in_kb(QMR_store_options* opt, uint64_t size_in_kb);
/* A backup to restore from; a null file means none. */
QMR_API void qmr_opt_backup_restore(QMR_store_options* opt, const char* file, uint32_t flags);
/* Told when a store opens; null clears it. Log lines stay on standard output. The callback must not
 * open, attach to or look for stores, nor remove database files: it runs while the library holds
 * the lock of its open stores, and would wait for itself. */
QMR_API void qmr_opt_log_callback(QMR_store_options* opt, QMR_log_callback* callback,
                                  void* user_data);

/* The queue of asynchronous writes. Delays before and after each of its transactions; with a queue
 * at least that long, the second delay applies, which may not be above the first. */
QMR_API void qmr_opt_async_pre_txn_delay(QMR_store_options* opt, uint32_t delay_micros);
QMR_API void qmr_opt_async_pre_txn_delay4(QMR_store_options* opt, uint32_t delay_micros,
                                          uint32_t delay2_micros,
                                          uint64_t min_queue_length_delay2);
QMR_API void qmr_opt_async_post_txn_delay(QMR_store_options* opt, uint32_t delay_micros);
QMR_API void qmr_opt_async_post_txn_delay5(QMR_store_options* opt, uint32_t delay_micros,
                                           uint32_t delay2_micros,
                                           uint64_t min_queue_length_delay2,
                                           bool subtract_processing_time);
/* Time limit of one transaction of the queue. */
QMR_API void qmr_opt_async_max_in_tx_duration(QMR_store_options* opt, uint32_t micros);
QMR_API void qmr_opt_async_max_in_tx_operations(QMR_store_options* opt, uint32_t value);
QMR_API void qmr_opt_async_max_queue_length(QMR_store_options* opt, uint64_t value);
/* Pool of queued records; 0 turns it off. */
QMR_API void qmr_opt_async_max_tx_pool_size(QMR_store_options* opt, uint64_t value);
/* How often a running transaction takes in newly queued work, and below which queue length. */
QMR_API void qmr_opt_async_minor_refill_max_count(QMR_store_options* opt, uint32_t value);
QMR_API void qmr_opt_async_minor_refill_threshold(QMR_store_options* opt, uint64_t queue_length);
/* Cache of object buffers: bytes in all, and the largest buffer that is kept. */
QMR_API void qmr_opt_async_object_bytes_max_cache_size(QMR_store_options* opt, uint64_t value);
QMR_API void qmr_opt_async_object_bytes_max_size_to_cache(QMR_store_options* opt, uint64_t value);
/* Queue length from which producers are slowed down, and for how long each time. */
QMR_API void qmr_opt_async_throttle_at_queue_length(QMR_store_options* opt, uint64_t value);
QMR_API void qmr_opt_async_throttle_micros(QMR_store_options* opt, uint32_t value);

/* Reading back; 0 or null for a null record. The text is the record's own, until it is changed. */
QMR_API uint32_t qmr_opt_get_debug_flags(QMR_store_options* opt);
QMR_API const char* qmr_opt_get_directory(QMR_store_options* opt);
QMR_API uint64_t qmr_opt_get_max_data_size_in_kb(QMR_store_options* opt);
QMR_API uint64_t qmr_opt_get_max_db_size_in_kb(QMR_store_options* opt);

/* ------------------------------------------------------------------------------------------------
 * Model: the data model that a store is opened with. Entities are started one after the other, and
 * within each its properties; the other functions speak of the one started last. The first failure
 * sticks: later calls change nothing and return its code, and qmr_opt_model refuses the model.
 *
 *     QMR_model* model = qmr_model();
 *     qmr_model_entity(model, "Person", 1, 1001);
 *     qmr_model_property(model, "id", QMRPropertyType_Long, 1, 2001);
 *     qmr_model_property_flags(model, QMRPropertyFlags_ID);
 *     qmr_model_property(model, "name", QMRPropertyType_String, 2, 2002);
 *     qmr_model_entity_last_property_id(model, 2, 2002);
 *     qmr_model_last_entity_id(model, 1, 1001);
 *
 * The FlatBuffers field of a property has the vtable offset 2 + 2 * its ID. IDs are never reused:
 * the "last" IDs are the highest ever given, with the UIDs that they were given to.
 * --------------------------------------------------------------------------------------------- */

typedef enum {
    QMRPropertyType_Bool = 1,
    QMRPropertyType_Byte = 2,
    QMRPropertyType_Short = 3,
    QMRPropertyType_Char = 4, /* 16 bits */
    QMRPropertyType_Int = 5,
    QMRPropertyType_Long = 6,
    QMRPropertyType_Float = 7,
    QMRPropertyType_Double = 8,
    QMRPropertyType_String = 9,
    QMRPropertyType_Date = 10,     /* milliseconds since 1970, 64 bits */
    QMRPropertyType_Relation = 11, /* ID of an object, 64 bits */
    QMRPropertyType_DateNano = 12, /* nanoseconds since 1970, 64 bits */
    QMRPropertyType_Flex = 13,
    QMRPropertyType_BoolVector = 22,
    QMRPropertyType_ByteVector = 23,
    QMRPropertyType_ShortVector = 24,
    QMRPropertyType_CharVector = 25,
    QMRPropertyType_IntVector = 26,
    QMRPropertyType_LongVector = 27,
    QMRPropertyType_FloatVector = 28,
    QMRPropertyType_DoubleVector = 29,
    QMRPropertyType_StringVector = 30,
    QMRPropertyType_DateVector = 31,
    QMRPropertyType_DateNanoVector = 32
} QMRPropertyType;

typedef enum {
    QMRPropertyFlags_ID = 0x1, /* exactly one per entity, of type Long */
    QMRPropertyFlags_NULLABLE_SCALAR = 0x2,
    QMRPropertyFlags_NOT_NULL = 0x4,
    QMRPropertyFlags_INDEXED = 0x8,
    QMRPropertyFlags_RESERVED = 0x10,
    QMRPropertyFlags_UNIQUE = 0x20, /* implies INDEXED, on strings also INDEX_HASH */
    QMRPropertyFlags_ID_OPTION_A = 0x40,
    QMRPropertyFlags_ID_SELF_ASSIGNABLE = 0x80, /* callers may choose IDs */
    QMRPropertyFlags_INDEX_SKIP_ABSENT = 0x100,
    QMRPropertyFlags_INDEX_SKIP_ZERO = 0x200, /* required on relations */
    QMRPropertyFlags_VIRTUAL = 0x400,         /* a relation that the object does not store */
    QMRPropertyFlags_INDEX_HASH = 0x800,      /* 32 bits */
    QMRPropertyFlags_INDEX_HASH64 = 0x1000,
    QMRPropertyFlags_UNSIGNED = 0x2000,
    QMRPropertyFlags_ID_COMPANION = 0x4000, /* a date that goes with the ID */
    QMRPropertyFlags_REPLACE_ON_CONFLICT = 0x8000,
    QMRPropertyFlags_EXPIRATION_TIME = 0x10000 /* a date; at most one per entity */
} QMRPropertyFlags;

typedef enum {
    QMREntityFlags_SYNC_ENABLED = 0x2,
    QMREntityFlags_SHARED_GLOBAL_IDS = 0x4 /* only with SYNC_ENABLED */
} QMREntityFlags;

typedef enum {
    QMRVectorDistanceType_Unknown = 0,
    QMRVectorDistanceType_Euclidean = 1, /* squared */
    QMRVectorDistanceType_Cosine = 2,
    QMRVectorDistanceType_DotProduct = 3, /* of normalized vectors */
    QMRVectorDistanceType_Manhattan = 4,
    QMRVectorDistanceType_Hamming = 5,
    QMRVectorDistanceType_DotProductNonNormalized = 10
} QMRVectorDistanceType;

typedef enum {
    QMRHnswFlags_DEBUG_LOGS = 1,
    QMRHnswFlags_DEBUG_LOGS_DETAILED = 2,
    QMRHnswFlags_VECTOR_CACHE_PADDING_OFF = 4,
    QMRHnswFlags_REPARATION_LIMIT_CANDIDATES = 8
} QMRHnswFlags;

QMR_API QMR_model* qmr_model(void);
QMR_API qmr_err qmr_model_free(QMR_model* model);
/* The failure that sticks; QMR_SUCCESS and an empty text if there is none. */
QMR_API qmr_err qmr_model_error_code(QMR_model* model);
QMR_API const char* qmr_model_error_message(QMR_model* model);

QMR_API qmr_err qmr_model_entity(QMR_model* model, const char* name, qmr_schema_id id, qmr_uid uid);
/* QMREntityFlags */
QMR_API qmr_err qmr_model_entity_flags(QMR_model* model, uint32_t flags);
QMR_API qmr_err qmr_model_entity_last_property_id(QMR_model* model, qmr_schema_id id, qmr_uid uid);
/* `type` is a QMRPropertyType. */
QMR_API qmr_err qmr_model_property(QMR_model* model, const char* name, uint32_t type,
                                   qmr_schema_id id, qmr_uid uid);
/* QMRPropertyFlags */
QMR_API qmr_err qmr_model_property_flags(QMR_model* model, uint32_t flags);
QMR_API qmr_err qmr_model_property_index_id(QMR_model* model, qmr_schema_id index_id,
                                            qmr_uid index_uid);
/* The entity that a property of type Relation points to, and its index. */
QMR_API qmr_err qmr_model_property_relation(QMR_model* model, const char* target_entity,
                                            qmr_schema_id index_id, qmr_uid index_uid);
/* An index for nearest-neighbour search over a FloatVector. Values must be above 0. */
QMR_API qmr_err qmr_model_property_index_hnsw_dimensions(QMR_model* model, size_t value);
QMR_API qmr_err qmr_model_property_index_hnsw_neighbors_per_node(QMR_model* model, uint32_t value);
QMR_API qmr_err qmr_model_property_index_hnsw_indexing_search_count(QMR_model* model,
                                                                    uint32_t value);
/* QMRHnswFlags */
QMR_API qmr_err qmr_model_property_index_hnsw_flags(QMR_model* model, uint32_t value);
/* A QMRVectorDistanceType other than Unknown. */
QMR_API qmr_err qmr_model_property_index_hnsw_distance_type(QMR_model* model, uint32_t value);
QMR_API qmr_err qmr_model_property_index_hnsw_reparation_backlink_probability(QMR_model* model,
                                                                              float value);
QMR_API qmr_err qmr_model_property_index_hnsw_vector_cache_hint_size_kb(QMR_model* model,
                                                                        uint64_t value);
/* A standalone many-to-many relation from the entity to another one. */
QMR_API qmr_err qmr_model_relation(QMR_model* model, qmr_schema_id id, qmr_uid uid,
                                   qmr_schema_id target_id, qmr_uid target_uid);
QMR_API void qmr_model_last_entity_id(QMR_model* model, qmr_schema_id id, qmr_uid uid);
QMR_API void qmr_model_last_index_id(QMR_model* model, qmr_schema_id id, qmr_uid uid);
QMR_API void qmr_model_last_relation_id(QMR_model* model, qmr_schema_id id, qmr_uid uid);

/* ------------------------------------------------------------------------------------------------
 * Store. Several QMR_store handles may share one open store; it closes when the last one, and the
 * last user in other threads, is gone. Within a process a directory is open at most once. A null
 * directory means "quillmere" where it is looked up.
 * --------------------------------------------------------------------------------------------- */

/* Opens the store. The options are taken over, also on failure. Fails if the directory is open. */
QMR_API QMR_store* qmr_store_open(QMR_store_options* opt);
/* The same, but a store that is open there already is shared; with `check_matching_options` only
 * if it was opened with matching options. `out_attached` is optional. */
QMR_API QMR_store* qmr_store_attach_or_open(QMR_store_options* opt, bool check_matching_options,
                                            bool* out_attached);
/* Another handle on an open store; null, with no last error, if none is open there. */
QMR_API QMR_store* qmr_store_attach(const char* directory);
QMR_API QMR_store* qmr_store_attach_id(uint64_t store_id);
QMR_API QMR_store* qmr_store_clone(QMR_store* store);
/* A handle on a store of the library's own language bindings, which stay its owner. */
QMR_API QMR_store* qmr_store_wrap(void* core_store);
/* Ends the handle, its kists with it. If it is the last one the store closes: it waits for a
 * write transaction of another thread, and for a while for readers. */
QMR_API qmr_err qmr_store_close(QMR_store* store);
/* Refuses new transactions from now on, while running ones may finish. */
QMR_API qmr_err qmr_store_prepare_to_close(QMR_store* store);
QMR_API bool qmr_store_is_open(const char* directory);

/* A number of the open store, for qmr_store_attach_id; never reused within the process. */
QMR_API uint64_t qmr_store_id(QMR_store* store);
/* The kind of storage beneath. */
QMR_API uint32_t qmr_store_type_id(QMR_store* store);
/* Sets the kind of storage for directories without a prefix, 1 to 3 as far as the build has it. */
QMR_API qmr_err qmr_store_type_id_register_default(uint32_t type_id);
/* Bytes in use, and bytes of the files. */
QMR_API uint64_t qmr_store_size(QMR_store* store);
QMR_API uint64_t qmr_store_size_on_disk(QMR_store* store);
/* Of a directory that need not be open; 0 if there is no database. */
QMR_API uint64_t qmr_db_file_size(const char* directory);
/* QMRDebugFlags for transactions that begin from now on. */
QMR_API qmr_err qmr_store_debug_flags(QMR_store* store, uint32_t flags);
QMR_API bool qmr_store_opened_with_previous_commit(QMR_store* store);
/* Backup is a feature of its own: fails where the build lacks it. */
QMR_API qmr_err qmr_store_back_up_to_file(QMR_store* store, const char* backup_file,
                                          uint32_t flags);
/* IDs by name; QMR_ERROR_SCHEMA_OBJECT_NOT_FOUND for an unknown one. */
QMR_API qmr_schema_id qmr_store_entity_id(QMR_store* store, const char* entity_name);
QMR_API qmr_schema_id qmr_store_entity_property_id(QMR_store* store, qmr_schema_id entity_id,
                                                   const char* property_name);
/* Removes the files of the database, not the directory; none there is fine. */
QMR_API qmr_err qmr_remove_db_files(const char* directory);

/* A reference that does not keep the store open. */
QMR_API QMR_weak_store* qmr_weak_store(QMR_store* store);
/* Null, with no last error, if no store has the ID. */
QMR_API QMR_weak_store* qmr_weak_store_by_id(uint64_t store_id);
/* A new handle on the store; null, with no last error, if it has closed. */
QMR_API QMR_store* qmr_weak_store_lock(QMR_weak_store* weak_store);
QMR_API void qmr_weak_store_free(QMR_weak_store* weak_store);

/* ------------------------------------------------------------------------------------------------
 * Transaction. A thread has at most one per store: a further one that it begins joins the first,
 * and the data commits with the outermost. One write transaction runs at a time in a store, others
 * wait for it without limit; readers never wait and see the state of their start.
 * --------------------------------------------------------------------------------------------- */

QMR_API QMR_txn* qmr_txn_read(QMR_store* store);
/* Fails inside a read transaction of the same thread. */
QMR_API QMR_txn* qmr_txn_write(QMR_store* store);
/* Commits if outermost, then ends the handle, also on failure. Observers are called before it
 * returns. */
QMR_API qmr_err qmr_txn_success(QMR_txn* txn);
/* Undoes all that the transaction did, joined ones included; the handle must still be closed. */
QMR_API qmr_err qmr_txn_abort(QMR_txn* txn);
/* Ends the handle. A write transaction without success before is aborted. */
QMR_API qmr_err qmr_txn_close(QMR_txn* txn);
/* Size of the committed data, and the change by this transaction; kept for stores with a maximum
 * data size. Both optional. */
QMR_API qmr_err qmr_txn_data_size(QMR_txn* txn, uint64_t* out_committed_size,
                                  int64_t* out_size_change);
/* Removes the objects of an entity whose expiration time has passed, with ID 0 those of all
 * entities that have such a property. Objects without a time, or with 0, stay. Fails for an entity
 * without an expiration time, and in a read transaction that would have to remove something.
 * `out_removed` is optional. */
QMR_API qmr_err qmr_expired_objects_remove(QMR_txn* txn, qmr_schema_id entity_id,
                                           uint64_t* out_removed);

/* ------------------------------------------------------------------------------------------------
 * Cursor: the objects of one entity within one transaction, in the order of their IDs. Close it
 * before its transaction. Writing through a cursor of a read transaction fails.
 *
 * Object bytes are one FlatBuffers buffer with its root table; the field of the ID property is a
 * 64-bit scalar. Functions named _put_object take a new object with 0 or all ones in that field,
 * which must be there, and write the ID that it gets into the caller's buffer.
 * --------------------------------------------------------------------------------------------- */

typedef enum {
    QMRPutMode_Put = 1,    /* insert or update */
    QMRPutMode_Insert = 2, /* QMR_ERROR_ID_ALREADY_EXISTS if the ID is there */
    QMRPutMode_Update = 3, /* QMR_ERROR_ID_NOT_FOUND if it is not */
    QMRPutMode_PutIdGuaranteedToBeNew = 4 /* trusts the caller that the ID is not there */
} QMRPutMode;

QMR_API QMR_cursor* qmr_cursor(QMR_txn* txn, qmr_schema_id entity_id);
QMR_API qmr_err qmr_cursor_close(QMR_cursor* cursor);

/* The ID to put an object under: a new one for 0, else the given one, which must have been drawn
 * before unless the entity's IDs are self-assignable. */
QMR_API qmr_id qmr_cursor_id_for_put(QMR_cursor* cursor, qmr_id id);
QMR_API qmr_err qmr_cursor_put(QMR_cursor* cursor, qmr_id id, const void* data, size_t size);
/* For an ID that is known to be new. */
QMR_API qmr_err qmr_cursor_put_new(QMR_cursor* cursor, qmr_id id, const void* data, size_t size);
/* `mode` is a QMRPutMode. */
QMR_API qmr_err qmr_cursor_put4(QMR_cursor* cursor, qmr_id id, const void* data, size_t size,
                                int32_t mode);
QMR_API qmr_err qmr_cursor_insert(QMR_cursor* cursor, qmr_id id, const void* data, size_t size);
QMR_API qmr_err qmr_cursor_update(QMR_cursor* cursor, qmr_id id, const void* data, size_t size);
/* The ID is read from the object and written into it; returned, or 0. */
QMR_API qmr_id qmr_cursor_put_object(QMR_cursor* cursor, void* data, size_t size);
QMR_API qmr_id qmr_cursor_put_object4(QMR_cursor* cursor, void* data, size_t size, int32_t mode);

/* QMR_NOT_FOUND if there is no such object, or no further one. The bytes are also lost when the
 * cursor moves. */
QMR_API qmr_err qmr_cursor_get(QMR_cursor* cursor, qmr_id id, const void** data, size_t* size);
QMR_API qmr_err qmr_cursor_first(QMR_cursor* cursor, const void** data, size_t* size);
QMR_API qmr_err qmr_cursor_next(QMR_cursor* cursor, const void** data, size_t* size);
QMR_API qmr_err qmr_cursor_current(QMR_cursor* cursor, const void** data, size_t* size);
/* The same for positions and IDs; `out_id` is optional. */
QMR_API qmr_err qmr_cursor_seek(QMR_cursor* cursor, qmr_id id);
QMR_API qmr_err qmr_cursor_seek_first_id(QMR_cursor* cursor, qmr_id* out_id);
QMR_API qmr_err qmr_cursor_seek_next_id(QMR_cursor* cursor, qmr_id* out_id);
/* All ones once the cursor has stepped behind the last object. */
QMR_API qmr_err qmr_cursor_current_id(QMR_cursor* cursor, qmr_id* out_id);
QMR_API QMR_bytes_array* qmr_cursor_get_all(QMR_cursor* cursor);

/* QMR_NOT_FOUND if there is no such object. */
QMR_API qmr_err qmr_cursor_remove(QMR_cursor* cursor, qmr_id id);
QMR_API qmr_err qmr_cursor_remove_all(QMR_cursor* cursor);
QMR_API qmr_err qmr_cursor_count(QMR_cursor* cursor, uint64_t* out_count);
/* Counts no further than `max_count`; 0: to the end. */
QMR_API qmr_err qmr_cursor_count_max(QMR_cursor* cursor, uint64_t max_count, uint64_t* out_count);
QMR_API qmr_err qmr_cursor_is_empty(QMR_cursor* cursor, bool* out_is_empty);

/* The objects that refer to `id` by a to-one relation, which is the property of an entity; bytes as
 * above, in no particular order. */
QMR_API QMR_bytes_array* qmr_cursor_backlinks(QMR_cursor* cursor, qmr_schema_id entity_id,
                                              qmr_schema_id property_id, qmr_id id);
QMR_API QMR_id_array* qmr_cursor_backlink_ids(QMR_cursor* cursor, qmr_schema_id entity_id,
                                              qmr_schema_id property_id, qmr_id id);
/* Links of a standalone relation whose source is the cursor's entity. Putting a link twice, or
 * removing one that is not there, is no error. The objects need not exist, but removing one also
 * removes its links. The IDs, of targets, come in no particular order. */
QMR_API qmr_err qmr_cursor_rel_put(QMR_cursor* cursor, qmr_schema_id relation_id, qmr_id source_id,
                                   qmr_id target_id);
QMR_API qmr_err qmr_cursor_rel_remove(QMR_cursor* cursor, qmr_schema_id relation_id,
                                      qmr_id source_id, qmr_id target_id);
QMR_API QMR_id_array* qmr_cursor_rel_ids(QMR_cursor* cursor, qmr_schema_id relation_id,
                                         qmr_id source_id);

/* Time series are a feature of their own: these fail where the build lacks it. */
QMR_API qmr_err qmr_cursor_ts_min_max(QMR_cursor* cursor, qmr_id* out_min_id,
                                      int64_t* out_min_value, qmr_id* out_max_id,
                                      int64_t* out_max_value);
QMR_API qmr_err qmr_cursor_ts_min_max_range(QMR_cursor* cursor, int64_t range_begin,
                                            int64_t range_end, qmr_id* out_min_id,
                                            int64_t* out_min_value, qmr_id* out_max_id,
                                            int64_t* out_max_value);

/* ------------------------------------------------------------------------------------------------
 * Kist: the objects of one entity of a store. Each function is a unit of work of its own: it joins
 * the transaction of the thread, or makes one and commits it. Reads that hand out bytes need a
 * transaction of the thread, since the bytes live as long as it does; without one they fail with
 * QMR_ERROR_ILLEGAL_STATE. Objects as with cursors.
 * --------------------------------------------------------------------------------------------- */

/* False ends the visit. The bytes are valid during the call, which comes from the visiting thread;
 * null data stands for an ID without an object. */
typedef bool QMR_data_visitor(const void* data, size_t size, void* user_data);

/* Owned by the store handle and valid as long as it; the same one for each call. */
QMR_API QMR_kist* qmr_kist(QMR_store* store, qmr_schema_id entity_id);
/* The store handle that the kist came from. */
QMR_API QMR_store* qmr_kist_store(QMR_kist* kist);

QMR_API qmr_id qmr_kist_id_for_put(QMR_kist* kist, qmr_id id);
/* Draws 0 to 10,000 IDs; the first one, the others follow it. */
QMR_API qmr_err qmr_kist_ids_for_put(QMR_kist* kist, uint64_t count, qmr_id* out_first_id);
QMR_API qmr_err qmr_kist_put(QMR_kist* kist, qmr_id id, const void* data, size_t size);
/* `mode` is a QMRPutMode. */
QMR_API qmr_err qmr_kist_put5(QMR_kist* kist, qmr_id id, const void* data, size_t size,
                              int32_t mode);
QMR_API qmr_err qmr_kist_insert(QMR_kist* kist, qmr_id id, const void* data, size_t size);
QMR_API qmr_err qmr_kist_update(QMR_kist* kist, qmr_id id, const void* data, size_t size);
/* The ID is read from the object and written into it; returned, or 0. */
QMR_API qmr_id qmr_kist_put_object(QMR_kist* kist, void* data, size_t size);
QMR_API qmr_id qmr_kist_put_object4(QMR_kist* kist, void* data, size_t size, int32_t mode);
/* As many IDs as objects. If the mode refuses some of them the result is
 * QMR_ERROR_ID_ALREADY_EXISTS (insert) or QMR_ERROR_ID_NOT_FOUND (update), with no last error; the
 * others are stored, or, with `stop_on_failure`, nothing is. */
QMR_API qmr_err qmr_kist_put_many(QMR_kist* kist, const QMR_bytes_array* objects,
                                  const QMR_id_array* ids, int32_t mode);
QMR_API qmr_err qmr_kist_put_many5(QMR_kist* kist, const QMR_bytes_array* objects,
                                   const QMR_id_array* ids, int32_t mode, bool stop_on_failure);

/* QMR_NOT_FOUND if there is no such object. */
QMR_API qmr_err qmr_kist_get(QMR_kist* kist, qmr_id id, const void** data, size_t* size);
QMR_API QMR_bytes_array* qmr_kist_get_all(QMR_kist* kist);
/* One element per ID, with null data where there is no object. */
QMR_API QMR_bytes_array* qmr_kist_get_many(QMR_kist* kist, const QMR_id_array* ids);
QMR_API qmr_err qmr_kist_visit_all(QMR_kist* kist, QMR_data_visitor* visitor, void* user_data);
QMR_API qmr_err qmr_kist_visit_many(QMR_kist* kist, const QMR_id_array* ids,
                                    QMR_data_visitor* visitor, void* user_data);

/* QMR_NOT_FOUND if there is no such object. */
QMR_API qmr_err qmr_kist_remove(QMR_kist* kist, qmr_id id);
/* `out_count`, optional, tells how many there were. */
QMR_API qmr_err qmr_kist_remove_many(QMR_kist* kist, const QMR_id_array* ids, uint64_t* out_count);
QMR_API qmr_err qmr_kist_remove_all(QMR_kist* kist, uint64_t* out_count);
QMR_API qmr_err qmr_kist_contains(QMR_kist* kist, qmr_id id, bool* out_contains);
/* Whether all are there; true for no IDs, for which `ids` may be null. */
QMR_API qmr_err qmr_kist_contains_many(QMR_kist* kist, const QMR_id_array* ids,
                                       bool* out_contains);
/* Counts no further than `max_count`; 0: to the end. */
QMR_API qmr_err qmr_kist_count(QMR_kist* kist, uint64_t max_count, uint64_t* out_count);
QMR_API qmr_err qmr_kist_is_empty(QMR_kist* kist, bool* out_is_empty);

/* The objects of this kist that refer to `id` by their to-one relation. */
QMR_API QMR_id_array* qmr_kist_get_backlink_ids(QMR_kist* kist, qmr_schema_id property_id,
                                                qmr_id id);
/* Links of a standalone relation whose source is the kist's entity, as with cursors. */
QMR_API qmr_err qmr_kist_rel_put(QMR_kist* kist, qmr_schema_id relation_id, qmr_id source_id,
                                 qmr_id target_id);
/* QMR_NOT_FOUND if there is no such link. */
QMR_API qmr_err qmr_kist_rel_remove(QMR_kist* kist, qmr_schema_id relation_id, qmr_id source_id,
                                    qmr_id target_id);
/* The targets of `id`, an object of this kist. */
QMR_API QMR_id_array* qmr_kist_rel_get_ids(QMR_kist* kist, qmr_schema_id relation_id, qmr_id id);
/* The sources of `id`, an object of this kist, for a relation whose target is the kist's entity. */
QMR_API QMR_id_array* qmr_kist_rel_get_backlink_ids(QMR_kist* kist, qmr_schema_id relation_id,
                                                    qmr_id id);

/* Time series are a feature of their own: these fail where the build lacks it. */
QMR_API qmr_err qmr_kist_ts_min_max(QMR_kist* kist, qmr_id* out_min_id, int64_t* out_min_value,
                                    qmr_id* out_max_id, int64_t* out_max_value);
QMR_API qmr_err qmr_kist_ts_min_max_range(QMR_kist* kist, int64_t range_begin, int64_t range_end,
                                          qmr_id* out_min_id, int64_t* out_min_value,
                                          qmr_id* out_max_id, int64_t* out_max_value);

/* ------------------------------------------------------------------------------------------------
 * Query builder: collects the conditions, links and orderings of one query.
 *
 *     QMR_query_builder* builder = qmr_query_builder(store, 1);
 *     qmr_qb_cond a = qmr_qb_starts_with_string(builder, 2, "Jo", true);
 *     qmr_qb_cond b = qmr_qb_greater_than_int(builder, 3, 18);
 *     qmr_qb_cond either[] = {a, b};
 *     qmr_qb_any(builder, either, 2);                 // without it: all conditions
 *     qmr_qb_order(builder, 2, 0);
 *     QMR_query* query = qmr_query(builder);          // null if any of the calls failed
 *     qmr_qb_close(builder);
 *
 * Calls need no checks in between: the first failure stays on the builder, later calls do nothing,
 * and qmr_query reports it. A failure on the builder of a link, at any depth, counts for all the
 * builders above it. Functions that add a condition give its ID, 0 on failure. Builders, also those
 * of links, may be closed in any order, and before the query. A builder and those of its links are
 * used by one thread at a time. All values are copied.
 *
 * A condition on a property of a type that it does not take fails with QMR_ERROR_ILLEGAL_ARGUMENT
 * or QMR_ERROR_PROPERTY_TYPE_MISMATCH, an unknown entity or property with QMR_ERROR_SCHEMA. An
 * object whose property is null matches qmr_qb_null and the _not_in_ conditions only.
 * --------------------------------------------------------------------------------------------- */

typedef enum {
    QMROrderFlags_DESCENDING = 1,
    QMROrderFlags_CASE_SENSITIVE = 2, /* of strings */
    QMROrderFlags_UNSIGNED = 4,       /* of integers */
    QMROrderFlags_NULLS_LAST = 8,     /* first by default */
    QMROrderFlags_NULLS_ZERO = 16     /* null scalars sort like 0 */
} QMROrderFlags;

/* The query will log what the store's debug flags tell at this time. */
QMR_API QMR_query_builder* qmr_query_builder(QMR_store* store, qmr_schema_id entity_id);
QMR_API qmr_err qmr_qb_close(QMR_query_builder* builder);
/* The ID of the builder's entity. */
QMR_API qmr_schema_id qmr_qb_type_id(QMR_query_builder* builder);
/* The failure that stays; 0 and an empty text if there is none, and null for a null builder. Links
 * that could not be made leave a code without a text. The text is valid until the next call on the
 * builder or on one of its links. */
QMR_API qmr_err qmr_qb_error_code(QMR_query_builder* builder);
QMR_API const char* qmr_qb_error_message(QMR_query_builder* builder);
/* Names the condition added last, which must be one on a property, for qmr_query_param_alias_*.
 * Aliases must be unique within a query and its links. */
QMR_API qmr_err qmr_qb_param_alias(QMR_query_builder* builder, const char* alias);

/* Combine conditions into one. A condition can be combined once. `conditions` is not null; of none,
 * the first form matches all objects and the second no object. */
QMR_API qmr_qb_cond qmr_qb_all(QMR_query_builder* builder, const qmr_qb_cond conditions[],
                               size_t count);
QMR_API qmr_qb_cond qmr_qb_any(QMR_query_builder* builder, const qmr_qb_cond conditions[],
                               size_t count);

QMR_API qmr_qb_cond qmr_qb_null(QMR_query_builder* builder, qmr_schema_id property_id);
QMR_API qmr_qb_cond qmr_qb_not_null(QMR_query_builder* builder, qmr_schema_id property_id);

/* Integers, dates, relations, and vectors of integers, of which one element must match; booleans (0
 * and 1) take the first two forms, floats all others, with the value as a double. A value that the
 * property can not have gives QMR_ERROR_NUMERIC_OVERFLOW. An unsigned 64-bit property takes its bit
 * pattern. */
QMR_API qmr_qb_cond qmr_qb_equals_int(QMR_query_builder* builder, qmr_schema_id property_id,
                                      int64_t value);
QMR_API qmr_qb_cond qmr_qb_not_equals_int(QMR_query_builder* builder, qmr_schema_id property_id,
                                          int64_t value);
QMR_API qmr_qb_cond qmr_qb_greater_than_int(QMR_query_builder* builder, qmr_schema_id property_id,
                                            int64_t value);
QMR_API qmr_qb_cond qmr_qb_greater_or_equal_int(QMR_query_builder* builder,
                                                qmr_schema_id property_id, int64_t value);
QMR_API qmr_qb_cond qmr_qb_less_than_int(QMR_query_builder* builder, qmr_schema_id property_id,
                                         int64_t value);
QMR_API qmr_qb_cond qmr_qb_less_or_equal_int(QMR_query_builder* builder, qmr_schema_id property_id,
                                             int64_t value);
/* Both ends belong to the range; their order does not matter. Not for vectors. */
QMR_API qmr_qb_cond qmr_qb_between_2ints(QMR_query_builder* builder, qmr_schema_id property_id,
                                         int64_t value_a, int64_t value_b);
/* For properties of 32 bits (Int), and of 64 bits. `values` is not null, also for no values. */
QMR_API qmr_qb_cond qmr_qb_in_int32s(QMR_query_builder* builder, qmr_schema_id property_id,
                                     const int32_t values[], size_t count);
QMR_API qmr_qb_cond qmr_qb_not_in_int32s(QMR_query_builder* builder, qmr_schema_id property_id,
                                         const int32_t values[], size_t count);
QMR_API qmr_qb_cond qmr_qb_in_int64s(QMR_query_builder* builder, qmr_schema_id property_id,
                                     const int64_t values[], size_t count);
QMR_API qmr_qb_cond qmr_qb_not_in_int64s(QMR_query_builder* builder, qmr_schema_id property_id,
                                         const int64_t values[], size_t count);

/* Floats and doubles, and, but for the last form, vectors of them. */
QMR_API qmr_qb_cond qmr_qb_greater_than_double(QMR_query_builder* builder,
                                               qmr_schema_id property_id, double value);
QMR_API qmr_qb_cond qmr_qb_greater_or_equal_double(QMR_query_builder* builder,
                                                   qmr_schema_id property_id, double value);
QMR_API qmr_qb_cond qmr_qb_less_than_double(QMR_query_builder* builder, qmr_schema_id property_id,
                                            double value);
QMR_API qmr_qb_cond qmr_qb_less_or_equal_double(QMR_query_builder* builder,
                                                qmr_schema_id property_id, double value);
QMR_API qmr_qb_cond qmr_qb_between_2doubles(QMR_query_builder* builder, qmr_schema_id property_id,
                                            double value_a, double value_b);

/* Strings and byte vectors; the first form also takes a Flex value that is a string or an integer.
 * Without `case_sensitive`, the letters A to Z equal a to z. */
QMR_API qmr_qb_cond qmr_qb_equals_string(QMR_query_builder* builder, qmr_schema_id property_id,
                                         const char* value, bool case_sensitive);
QMR_API qmr_qb_cond qmr_qb_not_equals_string(QMR_query_builder* builder, qmr_schema_id property_id,
                                             const char* value, bool case_sensitive);
QMR_API qmr_qb_cond qmr_qb_contains_string(QMR_query_builder* builder, qmr_schema_id property_id,
                                           const char* value, bool case_sensitive);
QMR_API qmr_qb_cond qmr_qb_starts_with_string(QMR_query_builder* builder, qmr_schema_id property_id,
                                              const char* value, bool case_sensitive);
QMR_API qmr_qb_cond qmr_qb_ends_with_string(QMR_query_builder* builder, qmr_schema_id property_id,
                                            const char* value, bool case_sensitive);
QMR_API qmr_qb_cond qmr_qb_greater_than_string(QMR_query_builder* builder,
                                               qmr_schema_id property_id, const char* value,
                                               bool case_sensitive);
QMR_API qmr_qb_cond qmr_qb_greater_or_equal_string(QMR_query_builder* builder,
                                                   qmr_schema_id property_id, const char* value,
                                                   bool case_sensitive);
QMR_API qmr_qb_cond qmr_qb_less_than_string(QMR_query_builder* builder, qmr_schema_id property_id,
                                            const char* value, bool case_sensitive);
QMR_API qmr_qb_cond qmr_qb_less_or_equal_string(QMR_query_builder* builder,
                                                qmr_schema_id property_id, const char* value,
                                                bool case_sensitive);
/* The first form is an older name of qmr_qb_contains_string, which also takes a vector of strings
 * and then asks for an element. The second form: an element of a vector of strings, or of the list
 * in a Flex value, or a key of the map there. */
QMR_API qmr_qb_cond qmr_qb_any_equals_string(QMR_query_builder* builder, qmr_schema_id property_id,
                                             const char* value, bool case_sensitive);
QMR_API qmr_qb_cond qmr_qb_contains_element_string(QMR_query_builder* builder,
                                                   qmr_schema_id property_id, const char* value,
                                                   bool case_sensitive);
/* An entry of the map in a Flex value. */
QMR_API qmr_qb_cond qmr_qb_contains_key_value_string(QMR_query_builder* builder,
                                                     qmr_schema_id property_id, const char* key,
                                                     const char* value, bool case_sensitive);
/* Strings and byte vectors. Neither `values` nor one of its elements is null. */
QMR_API qmr_qb_cond qmr_qb_in_strings(QMR_query_builder* builder, qmr_schema_id property_id,
                                      const char* const values[], size_t count,
                                      bool case_sensitive);

/* Byte vectors. `value` may be null for size 0. */
QMR_API qmr_qb_cond qmr_qb_equals_bytes(QMR_query_builder* builder, qmr_schema_id property_id,
                                        const void* value, size_t size);
QMR_API qmr_qb_cond qmr_qb_greater_than_bytes(QMR_query_builder* builder, qmr_schema_id property_id,
                                              const void* value, size_t size);
QMR_API qmr_qb_cond qmr_qb_greater_or_equal_bytes(QMR_query_builder* builder,
                                                  qmr_schema_id property_id, const void* value,
                                                  size_t size);
QMR_API qmr_qb_cond qmr_qb_less_than_bytes(QMR_query_builder* builder, qmr_schema_id property_id,
                                           const void* value, size_t size);
QMR_API qmr_qb_cond qmr_qb_less_or_equal_bytes(QMR_query_builder* builder,
                                               qmr_schema_id property_id, const void* value,
                                               size_t size);

/* Objects to which exactly that many others refer by a to-one relation, which is the property of an
 * entity and targets this builder's. */
QMR_API qmr_qb_cond qmr_qb_relation_count_property(QMR_query_builder* builder,
                                                   qmr_schema_id relation_entity_id,
                                                   qmr_schema_id relation_property_id,
                                                   int32_t relation_count);

/* QMROrderFlags. The first call is the primary key. On a builder with a failure: its code. A
 * property whose type has no order makes qmr_query fail. */
QMR_API qmr_err qmr_qb_order(QMR_query_builder* builder, qmr_schema_id property_id,
                             uint32_t flags);

/* Restrict the query to objects that are linked to a match of the builder given back, which is one
 * for the other entity: by a to-one relation, by a standalone relation, or against either. Close
 * it as any other; it takes no calls any more once the query was built. */
QMR_API QMR_query_builder* qmr_qb_link_property(QMR_query_builder* builder,
                                                qmr_schema_id property_id);
QMR_API QMR_query_builder* qmr_qb_backlink_property(QMR_query_builder* builder,
                                                    qmr_schema_id source_entity_id,
                                                    qmr_schema_id source_property_id);
QMR_API QMR_query_builder* qmr_qb_link_standalone(QMR_query_builder* builder,
                                                  qmr_schema_id relation_id);
QMR_API QMR_query_builder* qmr_qb_backlink_standalone(QMR_query_builder* builder,
                                                      qmr_schema_id relation_id);
/* Time series are a feature of their own: fails where the build lacks it. */
QMR_API QMR_query_builder* qmr_qb_link_time(QMR_query_builder* builder,
                                            qmr_schema_id linked_entity_id,
                                            qmr_schema_id begin_property_id,
                                            qmr_schema_id end_property_id);

/* ------------------------------------------------------------------------------------------------
 * Query: built once, run often, with values that can be changed. Used by one thread at a time; a
 * clone is independent. Each run joins the transaction of the thread or makes one of its own, or
 * uses a cursor of the query's entity, and with it the cursor's transaction. A closing store waits
 * for the runs of other threads, up to about 10 seconds; once it has closed only qmr_query_describe
 * and the closing of the handle are left.
 *
 * Object bytes that a run gives out are the store's own memory inside a transaction of the thread
 * (convention 5), and copies without one: those of an array live as long as the array, and those
 * of qmr_query_find_first and _unique until the next such call on the query or its close.
 * --------------------------------------------------------------------------------------------- */

/* Takes the builder's content; what is left is an empty builder. Null for a builder with a failure,
 * which becomes the last error. A failure here, as of an alias used twice, stays on the builder. */
QMR_API QMR_query* qmr_query(QMR_query_builder* builder);
/* With the same values, offset and limit. */
QMR_API QMR_query* qmr_query_clone(QMR_query* query);
QMR_API qmr_err qmr_query_close(QMR_query* query);

/* For all runs from now on. Limit 0: none. */
QMR_API qmr_err qmr_query_offset(QMR_query* query, uint64_t offset);
QMR_API qmr_err qmr_query_limit(QMR_query* query, uint64_t limit);
QMR_API qmr_err qmr_query_offset_limit(QMR_query* query, uint64_t offset, uint64_t limit);

/* Counts up to the limit. Fails with an offset. */
QMR_API qmr_err qmr_query_count(QMR_query* query, uint64_t* out_count);
QMR_API qmr_err qmr_query_cursor_count(QMR_query* query, QMR_cursor* cursor, uint64_t* out_count);
/* In the builder's order, without one by ascending ID. */
QMR_API QMR_bytes_array* qmr_query_find(QMR_query* query);
QMR_API QMR_bytes_array* qmr_query_cursor_find(QMR_query* query, QMR_cursor* cursor);
QMR_API QMR_id_array* qmr_query_find_ids(QMR_query* query);
QMR_API QMR_id_array* qmr_query_cursor_find_ids(QMR_query* query, QMR_cursor* cursor);
/* QMR_NOT_FOUND without a match. The second form ignores the order and gives
 * QMR_ERROR_NON_UNIQUE_RESULT for several matches. Both ignore offset and limit. */
QMR_API qmr_err qmr_query_find_first(QMR_query* query, const void** data, size_t* size);
QMR_API qmr_err qmr_query_find_unique(QMR_query* query, const void** data, size_t* size);
/* The best score first; empty for a query whose conditions give no scores. */
QMR_API QMR_id_array* qmr_query_find_ids_by_score(QMR_query* query);
QMR_API QMR_id_score_array* qmr_query_find_ids_with_scores(QMR_query* query);
QMR_API QMR_bytes_score_array* qmr_query_find_with_scores(QMR_query* query);

/* False ends the visit. The bytes are valid during the call, which comes from the visiting
 * thread. */
typedef bool QMR_data_score_visitor(const void* data, size_t size, double score, void* user_data);

/* As with the finds, but without an array. A visitor must not close the query. */
QMR_API qmr_err qmr_query_visit(QMR_query* query, QMR_data_visitor* visitor, void* user_data);
QMR_API qmr_err qmr_query_cursor_visit(QMR_query* query, QMR_cursor* cursor,
                                       QMR_data_visitor* visitor, void* user_data);
QMR_API qmr_err qmr_query_visit_with_score(QMR_query* query, QMR_data_score_visitor* visitor,
                                           void* user_data);

/* Removes the matches. Fails with an offset or a limit. `out_count` is optional. */
QMR_API qmr_err qmr_query_remove(QMR_query* query, uint64_t* out_count);
QMR_API qmr_err qmr_query_cursor_remove(QMR_query* query, QMR_cursor* cursor,
                                        uint64_t* out_count);

/* Entity, properties and links; conditions with their values. Valid until the next such call on the
 * query or its close. */
QMR_API const char* qmr_query_describe(QMR_query* query);
QMR_API const char* qmr_query_describe_params(QMR_query* query);

/* Change the value of a condition, also of one in a link. It is told by its property, and if
 * several have that property the first one is meant, or by its alias. Entity ID 0 means the query's
 * own entity, and fails if the query has links. No value is null, also not an empty array. The
 * type must fit: a string set takes `strings`, a key with its value `2strings`, a range `2ints` or
 * `2doubles`; a number must be one that the property can have. A failure changes nothing. */

QMR_API qmr_err qmr_query_param_string(QMR_query* query, qmr_schema_id entity_id,
                                       qmr_schema_id property_id, const char* value);
QMR_API qmr_err qmr_query_param_2strings(QMR_query* query, qmr_schema_id entity_id,
                                         qmr_schema_id property_id, const char* value,
                                         const char* value2);
QMR_API qmr_err qmr_query_param_strings(QMR_query* query, qmr_schema_id entity_id,
                                        qmr_schema_id property_id, const char* const values[],
                                        size_t count);
QMR_API qmr_err qmr_query_param_int(QMR_query* query, qmr_schema_id entity_id,
                                    qmr_schema_id property_id, int64_t value);
QMR_API qmr_err qmr_query_param_2ints(QMR_query* query, qmr_schema_id entity_id,
                                      qmr_schema_id property_id, int64_t value_a, int64_t value_b);
QMR_API qmr_err qmr_query_param_int32s(QMR_query* query, qmr_schema_id entity_id,
                                       qmr_schema_id property_id, const int32_t values[],
                                       size_t count);
QMR_API qmr_err qmr_query_param_int64s(QMR_query* query, qmr_schema_id entity_id,
                                       qmr_schema_id property_id, const int64_t values[],
                                       size_t count);
QMR_API qmr_err qmr_query_param_double(QMR_query* query, qmr_schema_id entity_id,
                                       qmr_schema_id property_id, double value);
QMR_API qmr_err qmr_query_param_2doubles(QMR_query* query, qmr_schema_id entity_id,
                                         qmr_schema_id property_id, double value_a, double value_b);
QMR_API qmr_err qmr_query_param_bytes(QMR_query* query, qmr_schema_id entity_id,
                                      qmr_schema_id property_id, const void* value, size_t size);

QMR_API qmr_err qmr_query_param_alias_string(QMR_query* query, const char* alias,
                                             const char* value);
QMR_API qmr_err qmr_query_param_alias_2strings(QMR_query* query, const char* alias,
                                               const char* value, const char* value2);
QMR_API qmr_err qmr_query_param_alias_strings(QMR_query* query, const char* alias,
                                              const char* const values[], size_t count);
QMR_API qmr_err qmr_query_param_alias_int(QMR_query* query, const char* alias, int64_t value);
QMR_API qmr_err qmr_query_param_alias_2ints(QMR_query* query, const char* alias, int64_t value_a,
                                            int64_t value_b);
QMR_API qmr_err qmr_query_param_alias_int32s(QMR_query* query, const char* alias,
                                             const int32_t values[], size_t count);
QMR_API qmr_err qmr_query_param_alias_int64s(QMR_query* query, const char* alias,
                                             const int64_t values[], size_t count);
QMR_API qmr_err qmr_query_param_alias_double(QMR_query* query, const char* alias, double value);
QMR_API qmr_err qmr_query_param_alias_2doubles(QMR_query* query, const char* alias, double value_a,
                                               double value_b);
QMR_API qmr_err qmr_query_param_alias_bytes(QMR_query* query, const char* alias, const void* value,
                                            size_t size);

/* The size of a value of the condition's property in bytes, 0 for a type of variable length. */
QMR_API size_t qmr_query_param_get_type_size(QMR_query* query, qmr_schema_id entity_id,
                                             qmr_schema_id property_id);
QMR_API size_t qmr_query_param_alias_get_type_size(QMR_query* query, const char* alias);

/* ------------------------------------------------------------------------------------------------
 * Property query: the values of one property over all matches of a query, without regard to its
 * offset and limit. Nulls are left out unless a replacement is given. The query may be closed
 * before; the two share the values of the conditions, and so are used by one thread at a time.
 * Transactions as with queries. An aggregate of a property whose type it does not take fails with
 * QMR_ERROR_ILLEGAL_STATE, a list with QMR_ERROR_PROPERTY_TYPE_MISMATCH.
 * --------------------------------------------------------------------------------------------- */

/* Of a property of the query's entity. */
QMR_API QMR_query_prop* qmr_query_prop(QMR_query* query, qmr_schema_id property_id);
QMR_API qmr_err qmr_query_prop_close(QMR_query_prop* prop);
/* Whether equal values count once; false at the start. */
QMR_API qmr_err qmr_query_prop_distinct(QMR_query_prop* prop, bool distinct);
/* The same for strings, with the choice of what is equal: case-sensitive at the start. */
QMR_API qmr_err qmr_query_prop_distinct_case(QMR_query_prop* prop, bool distinct,
                                             bool case_sensitive);
/* Of any type; distinct values are counted of integers, floats and strings. */
QMR_API qmr_err qmr_query_prop_count(QMR_query_prop* prop, uint64_t* out_count);

/* `out_count`, optional, is the number of values that went in, -1 if there are some but they were
 * not counted. Not with distinct. Minimum and maximum are of floats and doubles, sum and average of
 * all numbers, booleans (0 and 1) included. Without values all but the sum are NaN. A NaN among the
 * values is the sum and the average, and no minimum or maximum. */
QMR_API qmr_err qmr_query_prop_avg(QMR_query_prop* prop, double* out_average, int64_t* out_count);
QMR_API qmr_err qmr_query_prop_sum(QMR_query_prop* prop, double* out_sum, int64_t* out_count);
QMR_API qmr_err qmr_query_prop_min(QMR_query_prop* prop, double* out_minimum, int64_t* out_count);
QMR_API qmr_err qmr_query_prop_max(QMR_query_prop* prop, double* out_maximum, int64_t* out_count);
/* Of integers, dates and relations, sum and average of booleans too; 0 without values. The average
 * is rounded to the nearest, away from zero at a tie. What the result can not hold gives
 * QMR_ERROR_NUMERIC_OVERFLOW, but minimum and maximum of an unsigned 64-bit property are its bit
 * pattern. */
QMR_API qmr_err qmr_query_prop_avg_int(QMR_query_prop* prop, int64_t* out_average,
                                       int64_t* out_count);
QMR_API qmr_err qmr_query_prop_sum_int(QMR_query_prop* prop, int64_t* out_sum, int64_t* out_count);
QMR_API qmr_err qmr_query_prop_min_int(QMR_query_prop* prop, int64_t* out_minimum,
                                       int64_t* out_count);
QMR_API qmr_err qmr_query_prop_max_int(QMR_query_prop* prop, int64_t* out_maximum,
                                       int64_t* out_count);

/* The values by ascending ID of their objects, whatever the builder's order. `value_if_null` is
 * optional. The width must be that of the property; booleans are 8 bits, dates and relations 64.
 * Strings may also come from byte vectors, as far as the first zero byte. */
QMR_API QMR_string_array* qmr_query_prop_find_strings(QMR_query_prop* prop,
                                                      const char* value_if_null);
QMR_API QMR_double_array* qmr_query_prop_find_doubles(QMR_query_prop* prop,
                                                      const double* value_if_null);
QMR_API QMR_float_array* qmr_query_prop_find_floats(QMR_query_prop* prop,
                                                    const float* value_if_null);
QMR_API QMR_int64_array* qmr_query_prop_find_int64s(QMR_query_prop* prop,
                                                    const int64_t* value_if_null);
QMR_API QMR_int32_array* qmr_query_prop_find_int32s(QMR_query_prop* prop,
                                                    const int32_t* value_if_null);
QMR_API QMR_int16_array* qmr_query_prop_find_int16s(QMR_query_prop* prop,
                                                    const int16_t* value_if_null);
QMR_API QMR_int8_array* qmr_query_prop_find_int8s(QMR_query_prop* prop,
                                                  const int8_t* value_if_null);

/* ------------------------------------------------------------------------------------------------
 * Observers: told after each commit that changed objects, on the committing thread, one after the
 * other in the order of their adding. A callback may read and write, but neither add nor close
 * observers. Close an observer before its store handle.
 * --------------------------------------------------------------------------------------------- */

/* The changed entities, each once; the IDs are valid during the call. */
typedef void QMR_observer_callback(void* user_data, const qmr_schema_id* entity_ids, size_t count);
typedef void QMR_observer_single_type_callback(void* user_data);

QMR_API QMR_observer* qmr_observe(QMR_store* store, QMR_observer_callback* callback,
                                  void* user_data);
/* Called once for each commit that changed objects of the entity. */
QMR_API QMR_observer* qmr_observe_single_type(QMR_store* store, qmr_schema_id entity_id,
                                              QMR_observer_single_type_callback* callback,
                                              void* user_data);
/* No callback runs after its return. On failure the observer stays and can be closed again. */
QMR_API qmr_err qmr_observer_close(QMR_observer* observer);

/* ------------------------------------------------------------------------------------------------
 * Features that this build lacks. Their functions report QMR_ERROR_FEATURE_NOT_AVAILABLE, apart
 * from the last four before the admin functions, which just return 0. The two that take options
 * free them.
 * --------------------------------------------------------------------------------------------- */

typedef struct QMR_sync QMR_sync;
typedef struct QMR_sync_server QMR_sync_server;
typedef struct QMR_tree QMR_tree;
typedef struct QMR_tree_node QMR_tree_node;
typedef struct QMR_tree_leaves_info QMR_tree_leaves_info;
typedef struct QMR_admin QMR_admin;

QMR_API QMR_sync* qmr_sync(QMR_store* store, const char* server_url);
QMR_API QMR_sync_server* qmr_sync_server(QMR_store_options* opt, const char* url);
QMR_API QMR_sync_server* qmr_sync_server_from_flat_options(QMR_store_options* opt,
                                                           const void* flat_options, size_t size);
QMR_API QMR_tree* qmr_tree(QMR_txn* txn, const char* path_delimiter);
QMR_API qmr_id qmr_tree_leaves_info_id(QMR_tree_leaves_info* info, size_t index);
QMR_API size_t qmr_tree_leaves_info_size(QMR_tree_leaves_info* info);
QMR_API uint32_t qmr_tree_leaves_info_type(QMR_tree_leaves_info* info, size_t index);
QMR_API size_t qmr_tree_node_conflict_count(QMR_tree_node* node);
QMR_API QMR_admin* qmr_admin(void* options);
QMR_API uint16_t qmr_admin_port(QMR_admin* admin);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* QUILLMERE_H */
