// The registry stand-in's files: reading and saving the .reg export format.
//
// Both directions walk the file once, line by line, and look names up in a
// hash table, so that a file of any size costs time in proportion to it.
// Saving edits the text rather than writing the key afresh: whatever a person
// or another program put around our values stays where it was.
#include "platform/posix/reg_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

#include "platform/posix/wide_utf8.h"

namespace {

constexpr std::string_view kRegHeader = "Windows Registry Editor Version 5.00";
constexpr std::string_view kMachineSoftware = "HKEY_LOCAL_MACHINE\\SOFTWARE\\";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kDwordPrefix = "dword:";
constexpr size_t kMaxDwordDigits = 8;
constexpr std::string_view kTemporaryInfix = ".tmp.";
constexpr size_t kMaxPidDigits = 10;  // a pid_t in decimal

// ---- Text ----

// Names of keys and values compare without regard to ASCII case, as in the
// registry.
std::string Folded(std::string_view text)
{
    return FoldedNoCase(text);
}

bool EqualNoCase(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && Folded(a) == Folded(b);
}

bool IsBlank(char c)
{
    return c == ' ' || c == '\t';
}

void SkipBlanks(std::string_view line, size_t& pos)
{
    while (pos < line.size() && IsBlank(line[pos]))
        ++pos;
}

// A line without the CR of a CRLF end.
std::string_view WithoutCr(std::string_view line)
{
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    return line;
}

// A line without its line end and without the blanks around it.
std::string_view Trimmed(std::string_view line)
{
    line = WithoutCr(line);
    size_t first = 0;
    SkipBlanks(line, first);
    line.remove_prefix(first);
    while (!line.empty() && IsBlank(line.back()))
        line.remove_suffix(1);
    return line;
}

// Calls `each` with every line of `text` from `start` on, without its LF. A
// last line without LF counts; the empty rest behind a final LF does not.
template <typename Each>
void ForEachLine(std::string_view text, size_t start, Each each)
{
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string_view::npos)
            end = text.size();
        each(text.substr(start, end - start));
        start = end + 1;
    }
}

// Where the lines behind the header line start, or npos when `text` is not a
// .reg file of version 5.00. A byte-order mark and blank lines may come
// before the header.
size_t BodyStart(std::string_view text)
{
    size_t start = text.substr(0, kByteOrderMark.size()) == kByteOrderMark ? kByteOrderMark.size() : 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string_view::npos)
            end = text.size();
        const std::string_view line = Trimmed(text.substr(start, end - start));
        start = end + 1;
        if (line == kRegHeader)
            return start;
        if (!line.empty())
            return std::string_view::npos;
    }
    return std::string_view::npos;
}

enum class LineKind {
    Blank,
    Comment,  // `;` first
    Section,  // [path]
    Other,    // a value line, or a line nobody understands
};

LineKind KindOf(std::string_view trimmed)
{
    if (trimmed.empty())
        return LineKind::Blank;
    if (trimmed.front() == ';')
        return LineKind::Comment;
    if (trimmed.front() == '[' && trimmed.back() == ']')
        return LineKind::Section;
    return LineKind::Other;
}

std::string_view SectionPath(std::string_view trimmed)
{
    return trimmed.substr(1, trimmed.size() - 2);
}

// A quoted .reg string from `pos` (at the opening quote), with the escapes
// \\, \" and \n; `pos` ends behind the closing quote.
bool ReadQuoted(std::string_view line, size_t& pos, std::string& out)
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
        if (c != '\\') {
            out += c;
            continue;
        }
        if (++pos >= line.size())
            return false;
        switch (line[pos]) {
        case '\\':
            out += '\\';
            break;
        case '"':
            out += '"';
            break;
        case 'n':
            out += '\n';
            break;
        default:
            return false;
        }
    }
    return false;
}

