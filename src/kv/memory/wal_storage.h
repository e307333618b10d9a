#pragma once

// What makes an in-memory store durable: a log of its transactions, compacted into a snapshot now
// and then. Two files in the directory of the store.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace quillmere {

class DbStore;
class DbTransaction;
class WalFile;
struct StoreOptions;

// The path behind the "memory:" or "memory-wal:" of a directory option, and the files in it.
std::string memoryStoragePath(std::string_view directory);
std::string walFilePath(std::string_view directory);
std::string snapshotFilePath(std::string_view directory);

// Owned by one in-memory store. Used by the thread of the store's one write transaction, or while
// the store opens. The store of options that are read-only loads and never changes a file.
//
// A failed I/O throws IoException and never leaves anything behind that a later open would refuse:
// a torn record, or a log whose content is in the snapshot already, is removed before the next
// record is begun.
class WalStorage {
public:
    // The directory must exist.
    explicit WalStorage(const StoreOptions& options);
    ~WalStorage();
    WalStorage(const WalStorage&) = delete;
    WalStorage& operator=(const WalStorage&) = delete;

    // Opens the files and brings what they hold into the empty store, through one write transaction
    // of it with kTxNoWal, which must find the store ready for transactions; none is begun if there
    // are no files. Takes a snapshot, through a read transaction with kTxNoWal, when the log
    // is above its limit for opening. Throws WalFileInvalidException, SnapshotFileInvalidException.
    void load(DbStore& store);

    // The record of a write transaction: from beginTx() to commitTx() or abortTx().
    void beginTx();
    void put(const void* key, size_t keySize, const void* value, size_t valueSize);
    void remove(const void* key, size_t keySize);
    // Appends the record, unless it is empty. On failure nothing is published: the record is not
    // in the log, and its number will be the next one's.
    void commitTx();
    void abortTx();  // also without a record

    // Whether the log has outgrown its limit.
    bool snapshotDue() const;
    // Saves all records that a cursor of the transaction sees, under the number of the last record
    // written, and empties the log. Not while a record is open. On failure the files hold what they
    // held before; a log that could only not be emptied is no failure here, but one of the next
    // beginTx() if it still cannot be.
    void takeSnapshot(DbTransaction& transaction);

private:
    void loadSnapshot(DbTransaction& transaction);
    void emptyLog();
    void syncNames();

    const std::string directory_;
    const std::string snapshotPath_;
    const std::unique_ptr<WalFile> walFile_;
    const uint64_t maxFileSizeOnOpen_;  // bytes, as the next one
    const uint64_t maxFileSize_;
    const uint32_t fileMode_;
    const bool readOnly_;
    const bool syncs_;
    const bool verbose_;
    bool logIsInSnapshot_ = false;  // a snapshot holds all of the log, which is not emptied yet
};

}  // namespace quillmere
