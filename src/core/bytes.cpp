#include "core/bytes.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "core/error.h"

namespace quillmere {

namespace {


// memcpy and friends take no null pointer, not even with a size of 0.
void copyBytes(uint8_t* to, const void* from, size_t size) {
    if (size != 0) std::memmove(to, from, size);
}

void checkAssign(const void* data, size_t size, CopyMode mode, size_t minAllocation) {
    if (!data && size != 0) throwArgumentNull("bytes", __LINE__);
    if (minAllocation != 0) {
        if (mode > CopyMode::KeepSize) {
            throwIllegalArgument("Min allocation cannot be combined with the given mode");
        }
        if (minAllocation < size) {
            throwIllegalArgument("Min alloc size must be greater or equal to size");
        }
    }
    if (mode > CopyMode::Overwrite) {
        throwIllegalArgument("CopyMode ", std::to_string(static_cast<uint32_t>(mode)));
    }
}

}  // namespace

Bytes::Bytes(const void* data, size_t size) : data_(static_cast<const uint8_t*>(data)) {
    setSizeBits(size);
}

Bytes Bytes::copyOf(const void* data, size_t size) {
    Bytes copy;
    copy.assign(data, size, CopyMode::Exact);
    return copy;
}

Bytes Bytes::allocated(size_t size) {
    Bytes bytes;
    bytes.resize(size);
    return bytes;
}

Bytes::Bytes(const Bytes& other) {
    if (other.owned_) {
        *this = copyOf(other.data_, other.size());
    } else {
        setView(other.data_, other.size());
    }
}

Bytes::Bytes(Bytes&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), owned_(std::exchange(other.owned_, false)) {
    setSizeBits(other.size());
    other.setSizeBits(0);
}

Bytes& Bytes::operator=(const Bytes& other) {
    if (this != &other) *this = Bytes(other);
    return *this;
}

Bytes& Bytes::operator=(Bytes&& other) noexcept {
    if (this == &other) return *this;
    if (owned_) freeBlock();
    data_ = std::exchange(other.data_, nullptr);
    owned_ = std::exchange(other.owned_, false);
    setSizeBits(other.size());
    other.setSizeBits(0);
    return *this;
}

Bytes::~Bytes() {
    if (owned_) freeBlock();
}

void Bytes::freeBlock() {
    std::free(mutableData());
    owned_ = false;
}

void Bytes::clear() {
    setView(nullptr, 0);
}

void Bytes::resize(size_t size) {
    if (size == 0) return clear();
    if (owned_ && size == this->size()) return;
    void* const block = owned_ ? std::realloc(mutableData(), size) : std::malloc(size);
    if (!block) [[unlikely]] {
        throwAllocation("Could not allocate ", std::to_string(size), " bytes");
    }
    data_ = static_cast<const uint8_t*>(block);
    owned_ = true;
    setSizeBits(size);
}

void Bytes::ensure(size_t size) {
    if (!owned_ || this->size() < size) resize(size);
}

void Bytes::shrinkTo(size_t size) {
    if (owned_ && this->size() > size) resize(size);
}

void Bytes::setSize(size_t size) {
    if (owned_ && size > this->size()) {
        throwIllegalState("Allocated bytes allow only to shrink the size; current size: ",
                          std::to_string(this->size()));
    }
    setSizeBits(size);
}

void Bytes::assign(const void* data, size_t size, CopyMode mode, size_t minAllocation) {
    checkAssign(data, size, mode, minAllocation);
    if (mode == CopyMode::Overwrite) {
        if (size > this->size()) throwIllegalArgument("Given size is larger than existing size");
        copyBytes(mutableData(), data, size);
        return;
    }
    const size_t needed = std::max(size, minAllocation);
    if (owned_ && data == data_) {
        // The source is this block itself; its content stays where it is.
        ensure(needed);
    } else if (!owned_ || this->size() < needed) {
        // Copied before the old block goes, as the source may lie inside of it.
        Bytes block = allocated(needed);
        copyBytes(block.mutableData(), data, size);
        *this = std::move(block);
    } else {
        copyBytes(mutableData(), data, size);
    }
    if (minAllocation > size) std::memset(mutableData() + size, 0, minAllocation - size);
    if (mode == CopyMode::Exact) {
        resize(needed);
    } else if (mode == CopyMode::Reuse) {
        setSize(size);
    }
}

bool Bytes::equals(const Bytes& other) const {
    return text() == other.text();
}

bool Bytes::less(const Bytes& other) const {
    // Views of characters compare as unsigned bytes, and a prefix comes before what continues it.
    return text() < other.text();
}

std::string Bytes::toHex(size_t limit) const {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string hex;
    const size_t count = std::min(limit, size());
    hex.reserve(2 * count);
    for (size_t i = 0; i < count; ++i) {
        hex += kDigits[data_[i] >> 4];
        hex += kDigits[data_[i] & 0xF];
    }
    return hex;
}

}  // namespace quillmere
