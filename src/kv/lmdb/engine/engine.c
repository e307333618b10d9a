/* The engine: LMDB's main source with the edits of edits.cmake, and the functions they call. */
#include "engine.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

/* The part of MDB_env that is ours. */
typedef struct {
    sem_t writer;             /* one writer within the process; any thread may give it back */
    atomic_size_t file_pages; /* whole pages of the data file when last looked at */
    _Atomic uint64_t* sound;  /* a bit for each page: checked since it was last written here */
    size_t sound_pages;       /* the pages that have a bit */
} QmrEnv;

typedef struct MDB_meta MDB_meta;
typedef struct MDB_node MDB_node;
typedef struct MDB_page MDB_page;

static void qmr_env_init(QmrEnv* qmr);
static void qmr_env_destroy(QmrEnv* qmr);
static int qmr_env_opening(MDB_env* env, int excl);
static int qmr_env_opened(MDB_env* env, int* excl);
static int qmr_settle_snapshot(MDB_txn* txn);
static int qmr_page_size_valid(uint32_t page_size);
static int qmr_writer_lock(MDB_env* env);
static void qmr_writer_unlock(MDB_env* env);
static int qmr_page_in_file(MDB_env* env, size_t page);
static int qmr_page_is_sound(MDB_txn* txn, size_t number, const MDB_page* page);
static void qmr_pages_will_change(MDB_env* env, size_t first, int count);
static void qmr_set_max_page(MDB_env* env);
static inline int qmr_compare_keys(MDB_cmp_func* compare, const MDB_val* a, const MDB_val* b);
static int qmr_check_overflow(MDB_cursor* mc, const MDB_page* first, size_t page, size_t size);
static int qmr_corrupted(MDB_cursor* mc);
static int qmr_no_sub_cursor(MDB_cursor* mc, const MDB_node* node);
static int qmr_check_sub_cursor(MDB_cursor* mc);

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wall"
#pragma GCC diagnostic ignored "-Wextra"
#include "mdb.c"
#pragma GCC diagnostic pop

static void qmr_env_init(QmrEnv* qmr) {
    sem_init(&qmr->writer, 0, 1);
    atomic_init(&qmr->file_pages, 0);
    qmr->sound = NULL;
    qmr->sound_pages = 0;
}

static void qmr_env_destroy(QmrEnv* qmr) {
    sem_destroy(&qmr->writer);
    if (qmr->sound)
        munmap((void*)qmr->sound, qmr->sound_pages / 8);
}

/* --- Writer lock -------------------------------------------------------------------------------
 * Between processes: a lock of the open file description on one byte of the lock file. The kernel
 * drops it when its process dies, and any thread may give it back. Such a lock does not exclude
 * the threads of one process from each other, hence the semaphore in front of it. */

#ifndef F_OFD_SETLKW /* without it the lock belongs to the process, which serves as well */
#define F_OFD_SETLKW F_SETLKW
#define F_OFD_SETLK F_SETLK
#endif

/* Far behind the bytes that LMDB locks: byte 0, and one for each process ID. */
enum { QMR_WRITER_BYTE_SHIFT = 40 };

static int qmr_lock_byte(MDB_env* env, int command, short type) {
    struct flock lock = {0};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = (off_t)1 << QMR_WRITER_BYTE_SHIFT;
    lock.l_len = 1;
    int rc;
    do {
        rc = fcntl(env->me_lfd, command, &lock);
    } while (rc != 0 && errno == EINTR);
    return rc == 0 ? MDB_SUCCESS : errno;
}

/* Set while the lock is held: found set by the next holder if the last one died. It lies in the
 * padding behind the mutex that the lock replaces. */
static volatile char* qmr_writer_mark(MDB_env* env) {
    return &env->me_txns->mt2.pad[sizeof(env->me_txns->mt2.pad) - 1];
}

/* The dead writer may have written its meta page without announcing it, and its readers stay. */
static int qmr_recover_writer(MDB_env* env) {
    env->me_txns->mti_txnid = mdb_env_pick_meta(env)->mm_txnid;
    return mdb_reader_check0(env, 0, NULL);
}

