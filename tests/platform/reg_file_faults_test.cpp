// A save of the registry stand-in's file when the disk will not take it: a
// full disk, a read-only disk, the file's place taken by a folder. Each save
// fails with a message that names the file and the system's reason, and the
// file that was there stays as it was, with no temporary file left beside it.
#include <stdlib.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/posix/reg_file.h"
#include "tests/support/scratch_disk.h"

namespace {

namespace fs = std::filesystem;

const std::string kKey = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\Kelvane";
const std::string kOldText =
    "Windows Registry Editor Version 5.00\n\n; kept by hand\n[" + kKey + "]\n\"Mode\"=dword:00000001\n";

class RegFileFaults : public ::testing::Test {
protected:
    void SetUp() override
    {
        char folder[] = "/tmp/kelvane-regfaults-XXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        root = folder;
        disk = root / "disk";
        file = (disk / "Morrowfen" / "Kelvane.reg").string();
    }

    void TearDown() override
    {
        scratch.Unmount();
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }

    // The small disk with the old file on it; skips the test where no disk
    // can be mounted.
    void MountWithOldFile(size_t bytes)
    {
        std::string why;
        if (!scratch.Mount(disk, bytes, why))
            GTEST_SKIP() << why;
        fs::create_directories(fs::path(file).parent_path());
        std::ofstream(file, std::ios::binary) << kOldText;
    }

    std::string Read() const
    {
        std::ifstream in(file, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    std::vector<std::string> FolderNames() const
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(fs::path(file).parent_path()))
            names.push_back(entry.path().filename().string());
        return names;
    }

    // A save of many values, more than a full disk has room for.
    bool SaveMany(std::string& error)
    {
        std::vector<RegValue> values;
        for (int i = 0; i < 200; ++i)
            values.push_back(RegValue{"Value_" + std::to_string(i), false, 0, std::string(100, 'v')});
        values.push_back(RegValue{"Mode", true, 5, std::string()});
        return WriteRegKey(file, kKey, values, error);
    }

    // A save of many values fails with this reason, and leaves the old
    // file whole and nothing beside it.
    void ExpectSaveRefused(const std::string& reason)
    {
        std::string error;
        EXPECT_FALSE(SaveMany(error));
        EXPECT_EQ(error, "cannot write " + file + ": " + reason);
        EXPECT_EQ(Read(), kOldText);
        EXPECT_EQ(FolderNames(), std::vector<std::string>{"Kelvane.reg"});
    }

    fs::path root;
    fs::path disk;
    std::string file;
    ScratchDisk scratch;
};

TEST_F(RegFileFaults, FullDisk_SaveFailsWithTheReasonAndTheOldFileStays)
{
    MountWithOldFile(64 * 1024);
    if (IsSkipped())
        return;
    scratch.Fill();
    ExpectSaveRefused("No space left on device");
}

TEST_F(RegFileFaults, ReadOnlyDisk_SaveFailsWithTheReasonAndTheOldFileStays)
{
    MountWithOldFile(64 * 1024);
    if (IsSkipped())
        return;
    std::string why;
    if (!scratch.MakeReadOnly(why))
        GTEST_SKIP() << why;
    ExpectSaveRefused("Read-only file system");
}

TEST_F(RegFileFaults, FolderInTheFilesPlace_SaveFailsWithTheReasonAndTheFolderStays)
{
    fs::create_directories(fs::path(file) / "inside");
    std::string error;
    EXPECT_FALSE(SaveMany(error));
    EXPECT_EQ(error, "cannot read " + file + ": Is a directory");
    EXPECT_TRUE(fs::is_directory(fs::path(file) / "inside"));
    EXPECT_EQ(FolderNames(), std::vector<std::string>{"Kelvane.reg"});
}

}  // namespace
