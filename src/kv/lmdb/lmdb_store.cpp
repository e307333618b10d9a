#include "kv/lmdb/lmdb_store.h"

#include <sys/stat.h>

#include <cerrno>

#include "core/checks.h"
#include "core/error.h"
#include "core/log.h"
#include "core/store_options.h"
#include "kv/lmdb/lmdb_transaction.h"

namespace quillmere {

namespace {

constexpr uint32_t kProviderId = 1;
constexpr MDB_dbi kFreePagesDbi = 0;
constexpr MDB_dbi kMainDbi = 1;

struct CloseCursor {
    void operator()(MDB_cursor* cursor) const { mdb_cursor_close(cursor); }
};
using EngineCursor = std::unique_ptr<MDB_cursor, CloseCursor>;

struct AbortTx {
    void operator()(MDB_txn* tx) const { mdb_txn_abort(tx); }
};
using EngineTx = std::unique_ptr<MDB_txn, AbortTx>;

EngineCursor openCursor(const LmdbErrors& errors, MDB_txn* tx, MDB_dbi dbi, const char* failure) {
    MDB_cursor* cursor = nullptr;
    errors.check(mdb_cursor_open(tx, dbi, &cursor), failure);
    return EngineCursor(cursor);
}

unsigned openFlags(const StoreOptions& options) {
    unsigned flags = 0;
    if (options.usePreviousCommit) flags |= MDB_PREVSNAPSHOT;
    if (options.noReaderThreadLocals) flags |= MDB_NOTLS;
    if (options.noLock) flags |= MDB_NOLOCK;
    if (options.readOnly) flags |= MDB_RDONLY;
    return flags;
}

std::string openFailureText(int result, bool readOnly) {
    if (result == ENOENT) {
        return readOnly ? "Database not found: read-only databases must already exist"
                        : "Database not found";
    }
    if (result == MDB_INVALID) return "Not a database file";
    return "Could not open database environment; please check options and file system";
}

// Appends the engine's text to a string. Runs below the engine's C code, so nothing may leave it.
int appendText(const char* text, void* target) {
    try {
        static_cast<std::string*>(target)->append(text);
        return 0;
    } catch (...) {
        return -1;
    }
}

}  // namespace

LmdbStore::LmdbStore(const StoreOptions& options)
    : errors_(options),
      readOnly_(options.readOnly),
      previousCommit_(options.usePreviousCommit) {
    if (options.walFlags != 0) {
        throwIllegalArgument("WAL is not yet supported by disk based DB provider");
    }
    try {
        open(options);
    } catch (...) {
        close();
        throw;
    }
}

LmdbStore::~LmdbStore() {
    close();
}

// ---- Opening and closing ------------------------------------------------------------------------

void LmdbStore::open(const StoreOptions& options) {
    openEnv(options);
    int deadReaders = 0;
    checkOpen(mdb_reader_check(env_, &deadReaders), "Could not check for stale readers");
    if (options.validatePagesLimit != 0) validateOnOpen(options);
    openDatabase();
}

void LmdbStore::openEnv(const StoreOptions& options) {
    MDB_env* env = nullptr;
    const int created = mdb_env_create(&env);
    env_ = env;
    checkOpen(created, "Could not create env for DB");
    CHECK_STATE_TEXT_AT(29, env, "LmdbStore", "dbEnv");
    checkOpen(mdb_env_set_mapsize(env, bytesOfKb(options.maxDbSizeInKb)),
              "Could not set max DB size");
    if (options.maxReaders != 0) {
        checkOpen(mdb_env_set_maxreaders(env, options.maxReaders),
                  "Could not set max read transactions");
    }
    const int opened = mdb_env_open(env, options.directory.c_str(), openFlags(options),
                                    options.fileMode);
    checkOpen(opened, openFailureText(opened, options.readOnly));
}

void LmdbStore::validateOnOpen(const StoreOptions& options) {
    MDB_txn* tx = nullptr;
    checkOpen(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &tx), "Could not begin check tx");
    const EngineTx abortsTx(tx);
    validateAllPages(tx, options.validatePagesLimit, options.validatePagesLeafLevel,
                     openValidation_);
}

void LmdbStore::openDatabase() {
    MDB_txn* tx = nullptr;
    checkOpen(mdb_txn_begin(env_, nullptr, readOnly_ ? MDB_RDONLY : 0, &tx), "Could not open tx");
    EngineTx abortsTx(tx);
    MDB_dbi dbi = 0;
    const int opened = mdb_dbi_open(tx, nullptr, MDB_CREATE, &dbi);
    if (opened != 0) abortsTx.reset();  // before the environment closes
    checkOpen(opened, "Could not open store");
    dbi_ = dbi;
    CHECK_STATE_TEXT_AT(85, dbi, "LmdbStore", "dbi");
    checkOpen(mdb_txn_commit(abortsTx.release()), "Could not commit tx");
}

void LmdbStore::checkOpen(int result, const std::string& text) {
    if (result == 0) return;
    const std::string knownText = errors_.report(result);
    close();
    errors_.failOpen(result, text, knownText);
}

void LmdbStore::close() {
    MDB_env* const env = env_.exchange(nullptr);
    if (!env) return;
    if (const MDB_dbi dbi = dbi_.exchange(0)) mdb_dbi_close(env, dbi);
    mdb_env_close(env);
}

MDB_env* LmdbStore::env() const {
    MDB_env* const env = env_;
    CHECK_STATE_TEXT_AT(__LINE__, env, __func__, "env_");
    return env;
}

// ---- Information --------------------------------------------------------------------------------

size_t LmdbStore::maxKeySize() const {
    return static_cast<size_t>(mdb_env_get_maxkeysize(env()));
}

uint32_t LmdbStore::providerId() const {
    return kProviderId;
}

