#pragma once

// What the providers with files have in common.

#include <string>

namespace quillmere {

struct StoreOptions;

// Creates the directory with the options' file mode, plus x wherever there is r. Nothing is created
// for options that a store must not open with: throws IllegalArgumentException. Throws IoException.
void prepareStoreDirectory(const std::string& directory, const StoreOptions& options);

// One name for all ways to write a path. Throws IoException if the file system refuses to tell.
std::string canonicalFilePath(const std::string& path);

// Takes the result of a removal: 0 or the system's error number. False, with a log line, if the
// thing is still there; what was missing anyway is no failure.
bool isRemoved(const char* what, int result);

}  // namespace quillmere
