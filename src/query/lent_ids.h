#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace quillmere {

// A list of IDs for one run, in memory that stays from run to run. A run inside of another one, as
// from a visitor, gets memory of its own.
class LentIds {
public:
    explicit LentIds(std::vector<uint64_t>& home) : home_(home), ids_(std::exchange(home, {})) {
        ids_.clear();
    }
    ~LentIds() {
        if (ids_.capacity() <= kMaxKept) home_ = std::move(ids_);
    }
    LentIds(const LentIds&) = delete;
    LentIds& operator=(const LentIds&) = delete;

    std::vector<uint64_t>& operator*() { return ids_; }

private:
    static constexpr size_t kMaxKept = 64 * 1024;

    std::vector<uint64_t>& home_;
    std::vector<uint64_t> ids_;
};

}  // namespace quillmere