static int qmr_writer_lock(MDB_env* env) {
    while (sem_wait(&env->me_qmr.writer) != 0) {
        if (errno != EINTR)
            return errno;
    }
    int rc = qmr_lock_byte(env, F_OFD_SETLKW, F_WRLCK);
    if (rc != MDB_SUCCESS) {
        sem_post(&env->me_qmr.writer);
        return rc;
    }
    if (*qmr_writer_mark(env) != 0 && (rc = qmr_recover_writer(env)) != MDB_SUCCESS) {
        qmr_lock_byte(env, F_OFD_SETLK, F_UNLCK);
        sem_post(&env->me_qmr.writer);
        return rc;
    }
    *qmr_writer_mark(env) = 1;
    return MDB_SUCCESS;
}

static void qmr_writer_unlock(MDB_env* env) {
    *qmr_writer_mark(env) = 0;
    qmr_lock_byte(env, F_OFD_SETLK, F_UNLCK);
    sem_post(&env->me_qmr.writer);
}

static void* qmr_lock_and_exit(void* mutex) {
    return (void*)(intptr_t)pthread_mutex_lock(mutex);
}

/* Makes the robust mutex that other LMDB programs take for writing unusable, so that they get an
 * error instead of writing beside us: its owner dies, and the next one gives it back unrepaired.
 * Waits for the end of a write transaction that such a program is in. */
static int qmr_retire_writer_mutex(MDB_env* env) {
    pthread_mutex_t* mutex = env->me_txns->mti_wmutex;
    pthread_t owner;
    int rc = pthread_create(&owner, NULL, qmr_lock_and_exit, mutex);
    if (rc != 0)
        return rc;
    void* locked;
    pthread_join(owner, &locked);
    if ((intptr_t)locked == ENOTRECOVERABLE)
        return MDB_SUCCESS;
    if (pthread_mutex_lock(mutex) == EOWNERDEAD)
        pthread_mutex_unlock(mutex);
    return MDB_SUCCESS;
}

/* --- Opening and the previous snapshot -------------------------------------------------------- */

static int qmr_page_size_valid(uint32_t page_size) {
    return page_size >= 256 && page_size <= MAX_PAGESIZE && (page_size & (page_size - 1)) == 0;
}

/* excl: as in mdb_env_open, above 0 if nobody else has the lock file open. */
static int qmr_env_opening(MDB_env* env, int excl) {
    if (env->me_flags & MDB_PREVSNAPSHOT) {
        if (env->me_flags & MDB_WRITEMAP)
            return EINVAL;
        /* Another writer reuses the pages of the snapshot. */
        if (env->me_txns && excl <= 0)
            return EAGAIN;
    }
    if (env->me_txns && !(env->me_flags & MDB_RDONLY))
        return qmr_retire_writer_mutex(env);
    return MDB_SUCCESS;
}

/* Announces the snapshot to start from and lets others in, unless it is the previous one. */
static int qmr_env_opened(MDB_env* env, int* excl) {
    if (!(env->me_flags & MDB_PREVSNAPSHOT))
        return mdb_env_share_locks(env, excl);
    env->me_txns->mti_txnid = mdb_env_pick_meta(env)->mm_txnid;
    return MDB_SUCCESS;
}

/* Called before the first page is written. The transaction takes its number from the snapshot it
 * stands on, and may overwrite pages of the newest one; so the newest meta page must be gone from
 * the disk before, or a crash would leave it pointing to pages that are no longer its own. It
 * becomes a copy of the chosen one, with the number below. */
static int qmr_settle_snapshot(MDB_txn* txn) {
    MDB_env* env = txn->mt_env;
    if (!(env->me_flags & MDB_PREVSNAPSHOT))
        return MDB_SUCCESS;

    const MDB_meta* chosen = mdb_env_pick_meta(env);
    const MDB_meta* newest = env->me_metas[chosen == env->me_metas[0]];
    MDB_meta settled = *chosen;
    if (settled.mm_txnid > 0)
        settled.mm_txnid--;
    ssize_t written;
    do { /* this descriptor syncs what it writes */
        written = pwrite(env->me_mfd, &settled, sizeof(settled), (char*)newest - env->me_map);
    } while (written < 0 && errno == EINTR);
    if (written != sizeof(settled)) {
        env->me_flags |= MDB_FATAL_ERROR;
        return written < 0 ? errno : EIO;
    }

    env->me_flags &= ~MDB_PREVSNAPSHOT;
    int excl = 1;
    return env->me_txns ? mdb_env_share_locks(env, &excl) : MDB_SUCCESS;
}

