#pragma once

// A snapshot file: all records of a store, byte by byte. Numbers of fixed width are little-endian.
// These numbers are on disk: do not change them.
//
//     magic               19      with its terminating zero
//     version             varint  1
//     flags               varint  SnapshotFlags
//     time                8       milliseconds since 1970; without kSnapshotNoTime
//     random              8       without kSnapshotNoRandom
//     transaction number  varint  with kSnapshotSequence: of the last transaction in it
//     transaction hash    4       with kSnapshotSequence: its hash in the chain of the WAL
//     data                        a KV log of puts in the order of keys, with its end code
//     file hash           16      XXH3-128 of all bytes in front of it, the lower half first

#include <cstddef>
#include <cstdint>

namespace quillmere {

inline constexpr char kSnapshotMagic[] = "Quillmere Snapshot";
inline constexpr size_t kSnapshotMagicSize = sizeof kSnapshotMagic;
inline constexpr uint8_t kSnapshotVersion = 1;
inline constexpr size_t kSnapshotHashSize = 16;
// Magic, version, flags, end code, hash.
inline constexpr size_t kSnapshotMinSize = kSnapshotMagicSize + 3 + kSnapshotHashSize;
static_assert(kSnapshotMagicSize == 19 && kSnapshotMinSize == 38);

enum SnapshotFlags : uint32_t {
    kSnapshotNoTime = 1,
    kSnapshotNoRandom = 2,
    kSnapshotSequence = 0x10000,
    kSnapshotKnownFlags = kSnapshotSequence | 7,  // 4 has no field here
};

// Of the file that a snapshot is written to before it takes its name.
inline constexpr const char* kSnapshotProgressSuffix = ".new";

}  // namespace quillmere
