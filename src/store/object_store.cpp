#include "store/object_store.h"

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "core/checks.h"
#include "core/deref.h"
#include "core/error.h"
#include "core/feature.h"
#include "core/flat_options.h"
#include "core/log.h"
#include "core/thread_self_test.h"
#include "kv/db_cursor.h"
#include "kv/db_provider.h"
#include "kv/db_registry.h"
#include "kv/db_store.h"
#include "kv/partition.h"
#include "schema/catalog.h"
#include "schema/catalog_store.h"
#include "schema/schema.h"
#include "schema/schema_sync.h"
#include "store/cursor.h"
#include "store/entity_state.h"
#include "store/kist.h"
#include "store/path_claim.h"
#include "store/schema_host.h"
#include "store/store_activity.h"
#include "store/store_close.h"
#include "store/store_registry.h"
#include "store/thread_tx.h"

namespace quillmere {

namespace {

constexpr uint32_t markerOf(const char (&text)[5]) {
    return std::bit_cast<uint32_t>(std::array<char, 4>{text[0], text[1], text[2], text[3]});
}
constexpr uint32_t kAlive = markerOf("Qmre");
constexpr uint32_t kDead = markerOf("Dead");

constexpr int32_t kLogCallbackLevel = 20;
constexpr uint32_t kSelfTestLimitMillis = 5000;
constexpr uint32_t kSelfTestMaxThreads = 32;

// No limit is set on the wait for a running write transaction.
constexpr uint64_t kNoTimeLimit = 0;
constexpr uint64_t kWriterRoundNanos = 10'000'000'000;

void sleepBetweenLooks() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }

void printBanner(FILE* stream, const char* state) {
    const std::string frame(67, '!');
    std::fprintf(stream,
                 "%s\n!! Irrecoverable memory error detected: store instance is %-7s!!\n%s\n",
                 frame.c_str(), state, frame.c_str());
    std::fflush(stream);
}

StoreOptions optionsFor(const std::string& directory) {
    StoreOptions options;
    options.directory = directory;
    return options;
}

}  // namespace

// --- opening -------------------------------------------------------------------------------------

std::unique_ptr<ObjectStore> ObjectStore::create(const StoreOptions& options) {
    return create(options, nullptr);
}

std::unique_ptr<ObjectStore> ObjectStore::create(const StoreOptions& options,
                                                 std::shared_ptr<PathClaim> claim) {
    if (!options.modelBytes.empty()) return createWithModel(options, std::move(claim));
    return std::unique_ptr<ObjectStore>(new ObjectStore(options, std::move(claim)));
}

// In two phases: a temporary store brings the schema of the database to the model, so that the real
// one only ever knows the final schema. The claim on the path spans both.
std::unique_ptr<ObjectStore> ObjectStore::createWithModel(const StoreOptions& options,
                                                          std::shared_ptr<PathClaim> claim) {
    if (!options.readSchema) {
        throwIllegalArgument("Read schema option must be set when using a model");
    }
    StoreOptions secondPhase = options;
    bool onPreviousCommit = false;
    {
        StoreOptions firstPhase = options;
        firstPhase.maxReaders = 0;
        firstPhase.readSchema = false;
        ObjectStore temporary(firstPhase, std::move(claim));
        claim = temporary.pathClaim_;
        onPreviousCommit = temporary.openedWithPreviousCommit();
        // What was committed stands on the previous commit: not one more step back.
        if (temporary.syncSchema(options.modelBytes)) secondPhase.usePreviousCommit = false;
    }
    std::unique_ptr<ObjectStore> store(new ObjectStore(secondPhase, std::move(claim)));
    if (onPreviousCommit) store->openedWithPreviousCommit_ = true;
    return store;
}

std::unique_ptr<ObjectStore> ObjectStore::createWithFlatOptions(const void* bytes, size_t size,
                                                                const Bytes* model) {
    StoreOptions options = convertFlatOptions(bytes, size);
    if (model && model->hasBytes()) {
        if (!options.modelBytes.empty()) {
            throwIllegalArgument("Two models given; either provide in the options or as a param, "
                                 "but not both");
        }
        options.modelBytes = *model;
    }
    return create(options);
}

