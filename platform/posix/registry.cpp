// The registry functions on POSIX. A key
// HKEY_LOCAL_MACHINE\SOFTWARE\<Maker>\<Product> is a section of the .reg
// file <config>/<Maker>/<Product>.reg (reg_file.h). A handle reads the key
// when it is opened and works on that copy; what is set through it is saved
// when it is closed, all in one atomic rewrite of the file, so that another
// process, or this one after a crash, finds either none or all of one
// handle's changes.
#include <cstring>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/platform.h"
#include "platform/posix/reg_file.h"
#include "platform/posix/wide_utf8.h"

namespace {

constexpr char16_t kSoftware[] = u"SOFTWARE";
constexpr char16_t kKeySeparator = u'\\';
constexpr DWORD kCreatedNewKey = 1;     // REG_CREATED_NEW_KEY
constexpr DWORD kOpenedExistingKey = 2; // REG_OPENED_EXISTING_KEY
constexpr REGSAM kSetValueRights = KEY_WRITE & ~0x20000u;  // KEY_SET_VALUE | KEY_CREATE_SUB_KEY

struct RegistryValue {
    std::u16string name;
    DWORD type;              // REG_SZ or REG_DWORD
    std::vector<BYTE> data;  // as given to RegSetValueExW or as the file holds it
    bool changed;            // set through the handle, to be saved at its close
};

// Where a key lives: its file and section.
struct KeyPlace {
    std::string file;
    std::string section;
};

// One part of a key path that can be a file or folder name.
bool IsPlainName(const std::string& part)
{
    return !part.empty() && part != "." && part != ".." && part.find('/') == std::string::npos;
}

// SOFTWARE\<Maker>\<Product> under HKEY_LOCAL_MACHINE, and nothing else.
bool FindKeyPlace(HKEY root, LPCWSTR subKey, KeyPlace& place)
{
    if (root != HKEY_LOCAL_MACHINE || subKey == nullptr)
        return false;
    const std::u16string_view path(subKey, WideCharCount(subKey));
    const size_t first = path.find(kKeySeparator);
    const size_t second = first == path.npos ? path.npos : path.find(kKeySeparator, first + 1);
    if (second == path.npos || path.find(kKeySeparator, second + 1) != path.npos ||
        !WideEqualNoCase(path.substr(0, first), kSoftware))
        return false;
    std::string maker;
    std::string product;
    if (!Utf8FromWide(path.substr(first + 1, second - first - 1), maker) ||
        !Utf8FromWide(path.substr(second + 1), product) || !IsPlainName(maker) || !IsPlainName(product))
        return false;
    place.file = RegStoreFile(maker, product);
    place.section = RegKeyPath(maker, product);
    return !place.file.empty();
}

}  // namespace

struct HKEY__ {
    KeyPlace place;
    bool writable;
    bool created;                    // the key is new: saved at close even with no value
    std::vector<RegistryValue> values;
    std::unordered_map<std::u16string, size_t> index;  // folded name -> values[]
    std::vector<size_t> changed;     // values[] set through this handle, in order of their first change
};

namespace {

// Puts a value into the handle's copy, over one of the same name. A value
// marked changed stays marked, and the order of first changes is kept for
// the save.
void Put(HKEY key, RegistryValue value)
{
    const auto [at, added] = key->index.emplace(FoldedNoCase<char16_t>(value.name), key->values.size());
    const bool wasChanged = !added && key->values[at->second].changed;
    if (value.changed && !wasChanged)
        key->changed.push_back(at->second);
    value.changed = value.changed || wasChanged;
    if (added)
        key->values.push_back(std::move(value));
    else
        key->values[at->second] = std::move(value);
}

// The key's values from its file; false when the file is missing,
// unreadable, not a .reg file of version 5.00, or without the key. A value
// whose name or text cannot be read is absent.
bool ReadKey(HKEY key)
{
    std::vector<RegValue> stored;
    if (!ReadRegKey(key->place.file, key->place.section, stored))
        return false;
    for (const RegValue& entry : stored) {
        RegistryValue value;
        if (!WideFromUtf8(entry.name, value.name))
            continue;
        if (entry.is_dword) {
            value.type = REG_DWORD;
            value.data.resize(sizeof entry.dword);
            std::memcpy(value.data.data(), &entry.dword, sizeof entry.dword);
        } else {
            std::u16string wide;
            if (!WideFromUtf8(entry.text, wide))
                continue;
            value.type = REG_SZ;
            value.data.resize((wide.size() + 1) * sizeof(char16_t));
            std::memcpy(value.data.data(), wide.c_str(), value.data.size());
        }
        value.changed = false;
        Put(key, std::move(value));
    }
    return true;
}

// The text of a REG_SZ value: up to its terminator, or up to the end of the
// data.
std::u16string TextOf(const RegistryValue& value)
{
    std::u16string wide;
    for (size_t i = 0; i + 1 < value.data.size(); i += sizeof(char16_t)) {
        char16_t c;
        std::memcpy(&c, value.data.data() + i, sizeof c);
        if (c == 0)
            break;
        wide += c;
    }
    return wide;
}

// The changes of this handle into the file, in one rewrite.
LSTATUS SaveKey(HKEY key)
{
    std::vector<RegValue> stored;
    for (const size_t at : key->changed) {
        const RegistryValue& value = key->values[at];
        RegValue entry{std::string(), value.type == REG_DWORD, 0, std::string()};
        Utf8FromWide(value.name, entry.name);
        if (entry.is_dword)
            std::memcpy(&entry.dword, value.data.data(), sizeof entry.dword);
        else
            Utf8FromWide(TextOf(value), entry.text);
        stored.push_back(std::move(entry));
    }
    std::string error;
    return WriteRegKey(key->place.file, key->place.section, stored, error) ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
}

bool IsKeyHandle(HKEY key)
{
    return key != nullptr && key != HKEY_LOCAL_MACHINE;
}

}  // namespace

