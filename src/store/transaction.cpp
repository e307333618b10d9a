#include "store/transaction.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <limits>
#include <thread>
#include <utility>

#include "core/cast.h"
#include "core/checks.h"
#include "core/endian.h"
#include "core/error.h"
#include "core/log.h"
#include "core/stop_watch.h"
#include "kv/db_store.h"
#include "kv/partition.h"
#include "kv/partition_cursor.h"
#include "schema/entity.h"
#include "store/change_listeners.h"
#include "store/cursor.h"
#include "store/object_store.h"
#include "store/store_activity.h"

namespace quillmere {

namespace {

std::atomic<uint64_t> txNumberCounter{1};
std::atomic<uint64_t> lastCommitted{0};
// The highest number ever committed. It never falls, unlike lastCommitted, and so is what the
// caches of a store are compared with.
std::atomic<uint64_t> highestCommitted{0};

constexpr size_t kTotalSizeBytes = 8;

uint64_t drawTxNumber() {
    for (;;) {
        const uint64_t number = txNumberCounter.fetch_add(1);
        if (number != 0 && number != NumberLock::kCloserNumber) return number;
    }
}

bool isReadMode(TxMode mode) {
    if (mode != TxMode::Read && mode != TxMode::Write) throwIllegalState("Illegal mode");
    return mode == TxMode::Read;
}

// Whether a younger transaction, of any store, has committed first. Raises the highest number.
bool committedOutOfOrder(uint64_t number) {
    uint64_t highest = highestCommitted.load();
    while (highest < number) {
        if (highestCommitted.compare_exchange_weak(highest, number)) return false;
    }
    return true;
}

std::string threadName() {
    std::array<char, 16> name{};
    if (pthread_getname_np(pthread_self(), name.data(), name.size()) != 0) return "unknown";
    return name.data();
}

Bytes totalSizeKey(std::array<uint8_t, 4>& buffer) {
    storeBig<uint32_t>(buffer.data(), kTotalSizePrefix);
    return Bytes(buffer.data(), buffer.size());
}

}  // namespace

uint64_t lastCommittedTx() { return lastCommitted.load(); }

// The lines of a transaction's life, under the debug flag of its mode. Somebody may be waiting.
#define TRACE_TX(format, ...)                                                                      \
    do {                                                                                           \
        if (logging_) {                                                                            \
            logLine("%s [INFO ] TX #%zu " format "\n", logTimestamp(),                             \
                    number_ __VA_OPT__(, ) __VA_ARGS__);                                           \
            logFlush();                                                                            \
        }                                                                                          \
    } while (false)

Transaction::Transaction(ObjectStore& store, std::unique_ptr<DbTransaction> dbTx, TxMode mode,
                         uint32_t flags, uint64_t baseNumber)
    : TxContext(std::move(dbTx), drawTxNumber(), threadNumber(), isReadMode(mode)),
      store_(store),
      activity_(store.activity_),
      writeLock_(store.writeLock_),
      baseNumber_(baseNumber),
      commitSequence_(store.commitSequence_.load()),
      logging_((store.debugFlags() & (readOnly_ ? kDebugLogReadTx : kDebugLogWriteTx)) != 0),
      skipSyncCheck_((flags & kTxExempt) != 0),
      trackDataSize_(!readOnly_ && store.maxDataSizeBytes() != 0),
      enforceMaxDataSize_(trackDataSize_ && !skipSyncCheck_) {
    TRACE_TX("(%s)", readOnly_ ? "read" : "write");
    if (readOnly_) {
        dbTx_->begin();
        active_ = true;
    } else {
        if (store_.readOnly()) {
            throwIllegalState("Cannot start a write transaction from read only store");
        }
        beginWrite();
    }
    activity_->transactions.fetch_add(1);
}

Transaction::~Transaction() {
    TRACE_TX("to be destroyed on %s thread (last committed: TX #%zu)...",
             isOwnerThread() ? "owner" : "non-owner", lastCommittedTx());
    sizeCursor_.reset();
    if (recycled_) renewForDestruction();
    detachCursors();
    try {
        endOnDestruction();
    } catch (const std::exception& e) {
        logLine("%s [ERROR] TX #%zu could not be aborted for destruction: %s\n", logTimestamp(),
                number_, e.what());
    }
    TRACE_TX("destroyed");
    dbTx_.reset();
    activity_->transactions.fetch_sub(1);  // from here on the store may be gone
}

// --- begin ---------------------------------------------------------------------------------------

void Transaction::sampleBase() {
    baseNumber_ = lastCommittedTx();
    commitSequence_ = store_.commitSequence_.load();
}

// The store itself may be gone, so that the shared record is asked first.
void Transaction::requireOpenStore() const {
    if (activity_->storeClosed.load()) throwWith<StoreClosedException>("Store is already closed");
    store_.checkOpen(true);
}

void Transaction::requireStorage() const {
    if (activity_->storeClosed.load()) throwWith<StoreClosedException>("Store is closed");
}

void Transaction::requireActive() const {
    if (!active_) {
        throwIllegalState("TX is not active anymore: #", static_cast<int64_t>(number_));
    }
}

bool Transaction::isOwnerThread() const { return threadNumber() == ownerThread_; }

void Transaction::beginWrite() {
    requireOpenStore();
    uint64_t holder = 0;
    if (!writeLock_.tryLock(number_, holder)) waitForWriteLock(holder);
    holdsWriteLock_ = true;
    try {
        if (store_.closing() || store_.closed()) {
            throwWith<StoreClosedException>("Store is not open anymore, cannot begin TX");
        }
        store_.writerThread_.store(ownerThread_);
        sampleBase();  // others may have committed while this one waited
        dbTx_->begin();
    } catch (...) {
        releaseWriteLock();
        throw;
    }
    active_ = true;
}

void Transaction::waitForWriteLock(uint64_t holder) {
    if (holder == number_) {
        throwIllegalState("Cannot wait for own TX #", static_cast<int64_t>(number_));
    }
    if (store_.writerThread_.load() == ownerThread_) {
        throwIllegalState("Cannot begin new TX #", std::to_string(number_), " because thread ",
                          std::to_string(ownerThread_), " is already in write TX #",
                          std::to_string(holder));
    }
    if (!logging_) return writeLock_.lock(number_);

    TRACE_TX("waiting for TX #%zu to finish", holder);
    const StopWatch waited;
    writeLock_.lock(number_);
    TRACE_TX("starts after %s", waited.text().c_str());
}

uint64_t Transaction::unlockWriteLock() noexcept {
    if (!std::exchange(holdsWriteLock_, false)) return 0;
    store_.writerThread_.store(0);
    return writeLock_.unlock(number_);
}

void Transaction::releaseWriteLock() {
    if (const uint64_t otherHolder = unlockWriteLock(); otherHolder != 0) {
        throwIllegalWriter(otherHolder);
    }
}

void Transaction::throwIllegalWriter(uint64_t holder) const {
    throwIllegalState("Illegal writer number ", std::to_string(holder), ", expected ",
                      std::to_string(number_));
}

// --- commit --------------------------------------------------------------------------------------

void Transaction::commit(std::vector<uint32_t>* outAffected) {
    TRACE_TX("committing...");
    requireCommittable();
    if (trackDataSize_ && dataSizeChange_ != 0) accountDataSize();
    sizeCursor_.reset();
    commitDbTransaction();

    // The data is safe. Whatever fails from here on must leave no lock and no counter behind.
    const CommitInProgress inProgress(*activity_);
    const uint64_t otherHolder = unlockWriteLock();
    tellCursorsEnded();
    if (otherHolder != 0) throwIllegalWriter(otherHolder);
    if (outAffected) *outAffected = affectedEntities_;
    fireListeners();
}

void Transaction::requireCommittable() {
    if (readOnly_) {
        throwIllegalState("Read transactions may not be committed - use abort instead");
    }
    if (!isOwnerThread()) {
        throwIllegalState("Transactions may only be committed from the thread that started the "
                          "transaction");
    }
    requireActive();
    CHECK_STATE_TEXT_AT(230, !recycled_, "commit", "!recycled_");
    CHECK_STATE_TEXT_AT(231, dbTx_->isInProgress(), "commit", "dbTx_->isInProgress()");
    CHECK_STATE_TEXT_AT(232, !silentChanges_, "commit", "!silentChanges_");
    if (store_.closed()) {
        unlockWriteLock();
        throwWith<StoreClosedException>("Store is closed - cannot commit TX #",
                                        std::to_string(number_));
    }
}

void Transaction::commitDbTransaction() {
    store_.commitSequence_.fetch_add(1);
    try {
        dbTx_->commit();
    } catch (...) {
        // The storage may have published the data all the same, without a number of its own.
        store_.invalidateCaches();
        store_.commitSequence_.fetch_add(1);
        active_ = false;
        unlockWriteLock();
        affectedEntities_.clear();
        tellCursorsEnded();
        throw;
    }
    active_ = false;
    publishCommit();
}

void Transaction::publishCommit() noexcept {
    // An older number than one committed before would be taken for an older state by the caches.
    if (committedOutOfOrder(number_)) store_.invalidateCaches();
    lastCommitted.store(number_);
    store_.commitSequence_.fetch_add(1);
}

void Transaction::fireListeners() {
    if (affectedEntities_.empty()) return;
    const std::vector<uint32_t> affected = std::exchange(affectedEntities_, {});
    // A listener may drop the last reference to the store: nothing of it is touched after this.
    const std::shared_ptr<ChangeListeners> listeners = store_.listeners_;
    listeners->fire(affected);
}

// --- abort, recycle, renew, reset ----------------------------------------------------------------

void Transaction::abort() {
    TRACE_TX("abort");
    affectedEntities_.clear();
    if (!active_ && !recycled_) return;
    tellCursorsEnded();
    abortInternal();
}

void Transaction::abortInternal() {
    if (activity_->storeClosed.load()) {
        // The close has given up waiting for this transaction, and the engine's memory that the
        // handle refers to is gone: it can neither be ended nor destroyed any more.
        (void)dbTx_.release();
        active_ = recycled_ = false;
        return;
    }
    CHECK_STATE_AT(412, dbTx_->isInProgress());
    sizeCursor_.reset();
    active_ = recycled_ = false;
    try {
        dbTx_->abort();
    } catch (...) {
        unlockWriteLock();
        throw;
    }
    releaseWriteLock();
}

void Transaction::recycle() {
    TRACE_TX("recycle");
    if (!readOnly_) throwIllegalState("Only read transactions may be recycled");
    requireActive();
    CHECK_STATE_AT(368, dbTx_->isInProgress());
    requireOpenStore();
    forgetDataSize();
    dbTx_->recycleReadOnlyForRenew();
    active_ = false;
    recycled_ = true;
    affectedEntities_.clear();
}

void Transaction::renew() {
    TRACE_TX("renew from base #%zu", baseNumber_);
    if (!readOnly_) throwIllegalState("Only read transactions may be recycled");
    if (!recycled_) throwIllegalState("Only previously recycled transactions can be renewed");
    CHECK_STATE_AT(392, !active_);
    CHECK_STATE_AT(393, dbTx_->isInProgress());
    requireOpenStore();
    sampleBase();
    dbTx_->renewReadOnly();
    active_ = true;
    recycled_ = false;
    affectedEntities_.clear();
    {
        const std::lock_guard lock(cursorsMutex_);
        for (Cursor* cursor : cursors_) cursor->txRenewed();
    }
    TRACE_TX("renewed to base #%zu", baseNumber_);
}

void Transaction::reset() {
    TRACE_TX("reset");
    if (hasCursors()) throwIllegalState("Cannot reset TX with active cursors");
    if (!readOnly_) {
        abort();
        dataSizeChange_ = 0;
        forgetDataSize();
        changed_ = false;
        return beginWrite();
    }
    requireOpenStore();
    if (!active_) CHECK_STATE_AT(339, !recycled_);
    forgetDataSize();
    sampleBase();
    if (active_) {
        dbTx_->resetReadOnly();
    } else {
        dbTx_->begin();
        active_ = true;
    }
}

// --- cursors -------------------------------------------------------------------------------------

std::unique_ptr<Cursor> Transaction::createCursor(const Entity* entity, bool registered) {
    requireActive();
    requireStorage();
    CHECK_ARG_NOT_NULL(entity);
    Cursor::Config config;
    config.entity = entity;
    config.prefix = partitionPrefix(PartitionType::Entity, entity->id());
    config.registered = registered;
    return addCursor(std::make_unique<Cursor>(*this, config), registered);
}

std::unique_ptr<Cursor> Transaction::createKeyValueCursor(uint32_t prefix) {
    requireActive();
    CHECK_STATE_TEXT_AT(484, !activity_->storeClosed.load(), "createKeyValueCursor",
                        "!store_.closed_");
    Cursor::Config config;
    config.prefix = prefix;
    return addCursor(std::make_unique<Cursor>(*this, config), true);
}

std::unique_ptr<Cursor> Transaction::addCursor(std::unique_ptr<Cursor> cursor, bool registered) {
    if (registered) {
        const std::lock_guard lock(cursorsMutex_);
        cursors_.push_back(cursor.get());
    }
    return cursor;
}

std::shared_ptr<DbCursor> Transaction::createDbCursor() {
    CHECK_STATE_TEXT_AT(569, dbTx_ && dbTx_->isInProgress(), "createDbCursor",
                        "dbTx_->isInProgress()");
    return dbTx_->createDbCursor();
}

bool Transaction::hasCursors() {
    const std::lock_guard lock(cursorsMutex_);
    return !cursors_.empty();
}

void Transaction::removeCursorLocked(Cursor* cursor) noexcept {
    // Cursors mostly go in the reverse order of their making.
    const auto found = std::find(cursors_.rbegin(), cursors_.rend(), cursor);
    if (found != cursors_.rend()) cursors_.erase(std::next(found).base());
}

void Transaction::tellCursorsEnded() noexcept {
    const std::lock_guard lock(cursorsMutex_);
    for (Cursor* cursor : cursors_) cursor->txEnded();
}

// --- changes and data size -----------------------------------------------------------------------

void Transaction::entityAffected(uint32_t entityId) {
    CHECK_STATE_AT(501, !readOnly_);
    const auto end = affectedEntities_.end();
    if (std::find(affectedEntities_.begin(), end, entityId) == end) {
        affectedEntities_.push_back(entityId);
    }
}

PartitionCursor& Transaction::sizeCursor() {
    requireActive();
    requireStorage();
    if (!sizeCursor_) {
        PartitionCursor::Config config;
        config.firstPrefix = kTotalSizePrefix;
        config.lastPrefix = kTotalSizePrefix;
        sizeCursor_ = std::make_unique<PartitionCursor>(*this, config);
    }
    return *sizeCursor_;
}

uint64_t Transaction::getDataSize() {
    if (dataSizeRead_) return committedDataSize_;
    std::array<uint8_t, 4> keyBuffer;
    const Bytes key = totalSizeKey(keyBuffer);
    Bytes value;
    uint64_t size = 0;
    if (sizeCursor().get(key.data(), key.size(), value)) {
        if (value.size() != kTotalSizeBytes) {
            throwWith<DbFileCorruptException>("Illegal data size length: ",
                                              std::to_string(value.size()));
        }
        size = loadNative<uint64_t>(value.data());
    }
    committedDataSize_ = size;
    dataSizeRead_ = true;
    return size;
}

int64_t Transaction::remainingDataSize() {
    const uint64_t limit = store_.maxDataSizeBytes();
    if (limit == 0) return 0;
    constexpr uint64_t most = std::numeric_limits<int64_t>::max();
    const uint64_t size = getDataSize();
    if (size <= limit) return static_cast<int64_t>(std::min(limit - size, most));
    const uint64_t excess = size - limit;
    return excess > most ? std::numeric_limits<int64_t>::min() : -static_cast<int64_t>(excess);
}

void Transaction::accountDataSize() {
    const uint64_t before = static_cast<uint64_t>(checkedCast<int64_t>(getDataSize()));
    // Added without a sign: a sum beyond the signed range then fails below like a negative one.
    const int64_t total = static_cast<int64_t>(before + static_cast<uint64_t>(dataSizeChange_));
    const uint64_t limit = store_.maxDataSizeBytes();
    if (enforceMaxDataSize_ && dataSizeChange_ > 0 && total > 0 &&
        static_cast<uint64_t>(total) > limit) {
        sizeCursor_.reset();
        throwWith<DbMaxDataSizeExceededException>(
            "Exceeded user-set maximum by [bytes]: ",
            std::to_string(static_cast<uint64_t>(total) - limit));
    }
    std::array<uint8_t, kTotalSizeBytes> value;
    storeNative<uint64_t>(value.data(), checkedCast<uint64_t>(total));
    std::array<uint8_t, 4> keyBuffer;
    sizeCursor().put(totalSizeKey(keyBuffer), Bytes(value.data(), value.size()));
}

// Another snapshot may have another total.
void Transaction::forgetDataSize() {
    sizeCursor_.reset();
    dataSizeRead_ = false;
    committedDataSize_ = 0;
}

void Transaction::dataDropped() {
    sizeCursor_.reset();
    dataSizeRead_ = true;
    committedDataSize_ = 0;
    dataSizeChange_ = 0;
}

// --- description ---------------------------------------------------------------------------------

bool Transaction::isLatest(uint64_t& outBase) const {
    // The number alone is no proof: a commit that is just being published has changed the data
    // under the old number. The sequence is odd meanwhile, and another one afterwards.
    const bool sameState =
        commitSequence_ % 2 == 0 && commitSequence_ == store_.commitSequence_.load();
    if (!readOnly_ || !sameState || baseNumber_ != lastCommittedTx()) return false;
    outBase = baseNumber_;
    return true;
}

std::string Transaction::describe() const {
    return "TX #" + std::to_string(number_) + (readOnly_ ? " (read, " : " (write, ") +
           (active_ ? "active)" : "inactive)");
}

// --- destruction ---------------------------------------------------------------------------------

// Low-level cursors of a recycled transaction can only be closed once it is renewed.
void Transaction::renewForDestruction() noexcept {
    if (!isOwnerThread() || activity_->storeClosed.load() || !hasCursors()) return;
    TRACE_TX("renewed to close low level cursors");
    try {
        renew();
    } catch (...) {
        logLine("%s [ERROR] TX #%zu could not be renewed for destruction\n", logTimestamp(),
                number_);
    }
}

// A closing cursor holds its own mutex and tries this one; here it is the other way round, and
// nobody waits, so neither order of locks can block.
void Transaction::detachCursors() noexcept {
    for (;;) {
        std::unique_lock lock(cursorsMutex_);
        if (cursors_.empty()) return;
        Cursor* const cursor = cursors_.back();
        std::unique_lock cursorLock(cursor->mutex(), std::try_to_lock);
        if (!cursorLock) {
            lock.unlock();
            std::this_thread::yield();
            continue;
        }
        cursors_.pop_back();
        cursor->txGone();
    }
}

void Transaction::endOnDestruction() {
    if (!active_ && !recycled_) return;
    if (!isOwnerThread()) {
        if (recycled_) {
            logLine("%s [WARN ] Destroyed recycled transaction owned by thread %d from non-owner "
                    "thread '%s'\n",
                    logTimestamp(), ownerThread_, threadName().c_str());
        } else {
            logLine("%s [ERROR] Cannot destroy still-active transaction owned by thread %d from "
                    "non-owner thread '%s'\n",
                    logTimestamp(), ownerThread_, threadName().c_str());
        }
    }
    abortInternal();
}

#undef TRACE_TX

}  // namespace quillmere