std::unique_ptr<ObjectStore> ObjectStore::openWithModelBytes(const void* modelBytes, size_t size,
                                                             const std::string& directory,
                                                             uint64_t maxDbSizeInKb,
                                                             uint32_t fileMode,
                                                             uint32_t maxReaders) {
    StoreOptions options = optionsFor(directory);
    options.modelBytes = Bytes(modelBytes, size);
    options.maxDbSizeInKb = maxDbSizeInKb;
    options.fileMode = fileMode;
    options.maxReaders = maxReaders;
    options.readSchema = true;
    return create(options);
}

ObjectStore::ObjectStore(const StoreOptions& options) : ObjectStore(options, nullptr) {}

ObjectStore::ObjectStore(const StoreOptions& options, std::shared_ptr<PathClaim> claim)
    : marker_(kAlive),
      directory_(options.directory),
      pathClaim_(std::move(claim)),
      listeners_(std::make_shared<ChangeListeners>()),
      maxDbSizeInKb_(options.maxDbSizeInKb),
      maxDataSizeBytes_(bytesOfKb(options.maxDataSizeInKb)),
      debugFlags_(options.debugFlags),
      putPaddingMode_(static_cast<uint16_t>(options.putPaddingMode)),
      readOnly_(options.readOnly),
      activity_(std::make_shared<StoreActivity>()),
      logCallback_(options.logCallback) {
    checkStoreOptions(options);
    try {
        open(options);
    } catch (...) {
        close();
        throw;
    }
}

void ObjectStore::open(const StoreOptions& options) {
    const auto provider = DbRegistry::instance().get(directory_);
    provider->prepareDirectory(options);
    const std::string path = provider->canonicalPath(directory_);
    if (options.debugFlags & kDebugThreadSelfTest) {
        const uint32_t threads =
            std::clamp(std::thread::hardware_concurrency(), 1u, kSelfTestMaxThreads);
        runThreadSelfTest(1, kSelfTestLimitMillis, threads, true);
    }
    if (!options.backupFile.empty()) requireFeature(Feature::Backup);
    if (logCallback_) {
        const std::string text = "Opening store: " + path;
        logCallback_(kLogCallbackLevel, text.data(), text.size());
    }
    if (!pathClaim_) pathClaim_ = PathClaim::take(path);
    pathClaim_->markOpen();
    dbStore_ = provider->createStore(options);
    if (!dbStore_) throwIllegalState("Store provider did not create a store");
    openedWithPreviousCommit_ = dbStore_->openedWithPreviousCommit();
    if (options.validateKvOnOpen) validateOnOpen();
    if (options.readSchema) {
        readSchema(true);
    } else {
        readHashes();
    }
}

void ObjectStore::validateOnOpen() {
    const auto tx = beginTx(TxMode::Read);
    const auto cursor = tx->createDbCursor();
    validationResult_ = std::make_unique<KvValidationResult>(validateKv(*cursor));
}

// --- schema --------------------------------------------------------------------------------------

// Gives whether the database was changed.
bool ObjectStore::syncSchema(const Bytes& modelBytes) {
    // Exempt, so that entities that are enabled for sync can be migrated.
    const auto tx = beginTx(readOnly_ ? TxMode::Read : TxMode::Write, kTxExempt);
    SchemaSyncResult result;
    {
        StoreSchemaHost host(*tx);
        result = SchemaSync(host).syncSchema(modelBytes);
    }
    if (readOnly_) return false;
    const bool changed = tx->changed();
    tx->commit();
    if (result.any()) {
        logLine("%s [INFO ] Schema updated: %s\n", logTimestamp(), result.text().c_str());
    }
    return changed;
}

bool ObjectStore::readSchema(bool allowEmpty) {
    try {
        const auto tx = beginTx(TxMode::Read);
        StoreSchemaHost host(*tx);
        std::optional<Catalog> catalog;
        auto schema = CatalogStore(host).readDefaultSchemaForStore(!allowEmpty, catalog);
        const bool present = schema != nullptr;
        if (present) setSchema(std::move(schema));
        takeHashes(catalog ? &*catalog : nullptr);
        return present;
    } catch (...) {
        close();
        throw;
    }
}

void ObjectStore::readHashes() {
    const auto tx = beginTx(TxMode::Read);
    StoreSchemaHost host(*tx);
    const auto catalog = CatalogStore(host).readCatalogOnly();
    takeHashes(catalog ? &*catalog : nullptr);
}