LSTATUS RegOpenKeyExW(HKEY root, LPCWSTR subKey, DWORD, REGSAM access, PHKEY result)
{
    if (result == nullptr)
        return ERROR_INVALID_PARAMETER;
    *result = nullptr;
    auto key = std::make_unique<HKEY__>();
    if (!FindKeyPlace(root, subKey, key->place) || !ReadKey(key.get()))
        return ERROR_FILE_NOT_FOUND;
    key->writable = (access & kSetValueRights) != 0;
    *result = key.release();
    return ERROR_SUCCESS;
}

LSTATUS RegQueryValueExW(HKEY key, LPCWSTR name, LPDWORD, LPDWORD type, LPBYTE data, LPDWORD bytes)
{
    if (!IsKeyHandle(key))
        return ERROR_INVALID_HANDLE;
    if (name == nullptr)
        return ERROR_FILE_NOT_FOUND;
    const auto found = key->index.find(FoldedNoCase(std::u16string_view(name, WideCharCount(name))));
    if (found == key->index.end())
        return ERROR_FILE_NOT_FOUND;
    const RegistryValue& value = key->values[found->second];
    if (type != nullptr)
        *type = value.type;
    const DWORD size = DWORD(value.data.size());
    if (data != nullptr) {
        if (bytes == nullptr)
            return ERROR_INVALID_PARAMETER;
        // As Windows does: a value larger than the buffer fails, and the
        // count tells the size it would need.
        if (*bytes < size) {
            *bytes = size;
            return ERROR_MORE_DATA;
        }
        std::memcpy(data, value.data.data(), size);
    }
    if (bytes != nullptr)
        *bytes = size;
    return ERROR_SUCCESS;
}

LSTATUS RegCreateKeyExW(HKEY root, LPCWSTR subKey, DWORD, LPWSTR, DWORD, REGSAM, LPSECURITY_ATTRIBUTES, PHKEY result,
                        LPDWORD disposition)
{
    if (result == nullptr)
        return ERROR_INVALID_PARAMETER;
    *result = nullptr;
    auto key = std::make_unique<HKEY__>();
    if (!FindKeyPlace(root, subKey, key->place))
        return ERROR_ACCESS_DENIED;
    // A new key, and the folders of its file, come into being when the
    // handle is closed, together with its values.
    key->created = !ReadKey(key.get());
    key->writable = true;
    if (disposition != nullptr)
        *disposition = key->created ? kCreatedNewKey : kOpenedExistingKey;
    *result = key.release();
    return ERROR_SUCCESS;
}

LSTATUS RegSetValueExW(HKEY key, LPCWSTR name, DWORD, DWORD type, const BYTE* data, DWORD bytes)
{
    if (!IsKeyHandle(key))
        return ERROR_INVALID_HANDLE;
    if (!key->writable)
        return ERROR_ACCESS_DENIED;
    if (name == nullptr || (type != REG_SZ && type != REG_DWORD) || (type == REG_DWORD && bytes != sizeof(DWORD)) ||
        (data == nullptr && bytes != 0))
        return ERROR_INVALID_PARAMETER;
    RegistryValue value{std::u16string(name, WideCharCount(name)), type, std::vector<BYTE>(data, data + bytes), true};
    // What the file could not hold exactly is refused rather than changed.
    std::string utf8;
    if (!Utf8FromWide(value.name, utf8) || (type == REG_SZ && !Utf8FromWide(TextOf(value), utf8)))
        return ERROR_INVALID_PARAMETER;
    Put(key, std::move(value));
    return ERROR_SUCCESS;
}

LSTATUS RegCloseKey(HKEY key)
{
    if (!IsKeyHandle(key))
        return ERROR_INVALID_HANDLE;
    const LSTATUS status = key->created || !key->changed.empty() ? SaveKey(key) : ERROR_SUCCESS;
    delete key;
    return status;
}
