#pragma once

// Reads a write-ahead log from memory, record by record, and checks its chain of hashes.

#include <cstddef>
#include <cstdint>

#include "core/bytes.h"
#include "core/bytes_reader.h"
#include "core/error.h"
#include "kv/memory/xxh3_state.h"

namespace quillmere {

QUILLMERE_EXCEPTION(WalFileInvalidException, ParsingException);

// A view of the content, which must outlive it. Not thread-safe. A read throws
// BytesReader::BufferOverflowException for content that ends early and WalFileInvalidException for
// anything else that is wrong.
class WalReader {
public:
    explicit WalReader(const Bytes& content)
        : reader_(content), hashState_(makeXxh3State()) {}

    // First of all.
    void readHeader();
    uint64_t salt() const { return salt_; }

    // The number that the next record must have; by default the first one may have any.
    void expectNumber(uint64_t number) { nextNumber_ = number; }

    // The next complete and valid record; false at the end. A record that ends early leaves
    // everything below as it was, apart from the offset.
    bool next();
    uint64_t number() const { return nextNumber_ - 1; }  // of the last record
    uint32_t hash() const { return hash_; }  // of it; before the first record the header's
    const Bytes& log() const { return log_; }       // valid until next()
    size_t offset() const { return recordOffset_; }  // of the record that was tried last

private:
    void readRecord();
    void decode(const uint8_t* payload, size_t size, size_t decodedSize);
    uint32_t hashOf(const uint8_t* start, size_t startSize) const;

    BytesReader reader_;
    const Xxh3State hashState_;
    uint64_t salt_ = 0;
    uint32_t hash_ = 0;
    uint64_t nextNumber_ = 0;  // 0: any
    size_t recordOffset_ = 0;
    Bytes log_;
    Bytes decoded_;  // a block that grows and is kept
};

}  // namespace quillmere
