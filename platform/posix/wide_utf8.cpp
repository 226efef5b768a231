// Wide text at the POSIX boundary: strict UTF-8 in both directions.
#include "platform/posix/wide_utf8.h"

#include <cstdint>

namespace {

constexpr uint32_t kReplacement = 0xFFFD;
constexpr uint32_t kLastCodePoint = 0x10FFFF;
constexpr uint32_t kFirstSurrogate = 0xD800;
constexpr uint32_t kFirstLowSurrogate = 0xDC00;
constexpr uint32_t kLastSurrogate = 0xDFFF;
constexpr uint32_t kFirstSupplementary = 0x10000;

// The code point that starts at `at`, which then stands behind it. False
// for anything but the shortest form of a scalar value: a stray or missing
// continuation byte, an overlong form (C0 AF for "/"), a surrogate, or a
// code point above U+10FFFF.
bool NextCodePoint(std::string_view text, size_t& at, uint32_t& code)
{
    const uint8_t lead = uint8_t(text[at]);
    size_t extra;
    uint32_t least;  // the smallest code point that needs this many bytes
    if (lead < 0x80) {
        code = lead;
        ++at;
        return true;
    } else if ((lead & 0xE0) == 0xC0) {
        code = lead & 0x1Fu;
        extra = 1;
        least = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        code = lead & 0x0Fu;
        extra = 2;
        least = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        code = lead & 0x07u;
        extra = 3;
        least = kFirstSupplementary;
    } else {
        return false;
    }
    if (text.size() - at <= extra)
        return false;
    for (size_t k = 1; k <= extra; ++k) {
        const uint8_t next = uint8_t(text[at + k]);
        if ((next & 0xC0) != 0x80)
            return false;
        code = (code << 6) | (next & 0x3Fu);
    }
    if (code < least || code > kLastCodePoint || (code >= kFirstSurrogate && code <= kLastSurrogate))
        return false;
    at += extra + 1;
    return true;
}

char16_t FoldCase(char16_t c)
{
    return (c >= u'a' && c <= u'z') ? char16_t(c - u'a' + u'A') : c;
}

}  // namespace

bool IsUtf8(std::string_view text)
{
    uint32_t code;
    for (size_t at = 0; at < text.size();) {
        if (!NextCodePoint(text, at, code))
            return false;
    }
    return true;
}

bool WideFromUtf8(std::string_view text, std::u16string& out)
{
    out.clear();
    out.reserve(text.size());
    uint32_t code;
    for (size_t at = 0; at < text.size();) {
        if (!NextCodePoint(text, at, code))
            return false;
        if (code >= kFirstSupplementary) {
            code -= kFirstSupplementary;
            out += char16_t(kFirstSurrogate + (code >> 10));
            out += char16_t(kFirstLowSurrogate + (code & 0x3FFu));
        } else {
            out += char16_t(code);
        }
    }
    return true;
}

bool Utf8FromWide(std::u16string_view text, std::string& out)
{
    out.clear();
    out.reserve(text.size());
    bool exact = true;
    for (size_t i = 0; i < text.size(); ++i) {
        uint32_t code = text[i];
        const bool high = code >= kFirstSurrogate && code < kFirstLowSurrogate;
        if (high && i + 1 < text.size() && text[i + 1] >= kFirstLowSurrogate && text[i + 1] <= kLastSurrogate) {
            code = kFirstSupplementary + ((code - kFirstSurrogate) << 10) + (uint32_t(text[i + 1]) - kFirstLowSurrogate);
            ++i;
        } else if (code >= kFirstSurrogate && code <= kLastSurrogate) {
            code = kReplacement;
            exact = false;
        }
        if (code < 0x80) {
            out += char(code);
        } else if (code < 0x800) {
            out += char(0xC0 | (code >> 6));
            out += char(0x80 | (code & 0x3F));
        } else if (code < kFirstSupplementary) {
            out += char(0xE0 | (code >> 12));
            out += char(0x80 | ((code >> 6) & 0x3F));
            out += char(0x80 | (code & 0x3F));
        } else {
            out += char(0xF0 | (code >> 18));
            out += char(0x80 | ((code >> 12) & 0x3F));
            out += char(0x80 | ((code >> 6) & 0x3F));
            out += char(0x80 | (code & 0x3F));
        }
    }
    return exact;
}

size_t WideCharCount(const char16_t* text)
{
    size_t length = 0;
    while (text != nullptr && text[length] != 0)
        ++length;
    return length;
}

void CopyWideBounded(char16_t* target, const char16_t* source, size_t count)
{
    if (count == 0)
        return;
    size_t i = 0;
    for (; source != nullptr && i + 1 < count && source[i] != 0; ++i)
        target[i] = source[i];
    target[i] = 0;
}

int WideCompareNoCase(std::u16string_view a, std::u16string_view b)
{
    const size_t common = a.size() < b.size() ? a.size() : b.size();
    for (size_t i = 0; i < common; ++i) {
        const char16_t x = FoldCase(a[i]);
        const char16_t y = FoldCase(b[i]);
        if (x != y)
            return int(x) - int(y);
    }
    return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

bool WideEqualNoCase(std::u16string_view a, std::u16string_view b)
{
    return a.size() == b.size() && WideCompareNoCase(a, b) == 0;
}
