// The replay of a WAL file: the input as the file, as its records, and as a log in a valid record.

#include "fuzz.h"
#include "kv/kv_log.h"
#include "kv/memory/wal_reader.h"
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

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    mayRefuse([&] { replay(input); });
    WalBytes wal;
    mayRefuse([&] { replay(wal.bytes + input); });
    wal.record(1, input);
    mayRefuse([&] { replay(wal.bytes); });
    return 0;
}
