#pragma once

#include <cstdint>

namespace quillmere {

// Which transaction was the last one: its number and its hash in the chain of the log.
struct TxSequence {
    uint64_t number = 0;
    uint32_t hash = 0;
    bool valid = false;

    explicit operator bool() const { return valid; }
};

}  // namespace quillmere
