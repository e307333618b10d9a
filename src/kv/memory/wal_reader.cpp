#include "kv/memory/wal_reader.h"

#include <cstring>
#include <limits>
#include <string>

#include "core/endian.h"
#include "kv/memory/wal_format.h"
#include "kv/rle0.h"

namespace quillmere {

namespace {

void requireNumber(uint64_t number, uint64_t expected, const char* failure) {
    if (number != expected) {
        throwWith<WalFileInvalidException>(failure, std::to_string(number));
    }
}

// A decoded size that the stored bytes can have, and that fits the size field.
bool canDecodeTo(uint64_t decodedSize, uint64_t size) {
    return decodedSize > size && decodedSize <= std::numeric_limits<uint32_t>::max() &&
           decodedSize <= size * kRle0MaxExpansion;
}

}  // namespace

void WalReader::readHeader() {
    if (std::memcmp(reader_.readBytes(kWalMagicSize), kWalMagic, kWalMagicSize) != 0) {
        throwWith<WalFileInvalidException>("Invalid WAL format: this is not a Quillmere WAL file");
    }
    requireNumber(reader_.readVarint(), kWalVersion, "Invalid version: ");
    requireNumber(reader_.readVarint(), kWalMinVersion, "Invalid minimum version: ");
    requireNumber(reader_.readVarint(), 0, "Unknown flag detected: ");
    hash_ = reader_.readU32();
    salt_ = reader_.readU64();
    recordOffset_ = reader_.position();
}

bool WalReader::next() {
    recordOffset_ = reader_.position();
    if (reader_.remaining() == 0) return false;
    try {
        readRecord();
    } catch (const BytesReader::VerificationException& e) {
        throw WalFileInvalidException(e.message());
    }
    return true;
}

void WalReader::readRecord() {
    const uint8_t* const start = reader_.readBytes(0);
    const uint64_t number = reader_.readVarint();
    if (nextNumber_ != 0 && number != nextNumber_) {
        throwWith<WalFileInvalidException>("Unexpected txNumber ", std::to_string(number),
                                           "; expected ", std::to_string(nextNumber_),
                                           " instead");
    }
    const uint32_t flags = reader_.readVarint32();
    if (flags > kWalKnownFlags) {
        throwWith<WalFileInvalidException>("Unsupported TX log flags used: ",
                                           std::to_string(flags));
    }
    const size_t startSize = reader_.position() - recordOffset_;
    const size_t size = flags & kWalByteSize ? reader_.readByte() : reader_.readU32();
    const uint64_t decodedSize = flags & kWalRle0 ? reader_.readVarint() : 0;
    if (flags & kWalRle0 && !canDecodeTo(decodedSize, size)) {
        throwWith<WalFileInvalidException>("Invalid encoded/decoded size detected: ",
                                           std::to_string(decodedSize));
    }
    const uint8_t* const payload = reader_.readBytes(size);
    const uint32_t storedHash = reader_.readU32();
    if (flags & kWalRle0) {
        decode(payload, size, decodedSize);
    } else {
        log_.setView(payload, size);
    }
    if (hashOf(start, startSize) != storedHash) {
        throwWith<WalFileInvalidException>("Invalid Hash detected in TX ",
                                           std::to_string(number));
    }
    hash_ = storedHash;
    nextNumber_ = number + 1;
}

void WalReader::decode(const uint8_t* payload, size_t size, size_t decodedSize) {
    decoded_.ensure(decodedSize + 1);  // with the slack that decoding needs
    size_t result;
    try {
        result = rle0Decode(payload, size, decoded_.mutableData(), decodedSize);
    } catch (const ParsingException& e) {
        throw WalFileInvalidException(e.message());
    }
    requireNumber(result, decodedSize, "Decoded size mismatch: ");
    log_.setView(decoded_.data(), result);
}

uint32_t WalReader::hashOf(const uint8_t* start, size_t startSize) const {
    uint8_t prefix[kWalHashPrefixSize];
    storeLittle(prefix, salt_);
    storeLittle(prefix + 8, hash_);
    uint8_t size[4];
    storeLittle(size, static_cast<uint32_t>(log_.size()));
    XXH3_state_t* const state = hashState_.get();
    XXH3_64bits_reset(state);
    XXH3_64bits_update(state, prefix, sizeof prefix);
    XXH3_64bits_update(state, start, startSize);
    XXH3_64bits_update(state, size, sizeof size);
    XXH3_64bits_update(state, log_.data(), log_.size());
    return static_cast<uint32_t>(XXH3_64bits_digest(state));
}

}  // namespace quillmere
