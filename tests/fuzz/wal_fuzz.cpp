// The replay of a WAL file: the input as the file, as its records, and as the log of valid records,
// which must come back.

#include "fuzz.h"
#include "kv/kv_log.h"
#include "kv/memory/wal_reader.h"
#include "kv/rle0.h"
#include "kv/wal_fixture.h"

using namespace quillmere;

namespace {

struct IgnoringHandler : KvLogHandler {
    void put(const Bytes&, const Bytes&) override {}
    void remove(const Bytes&) override {}
};

void replay(const std::string& file) {
    IgnoringHandler handler;
    WalReader reader(Bytes(file.data(), file.size()));
    reader.readHeader();
    while (reader.next()) KvLogReader(reader.log(), handler).readAll();
}

std::string rle0Of(const std::string& log) {
    std::string encoded(2 * log.size(), '\0');
    encoded.resize(rle0Encode(reinterpret_cast<const uint8_t*>(log.data()), log.size(),
                              reinterpret_cast<uint8_t*>(encoded.data()), encoded.size()));
    return encoded;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    mayRefuse([&] { replay(input); });
    WalBytes wal;
    mayRefuse([&] { replay(wal.bytes + input); });
    wal.record(1, input);
    const std::string encoded = rle0Of(input);
    const bool encodable = encoded.size() < input.size() && input.size() < 0x4000;
    if (encodable) wal.encodedRecord(2, input, encoded);
    WalReader reader(Bytes(wal.bytes.data(), wal.bytes.size()));
    reader.readHeader();
    for (int records = encodable ? 2 : 1; records > 0; --records) {
        require(reader.next() && reader.log().text() == input);
    }
    require(!reader.next());
    mayRefuse([&] { replay(wal.bytes); });
    return 0;
}
