#include "kv/memory/wal_storage.h"

#include <cerrno>
#include <exception>

#include "core/error.h"
#include "core/files.h"
#include "core/log.h"
#include "core/store_options.h"
#include "kv/db_cursor.h"
#include "kv/db_store.h"
#include "kv/db_transaction.h"
#include "kv/memory/snapshot_format.h"
#include "kv/memory/snapshot_reader.h"
#include "kv/memory/snapshot_writer.h"
#include "kv/memory/wal_file.h"

namespace quillmere {

namespace {

WalFile::Config walConfig(const StoreOptions& options) {
    return {.path = walFilePath(options.directory),
            .fileMode = options.fileMode,
            .syncs = (options.walFlags & kWalSync) != 0,
            .readOnly = options.readOnly,
            .verbose = (options.debugFlags & kDebugWal) != 0};
}

}  // namespace

std::string memoryStoragePath(std::string_view directory) {
    for (const std::string_view prefix : {"memory:", "memory-wal:"}) {
        if (directory.starts_with(prefix)) return std::string(directory.substr(prefix.size()));
    }
    return std::string(directory);
}

std::string walFilePath(std::string_view directory) {
    return memoryStoragePath(directory) + "/quillmere.wal";
}

std::string snapshotFilePath(std::string_view directory) {
    return memoryStoragePath(directory) + "/quillmere.snapshot";
}

WalStorage::WalStorage(const StoreOptions& options)
    : directory_(memoryStoragePath(options.directory)),
      snapshotPath_(snapshotFilePath(options.directory)),
      walFile_(std::make_unique<WalFile>(walConfig(options))),
      maxFileSizeOnOpen_(bytesOfKb(options.walMaxFileSizeOnOpenInKb)),
      maxFileSize_(bytesOfKb(options.walMaxFileSizeInKb)),
      fileMode_(options.fileMode),
      readOnly_(options.readOnly),
      syncs_((options.walFlags & kWalSync) != 0),
      verbose_((options.debugFlags & kDebugWal) != 0) {
    if (pathType(directory_) != PathType::Directory) {
        throwIllegalState("Directory does not yet exist");
    }
}

WalStorage::~WalStorage() = default;

void WalStorage::load(DbStore& store) {
    const bool hasSnapshot = pathType(snapshotPath_) == PathType::File;
    if (readOnly_ && !hasSnapshot && walFile_->fileSize() == 0) {
        throw OpenDbException("Database not found: read-only databases must already exist (" +
                                  std::to_string(ENOENT) + ")",
                              ENOENT);
    }
    std::unique_ptr<DbTransaction> transaction;
    if (hasSnapshot) {
        transaction = store.createTransaction(false, kTxNoWal);
        transaction->begin();
        loadSnapshot(*transaction);
    }
    walFile_->openAndApplyFile(store, transaction.get());
    if (transaction) transaction->commit();
    if (readOnly_) return;

    if (syncs_) syncNames();
    if (walFile_->fileSize() > maxFileSizeOnOpen_) {
        transaction = store.createTransaction(true, kTxNoWal);
        transaction->begin();
        takeSnapshot(*transaction);
    }
}

void WalStorage::loadSnapshot(DbTransaction& transaction) {
    SnapshotReader reader(snapshotPath_);
    reader.openFile();
    reader.checkIntegrity();
    reader.readHeader();
    if (!reader.sequence()) throwIllegalState("No TX sequence in snapshot");
    reader.readContent(*transaction.createDbCursor());
    walFile_->initLastTxSequence(reader.sequence().number, reader.sequence().hash);
}

void WalStorage::beginTx() {
    if (logIsInSnapshot_) emptyLog();
    walFile_->beginTx();
}

void WalStorage::put(const void* key, size_t keySize, const void* value, size_t valueSize) {
    walFile_->put(key, keySize, value, valueSize);
}

void WalStorage::remove(const void* key, size_t keySize) {
    walFile_->remove(key, keySize);
}

void WalStorage::commitTx() {
    walFile_->commitTx();
}

void WalStorage::abortTx() {
    walFile_->abortTx();
}

bool WalStorage::snapshotDue() const {
    return walFile_->fileSize() > maxFileSize_;
}

void WalStorage::takeSnapshot(DbTransaction& transaction) {
    const TxSequence last = walFile_->lastTx();
    if (verbose_) {
        const std::string text = std::to_string(last.number) + "-" + std::to_string(last.hash);
        logLine("%s [INFO ] [WalSnp] Taking snapshot at TX %s\n", logTimestamp(), text.c_str());
    }
    // A log that lost its end with the power would not end where the snapshot does.
    walFile_->sync();
    SnapshotWriter writer(snapshotPath_, kSnapshotSequence, last, fileMode_);
    writer.save(*transaction.createDbCursor());
    logIsInSnapshot_ = true;
    try {
        emptyLog();
    } catch (const std::exception& e) {  // of the snapshot, nothing can fail any more
        logLine("%s [WARN ] [WalSnp] Could not empty the WAL file yet: %s\n", logTimestamp(),
                e.what());
    }
}

// The snapshot's name must be on disk before the log goes. A failure leaves a log that ends where
// the snapshot does, which an open accepts as long as no record follows.
void WalStorage::emptyLog() {
    syncNames();
    walFile_->deleteContent();
    logIsInSnapshot_ = false;
}

void WalStorage::syncNames() {
    if (!syncDirectory(directory_)) throwIoWithErrno("Could not sync directory to disk");
}

}  // namespace quillmere
