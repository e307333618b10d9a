/* LMDB with this system's additions to its engine. The published interface is lmdb.h's own; what
 * differs from it:
 * - MDB_PREVSNAPSHOT for mdb_env_open.
 * - A write transaction may end on any thread. One process opens a path once at a time; several
 *   processes may share it, and one that dies inside a write transaction hands the lock over.
 *   Programs with an unchanged LMDB can read an environment that is open here; their writes fail.
 * - A reader table that is larger than asked for shrinks when nobody else has it open.
 * - A page behind the end of the data file gives MDB_PAGE_NOTFOUND, one whose offsets lead out of it
 *   MDB_CORRUPTED, and a node that claims duplicates in a database without them MDB_BAD_TXN. */
#pragma once

#include <lmdb.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Opens the snapshot before the newest one. No other process may have the environment open, else
 * mdb_env_open gives EAGAIN; others that open it later wait until the first change or the close.
 * The first change drops the newest snapshot for good; without one it stays. */
#define MDB_PREVSNAPSHOT 0x2000000

typedef struct {
    uint64_t pages_checked;
    uint64_t entries_checked;
    uint64_t first_failed_page; /* 0 without a failure */
} QmrPageValidation;

/* Pages by how full they are, in tenths. */
typedef struct {
    uint64_t leaf_fill[10];
    uint64_t branch_fill[10];
} QmrFillStats;

/* Checks the pages of the cursor's database level by level from the root: page_limit of them, or
 * all for 0 or all ones, the leaves only with check_leaf_level. Returns 0, MDB_CORRUPTED,
 * MDB_PAGE_NOTFOUND for a page number behind the file's end, or the code of a failed fstat. out is
 * set in any case. Never leaves the file or the map, whatever the pages hold. */
int qmr_mdb_validate_pages(MDB_cursor* cursor, uint64_t page_limit, int check_leaf_level,
                           QmrPageValidation* out);

/* Visits the whole tree of the cursor's database. A damaged page ends the visit silently; a page
 * number behind the end gives MDB_PAGE_NOTFOUND and fails the transaction. */
int qmr_mdb_fill_stats(MDB_cursor* cursor, QmrFillStats* out);

/* As mdb_cursor_get with MDB_NEXT for a database without duplicates. Most steps stay inside a leaf
 * page and need a fraction of the engine's general way. */
int qmr_mdb_cursor_next(MDB_cursor* cursor, MDB_val* key, MDB_val* value);

/* As mdb_cursor_put without flags for a database without duplicates. A new key that follows the
 * cursor's own, as in a bulk load, is added where the cursor stands, without a search; behind the
 * last key of the database, pages are filled to the end. */
int qmr_mdb_cursor_put(MDB_cursor* cursor, MDB_val* key, MDB_val* value);

#ifdef __cplusplus
}
#endif
