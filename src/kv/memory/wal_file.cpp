#include "kv/memory/wal_file.h"

#include <xxhash.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <system_error>
#include <utility>

#include "core/bytes_reader.h"
#include "core/cast.h"
#include "core/checks.h"
#include "core/endian.h"
#include "core/error.h"
#include "core/files.h"
#include "core/log.h"
#include "kv/db_cursor.h"
#include "kv/db_store.h"
#include "kv/db_transaction.h"
#include "kv/memory/wal_format.h"
#include "kv/memory/wal_reader.h"
#include "kv/rle0.h"

namespace quillmere {

namespace {

using ull = unsigned long long;

std::string systemText() {
    return std::generic_category().message(errno);
}

uint64_t randomSalt() {
    std::random_device device;
    uint64_t salt = 0;
    while (salt == 0) {
        const uint64_t high = device();
        salt = high << 32 | device();
    }
    return salt;
}

// Whether the log ends, by its own chain, exactly at the transaction.
bool endsAt(const Bytes& content, const TxSequence& last) {
    WalReader reader(content);
    bool any = false;
    try {
        reader.readHeader();
        while (reader.next()) any = true;
    } catch (const BytesReader::BufferOverflowException&) {
        // an incomplete record does not count
    } catch (const WalFileInvalidException&) {
        return false;
    }
    return any && reader.number() == last.number && reader.hash() == last.hash;
}

}  // namespace

WalFile::WalFile(Config config) : config_(std::move(config)) {}

WalFile::~WalFile() {
    if (!file_) return;
    std::fclose(file_);
    if (config_.verbose) logLine("%s [INFO ] [WalFil] Closed file\n", logTimestamp());
}

uint64_t WalFile::fileSize() const {
    uint64_t size = 0;
    pathType(config_.path, &size);
    return size;
}

// ---- Opening ------------------------------------------------------------------------------------

void WalFile::initLastTxSequence(uint64_t number, uint32_t hash) {
    CHECK_STATE_AT(73, nextTxNumber_ == 1);
    nextTxNumber_ = number + 1;
    expectedInitialHash_ = hash;
    hash_ = hash;
    if (config_.verbose) {
        logLine("%s [INFO ] [WalFil] Initialized next expected TX number to %llu and expected "
                "initial hash to %u\n",
                logTimestamp(), static_cast<ull>(nextTxNumber_), hash);
    }
}

void WalFile::openAndApplyFile(DbStore& store, DbTransaction* transaction) {
    CHECK_STATE_AT(87, file_ == nullptr);
    if (fileSize() == 0 && config_.readOnly) return;
    const uint64_t size = openStream();
    const bool existing = size > 0;
    if (config_.verbose) {
        logLine(existing ? "%s [INFO ] [WalFil] Open existing WAL file\n"
                         : "%s [INFO ] [WalFil] Creating new WAL file\n",
                logTimestamp());
    }
    if (existing) {
        applyContent(readContent(size), store, transaction);
    } else {
        writeHeader();
    }
    resetRecord();
}

// Gives the size of the file, which another process may change until it is locked.
uint64_t WalFile::openStream() {
    const bool existing = fileSize() > 0;
    file_ = config_.readOnly ? std::fopen(config_.path.c_str(), "rbe")
                             : openOrCreateFile(config_.path, config_.fileMode);
    if (!file_) {
        throwIoWithErrno(existing ? "Couldn't open WAL file (existing)"
                                  : "Couldn't open WAL file (new)");
    }
    if (!config_.readOnly && !lockFile(file_)) {
        throwIo("Couldn't open WAL file (existing): it is open in another process");
    }
    // A commit's write reaches the system at once and as a whole; nothing of a failed one is left
    // in a buffer to be written later.
    std::setvbuf(file_, nullptr, _IONBF, 0);
    std::fseek(file_, 0, SEEK_END);
    const long size = std::ftell(file_);
    if (size < 0) throwIoWithErrno("Couldn't get the size of the WAL file");
    std::rewind(file_);
    return static_cast<uint64_t>(size);
}

Bytes WalFile::readContent(uint64_t size) {
    Bytes content = Bytes::allocated(checkedCast<size_t>(size));
    const size_t count = std::fread(content.mutableData(), 1, content.size(), file_);
    if (count != size) {
        throwIo("Couldn't read from WAL file (size: ", std::to_string(size),
                " vs. read: ", std::to_string(count), ") error code message: ", systemText());
    }
    std::fseek(file_, 0, SEEK_CUR);  // a write may follow
    fileEnd_ = size;
    return content;
}

void WalFile::applyContent(const Bytes& content, DbStore& store, DbTransaction* transaction) {
    WalReader reader(content);
    try {
        reader.readHeader();
    } catch (const BytesReader::BufferOverflowException& e) {
        // Left by an interrupted creation.
        return overwriteBadHeader(content, e.what());
    }
    if (!continuesSnapshot(content, reader)) {
        if (!config_.readOnly) deleteContent();
        return;
    }
    if (reader.salt() == 0) throwWith<WalFileInvalidException>("Invalid salt detected: 0");
    salt_ = reader.salt();
    hash_ = reader.hash();
    if (config_.verbose) {
        logLine("%s [INFO ] [WalFil] Read Header (%zu bytes, initial hash: %u)\n", logTimestamp(),
                reader.offset(), hash_);
    }
    replay(reader, store, transaction);
}

// False for a log that the snapshot holds as a whole: the process died before it was emptied.
bool WalFile::continuesSnapshot(const Bytes& content, const WalReader& reader) {
    if (reader.hash() == expectedInitialHash_) return true;
    if (config_.verbose) {
        logLine("%s [INFO ] [WalFil] Initial hash mismatch: expected %u but read %u\n",
                logTimestamp(), expectedInitialHash_, reader.hash());
    }
    if (endsAt(content, lastTx())) {
        logLine("%s [INFO ] [WalFil] The snapshot holds all of the WAL file, up to TX %llu\n",
                logTimestamp(), static_cast<ull>(lastTx().number));
        return false;
    }
    throwWith<WalFileInvalidException>(
        "Initial hash does not match the expected one: this is most likely caused by WAL files "
        "not matching the baseline database/snapshot. Please ensure that these files are "
        "consistent.");
}

void WalFile::replay(WalReader& reader, DbStore& store, DbTransaction* transaction) {
    std::unique_ptr<DbTransaction> own;
    if (!transaction) {
        own = store.createTransaction(false, kTxNoWal);
        own->begin();
        transaction = own.get();
    }
    applyRecords(reader, *transaction);
    if (own) own->commit();
}

void WalFile::applyRecords(WalReader& reader, DbTransaction& transaction) {
    const std::shared_ptr<DbCursor> cursor = transaction.createDbCursor();
    KvLogCursorHandler handler(*cursor);
    KvLogReader logReader(Bytes("", 0), handler);
    reader.expectNumber(nextTxNumber_);
    for (;;) {
        try {
            if (!reader.next()) return;
        } catch (const BytesReader::BufferOverflowException& e) {
            return cutIncomplete(reader, e.what());
        }
        try {
            logReader.reset(reader.log());
            logReader.readAll();
        } catch (const BytesReader::ReaderException& e) {
            throw WalFileInvalidException(e.message());
        } catch (const KvLogReader::InvalidFormatException& e) {
            throw WalFileInvalidException(e.message());
        }
        hash_ = reader.hash();
        ++nextTxNumber_;
        if (config_.verbose) {
            logLine("%s [INFO ] [WalFil] Applied TX %llu, hash %u\n", logTimestamp(),
                    static_cast<ull>(reader.number()), hash_);
        }
    }
}

void WalFile::cutIncomplete(const WalReader& reader, const char* reason) {
    const size_t offset = reader.offset();
    if (config_.readOnly) {
        logLine("%s [INFO ] [WalFil] Ignoring the incomplete transaction %llu at the end of the "
                "WAL file (at offset %zu; %s)\n",
                logTimestamp(), static_cast<ull>(nextTxNumber_), offset, reason);
        return;
    }
    logLine("%s [INFO ] [WalFil] Truncating WAL file before transaction %llu (at offset %zu); "
            "ignoring the incomplete transaction (%s)\n",
            logTimestamp(), static_cast<ull>(nextTxNumber_), offset, reason);
    try {
        truncate(offset);
    } catch (const IoException&) {
        throwIo("Couldn't truncate WAL file to end of last valid TX at offset ",
                std::to_string(offset), "; error code message: ", systemText());
    }
}

void WalFile::overwriteBadHeader(const Bytes& content, const char* reason) {
    if (config_.verbose) {
        logLine("%s [WARN ] [WalFil] Bad header buffer: %s\n", logTimestamp(), reason);
    }
    logLine("%s [WARN ] [WalFil] WAL file header is too small (%zu bytes)\n", logTimestamp(),
            content.size());
    if (config_.readOnly) return;
    logLine("%s [WARN ] [WalFil] Overwriting existing content: %s\n", logTimestamp(),
            content.toHex(32).c_str());
    truncate(0);
    writeHeader();
}

// ---- Records ------------------------------------------------------------------------------------

void WalFile::beginTx() {
    resetRecord();
    writer_.writeU64(salt_);
    writer_.writeU32(hash_);
    writer_.writeVarint(nextTxNumber_);
    flagsOffset_ = writer_.position();
    writer_.writeByte(0);
    sizeOffset_ = writer_.position();
    writer_.writeU32(0);
    logOffset_ = writer_.position();
}

void WalFile::put(const void* key, size_t keySize, const void* value, size_t valueSize) {
    log_.writePut(Bytes(key, keySize), Bytes(value, valueSize));
}

void WalFile::remove(const void* key, size_t keySize) {
    log_.writeRemove(Bytes(key, keySize));
}

void WalFile::abortTx() {
    resetRecord();
}

void WalFile::resetRecord() {
    writer_.reset();
    log_.reset();
    encoded_.shrinkTo(BytesWriter::kShrinkSize);
    flagsOffset_ = sizeOffset_ = logOffset_ = 0;
}

void WalFile::commitTx() {
    if (!file_) throwIllegalState("WAL file not open");
    try {
        checkOffsets();
        if (writer_.position() > logOffset_) writeRecord();
    } catch (...) {
        resetRecord();
        throw;
    }
    resetRecord();
}

void WalFile::checkOffsets() const {
    const auto require = [](bool sane, const char* failure, size_t number) {
        if (!sane) throwIllegalState(failure, static_cast<int64_t>(number));
    };
    const size_t size = writer_.position();
    require(flagsOffset_ >= kWalHashPrefixSize + 1, "Illegal flags offset: ", flagsOffset_);
    require(sizeOffset_ >= flagsOffset_, "Illegal size offset: ", sizeOffset_);
    require(logOffset_ >= sizeOffset_, "Illegal start offset: ", logOffset_);
    require(size >= kWalHashPrefixSize + 6, "Illegal content size: ", size);
    require(size >= logOffset_, "Illegal content size/offset: ", size);
    require(sizeOffset_ >= kWalHashPrefixSize + 2 && sizeOffset_ <= size - 4,
            "Illegal KV log length offset: ", sizeOffset_);
}

void WalFile::writeRecord() {
    const size_t logSize = writer_.position() - logOffset_;
    storeLittle(buffer_.mutableData() + sizeOffset_, checkedCast<uint32_t>(logSize));
    uint32_t hash;
    if (!compressLog(logSize, hash)) hash = hashOfBuffer();
    writer_.writeU32(hash);
    const size_t recordSize = writer_.position() - kWalHashPrefixSize;
    append(buffer_.data() + kWalHashPrefixSize, recordSize);
    syncOrFlush();
    if (config_.verbose) {
        logLine("%s [INFO ] [WalFil] Written TX %llu (%zu bytes, kvLogSize: %zu bytes, "
                "hash prev/new: %s/%s)\n",
                logTimestamp(), static_cast<ull>(nextTxNumber_), recordSize, logSize,
                std::to_string(hash_).c_str(), std::to_string(hash).c_str());
    }
    ++nextTxNumber_;
    hash_ = hash;
}

// Puts the encoded log in the place of the raw one, if that pays. The hash is that of the raw one.
bool WalFile::compressLog(size_t logSize, uint32_t& outHash) {
    const char* skipped = nullptr;
    if (log_.putCount() == 0) {
        skipped = "no puts";
    } else if (logSize < kWalRle0MinSize) {
        skipped = "too small";
    }
    if (skipped) {
        if (config_.verbose) {
            logLine("%s [INFO ] [WalFil] RLE0 encoding not applied to KV log with %zu bytes "
                    "(%s)\n",
                    logTimestamp(), logSize, skipped);
        }
        return false;
    }
    const size_t limit = static_cast<size_t>(static_cast<float>(logSize) * 0.9f);
    encoded_.ensure(limit);
    const size_t encodedSize =
        rle0Encode(buffer_.data() + logOffset_, logSize, encoded_.mutableData(), limit);
    if (encodedSize == 0) return false;

    const bool byteSize = encodedSize < 256;
    const uint32_t flags = byteSize ? kWalRle0 | kWalByteSize : kWalRle0;
    buffer_.mutableData()[flagsOffset_] = static_cast<uint8_t>(flags);
    outHash = hashOfBuffer();
    uint8_t* const sizeField = buffer_.mutableData() + sizeOffset_;
    if (byteSize) {
        *sizeField = static_cast<uint8_t>(encodedSize);
        logOffset_ -= 3;
    } else {
        storeLittle(sizeField, static_cast<uint32_t>(encodedSize));
    }
    writer_.seek(logOffset_);
    writer_.writeVarint(logSize);
    writer_.writeBytes(encoded_.data(), encodedSize);
    return true;
}

uint32_t WalFile::hashOfBuffer() const {
    return static_cast<uint32_t>(XXH3_64bits(buffer_.data(), writer_.position()));
}

// ---- The file -----------------------------------------------------------------------------------

void WalFile::deleteContent() {
    CHECK_STATE_AT(511, file_);
    if (writer_.position() != 0) {
        throwIllegalState("WAL buffer is not empty; cannot delete content");
    }
    try {
        truncate(0);
    } catch (const IoException&) {
        throwIo("Could not delete WAL content");
    }
    writeHeader();
}

void WalFile::writeHeader() {
    salt_ = randomSalt();
    Bytes header = Bytes::allocated(kWalHeaderSize);
    BytesWriter writer(header, 0);
    writer.writeBytes(kWalMagic, kWalMagicSize);
    writer.writeVarint(kWalVersion);
    writer.writeVarint(kWalMinVersion);
    writer.writeVarint(0);
    writer.writeU32(hash_);
    writer.writeU64(salt_);
    append(header.data(), writer.position());
    syncOrFlush();
    if (config_.verbose) {
        logLine("%s [INFO ] [WalFil] Wrote header (%zu bytes, initial hash: %u)\n", logTimestamp(),
                writer.position(), hash_);
    }
}

void WalFile::append(const void* data, size_t size) {
    if (tornEnd_) truncate(fileEnd_);
    const size_t written = std::fwrite(data, 1, size, file_);
    if (written != size) {
        const std::string reason = systemText();
        tornEnd_ = true;
        throwIo("Error while writing to WAL file: written ", std::to_string(written),
                " bytes, but expected ", std::to_string(size), " bytes; error code message: ",
                reason);
    }
    fileEnd_ += size;
}

// Cuts the file and goes to its end.
void WalFile::truncate(uint64_t size) {
    std::clearerr(file_);
    truncateFile(file_, size);
    if (std::fseek(file_, static_cast<long>(size), SEEK_SET) != 0) {
        throwIoWithErrno("Cannot go to the end of the WAL file");
    }
    fileEnd_ = size;
    tornEnd_ = false;
}

void WalFile::syncOrFlush() {
    if (config_.syncs) {
        sync();
    } else {
        std::fflush(file_);
    }
}

void WalFile::sync() {
    if (!syncFile(file_)) {
        logLine("%s [WARN ] [WalFil] Sync to WAL file failed\n", logTimestamp());
    }
}

}  // namespace quillmere
