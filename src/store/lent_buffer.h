#pragma once

// A buffer that is reused, for one user at a time.

#include <atomic>
#include <exception>

#include "core/bytes.h"
#include "core/error.h"
#include "core/log.h"

namespace quillmere {

class LentBuffer {
public:
    // Throws IllegalStateException if it is lent already.
    Bytes& lend() {
        if (inUse_.exchange(true)) throwIllegalState("Buffer is already in use");
        return bytes_;
    }
    // Throws IllegalStateException if it is not lent.
    void giveBack() {
        bytes_.shrinkTo(kKeptSize);  // one large object must not pin its memory
        if (!inUse_.exchange(false)) {
            throwIllegalState("Buffer was not marked in use - internal error");
        }
    }

private:
    static constexpr size_t kKeptSize = 8192;

    Bytes bytes_;
    std::atomic<bool> inUse_{false};
};

// A copy of bytes in a lent buffer, for the time of its scope.
class LentCopy {
public:
    LentCopy(LentBuffer& buffer, const Bytes& from) : buffer_(buffer), bytes_(buffer.lend()) {
        try {
            bytes_.assign(from.data(), from.size(), CopyMode::KeepSize);
        } catch (...) {
            buffer_.giveBack();
            throw;
        }
        size_ = from.size();
    }
    ~LentCopy() {
        try {
            buffer_.giveBack();
        } catch (const std::exception& e) {
            logLine("%s [ERROR] %s\n", logTimestamp(), e.what());
        }
    }
    LentCopy(const LentCopy&) = delete;
    LentCopy& operator=(const LentCopy&) = delete;

    const uint8_t* data() const { return bytes_.data(); }
    size_t size() const { return size_; }

private:
    LentBuffer& buffer_;
    Bytes& bytes_;
    size_t size_ = 0;
};

}  // namespace quillmere
