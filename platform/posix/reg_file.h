// The registry stand-in of the POSIX build: the key
// HKEY_LOCAL_MACHINE\SOFTWARE\<Maker>\<Product> lives in the text file
// ${XDG_CONFIG_HOME:-$HOME/.config}/<Maker>/<Product>.reg, in the Windows
// .reg export format (version 5.00). The POSIX registry functions keep their
// keys here, and our hosts (the renderer, out_wav.so) read and write the same
// files through the same code.
//
// Reading takes what a person editing the file would write: a byte-order
// mark and blank lines before the header, `;` comment lines, blanks around
// `=`, `dword:` in any case with one to eight hex digits, CRLF line ends. Only
// string and dword values are understood; any other line, and any line that
// is not well-formed UTF-8, is passed over. Reading is linear in the file's
// size.
//
// Saving rewrites the whole file once, through a temporary file in the same
// folder and a rename, so that a reader finds the old file or the new one and
// never a mix; it keeps every other section, comment and unknown line as it
// stands.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct RegValue {
    std::string name;     // value name, without quotes, UTF-8
    bool is_dword;        // true: `dword`, false: `text`
    uint32_t dword;       // the 32-bit word, two's complement for negatives
    std::string text;     // the string, unescaped, UTF-8
};

// The folder of a maker's files for the current environment:
// ${XDG_CONFIG_HOME:-$HOME/.config}/<maker>. Empty when neither is set.
std::string RegStoreFolder(const std::string& maker);

// The file that holds the key HKEY_LOCAL_MACHINE\SOFTWARE\<maker>\<product>;
// empty when there is no folder.
std::string RegStoreFile(const std::string& maker, const std::string& product);

// The section header of that key, without brackets.
std::string RegKeyPath(const std::string& maker, const std::string& product);

// Reads the values of section `key_path` (compared without regard to ASCII
// case) from `file`; where a name stands twice, the later line counts. False
// when the file is missing or unreadable, has no version 5.00 header line, or
// has no such section; `values` then holds what was found, if anything.
bool ReadRegKey(const std::string& file, const std::string& key_path, std::vector<RegValue>& values);

// Saves `values` into section `key_path` of `file`: each replaces the line of
// its name in place (further lines of that name go), a new name is added
// behind the section's last value line, the section is added at the end when
// missing, and the folders are created. Everything else stays, except that a file without the header
// is replaced whole. A value whose name holds characters that cannot be
// written (a NUL, text that is not UTF-8) is not written. Temporary files of
// processes that no longer run are removed. False with `error` set on
// failure, the old file then intact.
bool WriteRegKey(const std::string& file, const std::string& key_path,
                 const std::vector<RegValue>& values, std::string& error);

// Finds a value by name (names compare without regard to ASCII case).
const RegValue* FindRegValue(const std::vector<RegValue>& values, const std::string& name);

// Replaces or appends a value.
void SetRegDword(std::vector<RegValue>& values, const std::string& name, int32_t value);
void SetRegString(std::vector<RegValue>& values, const std::string& name, const std::string& text);

// One value line as the file holds it, e.g. `"Mode"=dword:00000003`: dwords
// as eight lower-case hex digits, strings with \\, \" and \n escaped.
std::string FormatRegValue(const RegValue& value);

// Parses one value line, "Name"="text" with the escapes \\, \" and \n, or
// "Name"=dword:hex. False for anything else.
bool ParseRegValue(std::string_view line, RegValue& value);