/* --- The inside of a page --------------------------------------------------------------------- */

static uint16_t qmr_read_u16(const void* at) {
    uint16_t value;
    memcpy(&value, at, sizeof(value));
    return value;
}

static pgno_t qmr_child(const MDB_page* page, unsigned index) {
    MDB_node node;
    memcpy(&node, (const char*)page + qmr_read_u16(&page->mp_ptrs[index]), NODESIZE);
    return NODEPGNO(&node);
}

static int qmr_is_walkable(const MDB_page* page) {
    return (page->mp_flags & (P_BRANCH | P_LEAF)) != 0;
}

/* A page number that a node refers to, of a file with so many pages. */
static int qmr_check_reference(pgno_t owner, pgno_t page, size_t pages) {
    if (page >= pages)
        return MDB_PAGE_NOTFOUND;
    return page < NUM_METAS || page == owner ? MDB_CORRUPTED : MDB_SUCCESS;
}

static int qmr_check_node(const MDB_page* page, unsigned index, size_t page_size, size_t pages) {
    size_t offset = qmr_read_u16(&page->mp_ptrs[index]);
    if (offset < page->mp_upper || offset + NODESIZE > page_size)
        return MDB_CORRUPTED;
    const char* at = (const char*)page + offset;
    MDB_node node;
    memcpy(&node, at, NODESIZE);

    int is_branch = IS_BRANCH(page);
    int is_big = !is_branch && (node.mn_flags & F_BIGDATA);
    size_t data_size = is_branch ? 0 : is_big ? sizeof(pgno_t) : NODEDSZ(&node);
    if (offset + NODESIZE + node.mn_ksize + data_size > page_size)
        return MDB_CORRUPTED;

    if (is_branch)
        return qmr_check_reference(page->mp_pgno, NODEPGNO(&node), pages);
    if (is_big) {
        pgno_t first;
        memcpy(&first, at + NODESIZE + node.mn_ksize, sizeof(first));
        return qmr_check_reference(page->mp_pgno, first, pages);
    }
    return MDB_SUCCESS;
}

static int qmr_check_page_bounds(const MDB_page* page, size_t page_size) {
    if (page->mp_upper > page_size || page->mp_lower > page->mp_upper ||
        page->mp_lower < PAGEHDRSZ)
        return MDB_CORRUPTED;
    return MDB_SUCCESS;
}

/* All of a branch or leaf page; others have no nodes. */
static int qmr_check_nodes(const MDB_page* page, size_t page_size, size_t pages) {
    if (!qmr_is_walkable(page))
        return MDB_SUCCESS;
    int rc = qmr_check_page_bounds(page, page_size);
    unsigned nodes = NUMKEYS(page);
    for (unsigned i = 0; i < nodes && rc == MDB_SUCCESS; i++)
        rc = qmr_check_node(page, i, page_size, pages);
    return rc;
}

/* --- Page access ------------------------------------------------------------------------------ */

static int qmr_read_file_pages(MDB_env* env, size_t* pages) {
    size_t size;
    int rc = mdb_fsize(env->me_fd, &size);
    if (rc == MDB_SUCCESS) {
        *pages = size / env->me_psize;
        atomic_store_explicit(&env->me_qmr.file_pages, *pages, memory_order_relaxed);
    }
    return rc;
}

/* The size is looked at again only when a page is behind it, since the file only grows. */
static int qmr_page_in_file(MDB_env* env, size_t page) {
    size_t pages = atomic_load_explicit(&env->me_qmr.file_pages, memory_order_relaxed);
    if (page < pages)
        return 1;
    return qmr_read_file_pages(env, &pages) == MDB_SUCCESS && page < pages;
}

/* Called when the size of the map is settled. Memory is taken as pages are looked at; without it,
 * or when the map grows later, pages are checked each time. */
