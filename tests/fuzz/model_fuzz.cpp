// Model bytes.

#include "fuzz.h"
#include "schema/model_reader.h"

using namespace quillmere;

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    mayRefuse([&] { readModel(Bytes(data, size)); });
    return 0;
}
