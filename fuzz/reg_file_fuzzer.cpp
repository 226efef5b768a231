// libFuzzer target: the settings file reader alone, and what must hold of
// any file it is given.
//
// - Every value it reads formats to a line that parses back to the same
//   value.
// - Saving the values read, into the same file, changes none of them, and
//   leaves another key's section of the file as it was: a save edits the
//   text, it does not rewrite what it does not own.
// - The plug-in's settings loaded from the file, saved and loaded again,
//   come back the same.
//
// The first byte of an input chooses whether the rest is the whole file or
// the body of a file that already has the header and our key, so that the
// fuzzer spends its time inside the key rather than on the header.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "platform/posix/reg_file.h"
#include "platform/posix/wide_utf8.h"
#include "settings/settings_store.h"
#include "signal/processor.h"

namespace {

const std::string kOurKey = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\Kelvane";
const std::string kOtherKey = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Elsewhere\\Other";
const std::string kHeader = "Windows Registry Editor Version 5.00\n\n[" + kOurKey + "]\n";

std::string File;  // the settings file of the plug-in's store

void WriteText(const std::string& path, const std::string& text)
{
    FILE* file = std::fopen(path.c_str(), "wb");
    FUZZ_CHECK(file != nullptr, "cannot write the file");
    std::fwrite(text.data(), 1, text.size(), file);
    std::fclose(file);
}

// The values of a key by folded name; the later of two lines of one name.
std::map<std::string, RegValue> ByName(const std::vector<RegValue>& values)
{
    std::map<std::string, RegValue> byName;
    for (const RegValue& value : values)
        byName[FoldedNoCase(std::string_view(value.name))] = value;
    return byName;
}

bool Same(const RegValue& a, const RegValue& b)
{
    return a.name == b.name && a.is_dword == b.is_dword && a.dword == b.dword && a.text == b.text;
}

bool SameKey(const std::vector<RegValue>& a, const std::vector<RegValue>& b)
{
    const auto left = ByName(a);
    const auto right = ByName(b);
    if (left.size() != right.size())
        return false;
    for (const auto& [name, value] : left) {
        const auto other = right.find(name);
        if (other == right.end() || !Same(value, other->second))
            return false;
    }
    return true;
}

bool SameSettings(const ProcessorSettingsRecord& a, const ProcessorSettingsRecord& b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    struct stat shm;
    std::string folder = stat("/dev/shm", &shm) == 0 ? "/dev/shm/kelvane-regfuzz-XXXXXX" : "/tmp/kelvane-regfuzz-XXXXXX";
    FUZZ_CHECK(mkdtemp(folder.data()) != nullptr, "no temporary folder");
    setenv("XDG_CONFIG_HOME", folder.c_str(), 1);
    mkdir((folder + "/Morrowfen").c_str(), 0777);
    File = folder + "/Morrowfen/Kelvane.reg";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const bool whole = (data[0] & 1) != 0;
    const std::string body(reinterpret_cast<const char*>(data + 1), size - 1);
    const std::string text = whole ? body : kHeader + body;
    WriteText(File, text);

    std::vector<RegValue> ours;
    std::vector<RegValue> other;
    const bool hasOurs = ReadRegKey(File, kOurKey, ours);
    ReadRegKey(File, kOtherKey, other);

    // Each value read formats to a line that reads back the same.
    for (const RegValue& value : ours) {
        RegValue again;
        FUZZ_CHECK(ParseRegValue(FormatRegValue(value), again) && Same(value, again),
                   "a value read does not survive its own line");
    }

    // Saving what was read changes nothing that was read, ours or another's.
    std::string error;
    if (hasOurs) {
        FUZZ_CHECK(WriteRegKey(File, kOurKey, ours, error), "saving into a file of our own failed");
        std::vector<RegValue> oursAgain;
        std::vector<RegValue> otherAgain;
        FUZZ_CHECK(ReadRegKey(File, kOurKey, oursAgain), "our key is gone after a save");
        ReadRegKey(File, kOtherKey, otherAgain);
        FUZZ_CHECK(SameKey(ours, oursAgain), "a save changed the values it was given");
        FUZZ_CHECK(SameKey(other, otherAgain), "a save changed another key's values");
        WriteText(File, text);
    }

    // The plug-in's record: load, save, load gives the first load again.
    ProcessorSettingsRecord first{};
    ProcessorSettingsRecord second{};
    LoadSettings(first);
    SaveSettings(first);
    LoadSettings(second);
    FUZZ_CHECK(SameSettings(first, second), "settings saved and loaded again differ");
    return 0;
}
