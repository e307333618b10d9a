#pragma once

// Reads the binary formats from a range of bytes, each access checked.

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/bytes.h"
#include "core/endian.h"
#include "core/error.h"
#include "core/varint.h"

namespace quillmere {

// A view: the bytes must outlive the reader and whatever it handed out. Not thread-safe. A failed
// read throws and leaves the position where it was.
class BytesReader {
public:
    QUILLMERE_EXCEPTION(ReaderException, Exception);
    QUILLMERE_EXCEPTION(BufferOverflowException, ReaderException);
    QUILLMERE_EXCEPTION(VerificationException, ReaderException);

    enum class ReadMode { Copy = 0, View = 1 };

    // Throws IllegalStateException for a null pointer, also with a size of 0.
    BytesReader(const void* bytes, size_t size);
    explicit BytesReader(const Bytes& bytes) : BytesReader(bytes.data(), bytes.size()) {}

    size_t remaining() const { return static_cast<size_t>(end_ - current_); }
    size_t position() const { return static_cast<size_t>(current_ - start_); }

    // Throws BufferOverflowException if fewer than n bytes remain.
    void require(size_t n) const {
        if (n > remaining()) [[unlikely]] failOverflow(n);
    }

    uint8_t readByte() { return *readBytes(1); }
    uint32_t readU32() { return loadLittle<uint32_t>(readBytes(4)); }
    uint64_t readU64() { return loadLittle<uint64_t>(readBytes(8)); }
    uint64_t readVarint() {
        require(1);
        const size_t size = varintSizeAnnounced(*current_);
        return decodeVarint(readBytes(size), size);
    }
    // Throws VerificationException for a value beyond 32 bits.
    uint32_t readVarint32();
    // The next number of a delta-coded list (BytesWriter::writeDelta). Throws
    // VerificationException for an illegal code and NumericOverflowException for a step that
    // leaves the 64 bits.
    uint64_t readDelta(uint64_t previous);
    // A pointer into the input.
    const uint8_t* readBytes(size_t n) {
        require(n);
        const uint8_t* const bytes = current_;
        current_ += n;
        return bytes;
    }
    void readBytesInto(size_t n, Bytes& target, ReadMode mode);
    std::string readString(size_t n);

private:
    [[noreturn, gnu::cold]] void failOverflow(size_t n) const;

    const uint8_t* start_;
    const uint8_t* end_;
    const uint8_t* current_;
};

}  // namespace quillmere
