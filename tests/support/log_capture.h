#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <system_error>

namespace quillmere {

// Redirects the standard output of the process, and with it all log lines, into memory for the
// time of its scope. One at a time.
class LogCapture {
public:
    LogCapture() {
        std::fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        file_ = std::tmpfile();
        if (saved_ < 0 || !file_ || dup2(fileno(file_), STDOUT_FILENO) < 0) {
            throw std::system_error(errno, std::generic_category(), "capture of standard output");
        }
    }
    ~LogCapture() {
        std::fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        std::fclose(file_);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // What was written since the start of the scope.
    std::string text() const {
        std::fflush(stdout);
        std::string text;
        char block[4096];
        off_t offset = 0;
        for (ssize_t n; (n = pread(fileno(file_), block, sizeof block, offset)) > 0; offset += n) {
            text.append(block, static_cast<size_t>(n));
        }
        return text;
    }
    bool contains(const std::string& part) const { return text().find(part) != std::string::npos; }

private:
    int saved_ = -1;
    std::FILE* file_ = nullptr;
};

}  // namespace quillmere
