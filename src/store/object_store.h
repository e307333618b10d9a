#pragma once

// The root of an open database.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/bytes.h"
#include "core/hash.h"
#include "core/number_lock.h"
#include "core/store_options.h"
#include "kv/kv_validation.h"
#include "store/change_listeners.h"
#include "store/transaction.h"

namespace quillmere {

class Catalog;
class Cursor;
class DbStore;
class Entity;
class EntityState;
class Kist;
class PathClaim;
class Schema;
struct StoreActivity;
struct ThreadTxEntry;

// Told when a store with a listener is destroyed. Set once per store.
class DbExceptionListener {
public:
    virtual ~DbExceptionListener() = default;
    virtual void storeDestroyed() = 0;
};

// Shared by any number of threads; the last owner's release closes it, on any thread. Closing lets
// a running write transaction finish without a time limit, queries about 10 seconds and other
// transactions about 1 second. Every operation of a store that closes or has closed throws
// StoreClosedException.
class ObjectStore {
public:
    // Opens; with a model the schema of the database is brought to it first. Not in the registry.
    static std::unique_ptr<ObjectStore> create(const StoreOptions& options);
    static std::unique_ptr<ObjectStore> createWithFlatOptions(const void* bytes, size_t size,
                                                              const Bytes* model);
    static std::unique_ptr<ObjectStore> openWithModelBytes(const void* modelBytes, size_t size,
                                                           const std::string& directory,
                                                           uint64_t maxDbSizeInKb,
                                                           uint32_t fileMode, uint32_t maxReaders);

    // One store per path and process. `outAttached` null: attaching is not allowed, an open store
    // is a failure.
    static std::shared_ptr<ObjectStore> attachOrOpen(const StoreOptions& options,
                                                     bool* outAttached,
                                                     bool checkMatchingOptions = false);
    // Empty if there is none.
    static std::shared_ptr<ObjectStore> attach(const std::string& directory);
    static std::shared_ptr<ObjectStore> attachById(uint64_t id);
    static std::weak_ptr<ObjectStore> weakById(uint64_t id);
    static bool isOpen(const std::string& directory);
    static uint64_t dbFileSize(const std::string& directory);  // bytes
    // True if the files are gone. An open store is no obstacle: it is forgotten.
    static bool removeDbFiles(const std::string& directory, bool removeDirectory);

    // Opens in one phase: no model is merged.
    explicit ObjectStore(const StoreOptions& options);
    ~ObjectStore();
    ObjectStore(const ObjectStore&) = delete;
    ObjectStore& operator=(const ObjectStore&) = delete;

    // Throws StoreClosedException unless the store is open. An instance that is null, dead or
    // overwritten is reported on standard output and error, and with `fatal` ends the process.
    static void checkOpen(const ObjectStore* store, bool fatal);
    void checkOpen(bool fatal) const { checkOpen(this, fatal); }

    std::unique_ptr<Transaction> beginTx(TxMode mode, uint32_t flags = 0);
    EntityState& entityState(const Entity& entity, Cursor* cursor = nullptr);
    // Lives as long as the store.
    Kist& kist(uint32_t entityId);

    uint64_t addListener(ChangeListeners::Listener listener);
    bool removeListener(uint64_t id) { return listeners_->remove(id); }
    void fireListeners(const std::vector<uint32_t>& entityIds) { listeners_->fire(entityIds); }
    void setDbExceptionListener(std::unique_ptr<DbExceptionListener> listener);

    // False if the database has no schema.
    bool readSchema(bool allowEmpty);
    // The schema stays alive as long as the store, also after another one took its place. A schema
    // that the store had before is set without a failure.
    void setSchema(std::shared_ptr<Schema> schema);
    std::shared_ptr<Schema> schema() const;  // empty if there is none
    // Throws "No schema set on store".
    std::shared_ptr<Schema> requireSchema() const;

    uint64_t size() const;        // bytes
    uint64_t sizeOnDisk() const;  // bytes
    uint32_t typeId() const;
    size_t cleanStaleReadTransactions();
    std::string diagnose();
    void setDebugFlags(uint32_t flags);
    void prepareToClose();
    void dropAllData();
    void dropAllRaw();
    uint64_t removeAllForPanic(const Entity& entity);
    // Throws FeatureNotAvailableException: this build has no backup.
    void backUpToFile(const std::string& path, uint32_t flags);

