// The registry functions of the POSIX platform, called as the settings store
// calls them: which file and section a key lives in, when the values set
// through a handle reach the file, and that a process killed while it saves
// leaves the old values or the new ones, never a mix.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace {

namespace fs = std::filesystem;

constexpr char16_t kOurKey[] = u"SOFTWARE\\Morrowfen\\Kelvane";
constexpr char kOurSection[] = "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\Kelvane]";
constexpr char kHeader[] = "Windows Registry Editor Version 5.00";

class Registry : public ::testing::Test {
protected:
    void SetUp() override { UseFolderIn("/tmp"); }

    // A new configuration folder below `parent`.
    void UseFolderIn(const fs::path& parent)
    {
        TearDown();
        std::string folder = (parent / "kelvane-registry-XXXXXX").string();
        ASSERT_NE(mkdtemp(folder.data()), nullptr);
        root = folder;
        setenv("XDG_CONFIG_HOME", root.c_str(), 1);
    }

    void TearDown() override
    {
        std::error_code ignored;
        if (!root.empty())
            fs::remove_all(root, ignored);
    }

    fs::path OurFile() const { return root / "Morrowfen" / "Kelvane.reg"; }

    static std::string ReadText(const fs::path& path)
    {
        std::ifstream in(path, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    static void WriteText(const fs::path& path, const std::string& text)
    {
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << text;
    }

    static std::vector<std::string> NamesIn(const fs::path& folder)
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(folder))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    static HKEY Create(const char16_t* subKey)
    {
        HKEY key = nullptr;
        DWORD disposition = 0;
        WCHAR noClass[] = u"";
        EXPECT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, subKey, 0, noClass, REG_OPTION_NON_VOLATILE, KEY_WRITE,
                                  nullptr, &key, &disposition),
                  ERROR_SUCCESS);
        return key;
    }

    static LSTATUS SetDword(HKEY key, const char16_t* name, uint32_t word)
    {
        return RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&word), sizeof word);
    }

    static LSTATUS SetText(HKEY key, const std::u16string& name, const std::u16string& text)
    {
        return RegSetValueExW(key, name.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                              DWORD(2 * text.size() + 2));
    }

    // The dword of `name` in the key, or nothing when the key or the value
    // cannot be read.
    static bool QueryDword(HKEY key, const char16_t* name, uint32_t& word)
    {
        DWORD bytes = sizeof word;
        return RegQueryValueExW(key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(&word), &bytes) ==
               ERROR_SUCCESS;
    }

    fs::path root;
};

// ---- Where keys live ----

TEST_F(Registry, AnyMakerAndProduct_LiveInTheirOwnFile)
{
    HKEY key = Create(u"SOFTWARE\\Acme Works\\Widget");
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(SetDword(key, u"Size", 7), ERROR_SUCCESS);
    EXPECT_EQ(RegCloseKey(key), ERROR_SUCCESS);
    EXPECT_EQ(ReadText(root / "Acme Works" / "Widget.reg"),
              std::string(kHeader) + "\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Acme Works\\Widget]\n\"Size\"=dword:00000007\n");

    // Read back through a key opened for reading; "software" in any case.
    HKEY read = nullptr;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, u"software\\Acme Works\\Widget", 0, KEY_QUERY_VALUE, &read),
              ERROR_SUCCESS);
    uint32_t word = 0;
    EXPECT_TRUE(QueryDword(read, u"size", word));
    EXPECT_EQ(word, 7u);
    RegCloseKey(read);
    EXPECT_FALSE(fs::exists(OurFile()));
}

TEST_F(Registry, OurKey_LivesInMorrowfenKelvaneReg)
{
    HKEY key = Create(kOurKey);
    SetDword(key, u"Mode", 3);
    RegCloseKey(key);
    EXPECT_EQ(ReadText(OurFile()), std::string(kHeader) + "\n\n" + kOurSection + "\n\"Mode\"=dword:00000003\n");
}

TEST_F(Registry, KeysOfAnyOtherForm_AreAbsentAndNeverCreated)
{
    for (const char16_t* subKey : {u"SOFTWARE\\Morrowfen", u"SOFTWARE\\Morrowfen\\Kelvane\\Sub", u"SYSTEM\\Morrowfen\\Kelvane",
                                   u"SOFTWARE\\..\\Kelvane", u"SOFTWARE\\Morrowfen\\.", u"SOFTWARE\\a/b\\c",
                                   u"SOFTWARE\\\\Kelvane", u"SOFTWARE\\Morrowfen\\", u""}) {
        HKEY key = reinterpret_cast<HKEY>(uintptr_t(1));
        WCHAR noClass[] = u"";
        EXPECT_NE(RegCreateKeyExW(HKEY_LOCAL_MACHINE, subKey, 0, noClass, 0, KEY_WRITE, nullptr, &key, nullptr),
                  ERROR_SUCCESS);
        EXPECT_EQ(key, nullptr);
        EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, subKey, 0, KEY_QUERY_VALUE, &key), ERROR_FILE_NOT_FOUND);
        EXPECT_EQ(key, nullptr);
    }
    EXPECT_TRUE(NamesIn(root).empty());
}

