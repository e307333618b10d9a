// The KV log reader, and that whatever it reads comes back when it is written again.

#include "core/bytes_writer.h"
#include "fuzz.h"
#include "kv/kv_log.h"

using namespace quillmere;

namespace {

struct RewritingHandler : KvLogHandler {
    void put(const Bytes& key, const Bytes& value) override { log.writePut(key, value); }
    void remove(const Bytes& key) override { log.writeRemove(key); }

    Bytes target;
    BytesWriter writer{target};
    KvLog log{writer};
};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    RewritingHandler first;
    mayRefuse([&] { KvLogReader(Bytes(data, size), first).readAll(); });
    if (first.writer.position() == 0) return 0;
    RewritingHandler second;
    KvLogReader(Bytes(first.target.data(), first.writer.position()), second).readAll();
    first.writer.finish();
    second.writer.finish();
    require(first.target.equals(second.target));
    return 0;
}
