#include "core/files.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "core/error.h"
#include "support/temp_dir.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

File openFile(const std::string& path, const char* mode) {
    return File(std::fopen(path.c_str(), mode), std::fclose);
}

TEST(Files, PathTypeTellsSizeAndMode) {
    const TempDir dir;
    const std::string path = dir.path() + "/file";
    uint64_t size = 99;
    uint32_t mode = 99;
    EXPECT_EQ(pathType(path, &size, &mode), PathType::None);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(mode, 0u);
    EXPECT_FALSE(pathExists(path));

    { std::fputs("12345", openFile(path, "w").get()); }
    chmod(path.c_str(), 0640);
    EXPECT_EQ(pathType(path, &size, &mode), PathType::File);
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(mode, 0640u);
    EXPECT_EQ(pathType(dir.path(), &size), PathType::Directory);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(pathType(path + "/below"), PathType::None) << "a file is no directory";
}

TEST(Files, PrepareDirectoryCreatesWithTheModeAndAcceptsAnExistingOne) {
    const TempDir dir;
    const std::string path = dir.path() + "/new";
    prepareDirectory(path, 0750);
    uint32_t mode;
    EXPECT_EQ(pathType(path, nullptr, &mode), PathType::Directory);
    EXPECT_EQ(mode, 0750u);
    EXPECT_NO_THROW(prepareDirectory(path, 0700));
    EXPECT_EQ(messageOf<IoException>([&] { prepareDirectory(path + "/a/b", 0750); }),
              "Could not prepare directory: " + path + "/a/b (errno " + std::to_string(ENOENT) +
                  ": No such file or directory)");
}

TEST(Files, RemovalGivesTheErrorNumber) {
    const TempDir dir;
    const std::string path = dir.path() + "/file";
    EXPECT_EQ(removeFile(path), ENOENT);
    openFile(path, "w");
    EXPECT_EQ(removeDirectory(path), ENOTDIR);
    EXPECT_EQ(removeFile(path), 0);
    prepareDirectory(path, 0700);
    EXPECT_EQ(removeDirectory(path), 0);
    EXPECT_FALSE(pathExists(path));
}

TEST(Files, TruncateAndSyncSeeWhatTheStreamStillBuffers) {
    const TempDir dir;
    const std::string path = dir.path() + "/file";
    const File file = openFile(path, "w");
    uint64_t size;
    std::fputs("0123456789", file.get());
    EXPECT_TRUE(syncFile(file.get()));
    pathType(path, &size);
    EXPECT_EQ(size, 10u);
    std::fputs("abc", file.get());
    truncateFile(file.get(), 12);
    pathType(path, &size);
    EXPECT_EQ(size, 12u);

    const File readOnly = openFile(path, "r");
    EXPECT_EQ(messageOf<IoException>([&] { truncateFile(readOnly.get(), 1); }).substr(0, 28),
              "Cannot truncate file (errno ");
    EXPECT_EQ(messageOf<IoException>([] { truncateFile(nullptr, 1); }), "invalid file description");
    EXPECT_FALSE(syncFile(openFile("/dev/full", "w").get())) << "no file to sync";
}

}  // namespace
}  // namespace quillmere