void ObjectStore::takeHashes(const Catalog* catalog) {
    bindingHash_ = catalog ? catalog->bindingHash : Bytes();
    fullHash_ = catalog ? catalog->fullHash : Bytes();
    baseHash_ = catalog ? catalog->baseHash : Bytes();
}

void ObjectStore::setSchema(std::shared_ptr<Schema> schema) {
    const std::lock_guard lock(schemaMutex_);
    if (schema && std::ranges::find(allSchemas_, schema) == allSchemas_.end()) {
        allSchemas_.push_back(schema);
    }
    schema_ = std::move(schema);
}

std::shared_ptr<Schema> ObjectStore::schema() const {
    const std::lock_guard lock(schemaMutex_);
    return schema_;
}

std::shared_ptr<Schema> ObjectStore::requireSchema() const {
    std::shared_ptr<Schema> present = schema();
    if (!present) throwIllegalState("No schema set on store");
    return present;
}

// --- sharing -------------------------------------------------------------------------------------

std::shared_ptr<ObjectStore> ObjectStore::attachOrOpen(const StoreOptions& options,
                                                       bool* outAttached,
                                                       bool checkMatchingOptions) {
    return StoreRegistry::instance().attachOrOpen(options, outAttached, checkMatchingOptions);
}

std::shared_ptr<ObjectStore> ObjectStore::attach(const std::string& directory) {
    return StoreRegistry::instance().attach(directory);
}

std::shared_ptr<ObjectStore> ObjectStore::attachById(uint64_t id) {
    return weakById(id).lock();
}

std::weak_ptr<ObjectStore> ObjectStore::weakById(uint64_t id) {
    return StoreRegistry::instance().weakById(id);
}

bool ObjectStore::isOpen(const std::string& directory) {
    return StoreRegistry::instance().isOpen(directory);
}

uint64_t ObjectStore::dbFileSize(const std::string& directory) {
    return DbRegistry::instance().get(directory)->dbFileSize(optionsFor(directory));
}

bool ObjectStore::removeDbFiles(const std::string& directory, bool removeDirectory) {
    return StoreRegistry::instance().removeDbFiles(directory, removeDirectory);
}

// --- closing -------------------------------------------------------------------------------------

ObjectStore::~ObjectStore() {
    if (dbExceptionListener_) {
        try {
            dbExceptionListener_->storeDestroyed();
        } catch (const std::exception& e) {
            logLine("%s [ERROR] DB exception listener failed: %s\n", logTimestamp(), e.what());
        } catch (...) {
            logLine("%s [ERROR] DB exception listener failed\n", logTimestamp());
        }
    }
    close();
    marker_.store(kDead);
    entityStates_.clear();
    kists_.clear();
}

void ObjectStore::prepareToClose() {
    closing_.store(true);
}

// A running write transaction is waited for without limit, queries about 10 seconds, other
// transactions about 1 second.
void ObjectStore::close() noexcept {
    if (closed_.load()) return;
    closing_.store(true);
    if (pathClaim_) pathClaim_->markClosing();
    writeLock_.shutDown();
    const bool locked = awaitWriter(writeLock_, writerThread_, kNoTimeLimit, kWriterRoundNanos);
    awaitCommits(*activity_, sleepBetweenLooks);
    awaitQueries(*activity_, sleepBetweenLooks);
    awaitTransactions(*activity_, sleepBetweenLooks);
    closeStorage();
    if (locked) writeLock_.unlock(NumberLock::kCloserNumber);
    pathClaim_.reset();
}

void ObjectStore::closeStorage() noexcept {
    closed_.store(true);
    activity_->storeClosed.store(true);
    if (!dbStore_) return;
    try {
        dbStore_->close();
    } catch (const std::exception& e) {
        logLine("%s [ERROR] Could not close the storage: %s\n", logTimestamp(), e.what());
    }
}

void ObjectStore::checkOpen(const ObjectStore* store, bool fatal) {
    const uint32_t marker = store ? store->marker_.load() : 0;
    if (marker == kAlive) {
        if (store->closed_.load()) throwWith<StoreClosedException>("Store is already closed");
        if (store->closing_.load()) throwWith<StoreClosedException>("Store is closing");
        return;
    }
    const char* state = !store ? "null" : marker == kDead ? "dead" : "corrupt";
    printBanner(stdout, state);
    printBanner(stderr, state);
    if (fatal) std::abort();
    throwWith<StoreClosedException>("Illegal Store instance detected! This is a severe usage error "
                                    "that must be fixed. State: ",
                                    state);
}

