#pragma once

// Loads a snapshot file. The format: kv/memory/snapshot_format.h.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "core/bytes.h"
#include "core/bytes_reader.h"
#include "core/error.h"
#include "kv/memory/tx_sequence.h"

namespace quillmere {

class DbCursor;

QUILLMERE_EXCEPTION(SnapshotFileInvalidException, ParsingException);

// Used by one thread, for one file: openFile(), checkIntegrity(), readHeader(), readContent(), in
// this order. Other files of this form override what is virtual. The file is never changed.
class SnapshotReader {
public:
    explicit SnapshotReader(std::string path, const char* kind = "snapshot");
    virtual ~SnapshotReader();
    SnapshotReader(const SnapshotReader&) = delete;
    SnapshotReader& operator=(const SnapshotReader&) = delete;

    virtual size_t minFileSize() const;
    virtual void readMagic();
    [[noreturn]] virtual void throwInvalid(const std::string& message) const;

    // Reads the file into memory. Throws IoException, or throwInvalid() for one that is too small.
    void openFile();
    // From here on every failure is one of throwInvalid(), or one of the cursor.
    void checkIntegrity();
    void readHeader();
    // Puts all records through the cursor and frees the memory.
    void readContent(DbCursor& cursor);

    // Empty for a file without one. The following are known after readHeader().
    const TxSequence& sequence() const { return sequence_; }
    uint64_t time() const { return time_; }
    uint64_t random() const { return random_; }
    bool contentRead() const { return contentRead_; }

protected:
    // The bytes behind what was read. Throws IllegalStateException before checkIntegrity().
    BytesReader& reader();

private:
    void readHeaderFields();

    const std::string path_;
    const char* const kind_;
    Bytes content_;
    std::unique_ptr<BytesReader> reader_;
    uint32_t flags_ = 0;
    uint64_t time_ = 0;
    uint64_t random_ = 0;
    TxSequence sequence_;
    bool contentRead_ = false;
};

}  // namespace quillmere
