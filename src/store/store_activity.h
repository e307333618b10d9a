#pragma once

#include <atomic>
#include <cstdint>

namespace quillmere {

// What a closing store waits for. Shared, so that the counters outlive the store.
struct StoreActivity {
    std::atomic<uint32_t> commitsInProgress{0};
    std::atomic<uint32_t> transactions{0};
    std::atomic<uint32_t> queries{0};
};

}  // namespace quillmere
