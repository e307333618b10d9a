#include "kv/memory/snapshot_reader.h"

#include <xxhash.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "core/cast.h"
#include "core/checks.h"
#include "core/endian.h"
#include "core/files.h"
#include "kv/kv_log.h"
#include "kv/memory/snapshot_format.h"

namespace quillmere {

SnapshotReader::SnapshotReader(std::string path, const char* kind)
    : path_(std::move(path)), kind_(kind) {
    if (path_.empty()) throwIllegalArgument("No file path given");
}

SnapshotReader::~SnapshotReader() = default;

size_t SnapshotReader::minFileSize() const {
    return kSnapshotMinSize;
}

void SnapshotReader::readMagic() {
    if (std::memcmp(reader().readBytes(kSnapshotMagicSize), kSnapshotMagic,
                    kSnapshotMagicSize) != 0) {
        throwInvalid("Invalid file: this is not a Quillmere snapshot file");
    }
}

void SnapshotReader::throwInvalid(const std::string& message) const {
    throw SnapshotFileInvalidException(message);
}

void SnapshotReader::openFile() {
    CHECK_STATE_TEXT_AT(30, content_.empty(), "openFile", "file_ == nullptr");
    uint64_t size = 0;
    const PathType type = pathType(path_, &size);
    if (type == PathType::None) throwIo("File not found");
    if (type != PathType::File) throwIo("Given path is not a file");
    if (size < minFileSize()) throwInvalid("Invalid file size: " + std::to_string(size));

    struct CloseFile {
        void operator()(std::FILE* stream) const { std::fclose(stream); }
    };
    const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path_.c_str(), "rbe"));
    if (!file) throwIo("Unable to open ", kind_, " file");
    content_.resize(checkedCast<size_t>(size));
    const size_t count = std::fread(content_.mutableData(), 1, content_.size(), file.get());
    if (count != size) {
        throwIo("Couldn't read ", kind_, " file \"", path_, "\"; size: ", std::to_string(size),
                " vs. ", std::to_string(count));
    }
}

void SnapshotReader::checkIntegrity() {
    if (content_.size() < kSnapshotHashSize) {
        throwInvalid("Not a valid file; size: " + std::to_string(content_.size()));
    }
    const size_t hashedSize = content_.size() - kSnapshotHashSize;
    const uint8_t* const stored = content_.data() + hashedSize;
    const XXH128_hash_t hash = XXH3_128bits(content_.data(), hashedSize);
    if (hash.low64 != loadLittle<uint64_t>(stored) ||
        hash.high64 != loadLittle<uint64_t>(stored + 8)) {
        throwInvalid("File integrity violated; hashes do not match");
    }
    reader_ = std::make_unique<BytesReader>(content_);
}

BytesReader& SnapshotReader::reader() {
    if (!reader_) throwIllegalState("Reader not initialized");
    return *reader_;
}

void SnapshotReader::readHeader() {
    reader();
    try {
        readHeaderFields();
    } catch (const BytesReader::ReaderException& e) {
        throwInvalid(e.message());
    }
}

void SnapshotReader::readHeaderFields() {
    readMagic();
    const uint64_t version = reader_->readVarint();
    if (version != kSnapshotVersion) {
        throwInvalid("Invalid file version: " + std::to_string(version));
    }
    const uint64_t flags = reader_->readVarint();
    if ((flags & ~uint64_t{kSnapshotKnownFlags}) != 0) {
        throwInvalid("Invalid flags detected: " + std::to_string(flags));
    }
    flags_ = static_cast<uint32_t>(flags);
    if (!(flags_ & kSnapshotNoTime)) time_ = reader_->readU64();
    if (!(flags_ & kSnapshotNoRandom)) random_ = reader_->readU64();
    if (flags_ & kSnapshotSequence) {
        sequence_.number = reader_->readVarint();
        sequence_.hash = reader_->readU32();
        sequence_.valid = true;
    }
}

void SnapshotReader::readContent(DbCursor& cursor) {
    BytesReader& data = reader();
    const size_t size = data.remaining();
    KvLogCursorHandler handler(cursor);
    KvLogReader log(Bytes(data.readBytes(size), size), handler);
    try {
        log.readAll();
    } catch (const BytesReader::ReaderException& e) {
        throwInvalid(e.message());
    } catch (const KvLogReader::InvalidFormatException& e) {
        throwInvalid(e.message());
    }
    if (log.remaining() != kSnapshotHashSize) {
        throwInvalid("Invalid file format; bytes left: " + std::to_string(log.remaining()));
    }
    reader_.reset();
    content_.clear();
    contentRead_ = true;
}

}  // namespace quillmere