uint32_t LmdbStore::maxReaders() {
    unsigned readers = 0;
    errors_.check(mdb_env_get_maxreaders(env(), &readers), "Could not get max read transactions");
    return readers;
}

uint64_t LmdbStore::sizeOnDisk() {
    mdb_filehandle_t file = -1;
    errors_.check(mdb_env_get_fd(env(), &file), "Could not get data file");
    struct stat status {};
    if (fstat(file, &status) != 0) errors_.fail(errno, "Could not get size of data file");
    return static_cast<uint64_t>(status.st_size);
}

bool LmdbStore::stats(DbStats& out) {
    const std::unique_ptr<DbTransaction> transaction = createTransaction(true, 0);
    transaction->begin();
    MDB_txn* const tx = getDbTransaction(*transaction).handle();
    const EngineCursor cursor = openCursor(errors_, tx, dbi(), "Could not create LMDB cursor");
    MDB_stat stat{};
    errors_.check(mdb_stat(tx, dbi(), &stat), "Could not get stats for env");
    QmrFillStats fill{};
    errors_.check(qmr_mdb_fill_stats(cursor.get(), &fill), "Could not get fill statistics");

    std::copy(std::begin(fill.leaf_fill), std::end(fill.leaf_fill), out.leafFill.begin());
    std::copy(std::begin(fill.branch_fill), std::end(fill.branch_fill), out.branchFill.begin());
    out.pageSize = stat.ms_psize;
    out.depth = stat.ms_depth;
    out.branchPages = stat.ms_branch_pages;
    out.leafPages = stat.ms_leaf_pages;
    out.overflowPages = stat.ms_overflow_pages;
    out.entries = stat.ms_entries;
    return true;
}

std::string LmdbStore::statsString() {
    std::string text;
    const int listed = mdb_reader_list(env(), appendText, &text);
    if (listed < 0) errors_.fail(listed, "Could not get stats for readers");
    MDB_stat stat{};
    errors_.check(mdb_env_stat(env(), &stat), "Could not get stats for env");
    MDB_envinfo info{};
    errors_.check(mdb_env_info(env(), &info), "Could not get info for env");

    const auto add = [&](const char* name, uint64_t number) {
        text.append("\n").append(name).append("=").append(std::to_string(number));
    };
    add("entries", stat.ms_entries);
    add("depth", stat.ms_depth);
    add("branch-pages", stat.ms_branch_pages);
    add("leaf-pages", stat.ms_leaf_pages);
    add("overflow-pages", stat.ms_overflow_pages);
    add("page-size", stat.ms_psize);
    add("last-page-number", info.me_last_pgno);
    add("last-tx-id", info.me_last_txnid);
    add("size", info.me_mapsize);
    add("max-readers", info.me_maxreaders);
    add("readers", info.me_numreaders);
    return text;
}

size_t LmdbStore::cleanStaleReaders() {
    int deadReaders = 0;
    errors_.check(mdb_reader_check(env(), &deadReaders), "Could not check for stale readers");
    return static_cast<size_t>(deadReaders);
}

void LmdbStore::setNoMetaSync(bool flag) {
    errors_.check(mdb_env_set_flags(env(), MDB_NOMETASYNC, flag),
                  "Could not set no-meta-sync flag");
}

// ---- Transactions -------------------------------------------------------------------------------

std::unique_ptr<DbTransaction> LmdbStore::createTransaction(bool readOnly, uint32_t) {
    if (checkStaleReaders_.exchange(false)) cleanStaleReaders();
    return std::make_unique<LmdbTransaction>(*this, readOnly);
}

LmdbTransaction& LmdbStore::getDbTransaction(DbTransaction& dbTransaction) const {
    CHECK_STATE_HERE(&dbTransaction.store() == this);
    return static_cast<LmdbTransaction&>(dbTransaction);
}

void LmdbStore::dropAll(DbTransaction& transaction) {
    LmdbTransaction& tx = getDbTransaction(transaction);
    errors_.check(mdb_drop(tx.handle(), dbi(), 0), "Could not drop all data");
    tx.countWrite();
}

// ---- Page validation ----------------------------------------------------------------------------

uint64_t LmdbStore::validatePages(DbTransaction& transaction, uint64_t pageLimit,
                                  bool checkLeafLevel) {
    QmrPageValidation stats{};
    return validateAllPages(getDbTransaction(transaction).handle(), pageLimit, checkLeafLevel,
                            stats);
}

uint64_t LmdbStore::validateAllPages(MDB_txn* tx, uint64_t pageLimit, bool checkLeafLevel,
                                     QmrPageValidation& outStats) const {
    uint64_t checked = validatePages(kFreePagesDbi, tx, pageLimit, checkLeafLevel, outStats);
    checked += validatePages(kMainDbi, tx, pageLimit, checkLeafLevel, outStats);
    return checked;
}

uint64_t LmdbStore::validatePages(MDB_dbi dbi, MDB_txn* tx, uint64_t pageLimit,
                                  bool checkLeafLevel, QmrPageValidation& outStats) const {
    const EngineCursor cursor = openCursor(errors_, tx, dbi, "Could not open validation cursor");
    QmrPageValidation found{};
    const int result = qmr_mdb_validate_pages(cursor.get(), pageLimit, checkLeafLevel, &found);
    outStats.pages_checked += found.pages_checked;
    outStats.entries_checked += found.entries_checked;
    outStats.first_failed_page = found.first_failed_page;
    if (result != 0) {
        logLine("%s [INFO ] Page validation failed: %llu\n", logTimestamp(),
                static_cast<unsigned long long>(found.first_failed_page));
        errors_.fail(result, "Validating pages failed");
    }
    return found.pages_checked;
}

}  // namespace quillmere
