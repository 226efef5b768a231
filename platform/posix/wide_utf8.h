// Wide text at the POSIX boundary. The plug-in speaks 16-bit text, as on
// Windows; file names, the settings files and standard error take UTF-8.
// The conversions are strict both ways: UTF-8 that is not well formed
// (overlong forms, surrogates, code points above U+10FFFF, stray or missing
// continuation bytes) is refused, and so is 16-bit text with a lone
// surrogate, which no UTF-8 can hold.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// True when `text` is well-formed UTF-8.
bool IsUtf8(std::string_view text);

// `text` as 16-bit text; false (and `out` unspecified) when it is not
// well-formed UTF-8.
bool WideFromUtf8(std::string_view text, std::u16string& out);

// `text` as UTF-8. A lone surrogate becomes U+FFFD and makes the result
// false, so a caller that must not change the text can refuse it.
bool Utf8FromWide(std::u16string_view text, std::string& out);

// Characters before the terminator; 0 for null.
size_t WideCharCount(const char16_t* text);

// Copies at most count - 1 characters and terminates; null copies as empty.
void CopyWideBounded(char16_t* target, const char16_t* source, size_t count);

// Equal when folded to upper case in the ASCII range, as registry names and
// combo-box items compare.
bool WideEqualNoCase(std::u16string_view a, std::u16string_view b);
// Below zero, zero or above zero as `a` sorts before, with or after `b`,
// folded the same way.
int WideCompareNoCase(std::u16string_view a, std::u16string_view b);

// 8-bit or 16-bit text folded that way: the form to look names up by.
template <typename Char>
std::basic_string<Char> FoldedNoCase(std::basic_string_view<Char> text)
{
    std::basic_string<Char> out(text);
    for (Char& c : out) {
        if (c >= Char('a') && c <= Char('z'))
            c = Char(c - Char('a') + Char('A'));
    }
    return out;
}