    const std::string& directory() const { return directory_; }
    uint64_t id() const { return id_; }  // 0 outside the registry
    bool readOnly() const { return readOnly_; }
    bool closed() const { return closed_.load(); }
    bool closing() const { return closing_.load(); }
    uint64_t maxDbSizeInKb() const { return maxDbSizeInKb_; }
    uint64_t maxDataSizeBytes() const { return maxDataSizeBytes_; }
    uint32_t debugFlags() const { return debugFlags_.load(); }
    uint16_t putPaddingMode() const { return putPaddingMode_; }
    bool openedWithPreviousCommit() const { return openedWithPreviousCommit_; }
    const KvValidationResult* validationResult() const { return validationResult_.get(); }
    DbStore& dbStore() const;
    StoreActivity& activity() const { return *activity_; }
    // For those who count themselves in without keeping the store: it outlives the store.
    const std::shared_ptr<StoreActivity>& sharedActivity() const { return activity_; }

private:
    friend class Cursor;
    friend class Transaction;
    friend class ThreadTx;
    friend class StoreRegistry;

    using EntityStates =
        std::unordered_map<uint32_t, std::unique_ptr<EntityState>, FnvHash<uint32_t>>;
    using Kists = std::unordered_map<uint32_t, std::unique_ptr<Kist>, FnvHash<uint32_t>>;
    using ThreadTxs =
        std::unordered_map<int32_t, std::shared_ptr<ThreadTxEntry>, FnvHash<int32_t>>;

    // With a claim that was taken before; an empty one is taken when the storage opens.
    ObjectStore(const StoreOptions& options, std::shared_ptr<PathClaim> claim);
    static std::unique_ptr<ObjectStore> create(const StoreOptions& options,
                                               std::shared_ptr<PathClaim> claim);
    static std::unique_ptr<ObjectStore> createWithModel(const StoreOptions& options,
                                                        std::shared_ptr<PathClaim> claim);

    void open(const StoreOptions& options);
    void validateOnOpen();
    bool syncSchema(const Bytes& modelBytes);
    void readHashes();
    void takeHashes(const Catalog* catalog);
    void close() noexcept;
    void closeStorage() noexcept;
    // Caches of entities are worth nothing once commits came out of order.
    void invalidateCaches();
    // The transaction that the handles of this thread share; empty if there is none.
    std::shared_ptr<ThreadTxEntry> threadTxEntry();
    void markChangedEntities(Transaction& tx);

    std::atomic<uint32_t> marker_;  // the bytes "Qmre", "Dead" once destroyed
    const std::string directory_;
    std::shared_ptr<PathClaim> pathClaim_;
    std::unique_ptr<DbStore> dbStore_;
    uint64_t id_ = 0;
    mutable std::mutex schemaMutex_;
    std::shared_ptr<Schema> schema_;
    // Entity states, kists and cursors hold references into schemas.
    std::vector<std::shared_ptr<Schema>> allSchemas_;
    Bytes bindingHash_, fullHash_, baseHash_;
    std::mutex entityStatesMutex_;
    EntityStates entityStates_;
    std::mutex kistsMutex_;
    Kists kists_;
    // Shared with the commit that fires them: a listener may drop the last reference to the store.
    const std::shared_ptr<ChangeListeners> listeners_;
    std::unique_ptr<DbExceptionListener> dbExceptionListener_;
    NumberLock writeLock_;  // held with the number of the write transaction
    std::atomic<int32_t> writerThread_{0};
    // Raised before and after each commit of the engine, so odd in between. Only the holder of
    // writeLock_ raises it.
    std::atomic<uint64_t> commitSequence_{0};
    const uint64_t maxDbSizeInKb_;
    const uint64_t maxDataSizeBytes_;
    std::atomic<uint32_t> debugFlags_;
    const uint16_t putPaddingMode_;
    const bool readOnly_;
    bool openedWithPreviousCommit_ = false;
    std::atomic<bool> closed_{false};
    std::atomic<bool> closing_{false};
    std::mutex threadTxsMutex_;
    ThreadTxs threadTxs_;
    const std::shared_ptr<StoreActivity> activity_;
    std::unique_ptr<KvValidationResult> validationResult_;
    const LogCallback logCallback_;
};

}  // namespace quillmere
