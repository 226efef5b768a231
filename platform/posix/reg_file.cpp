// The registry stand-in's files: parsing and writing the .reg export format.
#include "platform/posix/reg_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char* kRegHeader = "Windows Registry Editor Version 5.00";
constexpr const char* kKeyPrefix = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\";
constexpr const char kByteOrderMark[] = "\xEF\xBB\xBF";

// Names of keys and values compare without regard to ASCII case, as in the
// registry.
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

// A quoted .reg string from `pos` (at the opening quote), with the escapes
// \\ and \" only; `pos` ends behind the closing quote.
bool ReadQuoted(const std::string& line, size_t& pos, std::string& out)
{
    if (pos >= line.size() || line[pos] != '"')
        return false;
    out.clear();
    for (++pos; pos < line.size(); ++pos) {
        const char c = line[pos];
        if (c == '"') {
            ++pos;
            return true;
        }
        if (c == '\\') {
            if (pos + 1 >= line.size())
                return false;
            const char next = line[++pos];
            if (next != '\\' && next != '"')
                return false;
            out += next;
        } else {
            out += c;
        }
    }
    return false;
}

int HexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
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
        const std::string part = folder.substr(0, pos);
        if (mkdir(part.c_str(), 0777) != 0 && errno != EEXIST) {
            error = "cannot create " + part + ": " + std::strerror(errno);
            return false;
        }
    }
    return true;
}

bool ReadWholeFile(const std::string& path, std::string& contents)
{
    FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr)
        return false;
    contents.clear();
    char buffer[4096];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0)
        contents.append(buffer, got);
    const bool ok = std::ferror(file) == 0;
    std::fclose(file);
    return ok;
}

// Writes all of `text` to a new file at `path` and flushes it to disk.
bool WriteDurably(const std::string& path, const std::string& text)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (fd < 0)
        return false;
    size_t written = 0;
    bool ok = true;
    while (written < text.size()) {
        const ssize_t got = write(fd, text.data() + written, text.size() - written);
        if (got < 0) {
            if (errno == EINTR)
                continue;
            ok = false;
            break;
        }
        written += size_t(got);
    }
    ok = ok && fsync(fd) == 0;
    return close(fd) == 0 && ok;
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
    const std::string folder = RegStoreFolder();
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
        return ReadQuoted(line, pos, value.text) && pos == line.size();
    }
    constexpr const char* kDword = "dword:";
    if (line.compare(pos, std::strlen(kDword), kDword) != 0)
        return false;
    pos += std::strlen(kDword);
    if (line.size() - pos != 8)
        return false;
    uint32_t word = 0;
    for (; pos < line.size(); ++pos) {
        const int digit = HexDigit(line[pos]);
        if (digit < 0)
            return false;
        word = (word << 4) | uint32_t(digit);
    }
    value.is_dword = true;
    value.dword = word;
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
    std::string contents;
    if (file.empty() || !ReadWholeFile(file, contents))
        return false;
    if (contents.compare(0, 3, kByteOrderMark) == 0)
        contents.erase(0, 3);
    bool header_seen = false;
    bool key_seen = false;
    bool in_key = false;
    size_t start = 0;
    while (start <= contents.size()) {
        size_t end = contents.find('\n', start);
        if (end == std::string::npos)
            end = contents.size();
        std::string line = contents.substr(start, end - start);
        start = end + 1;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!header_seen) {
            if (line != kRegHeader)
                return false;
            header_seen = true;
            continue;
        }
        if (!line.empty() && line.front() == '[') {
            in_key = line.back() == ']' && EqualNoCase(line.substr(1, line.size() - 2), key_path);
            key_seen = key_seen || in_key;
            continue;
        }
        // A later line of the same name replaces an earlier one.
        RegValue value;
        if (in_key && ParseRegValue(line, value)) {
            if (value.is_dword)
                SetRegDword(values, value.name, static_cast<int32_t>(value.dword));
            else
                SetRegString(values, value.name, value.text);
        }
    }
    return key_seen;
}

bool WriteRegKey(const std::string& file, const std::string& key_path,
                 const std::vector<RegValue>& values, std::string& error)
{
    if (file.empty()) {
        error = "no folder for the settings store (neither XDG_CONFIG_HOME nor HOME is set)";
        return false;
    }
    const size_t slash = file.rfind('/');
    if (slash != std::string::npos && slash > 0 && !MakeFolders(file.substr(0, slash), error))
        return false;
    std::string text = std::string(kRegHeader) + "\n\n[" + key_path + "]\n";
    for (const RegValue& value : values)
        text += FormatRegValue(value) + "\n";

    const std::string temporary = file + ".tmp." + std::to_string(getpid());
    if (!WriteDurably(temporary, text) || std::rename(temporary.c_str(), file.c_str()) != 0) {
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

namespace {

void SetRegValue(std::vector<RegValue>& values, const RegValue& value)
{
    for (RegValue& old : values)
        if (EqualNoCase(old.name, value.name)) {
            old = value;
            return;
        }
    values.push_back(value);
}

}  // namespace

void SetRegDword(std::vector<RegValue>& values, const std::string& name, int32_t word)
{
    SetRegValue(values, RegValue{name, true, static_cast<uint32_t>(word), std::string()});
}

void SetRegString(std::vector<RegValue>& values, const std::string& name, const std::string& text)
{
    SetRegValue(values, RegValue{name, false, 0, text});
}