std::string Quote(const std::string& text)
{
    std::string out = "\"";
    for (const char c : text) {
        if (c == '\\' || c == '"')
            out += '\\';
        if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    out += '"';
    return out;
}

// The quoted name at the start of a trimmed value line, and `pos` behind
// the `=` that follows it and the blanks after that.
bool ReadName(std::string_view line, std::string& name, size_t& pos)
{
    pos = 0;
    if (!ReadQuoted(line, pos, name))
        return false;
    SkipBlanks(line, pos);
    if (pos >= line.size() || line[pos] != '=')
        return false;
    ++pos;
    SkipBlanks(line, pos);
    return true;
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

// A NUL cannot stand in a name that the registry functions are given, and
// text that is not UTF-8 could not be read back: such a name is never
// written, so that it cannot come back cut or changed.
bool IsWritable(const RegValue& value)
{
    return value.name.find('\0') == std::string::npos && IsUtf8(value.name) && (value.is_dword || IsUtf8(value.text));
}

// ---- Files ----

std::string FolderOf(const std::string& file)
{
    const size_t slash = file.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : file.substr(0, slash);
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
    char buffer[65536];
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

std::string TemporaryPrefix(const std::string& file)
{
    const size_t slash = file.rfind('/');
    return file.substr(slash == std::string::npos ? 0 : slash + 1) + std::string(kTemporaryInfix);
}

// The process id in a temporary file's name `<file>.tmp.<pid>`, or 0.
pid_t TemporaryOwner(std::string_view name, std::string_view prefix)
{
    if (name.size() <= prefix.size() || name.size() > prefix.size() + kMaxPidDigits ||
        name.substr(0, prefix.size()) != prefix)
        return 0;
    long long pid = 0;
    for (const char c : name.substr(prefix.size())) {
        if (c < '0' || c > '9')
            return 0;
        pid = pid * 10 + (c - '0');
    }
    return pid > 0 && pid == static_cast<long long>(static_cast<pid_t>(pid)) ? static_cast<pid_t>(pid) : 0;
}

// A process killed while it saved leaves its temporary file behind; the next
// save clears away those of processes that no longer run. One that still
// runs may be saving right now, and keeps its file.
void RemoveStaleTemporaries(const std::string& file)
{
    const std::string folder = FolderOf(file);
    const std::string prefix = TemporaryPrefix(file);
    DIR* listing = opendir(folder.c_str());
    if (listing == nullptr)
        return;
    while (const dirent* entry = readdir(listing)) {
        const pid_t owner = TemporaryOwner(entry->d_name, prefix);
        if (owner == 0 || owner == getpid())
            continue;
        if (kill(owner, 0) != 0 && errno == ESRCH)
            unlink((folder + "/" + entry->d_name).c_str());
    }
    closedir(listing);
}

// The file as it is to be saved: `old` (the current text, or empty when
// there is none or it is no .reg file) with the values of `pending` put in.
std::string MergedText(std::string_view old, const std::string& key_path, const std::vector<const RegValue*>& pending)
{
    std::unordered_map<std::string, size_t> slot;  // folded name -> pending[]
    for (size_t i = 0; i < pending.size(); ++i)
        slot.emplace(Folded(pending[i]->name), i);
    std::vector<bool> written(pending.size(), false);

    std::string text = std::string(kRegHeader) + "\n";
    // Behind the last value line of our section, or its header: a comment
    // further down may well speak of the next section.
    size_t insertAt = std::string::npos;
    const size_t body = BodyStart(old);
    if (body != std::string_view::npos) {
        bool inKey = false;
        ForEachLine(old, body, [&](std::string_view line) {
            const std::string_view trimmed = Trimmed(line);
            const LineKind kind = KindOf(trimmed);
            if (kind == LineKind::Section)
                inKey = EqualNoCase(SectionPath(trimmed), key_path);
            std::string name;
            size_t pos;
            if (inKey && kind == LineKind::Other && ReadName(trimmed, name, pos)) {
                const auto found = slot.find(Folded(name));
                if (found != slot.end()) {
                    // The first line of the name takes the new value, and
                    // no later line may override it.
                    if (!written[found->second]) {
                        text += FormatRegValue(*pending[found->second]) + "\n";
                        written[found->second] = true;
                        insertAt = text.size();
                    }
                    return;
                }
            }
            // Every line ends in LF, but a line whose own text ends in CR
            // keeps it behind a CR LF, or it would read as another line.
            const std::string_view own = WithoutCr(line);
            text += own;
            text += !own.empty() && own.back() == '\r' ? "\r\n" : "\n";
            if (inKey && (kind == LineKind::Section || kind == LineKind::Other))
                insertAt = text.size();
        });
    }
    if (insertAt == std::string::npos) {
        // A blank line before the new section.
        if (text.compare(text.size() - 2, 2, "\n\n") != 0)
            text += '\n';
        text += "[" + key_path + "]\n";
        insertAt = text.size();
    }
    std::string added;
    for (size_t i = 0; i < pending.size(); ++i) {
        if (!written[i])
            added += FormatRegValue(*pending[i]) + "\n";
    }
    text.insert(insertAt, added);
    return text;
}

}  // namespace

std::string RegStoreFolder(const std::string& maker)
{
    const char* config = std::getenv("XDG_CONFIG_HOME");
    if (config != nullptr && config[0] != '\0')
        return std::string(config) + "/" + maker;
    const char* home = std::getenv("HOME");
    if (home != nullptr && home[0] != '\0')
        return std::string(home) + "/.config/" + maker;
    return std::string();
}

std::string RegStoreFile(const std::string& maker, const std::string& product)
{
    const std::string folder = RegStoreFolder(maker);
    if (folder.empty())
        return std::string();
    return folder + "/" + product + ".reg";
}

std::string RegKeyPath(const std::string& maker, const std::string& product)
{
    return std::string(kMachineSoftware) + maker + "\\" + product;
}

bool ParseRegValue(std::string_view line, RegValue& value)
{
    line = Trimmed(line);
    size_t pos;
    if (!IsUtf8(line) || !ReadName(line, value.name, pos))
        return false;
    if (pos < line.size() && line[pos] == '"') {
        value.is_dword = false;
        value.dword = 0;
        return ReadQuoted(line, pos, value.text) && pos == line.size();
    }
    if (!EqualNoCase(line.substr(pos, kDwordPrefix.size()), kDwordPrefix))
        return false;
    pos += kDwordPrefix.size();
    const size_t digits = line.size() - pos;
    if (digits < 1 || digits > kMaxDwordDigits)
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
    const size_t body = BodyStart(contents);
    if (body == std::string::npos)
        return false;
    std::unordered_map<std::string, size_t> index;  // folded name -> values[]
    bool keySeen = false;
    bool inKey = false;
    ForEachLine(contents, body, [&](std::string_view line) {
        const std::string_view trimmed = Trimmed(line);
        const LineKind kind = KindOf(trimmed);
        if (kind == LineKind::Section) {
            inKey = EqualNoCase(SectionPath(trimmed), key_path);
            keySeen = keySeen || inKey;
            return;
        }
        RegValue value;
        if (!inKey || kind != LineKind::Other || !ParseRegValue(trimmed, value))
            return;
        // A later line of the same name replaces an earlier one.
        const auto [at, added] = index.emplace(Folded(value.name), values.size());
        if (added)
            values.push_back(std::move(value));
        else
            values[at->second] = std::move(value);
    });
    return keySeen;
}

bool WriteRegKey(const std::string& file, const std::string& key_path,
                 const std::vector<RegValue>& values, std::string& error)
{
    if (file.empty()) {
        error = "no folder for the settings store (neither XDG_CONFIG_HOME nor HOME is set)";
        return false;
    }
    if (!MakeFolders(FolderOf(file), error))
        return false;

    // Of two values of one name, the later is saved.
    std::vector<const RegValue*> pending;
    std::unordered_map<std::string, size_t> slot;
    for (const RegValue& value : values) {
        if (!IsWritable(value))
            continue;
        const auto [at, added] = slot.emplace(Folded(value.name), pending.size());
        if (added)
            pending.push_back(&value);
        else
            pending[at->second] = &value;
    }

    // A file that is there but cannot be read is not replaced: it may hold
    // more than our key.
    std::string old;
    if (!ReadWholeFile(file, old)) {
        if (errno != ENOENT) {
            error = "cannot read " + file + ": " + std::strerror(errno);
            return false;
        }
        old.clear();
    }
    const std::string text = MergedText(old, key_path, pending);

    RemoveStaleTemporaries(file);
    const std::string temporary = file + std::string(kTemporaryInfix) + std::to_string(getpid());
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
