#pragma once

#include <stdlib.h>

#include <cerrno>
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

private:
    std::string path_;
};

}  // namespace quillmere
