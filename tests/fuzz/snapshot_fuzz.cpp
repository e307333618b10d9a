// The loading of a snapshot: the input as what stands in front of the file's hash.

#include "fuzz.h"
#include "kv/memory/snapshot_format.h"
#include "kv/memory/snapshot_reader.h"
#include "kv/wal_fixture.h"

using namespace quillmere;

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static WalStore files;
    files.options.directory = "memory:fuzz";
    if (!files.store) files.store = InMemoryProvider(false).createStore(files.options);
    const std::string input(reinterpret_cast<const char*>(data), size);
    WalStore::writeFile(files.snapshotPath(), withFileHash(input));
    SnapshotReader reader(files.snapshotPath());
    const auto tx = files.begin();
    if (size < kSnapshotMinSize - kSnapshotHashSize) {
        mayRefuse([&] { reader.openFile(); });
        return 0;
    }
    reader.openFile();
    reader.checkIntegrity();
    mayRefuse([&] {
        reader.readHeader();
        reader.readContent(*tx->createDbCursor());
    });
    return 0;
}
