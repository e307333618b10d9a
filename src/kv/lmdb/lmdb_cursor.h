#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "kv/db_cursor.h"
#include "kv/lmdb/engine/engine.h"

namespace quillmere {

class LmdbStore;
class LmdbTransaction;

// A cursor of the engine, bound to the thread that made it. The transaction releases it when it
// ends; close() and release() may run on any thread, but on another one the engine's cursor is left
// alone: the engine frees it with a write transaction, and loses it with a read transaction.
class LmdbCursor : public DbCursor {
public:
    explicit LmdbCursor(LmdbTransaction& transaction);
    ~LmdbCursor() override;

    void release() override;
    bool isReleased() const override { return cursor_ == nullptr; }
    void close(bool warn) override;
    void renew() override;
    void detach() override;

    using DbCursor::first;
    using DbCursor::next;
    using DbCursor::previous;
    bool first(Bytes& outKey, Bytes& outValue) override;
    bool next(Bytes& outKey, Bytes& outValue) override;
    bool previous(Bytes& outKey, Bytes& outValue) override;
    bool seek(const Bytes& key) override;
    bool seekOrNext(const Bytes& key) override;
    bool seekOrPrevious(const Bytes& key) override;
    bool get(const Bytes& key, Bytes& outValue) override;
    bool getOrNext(const Bytes& key, Bytes& outValue) override;
    bool getOrPrevious(const Bytes& key, Bytes& outValue) override;
    bool current() override;
    bool currentValue(Bytes& outValue) override;
    bool currentValueSize(size_t& outSize) override;
    void put(const void* keyData, size_t keySize, const void* valueData,
             size_t valueSize) override;
    bool removeCurrent(bool& outHasNext) override;

private:
    // One operation of the engine; false if it found nothing.
    bool get(MDB_cursor_op operation);
    bool step();
    bool found(int result);
    bool give(bool moved, Bytes& outKey, Bytes& outValue);
    bool moveTo(const Bytes& key, MDB_cursor_op operation);
    void adoptKey();
    void setOnKey();
    bool standsOnKey() const;
    // For when the engine stands elsewhere. They need a key.
    [[gnu::noinline]] bool moveToKey();
    [[gnu::noinline]] bool moveBehindKey();
    [[gnu::noinline]] bool moveBeforeKey();
    bool hasElementAfterRemoval();
    void closeHandle(bool warn, bool transactionGone);
    void unregister();

    std::atomic<MDB_cursor*> cursor_{nullptr};
    LmdbStore& store_;
    LmdbTransaction* transaction_;  // null once it has ended
    std::mutex mutex_;              // guards transaction_ against its end on another thread
    const int32_t creatorThread_;
    const bool readOnly_;
    uint64_t writeCount_ = 0;  // of the transaction, when the engine was last put on key_
    MDB_val engineKey_{};
    MDB_val engineValue_{};
};

}  // namespace quillmere
