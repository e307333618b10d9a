#include "core/bytes_writer.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "core/delta_code.h"
#include "core/error.h"

namespace quillmere {

BytesWriter::BytesWriter(Bytes& target, size_t initialSize, size_t maximumGrowth,
                         size_t shrinkSize)
    : target_(target),
      initialSize_(initialSize),
      maximumGrowth_(maximumGrowth),
      shrinkSize_(shrinkSize),
      growth_(initialSize) {
    const bool isView = target.data() && !target.owned();
    if (isView && initialSize != 0) {
        throwIllegalArgument("For non-allocated bytes you must use a non-growing writer");
    }
    setBlock(target.size(), 0);
}

void BytesWriter::setBlock(size_t size, size_t position) {
    start_ = target_.mutableData();
    current_ = start_ + position;
    end_ = start_ + size;
}

void BytesWriter::grow(size_t n) {
    const size_t position = this->position();
    if (growth_ == 0) {
        throwIllegalState("Non-growing bytes buffer of size ", std::to_string(blockSize()),
                          " exhausted. Pos: ", std::to_string(position), ", requested: ",
                          std::to_string(n));
    }
    size_t newSize;
    if (__builtin_add_overflow(initialSize_, n, &newSize) ||
        __builtin_add_overflow(blockSize(), std::max(newSize, growth_), &newSize)) {
        throwAllocation("Could not allocate ", std::to_string(n), " bytes");
    }
    target_.resize(newSize);
    setBlock(newSize, position);
    growth_ = std::max(growth_, std::min(growth_ * 2, maximumGrowth_));
}

void BytesWriter::writeDelta(uint64_t previous, uint64_t value) {
    const bool up = value >= previous;
    const uint64_t step = up ? value - previous : previous - value;
    const uint64_t mediumBase = up ? delta::kUpMediumBase : delta::kDownMediumBase;
    if (step < mediumBase) {
        writeByte(static_cast<uint8_t>(up ? step : 256 - step));
    } else if (step < mediumBase + delta::kMediumRange) {
        writeByte(up ? delta::kUpMedium : delta::kDownMedium);
        writeByte(static_cast<uint8_t>(step - mediumBase));
    } else if (varintSize(step) < varintSize(value)) {
        writeByte(up ? delta::kUpLarge : delta::kDownLarge);
        writeVarint(step);
    } else {
        writeByte(delta::kAbsolute);
        writeVarint(value);
    }
}

void BytesWriter::writeBytes(const void* data, size_t size) {
    uint8_t* const place = allocate(size);
    if (size != 0) std::memcpy(place, data, size);
}

void BytesWriter::writeBytesWithSize(const void* data, size_t size) {
    writeVarint(size);
    writeBytes(data, size);
}

void BytesWriter::writeZeros(size_t n) {
    uint8_t* const place = allocate(n);
    if (n != 0) std::memset(place, 0, n);
}

void BytesWriter::seek(size_t position) {
    if (position > this->position()) {
        throwIllegalState("Cannot seek beyond written: ", std::to_string(this->position()));
    }
    current_ = start_ + position;
}

void BytesWriter::finish() {
    if (target_.owned() && target_.size() < position()) {
        // An earlier finish() cut the size; the target learns of its whole block again.
        const size_t size = blockSize();
        const size_t written = position();
        target_.resize(size);
        setBlock(size, written);
    }
    target_.setSize(position());
}

void BytesWriter::reset() {
    growth_ = initialSize_;
    if (shrinkSize_ != 0 && initialSize_ != 0 && blockSize() > shrinkSize_) {
        target_.resize(shrinkSize_);
        setBlock(shrinkSize_, 0);
    } else {
        current_ = start_;
    }
}

}  // namespace quillmere
