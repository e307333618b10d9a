#pragma once

// The KV log: the serial form of a sequence of puts and removals, which uses how alike neighbouring
// keys and values are. Files embed it: one log per record of a WAL, one log as a whole snapshot.
//
// A stream of operations without a header, each one byte of code and its operands. Integers are
// varints.
//
//     code  operation  key          value
//       1   put        full         full
//       2   put        prefixed     full
//       3   put        full         prefixed
//       4   put        prefixed     prefixed
//       5   put        incremented  prefixed
//       6   put        incremented  full
//      10   remove     full
//      11   remove     prefixed
//      12   remove     incremented
//     100   end of log
//
//     full         size, bytes
//     prefixed     prefix size, suffix size, bytes of the suffix: the first bytes of the previous
//                  key or value, then the suffix
//     incremented  nothing: the previous key plus one, as one big-endian number
//
// The previous key is that of the operation before, the previous value that of the last put; both
// are empty at the start. These numbers are in files: do not change them.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/bytes.h"
#include "core/bytes_reader.h"
#include "core/error.h"

namespace quillmere {

class BytesWriter;
class DbCursor;

// The key or value of the operation before: a view, or assembled in a block that grows and is kept.
struct KvLogPrevious {
    Bytes view;
    std::vector<uint8_t> block;

    void forget() { view.clear(); }
    void copy(const Bytes& data);
    // Keeps the first bytes and appends others.
    void replaceTail(size_t keep, const uint8_t* tail, size_t size);
    // Adds one to the big-endian number; false, and undefined, if it overflows.
    bool increment();

private:
    void takeIntoBlock(size_t size);
    void viewBlock() { view.setView(block.data(), block.size()); }
};

// Writes a log into a writer that it shares with the file around it. Not thread-safe; allocates
// nothing once the copies have grown. Throws only what the writer throws.
class KvLog {
public:
    // How the previous key and value are remembered: views are for data that stays where it is.
    enum class Remember { Copies, Views };

    explicit KvLog(BytesWriter& writer, Remember remember = Remember::Copies)
        : writer_(writer), copies_(remember == Remember::Copies) {}

    // After writeEnd() an IllegalStateException, until reset().
    void writePut(const Bytes& key, const Bytes& value);
    void writeRemove(const Bytes& key);
    void writeEnd();
    // For the next log; the writer is left alone.
    void reset();

    uint64_t putCount() const { return putCount_; }

private:
    void writeFull(const Bytes& data);
    void writePrefixed(const Bytes& data, size_t prefixSize);
    void remember(KvLogPrevious& previous, const Bytes& data) const;

    BytesWriter& writer_;
    const bool copies_;
    KvLogPrevious previousKey_;
    KvLogPrevious previousValue_;
    uint64_t putCount_ = 0;
    bool hasWrittenEnd_ = false;
};

// Gets the operations of a log, in order. The bytes are valid during the call.
class KvLogHandler {
public:
    virtual ~KvLogHandler() = default;
    virtual void put(const Bytes& key, const Bytes& value) = 0;
    virtual void remove(const Bytes& key) = 0;
};

// Applies a log to a cursor. A removal that removes nothing is a DbException.
class KvLogCursorHandler : public KvLogHandler {
public:
    explicit KvLogCursorHandler(DbCursor& cursor) : cursor_(cursor) {}
    void put(const Bytes& key, const Bytes& value) override;
    void remove(const Bytes& key) override;

private:
    DbCursor& cursor_;
};

// Reads a log. A view of its input, which must stay until the next reset(). Memory is bounded by
// the input: no size in it is believed before its bytes are there. Not thread-safe.
class KvLogReader {
public:
    QUILLMERE_EXCEPTION(InvalidFormatException, Exception);

    KvLogReader(const Bytes& input, KvLogHandler& handler) : reader_(input), handler_(handler) {}

    // Until the end of the input or of the log. Throws InvalidFormatException,
    // BytesReader::BufferOverflowException for input that ends within an operation, and what the
    // handler throws.
    void readAll();
    void reset(const Bytes& input);

    // Bytes behind the log.
    size_t remaining() const { return reader_.remaining(); }
    uint64_t putCount() const { return putCount_; }
    uint64_t removeCount() const { return removeCount_; }

private:
    void readOperation(uint8_t code);
    void readFull(KvLogPrevious& previous);
    void readPrefixed(KvLogPrevious& previous);
    void readIncremented();

    BytesReader reader_;
    KvLogHandler& handler_;
    KvLogPrevious key_;
    KvLogPrevious value_;
    uint64_t putCount_ = 0;
    uint64_t removeCount_ = 0;
};

}  // namespace quillmere
