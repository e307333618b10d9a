#pragma once

// Bytes: pointer and size, owning or a view. The carrier of keys, values and objects.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace quillmere {

// How Bytes::assign copies.
enum class CopyMode : uint32_t {
    Reuse = 0,        // an owned block of at least max(size, minAllocation), reusing a larger one
    Exact = 1,        // the same, then reallocated to exactly that
    KeepSize = 2,     // as Reuse, but the size stays as it was or as allocated
    Overwrite = 3,    // in place, without an allocation
};

// Not thread-safe. An owned block is freed by the object; a view is valid as long as what it points
// to. A moved-from object is empty.
class Bytes {
public:
    Bytes() = default;
    Bytes(const void* data, size_t size);               // a view
    static Bytes copyOf(const void* data, size_t size); // owned
    static Bytes allocated(size_t size);                // owned, content undefined
    Bytes(const Bytes& other);
    Bytes(Bytes&& other) noexcept;
    Bytes& operator=(const Bytes& other);
    Bytes& operator=(Bytes&& other) noexcept;
    ~Bytes();

    const uint8_t* data() const { return data_; }
    uint8_t* mutableData() { return const_cast<uint8_t*>(data_); }
    size_t size() const { return static_cast<size_t>(sizeWord_ & kSizeMask); }
    bool empty() const { return size() == 0; }
    bool hasBytes() const { return data_ != nullptr && size() != 0; }
    bool owned() const { return owned_; }
    std::span<const uint8_t> span() const { return {data_, size()}; }
    std::string_view text() const { return {reinterpret_cast<const char*>(data_), size()}; }

    void setView(const void* data, size_t size) {
        if (owned_) [[unlikely]] freeBlock();
        data_ = static_cast<const uint8_t*>(data);
        sizeWord_ = (sizeWord_ & ~kSizeMask) | size;  // no memory has so many bytes
    }
    void clear();
    void resize(size_t size);
    void ensure(size_t size);
    void shrinkTo(size_t size);
    void setSize(size_t size);
    void assign(const void* data, size_t size, CopyMode mode = CopyMode::Reuse,
                size_t minAllocation = 0);

    bool equals(const Bytes& other) const;
    // Order of keys: empty before all others, then unsigned bytes, the shorter first.
    bool less(const Bytes& other) const;
    // Hexadecimal text of at most `limit` bytes.
    std::string toHex(size_t limit) const;

private:
    static constexpr uint64_t kSizeMask = ~(uint64_t{1} << 63);

    void freeBlock();
    void setSizeBits(size_t size) {
        sizeWord_ = (sizeWord_ & ~kSizeMask) | (static_cast<uint64_t>(size) & kSizeMask);
    }

    const uint8_t* data_ = nullptr;
    uint64_t sizeWord_ = 0;  // the top bit is not part of the size and is preserved
    bool owned_ = false;
};

}  // namespace quillmere