TEST_F(Registry, MissingKey_OpenFails_CreateMakesItAtClose)
{
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, kOurKey, 0, KEY_QUERY_VALUE, &key), ERROR_FILE_NOT_FOUND);
    WCHAR noClass[] = u"";
    DWORD disposition = 0;
    ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, kOurKey, 0, noClass, 0, KEY_WRITE, nullptr, &key, &disposition),
              ERROR_SUCCESS);
    EXPECT_EQ(disposition, 1u);  // REG_CREATED_NEW_KEY
    EXPECT_EQ(RegCloseKey(key), ERROR_SUCCESS);
    // The key exists now, with no value.
    EXPECT_EQ(ReadText(OurFile()), std::string(kHeader) + "\n\n" + kOurSection + "\n");
    ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, kOurKey, 0, noClass, 0, KEY_WRITE, nullptr, &key, &disposition),
              ERROR_SUCCESS);
    EXPECT_EQ(disposition, 2u);  // REG_OPENED_EXISTING_KEY
    RegCloseKey(key);
}

// ---- When values reach the file ----

TEST_F(Registry, ValuesSet_ReachTheFileAtCloseInOneRewrite)
{
    WriteText(OurFile(), std::string(kHeader) + "\n\n" + kOurSection + "\n\"Mode\"=dword:00000001\n");
    const std::string before = ReadText(OurFile());
    struct stat old {};
    ASSERT_EQ(stat(OurFile().c_str(), &old), 0);

    HKEY key = Create(kOurKey);
    EXPECT_EQ(SetDword(key, u"Mode", 4), ERROR_SUCCESS);
    EXPECT_EQ(SetText(key, u"Out_Plug", u"out_x.so"), ERROR_SUCCESS);
    EXPECT_EQ(SetDword(key, u"SR", 0), ERROR_SUCCESS);
    // The handle sees its own values at once; the file is untouched.
    uint32_t word = 0;
    EXPECT_TRUE(QueryDword(key, u"Mode", word));
    EXPECT_EQ(word, 4u);
    struct stat during {};
    ASSERT_EQ(stat(OurFile().c_str(), &during), 0);
    EXPECT_EQ(during.st_ino, old.st_ino);
    EXPECT_EQ(ReadText(OurFile()), before);

    EXPECT_EQ(RegCloseKey(key), ERROR_SUCCESS);
    EXPECT_EQ(ReadText(OurFile()), std::string(kHeader) + "\n\n" + kOurSection +
                                       "\n\"Mode\"=dword:00000004\n\"Out_Plug\"=\"out_x.so\"\n\"SR\"=dword:00000000\n");
    EXPECT_EQ(NamesIn(OurFile().parent_path()), std::vector<std::string>{"Kelvane.reg"});
}

TEST_F(Registry, KeyClosedWithoutChanges_FileNotRewritten)
{
    WriteText(OurFile(), std::string(kHeader) + "\n\n" + kOurSection + "\n\"Mode\"=dword:1\n");
    struct stat old {};
    ASSERT_EQ(stat(OurFile().c_str(), &old), 0);
    RegCloseKey(Create(kOurKey));
    HKEY key = nullptr;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, kOurKey, 0, KEY_QUERY_VALUE, &key), ERROR_SUCCESS);
    RegCloseKey(key);
    struct stat now {};
    ASSERT_EQ(stat(OurFile().c_str(), &now), 0);
    EXPECT_EQ(now.st_ino, old.st_ino);
    EXPECT_EQ(ReadText(OurFile()), std::string(kHeader) + "\n\n" + kOurSection + "\n\"Mode\"=dword:1\n");
}

TEST_F(Registry, KeyOpenedForReading_RefusesValues)
{
    RegCloseKey(Create(kOurKey));
    HKEY key = nullptr;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, kOurKey, 0, KEY_QUERY_VALUE, &key), ERROR_SUCCESS);
    EXPECT_EQ(SetDword(key, u"Mode", 2), ERROR_ACCESS_DENIED);
    RegCloseKey(key);
    EXPECT_EQ(ReadText(OurFile()), std::string(kHeader) + "\n\n" + kOurSection + "\n");
}

