#pragma once

// The file of a write-ahead log: appends a record for each transaction, replays the records at
// open. The format: kv/memory/wal_format.h.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "core/bytes.h"
#include "core/bytes_writer.h"
#include "kv/kv_log.h"
#include "kv/memory/tx_sequence.h"

namespace quillmere {

class DbStore;
class DbTransaction;
class WalReader;

// Owned by a WalStorage, which tells its threads. Every failure of the file system is an
// IoException, but for a failed sync, which is logged.
class WalFile {
public:
    struct Config {
        std::string path;
        uint32_t fileMode = 0644;
        bool syncs = false;     // each record reaches the disk before its commit ends
        bool readOnly = false;  // the file is replayed and left as it is
        bool verbose = false;
    };

    explicit WalFile(Config config);
    ~WalFile();
    WalFile(const WalFile&) = delete;
    WalFile& operator=(const WalFile&) = delete;

    // Before the file is opened, for one that extends a snapshot.
    void initLastTxSequence(uint64_t number, uint32_t hash);
    // Opens or makes the file and replays its records, in the given transaction or in one of its
    // own. An incomplete record at the end is cut off; of anything else that is wrong the file is
    // left as it is, and a WalFileInvalidException thrown.
    void openAndApplyFile(DbStore& store, DbTransaction* transaction);

    // A record, from beginTx() to commitTx() or abortTx().
    void beginTx();
    void put(const void* key, size_t keySize, const void* value, size_t valueSize);
    void remove(const void* key, size_t keySize);
    // Appends the record, unless it is empty. What a failure leaves of it in the file is cut off
    // before the next append; the record is over in any case.
    void commitTx();
    void abortTx();

    // Brings all records to the disk, also those that their commits did not wait for.
    void sync();
    // Empties the log, whose content is in a snapshot now. Not while a record is open. May be
    // called again after a failure.
    void deleteContent();

    uint64_t fileSize() const;
    // Of the last record, in this file or in front of it.
    TxSequence lastTx() const { return {nextTxNumber_ - 1, hash_, true}; }

private:
    uint64_t openStream();
    Bytes readContent(uint64_t size);
    void applyContent(const Bytes& content, DbStore& store, DbTransaction* transaction);
    bool continuesSnapshot(const Bytes& content, const WalReader& reader);
    void replay(WalReader& reader, DbStore& store, DbTransaction* transaction);
    void applyRecords(WalReader& reader, DbTransaction& transaction);
    void cutIncomplete(const WalReader& reader, const char* reason);
    void overwriteBadHeader(const Bytes& content, const char* reason);

    void checkOffsets() const;
    void writeRecord();
    bool compressLog(size_t logSize, uint32_t& outHash);
    uint32_t hashOfBuffer() const;
    void resetRecord();

    void writeHeader();
    void append(const void* data, size_t size);
    void truncate(uint64_t size);
    void syncOrFlush();

    const Config config_;
    std::FILE* file_ = nullptr;
    uint64_t fileEnd_ = 0;   // behind the last complete record
    bool tornEnd_ = false;   // something incomplete may stand behind it

    // The record in the making: what its hash covers in front of it, then the record.
    Bytes buffer_;
    BytesWriter writer_{buffer_};
    KvLog log_{writer_};
    Bytes encoded_;  // scratch for RLE0
    size_t flagsOffset_ = 0;
    size_t sizeOffset_ = 0;
    size_t logOffset_ = 0;

    uint64_t salt_ = 0;
    uint64_t nextTxNumber_ = 1;
    uint32_t hash_ = 0;  // of the last record
    uint32_t expectedInitialHash_ = 0;
};

}  // namespace quillmere
