#pragma once

// An in-memory store with a log, its files as bytes, and writers of both formats that know nothing
// of the library's own.

#include <xxhash.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/store_options.h"
#include "kv/db_cursor.h"
#include "kv/db_store.h"
#include "kv/db_transaction.h"
#include "kv/memory/in_memory_provider.h"
#include "support/temp_dir.h"

namespace quillmere {

using Records = std::map<std::string, std::string>;

inline Records recordsOf(DbTransaction& transaction) {
    Records records;
    const std::shared_ptr<DbCursor> cursor = transaction.createDbCursor();
    Bytes key;
    Bytes value;
    for (bool found = cursor->first(key, value); found; found = cursor->next(key, value)) {
        records.emplace(key.text(), value.text());
    }
    return records;
}

struct WalStore {
    WalStore() { options.directory = "memory-wal:" + dir.path(); }

    void open() {
        close();
        store = InMemoryProvider(true).createStore(options);
    }
    void close() { store.reset(); }
    std::unique_ptr<DbTransaction> begin() {
        auto tx = store->createTransaction(false, 0);
        tx->begin();
        return tx;
    }
    // A value "-" removes the key.
    void commit(const Records& changes) {
        const auto tx = begin();
        const std::shared_ptr<DbCursor> cursor = tx->createDbCursor();
        for (const auto& [key, value] : changes) {
            bool hasNext;
            if (value == "-") {
                cursor->remove(Bytes(key.data(), key.size()), hasNext);
            } else {
                cursor->put(key.data(), key.size(), value.data(), value.size());
            }
        }
        tx->commit();
    }
    Records records() {
        const auto tx = store->createTransaction(true, 0);
        tx->begin();
        return recordsOf(*tx);
    }
    Records reopened() {
        open();
        return records();
    }

    std::string walPath() const { return dir.path("quillmere.wal"); }
    std::string snapshotPath() const { return dir.path("quillmere.snapshot"); }
    std::string wal() const { return readFile(walPath()); }
    std::string snapshot() const { return readFile(snapshotPath()); }
    static std::string readFile(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    // A new file: some file systems wait for the disk when one is truncated and written again.
    static void writeFile(const std::string& path, const std::string& bytes) {
        std::filesystem::remove(path);
        std::ofstream(path, std::ios::binary) << bytes;
    }

    TempDir dir;
    StoreOptions options;
    std::unique_ptr<DbStore> store;
};

inline std::string little(uint64_t number, size_t size) {
    std::string bytes;
    for (size_t i = 0; i < size; ++i) bytes += static_cast<char>(number >> 8 * i);
    return bytes;
}

// Numbers below 0x4000.
inline std::string varint(unsigned number) {
    if (number < 0x80) return std::string(1, static_cast<char>(number));
    return {static_cast<char>(0x80 | number >> 8), static_cast<char>(number)};
}

struct WalBytes {
    explicit WalBytes(uint32_t initialHash = 0, uint64_t salt = 0x0123456789ABCDEF)
        : hash(initialHash), salt(salt) {
        bytes = std::string("Quillmere WAL\0\1\1\0", 17) + little(hash, 4) + little(salt, 8);
    }
    void record(unsigned number, const std::string& log) {
        const std::string content = varint(number) + '\0' + little(log.size(), 4) + log;
        hash = hashBehind(content);
        bytes += content + little(hash, 4);
    }
    void encodedRecord(unsigned number, const std::string& log, const std::string& encoded) {
        const bool byteSize = encoded.size() < 256;
        const std::string start = varint(number) + (byteSize ? '\3' : '\1');
        hash = hashBehind(start + little(log.size(), 4) + log);
        bytes += start + little(encoded.size(), byteSize ? 1 : 4) + varint(log.size()) + encoded +
                 little(hash, 4);
    }
    uint32_t hashBehind(const std::string& content) const {
        const std::string hashed = little(salt, 8) + little(hash, 4) + content;
        return static_cast<uint32_t>(XXH3_64bits(hashed.data(), hashed.size()));
    }

    std::string bytes;
    uint32_t hash;
    uint64_t salt;
};

// Adds the hash that ends a snapshot file.
inline std::string withFileHash(const std::string& bytes) {
    const XXH128_hash_t hash = XXH3_128bits(bytes.data(), bytes.size());
    return bytes + little(hash.low64, 8) + little(hash.high64, 8);
}

}  // namespace quillmere
