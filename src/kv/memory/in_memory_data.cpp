#include "kv/memory/in_memory_data.h"

#include <algorithm>
#include <cstring>

#include "core/checks.h"
#include "core/endian.h"
#include "core/error.h"
#include "core/log.h"
#include "kv/memory/in_memory_iterator.h"

namespace quillmere {

namespace {

// Fixed figures of the accounted size, whatever the structures really cost.
constexpr uint64_t kAccountedInstance = 184;
constexpr uint64_t kAccountedEntry = 64;

void checkPutArguments(const Bytes& key, const Bytes& value) {
    if (!key.data()) throw ArgumentNullException("Can not put with a null key");
    if (key.empty()) throwIllegalArgument("Can not put with a zero-length key");
    if (!value.data() && !value.empty()) {
        throw ArgumentNullException("Can not put a null value with a size");
    }
}

}  // namespace

InMemoryKey::InMemoryKey(const Bytes& key) {
    if (key.size() <= kInlineSize) {
        std::memcpy(inline_.data(), key.data(), key.size());
        bytes_.setView(inline_.data(), key.size());
    } else {
        bytes_ = Bytes::copyOf(key.data(), key.size());
    }
}

// Most keys have at least 8 bytes and differ within the first ones.
bool InMemoryKeyLess::less(const Bytes& a, const Bytes& b) {
    constexpr size_t kHead = sizeof(uint64_t);
    if (a.size() >= kHead && b.size() >= kHead) [[likely]] {
        const auto headA = loadBig<uint64_t>(a.data());
        const auto headB = loadBig<uint64_t>(b.data());
        if (headA != headB) return headA < headB;
    }
    return a.less(b);
}

InMemoryData::InMemoryData(const InMemoryData& other)
    : entries_(other.entries_), keyBytes_(other.keyBytes_), valueBytes_(other.valueBytes_) {}

InMemoryData::~InMemoryData() {
    if (iterators_.empty()) return;
    try {
        const IllegalStateException failure(
            "InMemoryData still has iterators registered while being destroyed");
        logLine("%s [ERROR] %s\n%s", logTimestamp(), failure.what(),
                failure.contextText().c_str());
    } catch (...) {  // no memory for the line
    }
}

// The tree is copied node by node, without a comparison of keys.
std::shared_ptr<InMemoryData> InMemoryData::clone() const {
    return std::shared_ptr<InMemoryData>(new InMemoryData(*this));
}

uint64_t InMemoryData::accountedSize() const {
    const uint64_t perEntries = sealed_ ? entries_.size() * kAccountedEntry : 0;
    return keyAndValueBytes() + kAccountedInstance + perEntries;
}

InMemoryData::Place InMemoryData::put(Place place, const Bytes& key, const Bytes& value) {
    CHECK_STATE_AT(81, !sealed_);
    checkPutArguments(key, value);
    if (place != entries_.end() && place->first.bytes().equals(key)) {
        const size_t oldSize = place->second.size();
        place->second.assign(value.data(), value.size());
        valueBytes_ += value.size() - oldSize;
        return place;
    }
    place = entries_.emplace_hint(place, key, Bytes::copyOf(value.data(), value.size()));
    keyBytes_ += key.size();
    valueBytes_ += value.size();
    return place;
}

InMemoryData::Place InMemoryData::erase(const InMemoryIterator& acting, Place place) {
    onErase(acting, place->first.bytes(), place->second);
    return entries_.erase(place);
}

void InMemoryData::onErase(const InMemoryIterator& acting, const Bytes& key, const Bytes& value) {
    const std::lock_guard lock(mutex_);
    for (InMemoryIterator* iterator : iterators_) {
        if (iterator != &acting) iterator->onPreErase(key);
    }
    keyBytes_ -= key.size();
    valueBytes_ -= value.size();
}

void InMemoryData::clear() {
    const std::lock_guard lock(mutex_);
    CHECK_STATE_AT(139, !sealed_);
    for (InMemoryIterator* iterator : iterators_) iterator->onPreClear();
    entries_.clear();
    keyBytes_ = 0;
    valueBytes_ = 0;
}

void InMemoryData::registerIterator(InMemoryIterator& iterator) {
    const std::lock_guard lock(mutex_);
    iterators_.push_back(&iterator);
}

void InMemoryData::unregisterIterator(const InMemoryIterator& iterator) noexcept {
    const std::lock_guard lock(mutex_);
    // Cursors mostly go in the reverse order of their making.
    const auto found = std::find(iterators_.rbegin(), iterators_.rend(), &iterator);
    if (found != iterators_.rend()) iterators_.erase(std::next(found).base());
}

}  // namespace quillmere
