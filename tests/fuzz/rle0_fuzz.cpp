// RLE0, in both directions.

#include <vector>

#include "fuzz.h"
#include "kv/rle0.h"

using namespace quillmere;

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (const size_t capacity : {size / 2, 2 * size + 300, size_t{70000}}) {
        std::vector<uint8_t> decoded(capacity + 1);
        mayRefuse([&] {
            require(rle0Decode(data, size, decoded.data(), capacity) <= capacity + 1);
        });
    }
    std::vector<uint8_t> encoded(2 * size + 2);
    const size_t encodedSize = rle0Encode(data, size, encoded.data(), encoded.size());
    std::vector<uint8_t> decoded(size + 1);
    require(rle0Decode(encoded.data(), encodedSize, decoded.data(), size) == size);
    decoded.pop_back();
    require(decoded == std::vector<uint8_t>(data, data + size));
    return 0;
}
