#pragma once

// Checks every record of a store against the key layout.

#include <cstdint>

namespace quillmere {

class DbCursor;

struct KvValidationResult {
    uint64_t pairs = 0;
    uint64_t keyBytes = 0;
    uint64_t valueBytes = 0;
    uint64_t unknownEntries = 0;  // of partitions that a later version may have added
};

// Walks the whole store. Throws DbFileCorruptException at the first failure.
KvValidationResult validateKv(DbCursor& cursor);

}  // namespace quillmere
