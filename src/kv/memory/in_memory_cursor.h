#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "kv/db_cursor.h"
#include "kv/memory/in_memory_iterator.h"

namespace quillmere {

class InMemoryTransaction;
class WalStorage;

// An iterator over the data of a transaction, which it shares with it. The transaction releases it
// when it ends; release() and close() may run on any thread.
class InMemoryCursor : public DbCursor {
public:
    explicit InMemoryCursor(InMemoryTransaction& transaction);
    ~InMemoryCursor() override;

    void release() override;
    bool isReleased() const override { return released_; }
    void close(bool warn) override;
    void renew() override;
    void detach() override { close(false); }

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
    // Of these, the second one knows the current key, also if that was set from outside.
    InMemoryIterator& iterator();
    InMemoryIterator& iteratorAtKey();
    bool adopt(bool found);
    bool give(bool found, Bytes& outKey, Bytes& outValue);
    bool giveValue(bool found, Bytes& outValue);
    template <class Write>
    void log(Write write);
    void drop();

    InMemoryTransaction* transaction_;  // null once it has ended
    std::mutex mutex_;                  // guards the end, which may come from another thread
    std::atomic<bool> released_{false};
    std::shared_ptr<InMemoryData> data_;  // before its iterator
    std::optional<InMemoryIterator> iterator_;
    WalStorage* const wal_;               // null if nothing is logged
    const uint64_t sizeLimit_;
    const int32_t creatorThread_;
    const bool readOnly_;
    Bytes removedKey_;  // scratch
};

}  // namespace quillmere
