#pragma once

// A store on LMDB in a directory of its own, and transactions as the layers above make them.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "core/endian.h"
#include "core/log.h"
#include "core/store_options.h"
#include "kv/db_cursor.h"
#include "kv/db_store.h"
#include "kv/db_transaction.h"
#include "kv/lmdb/lmdb_provider.h"
#include "kv/tx_context.h"
#include "support/temp_dir.h"

namespace quillmere {

struct TestTx : TxContext {
    explicit TestTx(DbStore& store, bool readOnly = false, int32_t owner = threadNumber())
        : TxContext(store.createTransaction(readOnly, 0), 7, owner, readOnly) {
        dbTx_->begin();
    }
    void commit() { dbTx_->commit(); }
    void destroyDbTransaction() { dbTx_.reset(); }
};

struct StoreInDir {
    StoreInDir() {
        options.directory = dir.path();
        options.maxDbSizeInKb = 16 * 1024;
        options.noReaderThreadLocals = true;  // several read transactions on one thread
    }
    void open() {
        store.reset();
        store = LmdbProvider().createStore(options);
    }
    std::unique_ptr<DbTransaction> begin(bool readOnly = false) {
        auto tx = store->createTransaction(readOnly, 0);
        tx->begin();
        return tx;
    }
    void commitPut(std::string_view key, std::string_view value) {
        auto tx = begin();
        tx->createDbCursor()->put(key.data(), key.size(), value.data(), value.size());
        tx->commit();
    }
    // Empty if absent.
    std::string read(std::string_view key) {
        auto tx = begin(true);
        Bytes value;
        const bool found = tx->createDbCursor()->get(Bytes(key.data(), key.size()), value);
        return found ? std::string(value.text()) : std::string();
    }

    TempDir dir;
    StoreOptions options;
    std::unique_ptr<DbStore> store;
};

inline std::string bigEndian(uint32_t number) {
    std::string bytes(4, '\0');
    storeBig(bytes.data(), number);
    return bytes;
}

inline std::string keyOf(uint32_t prefix, uint32_t id) {
    return bigEndian(prefix) + bigEndian(id);
}

inline Bytes bytesOf(std::string_view text) {
    return Bytes(text.data(), text.size());
}

}  // namespace quillmere
