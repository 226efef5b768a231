// Settings store. Defaults apply value by value, so a key that holds only some
// values keeps the others at their defaults, and a key that cannot be opened
// gives all defaults without a word. Nothing is range-checked: a Mode of 9 or
// an Out_Bits of 20 stands in the record as read. Negative trims are stored as
// the two's complement of the 32-bit word.
#include "settings/settings_store.h"

#include <cstdint>
#include <cstring>

#include "platform/platform.h"
#include "settings/wide_text.h"
#include "signal/processor.h"

static const WCHAR kSettingsKey[] = KELVANE_TEXT("SOFTWARE\\Morrowfen\\Kelvane");
static const WCHAR kOutPlugName[] = KELVANE_TEXT("Out_Plug");
static const WCHAR kOutPlugDefault[] = KELVANE_TEXT("out_ds.dll");

constexpr DWORD kOutPlugQueryBytes = 510;  // 0x1FE: at most 255 wide characters with the terminator
constexpr uint32_t kOutPlugBound = 255;    // characters copied, terminator included
constexpr DWORD kNumberBytes = 4;

struct NumberValue {
    const WCHAR* name;
    int32_t ProcessorSettingsRecord::*field;
    int32_t fallback;  // the default
};

// The sixteen number values in the order of the record.
#define KELVANE_NUMBER_VALUE(name, fallback) {KELVANE_TEXT(#name), &ProcessorSettingsRecord::name, fallback},
static const NumberValue kNumberValues[] = {KELVANE_NUMBER_SETTINGS(KELVANE_NUMBER_VALUE)};

void LoadSettings(ProcessorSettingsRecord& settings)
{
    // The result is not looked at: a key that did not open makes every query
    // below fail, and so gives every default.
    HKEY key = nullptr;
    RegOpenKeyExW(HKEY_LOCAL_MACHINE, kSettingsKey, 0, KEY_QUERY_VALUE, &key);

    WCHAR path[kOutPlugChars] = {};
    DWORD bytes = kOutPlugQueryBytes;
    const LSTATUS pathStatus =
        RegQueryValueExW(key, kOutPlugName, nullptr, nullptr, reinterpret_cast<LPBYTE>(path), &bytes);
    WideCopyBounded(settings.Out_Plug, pathStatus == ERROR_SUCCESS ? path : kOutPlugDefault,
                    kOutPlugBound);

    // The byte count is set once and stays in force for all sixteen queries,
    // as the platform leaves it after each. The buffer is large enough for any
    // count that a failed query can leave behind, clamped to its size so that
    // a read never runs past it; a number is the first four bytes read.
    alignas(4) BYTE value[kOutPlugQueryBytes + 2] = {};
    bytes = kNumberBytes;
    for (const NumberValue& number : kNumberValues) {
        if (bytes > sizeof value)
            bytes = sizeof value;
        if (RegQueryValueExW(key, number.name, nullptr, nullptr, value, &bytes) == ERROR_SUCCESS) {
            uint32_t word;
            std::memcpy(&word, value, sizeof word);
            settings.*number.field = int32_t(word);
        } else {
            settings.*number.field = number.fallback;
        }
    }
    RegCloseKey(key);
}

void SaveSettings(const ProcessorSettingsRecord& settings)
{
    static WCHAR emptyClass[] = KELVANE_TEXT("");
    HKEY key = nullptr;
    DWORD disposition = 0;
    RegCreateKeyExW(HKEY_LOCAL_MACHINE, kSettingsKey, 0, emptyClass, REG_OPTION_NON_VOLATILE, KEY_WRITE, nullptr,
                    &key, &disposition);
    // The terminator is stored with the text.
    const DWORD pathBytes = 2 * WideLength(settings.Out_Plug) + 2;
    RegSetValueExW(key, kOutPlugName, 0, REG_SZ, reinterpret_cast<const BYTE*>(settings.Out_Plug),
                   pathBytes);
    for (const NumberValue& number : kNumberValues) {
        const uint32_t word = uint32_t(settings.*number.field);
        BYTE data[kNumberBytes];
        std::memcpy(data, &word, sizeof data);
        RegSetValueExW(key, number.name, 0, REG_DWORD, data, kNumberBytes);
    }
    RegCloseKey(key);
}
