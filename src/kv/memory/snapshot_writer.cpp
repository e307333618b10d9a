#include "kv/memory/snapshot_writer.h"

#include <cerrno>
#include <chrono>
#include <random>
#include <system_error>
#include <utility>

#include "core/checks.h"
#include "core/error.h"
#include "core/files.h"
#include "core/log.h"
#include "kv/db_cursor.h"
#include "kv/memory/snapshot_format.h"

namespace quillmere {

namespace {

constexpr size_t kChunkSize = 0x10000;

uint64_t millisecondsSince1970() {
    using std::chrono::duration_cast, std::chrono::milliseconds, std::chrono::system_clock;
    const auto time = system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(duration_cast<milliseconds>(time).count());
}

uint64_t randomNumber() {
    std::random_device device;
    const uint64_t high = device();
    return high << 32 | device();
}

}  // namespace

SnapshotWriter::SnapshotWriter(std::string path, uint32_t flags, const TxSequence& sequence,
                               uint32_t fileMode, const char* kind)
    : path_(std::move(path)),
      progressPath_(path_ + kSnapshotProgressSuffix),
      flags_(flags),
      txSequence_(sequence),
      fileMode_(fileMode),
      kind_(kind),
      hashState_(makeXxh3State()) {}

SnapshotWriter::~SnapshotWriter() {
    if (file_) std::fclose(file_);
}

void SnapshotWriter::writeMagic() {
    writer_.writeBytes(kSnapshotMagic, kSnapshotMagicSize);
}

void SnapshotWriter::save(DbCursor& cursor) {
    openProgressFile();
    try {
        write(cursor);
        finishFile();
    } catch (...) {
        discardProgressFile();
        throw;
    }
}

void SnapshotWriter::openProgressFile() {
    CHECK_STATE_AT(32, file_ == nullptr);
    file_ = createFile(progressPath_, fileMode_);
    if (!file_) throwIo("Unable to open new ", kind_, " file \"", path_, "\"");
    std::setvbuf(file_, nullptr, _IONBF, 0);  // chunks are large enough
}

void SnapshotWriter::write(DbCursor& cursor) {
    const XXH_errorcode xxhErr = XXH3_128bits_reset(hashState_.get());
    CHECK_STATE_TEXT_AT(114, xxhErr == XXH_OK, "save", "xxhErr == 0");
    writeHeader();
    writeRecords(cursor);
    log_.writeEnd();
    writeChunk();
    const XXH128_hash_t hash = XXH3_128bits_digest(hashState_.get());
    writer_.writeU64(hash.low64);
    writer_.writeU64(hash.high64);
    writeToFile();
}

void SnapshotWriter::writeHeader() {
    writeMagic();
    writer_.writeVarint(kSnapshotVersion);
    writer_.writeVarint(flags_);
    if (!(flags_ & kSnapshotNoTime)) writer_.writeU64(millisecondsSince1970());
    if (!(flags_ & kSnapshotNoRandom)) writer_.writeU64(randomNumber());
    if (flags_ & kSnapshotSequence) {
        CHECK_STATE_AT(73, txSequence_);
        writer_.writeVarint(txSequence_.number);
        writer_.writeU32(txSequence_.hash);
    } else {
        CHECK_STATE_AT(77, !txSequence_);
    }
}

void SnapshotWriter::writeRecords(DbCursor& cursor) {
    Bytes key;
    Bytes value;
    for (bool found = cursor.first(key, value); found; found = cursor.next(key, value)) {
        log_.writePut(key, value);
        if (writer_.position() >= kChunkSize) writeChunk();
    }
}

void SnapshotWriter::writeChunk() {
    const XXH_errorcode xxhErr =
        XXH3_128bits_update(hashState_.get(), buffer_.data(), writer_.position());
    CHECK_STATE_TEXT_AT(43, xxhErr == XXH_OK, "writeChunk", "xxhErr == 0");
    writeToFile();
}

void SnapshotWriter::writeToFile() {
    const size_t size = writer_.position();
    const size_t written = std::fwrite(buffer_.data(), 1, size, file_);
    if (written != size) {
        throwIoWithErrno(std::string("Could not write to the new ") + kind_ + " file");
    }
    writer_.reset();
}

void SnapshotWriter::finishFile() {
    if (!syncFile(file_)) throwIo("Could not sync new ", kind_, " file to disk");
    if (std::fclose(std::exchange(file_, nullptr)) != 0) {
        throwIo("Could not close the new ", kind_, " file");
    }
    if (std::rename(progressPath_.c_str(), path_.c_str()) != 0) {
        throwIo("Could not rename the new ", kind_, " file to the final name");
    }
}

void SnapshotWriter::discardProgressFile() {
    if (file_) std::fclose(std::exchange(file_, nullptr));
    const int result = removeFile(progressPath_);
    if (result == 0 || result == ENOENT) return;
    logLine("%s [WARN ] [SnapWr] Could not delete the failed new %s file: %s\n", logTimestamp(),
            kind_, std::generic_category().message(result).c_str());
}

}  // namespace quillmere
