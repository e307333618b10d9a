#pragma once

#include <stdlib.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace quillmere {

// A new empty directory, removed with all it holds at the end of the scope.
class TempDir {
public:
    TempDir() : path_((std::filesystem::temp_directory_path() / "quillmere-XXXXXX").string()) {
        if (!mkdtemp(path_.data())) {
            throw std::system_error(errno, std::generic_category(), "mkdtemp " + path_);
        }
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    // A path inside, which need not exist.
    std::string path(const std::string& name) const { return path_ + "/" + name; }
    // The same as directories of a store, on the provider that the tests run on.
    std::string storePath() const { return storePrefix() + path_; }
    std::string storePath(const std::string& name) const { return storePrefix() + path(name); }

    // The directory prefix of that provider: QUILLMERE_TEST_PREFIX; empty is LMDB.
    static std::string storePrefix() {
        const char* prefix = std::getenv("QUILLMERE_TEST_PREFIX");
        return prefix ? prefix : "";
    }
    static bool onLmdb() { return storePrefix().empty(); }
    // Stores leave files; otherwise the data lives as long as the process.
    static bool onFiles() { return storePrefix() != "memory:"; }

private:
    std::string path_;
};

}  // namespace quillmere
