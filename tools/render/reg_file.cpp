// The registry stand-in: one .reg text file per key.
#include "tools/render/reg_file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char* kRegHeader = "Windows Registry Editor Version 5.00";
constexpr const char* kKeyPrefix = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\";

bool EqualNoCase(const std::string& a, const std::string& b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i) {
        unsigned char x = static_cast<unsigned char>(a[i]);
        unsigned char y = static_cast<unsigned char>(b[i]);
        if (x >= 'A' && x <= 'Z') x = static_cast<unsigned char>(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z') y = static_cast<unsigned char>(y - 'A' + 'a');
        if (x != y)
            return false;
    }
    return true;
}

// Reads a quoted .reg string starting at `pos` (at the opening quote); leaves
// `pos` behind the closing quote.
bool ReadQuoted(const std::string& line, size_t& pos, std::string& out)
{
    if (pos >= line.size() || line[pos] != '"')
        return false;
    out.clear();
    for (++pos; pos < line.size(); ++pos) {
        char c = line[pos];
        if (c == '"') {
            ++pos;
            return true;
        }
        if (c == '\\' && pos + 1 < line.size()) {
            out += line[++pos];
            continue;
        }
        out += c;
    }
    return false;
}

std::string Quote(const std::string& text)
{
    std::string out = "\"";
    for (char c : text) {
        if (c == '\\' || c == '"')
            out += '\\';
        out += c;
    }
    out += '"';
    return out;
}

bool MakeFolders(const std::string& folder, std::string& error)
{
    for (size_t pos = 1; pos <= folder.size(); ++pos) {
        if (pos != folder.size() && folder[pos] != '/')
            continue;
        std::string part = folder.substr(0, pos);
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
            error = "cannot create " + part + ": " + std::strerror(errno);
            return false;
        }
    }
    return true;
}

}  // namespace

std::string RegStoreFolder()
{
    const char* config = std::getenv("XDG_CONFIG_HOME");
    if (config != nullptr && config[0] != '\0')
        return std::string(config) + "/Morrowfen";
    const char* home = std::getenv("HOME");
    if (home != nullptr && home[0] != '\0')
        return std::string(home) + "/.config/Morrowfen";
    return std::string();
}

std::string RegStoreFile(const std::string& key_name)
{
    std::string folder = RegStoreFolder();
    if (folder.empty())
        return std::string();
    return folder + "/" + key_name + ".reg";
}

std::string RegKeyPath(const std::string& key_name)
{
    return std::string(kKeyPrefix) + key_name;
}

bool ParseRegValue(const std::string& line, RegValue& value)
{
    size_t pos = 0;
    if (!ReadQuoted(line, pos, value.name))
        return false;
    if (pos >= line.size() || line[pos] != '=')
        return false;
    ++pos;
    if (pos < line.size() && line[pos] == '"') {
        value.is_dword = false;
        value.dword = 0;
        return ReadQuoted(line, pos, value.text);
    }
    constexpr const char* kDword = "dword:";
    if (line.compare(pos, std::strlen(kDword), kDword) != 0)
        return false;
    pos += std::strlen(kDword);
    std::string digits = line.substr(pos);
    while (!digits.empty() && (digits.back() == ' ' || digits.back() == '\t'))
        digits.pop_back();
    if (digits.empty() || digits.size() > 8)
        return false;
    char* end = nullptr;
    unsigned long word = std::strtoul(digits.c_str(), &end, 16);
    if (*end != '\0')
        return false;
    value.is_dword = true;
    value.dword = static_cast<uint32_t>(word);
    value.text.clear();
    return true;
}

std::string FormatRegValue(const RegValue& value)
{
    if (!value.is_dword)
        return Quote(value.name) + "=" + Quote(value.text);
    char digits[16];
    std::snprintf(digits, sizeof digits, "%08x", static_cast<unsigned>(value.dword));
    return Quote(value.name) + "=dword:" + digits;
}

bool ReadRegKey(const std::string& file, const std::string& key_path, std::vector<RegValue>& values)
{
    values.clear();
    std::ifstream in(file, std::ios::binary);
    if (!in)
        return false;
    bool in_key = false;
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!line.empty() && line.front() == '[') {
            size_t close = line.rfind(']');
            in_key = close != std::string::npos && EqualNoCase(line.substr(1, close - 1), key_path);
            continue;
        }
        RegValue value;
        if (in_key && ParseRegValue(line, value)) {
            if (value.is_dword)
                SetRegDword(values, value.name, static_cast<int32_t>(value.dword));
            else
                SetRegString(values, value.name, value.text);
        }
    }
    return true;
}

bool WriteRegKey(const std::string& file, const std::string& key_path,
                 const std::vector<RegValue>& values, std::string& error)
{
    size_t slash = file.rfind('/');
    if (slash != std::string::npos && slash > 0 && !MakeFolders(file.substr(0, slash), error))
        return false;
    std::ostringstream text;
    text << kRegHeader << "\n\n[" << key_path << "]\n";
    for (const RegValue& value : values)
        text << FormatRegValue(value) << "\n";
    std::string body = text.str();

    std::string temporary = file + ".tmp" + std::to_string(getpid());
    FILE* out = std::fopen(temporary.c_str(), "wb");
    if (out == nullptr) {
        error = "cannot write " + temporary + ": " + std::strerror(errno);
        return false;
    }
    bool written = std::fwrite(body.data(), 1, body.size(), out) == body.size();
    written = (std::fclose(out) == 0) && written;
    if (!written || std::rename(temporary.c_str(), file.c_str()) != 0) {
        error = "cannot write " + file + ": " + std::strerror(errno);
        std::remove(temporary.c_str());
        return false;
    }
    return true;
}

const RegValue* FindRegValue(const std::vector<RegValue>& values, const std::string& name)
{
    for (const RegValue& value : values)
        if (EqualNoCase(value.name, name))
            return &value;
    return nullptr;
}

void SetRegDword(std::vector<RegValue>& values, const std::string& name, int32_t word)
{
    RegValue value{name, true, static_cast<uint32_t>(word), std::string()};
    for (RegValue& old : values)
        if (EqualNoCase(old.name, name)) {
            old = value;
            return;
        }
    values.push_back(value);
}

void SetRegString(std::vector<RegValue>& values, const std::string& name, const std::string& text)
{
    RegValue value{name, false, 0, text};
    for (RegValue& old : values)
        if (EqualNoCase(old.name, name)) {
            old = value;
            return;
        }
    values.push_back(value);
}