// --- transactions and listeners ------------------------------------------------------------------

std::unique_ptr<Transaction> ObjectStore::beginTx(TxMode mode, uint32_t flags) {
    checkOpen(true);
    // Before the storage's snapshot: a commit in between then makes the number too old, never too
    // new.
    const uint64_t base = lastCommittedTx();
    auto dbTx = dbStore().createTransaction(mode == TxMode::Read, flags);
    return std::make_unique<Transaction>(*this, std::move(dbTx), mode, flags, base);
}

std::shared_ptr<ThreadTxEntry> ObjectStore::threadTxEntry() {
    const std::lock_guard lock(threadTxsMutex_);
    const auto entry = threadTxs_.find(threadNumber());
    return entry == threadTxs_.end() ? nullptr : entry->second;
}

void ObjectStore::invalidateCaches() {
    const std::lock_guard lock(entityStatesMutex_);
    for (const auto& [id, state] : entityStates_) state->cacheClear();
}

uint64_t ObjectStore::addListener(ChangeListeners::Listener listener) {
    checkOpen(true);
    return listeners_->add(std::move(listener));
}

void ObjectStore::setDbExceptionListener(std::unique_ptr<DbExceptionListener> listener) {
    if (dbExceptionListener_) throwIllegalState("Already set");
    dbExceptionListener_ = std::move(listener);
}

// --- data ----------------------------------------------------------------------------------------

void ObjectStore::dropAllData() {
    checkOpen(true);
    ThreadTx tx(*this, TxMode::Write);
    StoreSchemaHost host(tx.tx());
    CatalogStore catalogStore(host);
    const auto schemaData = catalogStore.readAll();
    CHECK_STATE_AT(742, !schemaData.empty());
    markChangedEntities(tx.tx());
    dropAllRaw();
    catalogStore.writeAll(schemaData);
    tx.markSuccess();
}

void ObjectStore::dropAllRaw() {
    checkOpen(true);
    ThreadTx tx(*this, TxMode::Write);
    dbStore().dropAll(tx.tx().dbTransaction());
    tx.tx().dataDropped();
    tx.markSuccess();
}

// Listeners hear of every entity that is about to lose objects.
void ObjectStore::markChangedEntities(Transaction& tx) {
    for (const auto& entity : requireSchema()->entities()) {
        const uint32_t prefix = partitionPrefix(PartitionType::Entity, entity->id());
        if (!tx.createKeyValueCursor(prefix)->isEmpty()) tx.entityAffected(entity->id());
    }
}

uint64_t ObjectStore::removeAllForPanic(const Entity& entity) {
    checkOpen(true);
    logLine("%s [WARN ] Panic mode removeAll started\n", logTimestamp());
    uint64_t total = 0;
    uint64_t changes = 0;
    do {
        changes = 0;
        const auto tx = beginTx(TxMode::Write);
        total += tx->createCursor(&entity)->removeAllBatch(changes, true);
        logLine("%s [WARN ] Panic mode removeAll changes: %zu total: %zu\n", logTimestamp(),
                changes, total);
        tx->commit();
        logLine("%s [WARN ] Panic mode removeAll committed changes\n", logTimestamp());
    } while (changes != 0);
    return total;
}

void ObjectStore::backUpToFile(const std::string& /*path*/, uint32_t /*flags*/) {
    requireFeature(Feature::Backup);
}

// --- information ---------------------------------------------------------------------------------

DbStore& ObjectStore::dbStore() const {
    return deref(dbStore_);
}

uint64_t ObjectStore::size() const {
    checkOpen(true);
    return dbStore().dbSize();
}

uint64_t ObjectStore::sizeOnDisk() const {
    checkOpen(true);
    return dbStore().sizeOnDisk();
}

uint32_t ObjectStore::typeId() const {
    return dbStore().providerId();
}

size_t ObjectStore::cleanStaleReadTransactions() {
    checkOpen(true);
    return dbStore().cleanStaleReaders();
}

std::string ObjectStore::diagnose() {
    checkOpen(true);
    return dbStore().statsString();
}

void ObjectStore::setDebugFlags(uint32_t flags) {
    checkOpen(true);
    const std::lock_guard lock(entityStatesMutex_);
    debugFlags_.store(flags);
    for (const auto& [id, state] : entityStates_) state->setDebugFlags(flags);
}

}  // namespace quillmere
