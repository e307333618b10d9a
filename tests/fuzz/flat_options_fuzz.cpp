// Store options as a table.

#include "core/flat_options.h"
#include "fuzz.h"

using namespace quillmere;

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    mayRefuse([&] { convertFlatOptions(data, size); });
    return 0;
}
