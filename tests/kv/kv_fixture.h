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

// A cursor over nothing that stays open whatever happens.
class EmptyDbCursor : public DbCursor {
public:
    void release() override {}
    bool isReleased() const override { return false; }
    void close(bool) override {}
    void renew() override {}
    void detach() override {}
    bool first(Bytes&, Bytes&) override { return false; }
    bool next(Bytes&, Bytes&) override { return false; }
    bool previous(Bytes&, Bytes&) override { return false; }
    bool seek(const Bytes&) override { return false; }
    bool seekOrNext(const Bytes&) override { return false; }
    bool seekOrPrevious(const Bytes&) override { return false; }
    bool get(const Bytes&, Bytes&) override { return false; }
    bool getOrNext(const Bytes&, Bytes&) override { return false; }
    bool getOrPrevious(const Bytes&, Bytes&) override { return false; }
    bool current() override { return false; }
    bool currentValue(Bytes&) override { return false; }
    bool currentValueSize(size_t&) override { return false; }
    void put(const void*, size_t, const void*, size_t) override {}
    bool removeCurrent(bool&) override { return false; }
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
