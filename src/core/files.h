#pragma once

// Files and directories of the operating system. Paths are UTF-8. Any thread.

#include <cstdint>
#include <cstdio>
#include <string>

namespace quillmere {

enum class PathType { None = 0, File = 1, Directory = 2 };

// What is at a path; anything that is no directory counts as a file. The size is that of a file
// and 0 if it cannot be read. Asks for the status only and never opens the file: a close would
// drop the locks that this process holds on it.
PathType pathType(const std::string& path, uint64_t* outSize = nullptr,
                  uint32_t* outMode = nullptr);
bool pathExists(const std::string& path);

// Creates the directory, not its parents; one that exists already is fine. Throws IoException.
void prepareDirectory(const std::string& path, uint32_t mode);

// 0 or the system's error number.
int removeFile(const std::string& path);
int removeDirectory(const std::string& path);

// A file for reading and writing, made with this mode if it is not there; null, with errno, on
// failure. The first gives an empty file in place of whatever was there, the other one keeps it.
std::FILE* createFile(const std::string& path, uint32_t mode);
std::FILE* openOrCreateFile(const std::string& path, uint32_t mode);

// Locks the file for this stream, until it is closed; false if another one has locked it. Where the
// file system has no locks, there is none.
bool lockFile(std::FILE* stream);

// Flushes the stream and brings the file to disk; false on failure.
bool syncFile(std::FILE* stream);
// Brings the names in the directory to disk; false, with errno, on failure.
bool syncDirectory(const std::string& path);
// Flushes the stream and cuts or extends the file. Throws IoException.
void truncateFile(std::FILE* stream, uint64_t size);

// Throws IoException with the message and the present errno: "message (errno 2: No such file ...)".
[[noreturn, gnu::cold]] void throwIoWithErrno(const std::string& message);

}  // namespace quillmere
