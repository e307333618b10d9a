#include "kv/lmdb/lmdb_provider.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "core/error.h"
#include "kv_fixture.h"
#include "support/log_capture.h"

namespace quillmere {
namespace {

namespace fs = std::filesystem;

uint32_t modeOf(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

class LmdbProviderTest : public testing::Test, protected StoreInDir {
protected:
    LmdbProviderTest() { options.directory = dir.path("store"); }
    ~LmdbProviderTest() override { umask(savedUmask); }

    LmdbProvider provider;
    const mode_t savedUmask = umask(0);
};

TEST_F(LmdbProviderTest, PreparesADirectoryThatReadersCanEnter) {
    options.fileMode = 0640;
    provider.prepareDirectory(options);
    provider.prepareDirectory(options);
    EXPECT_EQ(modeOf(options.directory), 0750u);
    EXPECT_FALSE(provider.dbFileExists(options));
    EXPECT_EQ(provider.dbFileSize(options), 0u);
    EXPECT_EQ(provider.dbFileMode(options), 0u);
    open();
    EXPECT_TRUE(provider.dbFileExists(options));
    EXPECT_EQ(provider.dbFileSize(options), store->sizeOnDisk());
    EXPECT_EQ(provider.dbFileMode(options), 0640u);

    options.directory = dir.path("missing/store");
    EXPECT_THROW(provider.prepareDirectory(options), IoException);
}

TEST_F(LmdbProviderTest, OnePathHasOneCanonicalName) {
    fs::create_directory(dir.path("store"));
    fs::create_directory_symlink(dir.path("store"), dir.path("link"));
    const std::string expected = provider.canonicalPath(dir.path("store"));
    for (const char* name : {"store/", "./store", "store/../store//", "link", "link/."}) {
        EXPECT_EQ(provider.canonicalPath(dir.path(name)), expected) << name;
    }
    const std::string missing = provider.canonicalPath(dir.path("none"));
    for (const char* name : {"none/", "store/../none", "none/x/.."}) {
        EXPECT_EQ(provider.canonicalPath(dir.path(name)), missing) << name;
    }
    EXPECT_NE(missing, expected);
    EXPECT_EQ(provider.canonicalPath("none"), (fs::current_path() / "none").string());
}

TEST_F(LmdbProviderTest, RemovesTheFilesAndThenTheDirectory) {
    provider.prepareDirectory(options);
    open();
    store.reset();
    EXPECT_TRUE(provider.removeDbFiles(options, false));
    EXPECT_TRUE(fs::is_empty(options.directory));
    EXPECT_TRUE(provider.removeDbFiles(options, true));
    EXPECT_FALSE(fs::exists(options.directory));
    EXPECT_TRUE(provider.removeDbFiles(options, true));
}

TEST_F(LmdbProviderTest, LogsFilesThatCannotBeRemoved) {
    fs::create_directories(options.directory + "/data.mdb");
    fs::create_directories(options.directory + "/lock.mdb");
    const LogCapture log;
    EXPECT_FALSE(provider.removeDbFiles(options, true));
    EXPECT_TRUE(log.contains(" [WARN ] File (data) remove err: 21, 21, Is a directory\n"));
    EXPECT_TRUE(log.contains(" [WARN ] File (lock) remove err: 21, 21, Is a directory\n"));
    EXPECT_TRUE(log.contains(" [WARN ] Dir remove err: 39, 39, Directory not empty\n"));
}

}  // namespace
}  // namespace quillmere
