#pragma once

// The write-ahead log of an in-memory store, byte by byte. Numbers of fixed width are
// little-endian. These numbers are on disk: do not change them.
//
// Header, 29 bytes:
//
//      0  14  magic, with its terminating zero
//     14   1  version, varint
//     15   1  oldest version that can read it, varint
//     16   1  flags, varint: 0
//     17   4  initial hash: of the last transaction in the snapshot that this log extends, else 0
//     21   8  salt: random, never 0
//
// Records, one for each transaction, with nothing between them:
//
//     transaction number  varint: 1 after an empty snapshot, then one more each
//     flags               varint of one byte: WalRecordFlags
//     size                4 bytes, or one with kWalByteSize: of the payload as stored
//     decoded size        varint, only with kWalRle0: greater than the size
//     payload             a KV log without its end code; RLE0 of it with kWalRle0
//     hash                4 bytes: lower half of XXH3-64 of
//                             salt (8), hash of the record before or initial hash (4),
//                             transaction number and flags as stored,
//                             size of the KV log (4), KV log

#include <cstddef>
#include <cstdint>

namespace quillmere {

inline constexpr char kWalMagic[] = "Quillmere WAL";
inline constexpr size_t kWalMagicSize = sizeof kWalMagic;
inline constexpr uint8_t kWalVersion = 1;
inline constexpr uint8_t kWalMinVersion = 1;
inline constexpr size_t kWalHeaderSize = kWalMagicSize + 3 + 4 + 8;
static_assert(kWalMagicSize == 14 && kWalHeaderSize == 29);

enum WalRecordFlags : uint32_t {
    kWalRle0 = 1,
    kWalByteSize = 2,
    kWalKnownFlags = kWalRle0 | kWalByteSize,
};

// What the hash covers in front of a record.
inline constexpr size_t kWalHashPrefixSize = 8 + 4;

// A payload is encoded from this size on.
inline constexpr size_t kWalRle0MinSize = 24;

}  // namespace quillmere
