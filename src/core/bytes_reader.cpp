#include "core/bytes_reader.h"

#include "core/cast.h"
#include "core/checks.h"
#include "core/delta_code.h"

namespace quillmere {

BytesReader::BytesReader(const void* bytes, size_t size)
    : start_(static_cast<const uint8_t*>(bytes)), end_(start_), current_(start_) {
    CHECK_STATE_AT(14, bytes);
    end_ += size;
}

uint32_t BytesReader::readVarint32() {
    const uint8_t* const begin = current_;
    const uint64_t value = readVarint();
    if (value > UINT32_MAX) {
        current_ = begin;
        throwWith<VerificationException>("Varint out of range: ", std::to_string(value));
    }
    return static_cast<uint32_t>(value);
}

namespace {

uint64_t stepUp(uint64_t previous, uint64_t step) {
    uint64_t result;
    if (__builtin_add_overflow(previous, step, &result)) {
        throwNumeric(NumericFailure::Overflow, previous, " + ", step);
    }
    return result;
}

uint64_t stepDown(uint64_t previous, uint64_t step) {
    if (step > previous) throwNumeric(NumericFailure::Underflow, previous, " - ", step);
    return previous - step;
}

}  // namespace

uint64_t BytesReader::readDelta(uint64_t previous) {
    const uint8_t* const begin = current_;
    try {
        const uint8_t code = readByte();
        switch (code) {
            case delta::kUpMedium: return stepUp(previous, delta::kUpMediumBase + readByte());
            case delta::kUpLarge: return stepUp(previous, readVarint());
            case delta::kAbsolute: return readVarint();
            case delta::kIllegal:
                throwWith<VerificationException>(
                    "Negative varint announced, but type is unsigned");
            case delta::kDownLarge: return stepDown(previous, readVarint());
            case delta::kDownMedium: return stepDown(previous, delta::kDownMediumBase + readByte());
            default:
                return code < delta::kUpMedium ? stepUp(previous, code)
                                               : stepDown(previous, 256u - code);
        }
    } catch (...) {
        current_ = begin;
        throw;
    }
}

void BytesReader::readBytesInto(size_t n, Bytes& target, ReadMode mode) {
    const uint8_t* const bytes = readBytes(n);
    if (mode == ReadMode::View) {
        target.setView(bytes, n);
    } else {
        target.assign(bytes, n);
    }
}

std::string BytesReader::readString(size_t n) {
    const uint8_t* const bytes = readBytes(n);
    return std::string(reinterpret_cast<const char*>(bytes), n);
}

void BytesReader::failOverflow(size_t n) const {
    throwWith<BufferOverflowException>("Expected ", std::to_string(n),
                                       " available bytes but only got ",
                                       std::to_string(remaining()), " at offset ",
                                       std::to_string(position()));
}

}  // namespace quillmere
