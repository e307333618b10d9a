#include "core/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "core/cast.h"
#include "core/error.h"

#ifndef F_OFD_SETLK  // without it the lock belongs to the process
#define F_OFD_SETLK F_SETLK
#endif

namespace quillmere {

PathType pathType(const std::string& path, uint64_t* outSize, uint32_t* outMode) {
    struct stat status {};
    const bool there = ::stat(path.c_str(), &status) == 0;
    const bool isDirectory = there && S_ISDIR(status.st_mode);
    if (outSize) *outSize = there && !isDirectory ? checkedCast<uint64_t>(status.st_size) : 0;
    if (outMode) *outMode = there ? status.st_mode & 07777 : 0;
    if (!there) return PathType::None;
    return isDirectory ? PathType::Directory : PathType::File;
}

bool pathExists(const std::string& path) {
    return pathType(path) != PathType::None;
}

void prepareDirectory(const std::string& path, uint32_t mode) {
    if (::mkdir(path.c_str(), static_cast<mode_t>(mode)) != 0 && errno != EEXIST) {
        throwIoWithErrno("Could not prepare directory: " + path);
    }
}

int removeFile(const std::string& path) {
    return ::unlink(path.c_str()) == 0 ? 0 : errno;
}

int removeDirectory(const std::string& path) {
    return ::rmdir(path.c_str()) == 0 ? 0 : errno;
}

namespace {

std::FILE* openStream(const std::string& path, int flags, uint32_t mode) {
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | flags,
                                  static_cast<mode_t>(mode));
    if (descriptor < 0) return nullptr;
    std::FILE* const stream = ::fdopen(descriptor, "r+b");
    if (!stream) ::close(descriptor);
    return stream;
}

}  // namespace

std::FILE* createFile(const std::string& path, uint32_t mode) {
    return openStream(path, O_TRUNC, mode);
}

std::FILE* openOrCreateFile(const std::string& path, uint32_t mode) {
    return openStream(path, 0, mode);
}

bool lockFile(std::FILE* stream) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (::fcntl(::fileno(stream), F_OFD_SETLK, &lock) == 0) return true;
    return errno != EAGAIN && errno != EACCES;
}

bool syncFile(std::FILE* stream) {
    return std::fflush(stream) == 0 && ::fsync(::fileno(stream)) == 0;
}

bool syncDirectory(const std::string& path) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0) return false;
    // Some file systems do not sync directories, and say so.
    const bool synced = ::fsync(descriptor) == 0 || errno == EINVAL;
    ::close(descriptor);
    return synced;
}

void truncateFile(std::FILE* stream, uint64_t size) {
    const int descriptor = stream ? ::fileno(stream) : -1;
    if (descriptor < 0) throwIo("invalid file description");
    if (std::fflush(stream) != 0 || ::ftruncate(descriptor, checkedCast<off_t>(size)) != 0) {
        throwIoWithErrno("Cannot truncate file");
    }
}

void throwIoWithErrno(const std::string& message) {
    const int code = errno;
    throwIo(message, " (errno ", std::to_string(code), ": ",
            std::generic_category().message(code), ")");
}

}  // namespace quillmere
