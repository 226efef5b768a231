// The registry stand-in of the POSIX build: one key per text file in the
// Windows .reg export format (version 5.00), kept under
// ${XDG_CONFIG_HOME:-$HOME/.config}/Morrowfen/. The plug-in's POSIX backend
// keeps its key here, and our hosts (the renderer, out_wav.so) read and
// write the same files through the same code.
//
// Only string and dword values are understood; other lines are passed over
// on reading. Saving rewrites the whole file through a temporary name, so
// that a crash never leaves it torn.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct RegValue {
    std::string name;     // value name, without quotes
    bool is_dword;        // true: `dword`, false: `text`
    uint32_t dword;       // the 32-bit word, two's complement for negatives
    std::string text;     // the string, unescaped, UTF-8
};

// Folder of the stand-in files for the current environment:
// ${XDG_CONFIG_HOME:-$HOME/.config}/Morrowfen. Empty when neither is set.
std::string RegStoreFolder();

// The file that holds the key HKEY_LOCAL_MACHINE\SOFTWARE\Morrowfen\<key_name>.
std::string RegStoreFile(const std::string& key_name);

// The section header of that key, without brackets.
std::string RegKeyPath(const std::string& key_name);

// Reads the values of section `key_path` from `file`. False when the file is
// missing or unreadable, does not start with the version 5.00 header line,
// or has no such section; `values` then holds what was found, if anything.
bool ReadRegKey(const std::string& file, const std::string& key_path, std::vector<RegValue>& values);

// Writes `values` as the only section of `file`, creating the folders, through
// a temporary file, flushed to disk, and a rename. False with `error` set on
// failure.
bool WriteRegKey(const std::string& file, const std::string& key_path,
                 const std::vector<RegValue>& values, std::string& error);

// Finds a value by name (names compare without regard to ASCII case).
const RegValue* FindRegValue(const std::vector<RegValue>& values, const std::string& name);

// Replaces or appends a value.
void SetRegDword(std::vector<RegValue>& values, const std::string& name, int32_t value);
void SetRegString(std::vector<RegValue>& values, const std::string& name, const std::string& text);

// One value line as the file holds it, e.g. `"Mode"=dword:00000003`.
std::string FormatRegValue(const RegValue& value);

// Parses one value line: "Name"="text" with the escapes \\ and \" only, or
// "Name"=dword: and exactly eight hex digits. False for anything else.
bool ParseRegValue(const std::string& line, RegValue& value);
