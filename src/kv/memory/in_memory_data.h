#pragma once

// The records of an in-memory store at one point in time.

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "core/bytes.h"

namespace quillmere {

class InMemoryIterator;

// Owns its bytes, short ones in place: a node of the tree then holds the whole key. Neither moves
// nor changes. Throws AllocationException.
class InMemoryKey {
public:
    explicit InMemoryKey(const Bytes& key);
    InMemoryKey(const InMemoryKey& other) : InMemoryKey(other.bytes_) {}
    InMemoryKey& operator=(const InMemoryKey&) = delete;

    const Bytes& bytes() const { return bytes_; }

private:
    static constexpr size_t kInlineSize = 16;

    std::array<uint8_t, kInlineSize> inline_;
    Bytes bytes_;  // a view of inline_, or an owned block
};

struct InMemoryKeyLess {
    using is_transparent = void;
    static const Bytes& bytesOf(const InMemoryKey& key) { return key.bytes(); }
    static const Bytes& bytesOf(const Bytes& key) { return key; }

    template <class A, class B>
    bool operator()(const A& a, const B& b) const {
        return less(bytesOf(a), bytesOf(b));
    }
    static bool less(const Bytes& a, const Bytes& b);
};

// Filled by one write transaction; from seal() on it never changes, and any thread reads it without
// a lock. Shared by the store, its transactions and their cursors. Iterators must go first.
class InMemoryData {
public:
    using Entries = std::map<InMemoryKey, Bytes, InMemoryKeyLess>;
    using Place = Entries::iterator;

    InMemoryData() = default;
    ~InMemoryData();
    InMemoryData& operator=(const InMemoryData&) = delete;

    Entries& entries() { return entries_; }
    bool sealed() const { return sealed_; }
    void seal() { sealed_ = true; }
    // A deep copy, not sealed.
    std::shared_ptr<InMemoryData> clone() const;

    uint64_t keyAndValueBytes() const { return keyBytes_ + valueBytes_; }
    // Bytes, with a fixed amount for the instance and, once sealed, for each entry.
    uint64_t accountedSize() const;

    // Inserts or replaces. The place is that of the key, or of the first element behind it. A
    // refused argument has changed nothing.
    Place put(Place place, const Bytes& key, const Bytes& value);
    // Gives the following place. All iterators but the acting one are told.
    Place erase(const InMemoryIterator& acting, Place place);
    void clear();

    // Iterators on data that is not sealed. They may go on any thread.
    void registerIterator(InMemoryIterator& iterator);
    void unregisterIterator(const InMemoryIterator& iterator) noexcept;

private:
    InMemoryData(const InMemoryData& other);
    void onErase(const InMemoryIterator& acting, const Bytes& key, const Bytes& value);

    Entries entries_;
    uint64_t keyBytes_ = 0;
    uint64_t valueBytes_ = 0;
    bool sealed_ = false;
    std::mutex mutex_;                         // guards iterators_ and what is told to them
    std::vector<InMemoryIterator*> iterators_;
};

}  // namespace quillmere
