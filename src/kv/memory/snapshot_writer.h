#pragma once

// Saves a snapshot file. The format: kv/memory/snapshot_format.h.

#include <cstdint>
#include <cstdio>
#include <string>

#include "core/bytes.h"
#include "core/bytes_writer.h"
#include "kv/kv_log.h"
#include "kv/memory/tx_sequence.h"
#include "kv/memory/xxh3_state.h"

namespace quillmere {

class DbCursor;

// Used by one thread, for one save(). Other files of this form override what is virtual. Memory is
// that of a chunk of the file, however large the store.
class SnapshotWriter {
public:
    // SnapshotFlags; a sequence if and only if the flags have one.
    SnapshotWriter(std::string path, uint32_t flags, const TxSequence& sequence,
                   uint32_t fileMode = 0644, const char* kind = "snapshot");
    virtual ~SnapshotWriter();
    SnapshotWriter(const SnapshotWriter&) = delete;
    SnapshotWriter& operator=(const SnapshotWriter&) = delete;

    virtual void writeMagic();

    // Writes all records of the cursor to a file beside the final one, brings it to disk and
    // renames it over the final one; there is an intact file at any moment. Throws IoException;
    // the final file is then what it was before, and the one beside it is gone.
    void save(DbCursor& cursor);

protected:
    BytesWriter& writer() { return writer_; }

private:
    void openProgressFile();
    void write(DbCursor& cursor);
    void writeHeader();
    void writeRecords(DbCursor& cursor);
    void writeChunk();
    void writeToFile();
    void finishFile();
    void discardProgressFile();

    const std::string path_;
    const std::string progressPath_;
    const uint32_t flags_;
    const TxSequence txSequence_;
    const uint32_t fileMode_;
    const char* const kind_;
    Bytes buffer_;
    BytesWriter writer_{buffer_};
    KvLog log_{writer_, KvLog::Remember::Views};
    Xxh3State hashState_;
    std::FILE* file_ = nullptr;
};

}  // namespace quillmere