TEST_F(Registry, NameOrTextThatUtf8CannotHold_Refused)
{
    HKEY key = Create(kOurKey);
    const std::u16string loneSurrogate(1, char16_t(0xD800));
    EXPECT_EQ(SetDword(key, (u"Mode" + loneSurrogate).c_str(), 2), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(SetText(key, u"Out_Plug", u"/a" + loneSurrogate + u".so"), ERROR_INVALID_PARAMETER);
    // A pair is one character, U+1F600, and is kept.
    EXPECT_EQ(SetText(key, u"Name", u"\xD83D\xDE00"), ERROR_SUCCESS);
    RegCloseKey(key);
    EXPECT_EQ(ReadText(OurFile()),
              std::string(kHeader) + "\n\n" + kOurSection + "\n\"Name\"=\"\xF0\x9F\x98\x80\"\n");
}

// ---- A process killed while it saves ----

// Seventeen values, as the settings store saves them; the two sets differ in
// every value, so any mix of them shows.
constexpr int kSetValues = 17;

void SaveSet(int set)
{
    HKEY key = nullptr;
    WCHAR noClass[] = u"";
    RegCreateKeyExW(HKEY_LOCAL_MACHINE, kOurKey, 0, noClass, 0, KEY_WRITE, nullptr, &key, nullptr);
    const std::u16string path = set == 0 ? u"out_first.so" : u"out_second_one.so";
    RegSetValueExW(key, u"Out_Plug", 0, REG_SZ, reinterpret_cast<const BYTE*>(path.c_str()),
                   DWORD(2 * path.size() + 2));
    for (int i = 1; i < kSetValues; ++i) {
        const std::u16string name = u"Value_" + std::u16string(1, char16_t(u'A' + i));
        const uint32_t word = uint32_t(set * 1000 + i);
        RegSetValueExW(key, name.c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&word), sizeof word);
    }
    RegCloseKey(key);
}

// 0 or 1 for the set that a fresh handle reads, -1 for anything else.
int LoadedSet()
{
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kOurKey, 0, KEY_QUERY_VALUE, &key) != ERROR_SUCCESS)
        return -1;
    WCHAR path[64] = {};
    DWORD bytes = sizeof path;
    int set = -1;
    if (RegQueryValueExW(key, u"Out_Plug", nullptr, nullptr, reinterpret_cast<BYTE*>(path), &bytes) == ERROR_SUCCESS)
        set = std::u16string(path) == u"out_first.so" ? 0 : std::u16string(path) == u"out_second_one.so" ? 1 : -1;
    for (int i = 1; i < kSetValues && set >= 0; ++i) {
        const std::u16string name = u"Value_" + std::u16string(1, char16_t(u'A' + i));
        uint32_t word = 0;
        DWORD size = sizeof word;
        if (RegQueryValueExW(key, name.c_str(), nullptr, nullptr, reinterpret_cast<BYTE*>(&word), &size) !=
                ERROR_SUCCESS ||
            word != uint32_t(set * 1000 + i))
            set = -1;
    }
    RegCloseKey(key);
    return set;
}

TEST_F(Registry, KilledWhileSaving_EveryLoadFindsOneWholeSet)
{
    constexpr int kRounds = 3000;
    // In memory where there is such a folder: what is tested is the rename,
    // and without the wait for the disk the kills come many times a second.
    if (fs::is_directory("/dev/shm"))
        UseFolderIn("/dev/shm");
    SaveSet(0);
    ASSERT_EQ(LoadedSet(), 0);

    // The kill lands anywhere in the first few saves of the child.
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 20; ++i)
        SaveSet(i % 2);
    const auto perSave = std::chrono::duration_cast<std::chrono::microseconds>(
                             std::chrono::steady_clock::now() - start) / 20;
    std::mt19937 random(20240611);
    std::uniform_int_distribution<int64_t> delay(0, std::max<int64_t>(4 * perSave.count(), 200));

    int found[2] = {0, 0};
    int interrupted = 0;  // kills that left a temporary file: inside a save
    for (int round = 0; round < kRounds; ++round) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (int n = round;; ++n)
                SaveSet(n % 2);
        }
        usleep(useconds_t(delay(random)));
        kill(child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);
        const int set = LoadedSet();
        ASSERT_NE(set, -1) << "round " << round << ":\n" << ReadText(OurFile());
        ++found[set];
        const fs::path temporary = OurFile().string() + ".tmp." + std::to_string(child);
        if (fs::exists(temporary))
            ++interrupted;
    }
    EXPECT_GT(found[0], 0);
    EXPECT_GT(found[1], 0);
    EXPECT_GT(interrupted, 0);

    // The next save clears away what the killed processes left.
    SaveSet(0);
    EXPECT_EQ(NamesIn(OurFile().parent_path()), std::vector<std::string>{"Kelvane.reg"});
}

}  // namespace