static void qmr_set_max_page(MDB_env* env) {
    env->me_maxpg = env->me_mapsize / env->me_psize;
    if (env->me_qmr.sound)
        return;
    size_t pages = (env->me_maxpg + 63) / 64 * 64;
    void* bits = mmap(NULL, pages / 8, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (bits == MAP_FAILED)
        return;
    env->me_qmr.sound = bits;
    env->me_qmr.sound_pages = pages;
}

/* Whatever follows may trust the offsets and sizes of a page that came through here: a damaged file
 * never leads outside of the page. */
static int qmr_page_is_sound(MDB_txn* txn, size_t number, const MDB_page* page) {
    MDB_env* env = txn->mt_env;
    uint64_t bit = UINT64_C(1) << number % 64;
    _Atomic uint64_t* word = number < env->me_qmr.sound_pages ? &env->me_qmr.sound[number / 64]
                                                              : NULL;
    if (word && (atomic_load_explicit(word, memory_order_relaxed) & bit))
        return 1;
    if (page->mp_pgno != number || (page->mp_flags & (P_LEAF2 | P_SUBP)) ||
        qmr_check_nodes(page, env->me_psize, SIZE_MAX) != MDB_SUCCESS || /* children: when read */
        (qmr_is_walkable(page) && NUMKEYS(page) == 0))
        return 0;
    if (word)
        atomic_fetch_or_explicit(word, bit, memory_order_relaxed);
    return 1;
}

/* What becomes of the pages is looked at when they are read back. */
static void qmr_pages_will_change(MDB_env* env, size_t first, int count) {
    QmrEnv* qmr = &env->me_qmr;
    for (size_t page = first; page < first + count && page < qmr->sound_pages; page++)
        atomic_fetch_and_explicit(&qmr->sound[page / 64], ~(UINT64_C(1) << page % 64),
                                  memory_order_relaxed);
}

/* The pages of a value that starts at a page: as mdb_page_get, also for the last of them. */
static int qmr_check_overflow(MDB_cursor* mc, const MDB_page* first, size_t page, size_t size) {
    MDB_txn* txn = mc->mc_txn;
    MDB_env* env = txn->mt_env;
    const char* address = (const char*)first;
    if (address < env->me_map || address >= env->me_map + env->me_mapsize)
        return MDB_SUCCESS; /* not written yet: the pages lie in memory of their own */
    size_t last = page + (PAGEHDRSZ + size - 1) / env->me_psize;
    if (last < txn->mt_next_pgno && qmr_page_in_file(env, last))
        return MDB_SUCCESS;
    txn->mt_flags |= MDB_TXN_ERROR;
    return MDB_PAGE_NOTFOUND;
}

/* --- Corruption guard ------------------------------------------------------------------------- */

/* The cursor may have stopped half way between two leaves, where no operation may start; so the
 * transaction fails, as it does in mdb_page_get. */
static int qmr_corrupted(MDB_cursor* mc) {
    mc->mc_txn->mt_flags |= MDB_TXN_ERROR;
    mc->mc_flags &= ~C_INITIALIZED;
    return MDB_CORRUPTED;
}

static int qmr_no_sub_cursor(MDB_cursor* mc, const MDB_node* node) {
    if (node)
        fprintf(stderr,
                "Severe error condition: xcursor is null. "
                "Node lo: %hu, hi:%hu, flags: %hu, ksize: %hu",
                node->mn_lo, node->mn_hi, node->mn_flags, node->mn_ksize);
    else
        fprintf(stderr, "Severe error condition: xcursor and node are null.");
    /* Whatever a write transaction did before, it must not be committed. */
    if (!(mc->mc_txn->mt_flags & MDB_TXN_RDONLY)) {
        mc->mc_txn->mt_flags |= MDB_TXN_ERROR;
        mc->mc_flags &= ~C_INITIALIZED;
    }
    return MDB_BAD_TXN;
}

/* For a cursor that a deletion moved to another node. */
static int qmr_check_sub_cursor(MDB_cursor* mc) {
    if (mc->mc_xcursor || (mc->mc_flags & (C_EOF | C_SUB)))
        return MDB_SUCCESS;
    const MDB_node* node = NODEPTR(mc->mc_pg[mc->mc_top], mc->mc_ki[mc->mc_top]);
    return (node->mn_flags & F_DUPDATA) ? qmr_no_sub_cursor(mc, node) : MDB_SUCCESS;
}

/* --- Search ----------------------------------------------------------------------------------- */

static inline uint64_t qmr_read_be64(const void* at) {
    uint64_t value;
    memcpy(&value, at, sizeof(value));
#if BYTE_ORDER == LITTLE_ENDIAN
    value = __builtin_bswap64(value);
#endif
    return value;
}

/* As the function, which for keys without flags compares bytes and then sizes. */
static inline int qmr_compare_keys(MDB_cmp_func* compare, const MDB_val* a, const MDB_val* b) {
    if (compare != mdb_cmp_memn || a->mv_size < 8 || b->mv_size < 8)
        return compare(a, b);
    uint64_t head_a = qmr_read_be64(a->mv_data), head_b = qmr_read_be64(b->mv_data);
    if (head_a != head_b)
        return head_a < head_b ? -1 : 1;
    MDB_val rest_a = {a->mv_size - 8, (char*)a->mv_data + 8};
    MDB_val rest_b = {b->mv_size - 8, (char*)b->mv_data + 8};
    return rest_a.mv_size + rest_b.mv_size == 0 ? 0 : compare(&rest_a, &rest_b);
}

/* --- Steps and puts in place ------------------------------------------------------------------ */

/* Whether the cursor's stack of pages is good. It may still stand behind the last node. */
static int qmr_is_placed(const MDB_cursor* mc) {
    return (mc->mc_flags & (C_INITIALIZED | C_DEL | C_SUB)) == C_INITIALIZED &&
           !(mc->mc_txn->mt_flags & MDB_TXN_BLOCKED);
}

/* Gives a node whose value lies in its page. */
static int qmr_give_node(const MDB_page* page, unsigned index, MDB_val* key, MDB_val* value) {
    const MDB_node* node = NODEPTR(page, index);
    if (node->mn_flags != 0)
        return 0;
    key->mv_size = node->mn_ksize;
    key->mv_data = NODEKEY(node);
    value->mv_size = NODEDSZ(node);
    value->mv_data = NODEDATA(node);
    return 1;
}

int qmr_mdb_cursor_next(MDB_cursor* mc, MDB_val* key, MDB_val* value) {
    if (qmr_is_placed(mc) && !(mc->mc_flags & C_EOF)) {
        const MDB_page* page = mc->mc_pg[mc->mc_top];
        unsigned next = mc->mc_ki[mc->mc_top] + 1u;
        if (next < NUMKEYS(page) && (MP_FLAGS(page) & (P_LEAF | P_LEAF2)) == P_LEAF &&
            qmr_give_node(page, next, key, value)) {
            mc->mc_ki[mc->mc_top] = next;
            return MDB_SUCCESS;
        }
    }
    return mdb_cursor_get(mc, key, value, MDB_NEXT);
}

static int qmr_compare_with_node(const MDB_val* key, const MDB_page* page, unsigned index) {
    const MDB_node* node = NODEPTR(page, index);
    MDB_val other = {node->mn_ksize, NODEKEY(node)};
    return qmr_compare_keys(mdb_cmp_memn, key, &other);
}

/* Whether the key belongs between the cursor's node and whatever follows, in this leaf or behind
 * it. last: nothing follows in the whole database. */
static int qmr_follows(const MDB_cursor* mc, const MDB_val* key, int* last) {
    unsigned level = mc->mc_top;
    *last = 0;
    if (mc->mc_ki[level] >= NUMKEYS(mc->mc_pg[level]) ||
        qmr_compare_with_node(key, mc->mc_pg[level], mc->mc_ki[level]) <= 0)
        return 0;
    for (;; level--) {
        unsigned following = mc->mc_ki[level] + 1u;
        if (following < NUMKEYS(mc->mc_pg[level]))
            return qmr_compare_with_node(key, mc->mc_pg[level], following) < 0;
        if (level == 0)
            return *last = 1;
    }
}

/* Adds a node behind the cursor's. The leaf is of this transaction already and has room, so that
 * no other page changes. */
static int qmr_add_behind(MDB_cursor* mc, MDB_val* key, MDB_val* value) {
    unsigned level = mc->mc_top;
    MDB_page* page = mc->mc_pg[level];
    int rc = mdb_node_add(mc, ++mc->mc_ki[level], key, value, 0, 0);
    if (rc != MDB_SUCCESS) {
        mc->mc_txn->mt_flags |= MDB_TXN_ERROR;
        return rc;
    }
    for (MDB_cursor* other = mc->mc_txn->mt_cursors[mc->mc_dbi]; other; other = other->mc_next) {
        if (other != mc && other->mc_snum >= mc->mc_snum && other->mc_pg[level] == page &&
            other->mc_ki[level] >= mc->mc_ki[level])
            other->mc_ki[level]++;
    }
    mc->mc_flags &= ~C_EOF;
    mc->mc_db->md_entries++;
    return MDB_SUCCESS;
}

int qmr_mdb_cursor_put(MDB_cursor* mc, MDB_val* key, MDB_val* value) {
    MDB_env* env = mc->mc_txn->mt_env;
    MDB_page* page = mc->mc_pg[mc->mc_top];
    int last;
    if (!qmr_is_placed(mc) || (mc->mc_db->md_flags & MDB_DUPSORT) || mc->mc_txn->mt_parent ||
        key->mv_size - 1 >= ENV_MAXKEY(env) ||
        (MP_FLAGS(page) & (P_LEAF | P_LEAF2 | P_DIRTY)) != (P_LEAF | P_DIRTY) ||
        !qmr_follows(mc, key, &last))
        return mdb_cursor_put(mc, key, value, 0);
    size_t size = NODESIZE + key->mv_size + value->mv_size;
    if (size <= env->me_nodemax && EVEN(size) + sizeof(indx_t) <= SIZELEFT(page))
        return qmr_add_behind(mc, key, value);
    return mdb_cursor_put(mc, key, value, last ? MDB_APPEND : 0);
}

/* --- Walks over damaged trees ----------------------------------------------------------------- */

typedef struct {
    MDB_cursor* cursor;
    size_t pages;       /* page numbers are below this */
    size_t page_size;
    uint64_t remaining; /* pages that the limit leaves */
    QmrPageValidation* out;
} QmrWalk;

static int qmr_walk_init(QmrWalk* walk, MDB_cursor* cursor) {
    MDB_txn* txn = cursor->mc_txn;
    memset(walk, 0, sizeof(*walk));
    walk->cursor = cursor;
    walk->page_size = txn->mt_env->me_psize;
    int rc = qmr_read_file_pages(txn->mt_env, &walk->pages);
    /* A write transaction's new pages are not in the file yet. */
    if (rc == MDB_SUCCESS && walk->pages != 0 && !(txn->mt_flags & MDB_TXN_RDONLY) &&
        walk->pages < txn->mt_next_pgno)
        walk->pages = txn->mt_next_pgno;
    return rc;
}

static int qmr_check_page(QmrWalk* walk, pgno_t number) {
    MDB_page* page;
    walk->out->first_failed_page = number;
    int rc = mdb_page_get(walk->cursor, number, &page, NULL);
    if (rc != MDB_SUCCESS)
        return rc;
    if ((rc = qmr_check_nodes(page, walk->page_size, walk->pages)) != MDB_SUCCESS)
        return rc;
    if (qmr_is_walkable(page))
        walk->out->entries_checked += NUMKEYS(page);
    /* A tree with more pages than the file has leads into itself. */
    if (++walk->out->pages_checked > walk->pages)
        return MDB_CORRUPTED;
    walk->out->first_failed_page = 0;
    walk->remaining--;
    return MDB_SUCCESS;
}

/* Checks the pages at a depth below a page that is checked itself, with all between them. */
static int qmr_check_level(QmrWalk* walk, pgno_t number, int depth) {
    MDB_page* page;
    int rc = mdb_page_get(walk->cursor, number, &page, NULL);
    if (rc != MDB_SUCCESS || !IS_BRANCH(page))
        return rc;
    unsigned children = NUMKEYS(page);
    for (unsigned i = 0; i < children && walk->remaining != 0; i++) {
        pgno_t child = qmr_child(page, i);
        rc = depth == 1 ? qmr_check_page(walk, child) : qmr_check_level(walk, child, depth - 1);
        if (rc != MDB_SUCCESS)
            return rc;
    }
    return MDB_SUCCESS;
}

int qmr_mdb_validate_pages(MDB_cursor* cursor, uint64_t page_limit, int check_leaf_level,
                           QmrPageValidation* out) {
    memset(out, 0, sizeof(*out));
    const MDB_db* db = cursor->mc_db;
    if (db->md_root == P_INVALID)
        return MDB_SUCCESS;
    QmrWalk walk;
    int rc = qmr_walk_init(&walk, cursor);
    if (rc != MDB_SUCCESS || walk.pages == 0)
        return rc;
    walk.out = out;
    walk.remaining = page_limit != 0 ? page_limit : UINT64_MAX;

    if ((rc = qmr_check_page(&walk, db->md_root)) != MDB_SUCCESS)
        return rc;
    if (db->md_depth > CURSOR_STACK) {
        out->first_failed_page = db->md_root;
        return MDB_CORRUPTED;
    }
    /* The root is level 0. */
    int levels = check_leaf_level ? db->md_depth : db->md_depth - 1;
    for (int depth = 1; depth < levels && walk.remaining != 0; depth++) {
        if ((rc = qmr_check_level(&walk, db->md_root, depth)) != MDB_SUCCESS)
            return rc;
    }
    return MDB_SUCCESS;
}

/* --- Fill statistics -------------------------------------------------------------------------- */

typedef struct {
    QmrWalk walk;
    uint64_t visited;
    QmrFillStats* out;
} QmrFillVisit;

static unsigned qmr_fill_bucket(const QmrWalk* walk, const MDB_page* page) {
    size_t room = walk->page_size - PAGEHDRSZ;
    size_t used = room - (page->mp_upper - page->mp_lower);
    size_t bucket = used * 1000 / room / 100;
    return bucket < 10 ? bucket : 9; /* a page without a free byte belongs to the fullest */
}

/* A level of 0 and a count above that of the file's pages stop a tree that leads into itself. */
static int qmr_visit_fill(QmrFillVisit* visit, pgno_t number, int levels) {
    MDB_page* page;
    int rc = mdb_page_get(visit->walk.cursor, number, &page, NULL);
    if (rc != MDB_SUCCESS)
        return rc;
    if (levels == 0 || ++visit->visited > visit->walk.pages || !qmr_is_walkable(page) ||
        qmr_check_page_bounds(page, visit->walk.page_size) != MDB_SUCCESS)
        return MDB_CORRUPTED;

    unsigned bucket = qmr_fill_bucket(&visit->walk, page);
    if (!IS_BRANCH(page)) {
        visit->out->leaf_fill[bucket]++;
        return MDB_SUCCESS;
    }
    visit->out->branch_fill[bucket]++;
    unsigned children = NUMKEYS(page);
    if (children <= 1)
        return MDB_SUCCESS;
    for (unsigned i = 0; i < children; i++) {
        size_t offset = qmr_read_u16(&page->mp_ptrs[i]);
        if (offset + NODESIZE > visit->walk.page_size)
            return MDB_CORRUPTED;
        if ((rc = qmr_visit_fill(visit, qmr_child(page, i), levels - 1)) != MDB_SUCCESS)
            return rc;
    }
    return MDB_SUCCESS;
}

int qmr_mdb_fill_stats(MDB_cursor* cursor, QmrFillStats* out) {
    memset(out, 0, sizeof(*out));
    QmrFillVisit visit = {.out = out};
    int rc = qmr_walk_init(&visit.walk, cursor);
    if (rc != MDB_SUCCESS || cursor->mc_db->md_root == P_INVALID)
        return rc;
    rc = qmr_visit_fill(&visit, cursor->mc_db->md_root, CURSOR_STACK);
    return rc == MDB_CORRUPTED ? MDB_SUCCESS : rc;
}
