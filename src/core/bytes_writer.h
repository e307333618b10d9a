#pragma once

// Writes the binary formats into a Bytes, which grows as needed.

#include <cstddef>
#include <cstdint>

#include "core/bytes.h"
#include "core/endian.h"
#include "core/varint.h"

namespace quillmere {

// The target must outlive the writer, and nobody else changes it in between; its size is that of
// the whole block while writing and the written size after finish(). Not thread-safe.
class BytesWriter {
public:
    // What growing writers use unless there is a reason.
    static constexpr size_t kInitialSize = 1024;
    static constexpr size_t kMaximumGrowth = 0x80000;
    static constexpr size_t kShrinkSize = 0x100000;

    // An initial size of 0 makes a writer that never grows; views take no other. A shrink size of 0
    // keeps a block of any size through reset().
    explicit BytesWriter(Bytes& target, size_t initialSize = kInitialSize,
                         size_t maximumGrowth = kMaximumGrowth, size_t shrinkSize = kShrinkSize);

    // Makes room for n more bytes. Throws IllegalStateException if the writer does not grow.
    void reserve(size_t n) {
        if (n > room()) [[unlikely]] grow(n);
    }

    void writeByte(uint8_t value) { *allocate(1) = value; }
    void writeU32(uint32_t value) { storeLittle(allocate(4), value); }
    void writeU64(uint64_t value) { storeLittle(allocate(8), value); }
    void writeVarint(uint64_t value) {
        // A growing writer makes room for the longest form at once.
        if (room() < kMaxVarintSize) reserve(initialSize_ ? kMaxVarintSize : varintSize(value));
        current_ += encodeVarint(current_, value);
    }
    // The number as a step from `previous`, in the shortest form (core/delta_code.h).
    void writeDelta(uint64_t previous, uint64_t value);
    void writeBytes(const void* data, size_t size);
    void writeBytesWithSize(const void* data, size_t size);
    void writeZeros(size_t n);
    // The place of n bytes, to be filled by the caller before the next write.
    uint8_t* allocate(size_t n) {
        reserve(n);
        uint8_t* const place = current_;
        current_ += n;
        return place;
    }

    // Bytes written.
    size_t position() const { return static_cast<size_t>(current_ - start_); }
    // Backwards only; what lay behind the position is forgotten.
    void seek(size_t position);
    // Sets the target's size to what was written. Writing may go on.
    void finish();
    // Starts over, for the next use of the same target.
    void reset();

private:
    size_t room() const { return static_cast<size_t>(end_ - current_); }
    size_t blockSize() const { return static_cast<size_t>(end_ - start_); }
    void setBlock(size_t size, size_t position);
    [[gnu::cold]] void grow(size_t n);

    Bytes& target_;
    uint8_t* start_;
    uint8_t* current_;
    uint8_t* end_;
    const size_t initialSize_;
    const size_t maximumGrowth_;
    const size_t shrinkSize_;
    size_t growth_;
};

}  // namespace quillmere
