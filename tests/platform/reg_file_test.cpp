// The .reg files of the registry stand-in: what the reader takes from a file
// a person may have edited, and what a save keeps of the file around the
// values it writes.
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/posix/reg_file.h"
#include "platform/posix/wide_utf8.h"

namespace {

namespace fs = std::filesystem;

const std::string kKey = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\Kelvane";
const std::string kHeader = "Windows Registry Editor Version 5.00\n";

class RegFileTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char folder[] = "/tmp/kelvane-regfile-XXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        root = folder;
        file = (root / "Morrowfen" / "Kelvane.reg").string();
    }

    void TearDown() override
    {
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }

    void Write(const std::string& text)
    {
        fs::create_directories(fs::path(file).parent_path());
        std::ofstream(file, std::ios::binary) << text;
    }

    std::string Read() const
    {
        std::ifstream in(file, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    // The values of our key in the file, each as "name=dword" or "name=text".
    std::vector<std::string> Values() const
    {
        std::vector<RegValue> values;
        EXPECT_TRUE(ReadRegKey(file, kKey, values));
        std::vector<std::string> shown;
        for (const RegValue& value : values)
            shown.push_back(value.name + "=" + (value.is_dword ? std::to_string(value.dword) : value.text));
        return shown;
    }

    bool Save(const std::vector<RegValue>& values)
    {
        std::string error;
        const bool saved = WriteRegKey(file, kKey, values, error);
        EXPECT_TRUE(saved) << error;
        return saved;
    }

    fs::path root;
    std::string file;
};

RegValue Dword(const std::string& name, uint32_t word)
{
    return RegValue{name, true, word, std::string()};
}

RegValue Text(const std::string& name, const std::string& text)
{
    return RegValue{name, false, 0, text};
}

// ---- One value line ----

TEST(RegValueLine, DwordPrefixInAnyCase)
{
    for (const char* line : {"\"Mode\"=dword:00000003", "\"Mode\"=DWORD:00000003", "\"Mode\"=Dword:00000003",
                             "\"Mode\"=dWoRd:00000003"}) {
        RegValue value;
        ASSERT_TRUE(ParseRegValue(line, value)) << line;
        EXPECT_TRUE(value.is_dword);
        EXPECT_EQ(value.dword, 3u) << line;
    }
}

TEST(RegValueLine, DwordOfOneToEightHexDigits)
{
    const struct {
        const char* digits;
        uint32_t word;
    } cases[] = {{"1", 1}, {"1F", 31}, {"0c8", 200}, {"FFFFFFF4", 0xFFFFFFF4u}, {"00000000", 0}, {"7fffffff", 0x7FFFFFFF}};
    for (const auto& entry : cases) {
        RegValue value;
        ASSERT_TRUE(ParseRegValue(std::string("\"Mode\"=dword:") + entry.digits, value)) << entry.digits;
        EXPECT_EQ(value.dword, entry.word) << entry.digits;
    }
    RegValue value;
    EXPECT_FALSE(ParseRegValue("\"Mode\"=dword:", value));
    EXPECT_FALSE(ParseRegValue("\"Mode\"=dword:000000001", value));
    EXPECT_FALSE(ParseRegValue("\"Mode\"=dword:-1", value));
    EXPECT_FALSE(ParseRegValue("\"Mode\"=dword:0x10", value));
    EXPECT_FALSE(ParseRegValue("\"Mode\"=dword:1 2", value));
}

TEST(RegValueLine, BlanksAroundTheEqualsSignAndTheLine)
{
    for (const char* line : {"\"Mode\" = dword:5", "\"Mode\"\t=\tdword:5", "\"Mode\"   =dword:5", "  \"Mode\"=dword:5  ",
                             "\"Mode\"=dword:5\r"}) {
        RegValue value;
        ASSERT_TRUE(ParseRegValue(line, value)) << line;
        EXPECT_EQ(value.name, "Mode");
        EXPECT_EQ(value.dword, 5u);
    }
    RegValue value;
    ASSERT_TRUE(ParseRegValue("\"Out_Plug\"  =  \"a b.so\"", value));
    EXPECT_EQ(value.text, "a b.so");
    EXPECT_FALSE(ParseRegValue("\"Mode\" dword:5", value));
    EXPECT_FALSE(ParseRegValue("\"Mode\"=dword :5", value));
}

TEST(RegValueLine, LineFeedWrittenEscapedAndReadBack)
{
    const RegValue value = Text("Out_Plug", "/a\nb/\"c\"\\d.so");
    const std::string line = FormatRegValue(value);
    EXPECT_EQ(line, "\"Out_Plug\"=\"/a\\nb/\\\"c\\\"\\\\d.so\"");
    EXPECT_EQ(line.find('\n'), std::string::npos);
    RegValue back;
    ASSERT_TRUE(ParseRegValue(line, back));
    EXPECT_EQ(back.text, value.text);
    // Any other escape is no .reg string.
    EXPECT_FALSE(ParseRegValue("\"Out_Plug\"=\"a\\tb\"", back));
}

TEST(RegValueLine, TextThatIsNotUtf8_Unreadable)
{
    RegValue value;
    ASSERT_TRUE(ParseRegValue("\"Out_Plug\"=\"/x\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80.so\"", value));
    for (const char* bad : {"\xC0\xAF", "\xC1\xBF", "\xE0\x80\xAF", "\xF0\x80\x80\xAF",  // overlong
                            "\xED\xA0\x80", "\xED\xBF\xBF",                             // surrogates
                            "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xF8\x88\x80\x80\x80",  // beyond U+10FFFF
                            "\x80", "\xC3", "\xE2\x82", "\xFF"}) {
        EXPECT_FALSE(ParseRegValue(std::string("\"Out_Plug\"=\"/tmp") + bad + "out.so\"", value)) << bad;
        EXPECT_FALSE(ParseRegValue(std::string("\"Mode") + bad + "\"=dword:00000001", value)) << bad;
    }
}

// ---- Reading a file ----

TEST_F(RegFileTest, ByteOrderMarkAndBlankLinesBeforeTheHeader)
{
    Write("\xEF\xBB\xBF\n\r\n  \t\n" + kHeader + "\n[" + kKey + "]\n\"Mode\"=dword:00000002\n");
    EXPECT_EQ(Values(), std::vector<std::string>{"Mode=2"});
    Write("\n\n" + kHeader + "[" + kKey + "]\n\"Mode\"=dword:00000004\n");
    EXPECT_EQ(Values(), std::vector<std::string>{"Mode=4"});
}

TEST_F(RegFileTest, AnythingElseBeforeTheHeader_NoRegFile)
{
    std::vector<RegValue> values;
    for (const std::string& before : {std::string("; comment\n"), std::string("x\n"), std::string("\xEF\xBB\xBF\xEF\xBB\xBF")}) {
        Write(before + kHeader + "[" + kKey + "]\n\"Mode\"=dword:00000002\n");
        EXPECT_FALSE(ReadRegKey(file, kKey, values)) << before;
    }
}

TEST_F(RegFileTest, CommentLinesAnywhere_NotValues)
{
    Write(kHeader + "; before every section\n\n[" + kKey + "]\n; \"Mode\"=dword:00000005\n  ;\"SR\"=dword:0\n" +
          "\"Mode\"=dword:00000001\n;\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Other]\n; \"L\"=dword:0\n");
    EXPECT_EQ(Values(), std::vector<std::string>{"Mode=1"});
}

TEST_F(RegFileTest, LaterLineOfAName_Counts)
{
    Write(kHeader + "[" + kKey + "]\n\"Mode\"=dword:1\n\"Out_Plug\"=\"a\"\n\"MODE\"=dword:2\n[" + kKey +
          "]\n\"out_plug\"=\"b\"\n");
    EXPECT_EQ(Values(), (std::vector<std::string>{"MODE=2", "out_plug=b"}));
}

TEST_F(RegFileTest, LargeFile_EveryDistinctNameRead)
{
    // Over 10 MB: 420,000 names, each on its own line.
    constexpr int kNames = 420000;
    std::string text = kHeader + "\n[" + kKey + "]\n";
    char line[64];
    for (int i = 0; i < kNames; ++i) {
        std::snprintf(line, sizeof line, "\"Name_%06d\"=dword:%08x\n", i, unsigned(i * 7));
        text += line;
    }
    ASSERT_GT(text.size(), 10u * 1000 * 1000);
    Write(text);
    std::vector<RegValue> values;
    ASSERT_TRUE(ReadRegKey(file, kKey, values));
    ASSERT_EQ(values.size(), size_t(kNames));
    for (int i = 0; i < kNames; i += 9973) {
        std::snprintf(line, sizeof line, "Name_%06d", i);
        EXPECT_EQ(values[size_t(i)].name, line);
        EXPECT_EQ(values[size_t(i)].dword, uint32_t(i * 7));
    }

    // Saved again, all of it stays and the one value changes.
    ASSERT_TRUE(Save({Dword("Name_200000", 5), Dword("Mode", 1)}));
    ASSERT_TRUE(ReadRegKey(file, kKey, values));
    ASSERT_EQ(values.size(), size_t(kNames) + 1);
    EXPECT_EQ(values[200000].dword, 5u);
    EXPECT_EQ(values[kNames].name, "Mode");
}

// ---- What a save keeps ----

TEST_F(RegFileTest, Save_KeepsOtherSectionsCommentsAndUnknownLines)
{
    Write("\xEF\xBB\xBFWindows Registry Editor Version 5.00\r\n; the processor's settings\r\n\r\n"
          "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Other]\r\n"
          "\"Mode\"=dword:00000009\r\n\r\n[" + kKey + "]\r\n; the mode\r\n\"Mode\" = dword:1\r\n" +
          "\"Surround_Delay\"=hex:01,02\r\nodd line\r\n\"SR\"=dword:00000000\r\n; last\r\n\r\n" +
          "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Third]\r\n\"L\"=\"x\"");
    ASSERT_TRUE(Save({Dword("Mode", 4), Dword("Surround_Delay", 20), Dword("Out_Bits", 24)}));
    // In place where the name stood, new names behind the section's last
    // value line; every line ends in LF.
    EXPECT_EQ(Read(), kHeader + "; the processor's settings\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Other]\n" +
                          "\"Mode\"=dword:00000009\n\n[" + kKey + "]\n; the mode\n\"Mode\"=dword:00000004\n" +
                          "\"Surround_Delay\"=dword:00000014\nodd line\n\"SR\"=dword:00000000\n" +
                          "\"Out_Bits\"=dword:00000018\n; last\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Third]\n\"L\"=\"x\"\n");
}

TEST_F(RegFileTest, Save_OneLineForANameThatStoodTwice)
{
    Write(kHeader + "\n[" + kKey + "]\n\"Mode\"=dword:1\n\"L\"=dword:1\n\"mode\"=dword:2\n");
    ASSERT_TRUE(Save({Dword("Mode", 3)}));
    EXPECT_EQ(Read(), kHeader + "\n[" + kKey + "]\n\"Mode\"=dword:00000003\n\"L\"=dword:1\n");
}

TEST_F(RegFileTest, Save_SectionAddedWhenMissing)
{
    Write(kHeader + "\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Other]\n\"A\"=dword:1");
    ASSERT_TRUE(Save({Dword("Mode", 3)}));
    EXPECT_EQ(Read(), kHeader + "\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Other]\n\"A\"=dword:1\n\n[" + kKey +
                          "]\n\"Mode\"=dword:00000003\n");
}

TEST_F(RegFileTest, Save_NoRegFileThere_ReplacedWhole)
{
    Write("\"Mode\"=dword:00000001\nsomething else\n");
    ASSERT_TRUE(Save({Dword("Mode", 2)}));
    EXPECT_EQ(Read(), kHeader + "\n[" + kKey + "]\n\"Mode\"=dword:00000002\n");
}

TEST_F(RegFileTest, Save_LineEndingInACarriageReturnOfItsOwn_KeepsItsMeaning)
{
    // "[Other]\r" before the line feed of CR LF is no section header, so the
    // values behind it are ours; the save must not turn it into one.
    Write(kHeader + "\n[" + kKey + "]\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Other]\r\r\n\"Mode\"=dword:2\r\n" +
          "\"L\"=dword:1\n");
    EXPECT_EQ(Values(), (std::vector<std::string>{"Mode=2", "L=1"}));
    ASSERT_TRUE(Save({Dword("Mode", 3)}));
    EXPECT_EQ(Read(), kHeader + "\n[" + kKey + "]\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Other]\r\r\n" +
                          "\"Mode\"=dword:00000003\n\"L\"=dword:1\n");
    EXPECT_EQ(Values(), (std::vector<std::string>{"Mode=3", "L=1"}));
}

TEST_F(RegFileTest, Save_NameWithNul_NotWrittenAndItsLineKeptWhole)
{
    const std::string nulName("Out_Plug\0x", 10);
    Write(kHeader + "\n[" + kKey + "]\n\"Out_Plug\"=\"real.so\"\n\"" + nulName + "\"=\"other.so\"\n");
    std::vector<RegValue> values;
    ASSERT_TRUE(ReadRegKey(file, kKey, values));
    ASSERT_EQ(values.size(), 2u);
    EXPECT_EQ(values[1].name, nulName);
    // Saved as read, and once more with a name that only a NUL can cut.
    values.push_back(Text(std::string("Mode\0x", 6), "cut"));
    values[0].text = "new.so";
    ASSERT_TRUE(Save(values));
    EXPECT_EQ(Read(), kHeader + "\n[" + kKey + "]\n\"Out_Plug\"=\"new.so\"\n\"" + nulName + "\"=\"other.so\"\n");
}

TEST_F(RegFileTest, Save_StaleTemporaryFilesOfEndedProcessesRemoved)
{
    // A process that has ended, and one that runs: this test's parent.
    const pid_t ended = fork();
    ASSERT_GE(ended, 0);
    if (ended == 0)
        _exit(0);
    waitpid(ended, nullptr, 0);
    const std::string stale = file + ".tmp." + std::to_string(ended);
    const std::string running = file + ".tmp." + std::to_string(getppid());
    const std::string other = (fs::path(file).parent_path() / ("OutWav.reg.tmp." + std::to_string(ended))).string();
    const std::string notPid = file + ".tmp.12ab";
    for (const std::string& path : {stale, running, other, notPid}) {
        fs::create_directories(fs::path(path).parent_path());
        std::ofstream(path) << "half";
    }
    ASSERT_TRUE(Save({Dword("Mode", 1)}));
    EXPECT_FALSE(fs::exists(stale));
    EXPECT_TRUE(fs::exists(running));
    EXPECT_TRUE(fs::exists(other));
    EXPECT_TRUE(fs::exists(notPid));
}

// ---- The text conversions under the file ----

TEST(WideUtf8, StrictBothWays)
{
    std::u16string wide;
    ASSERT_TRUE(WideFromUtf8("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF", wide));
    EXPECT_EQ(wide, u"a\u00E9\u20AC\U0001F600\U0010FFFF");
    for (const char* bad : {"\xC0\xAF", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xC3"})
        EXPECT_FALSE(WideFromUtf8(bad, wide)) << bad;
    std::string utf8;
    EXPECT_TRUE(Utf8FromWide(u"a\u00E9\U0001F600", utf8));
    EXPECT_EQ(utf8, "a\xC3\xA9\xF0\x9F\x98\x80");
    EXPECT_FALSE(Utf8FromWide(std::u16string(u"a") + char16_t(0xDC00), utf8));
    EXPECT_EQ(utf8, "a\xEF\xBF\xBD");
}

}  // namespace
