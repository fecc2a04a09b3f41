// UTF-16 path text (one unit per wchar_t) to and from the UTF-8 the file system takes.
#pragma once

#include <string>

namespace ZOTH::platform {

// False for a lone surrogate or an element beyond U+10FFFF; an element above 0xFFFF is taken as a
// whole code point.
bool Utf16ToUtf8(const wchar_t* text, std::string& out);
// Bytes that are not UTF-8 become U+FFFD, so any name the file system holds converts.
std::wstring Utf8ToUtf16(const std::string& text);

} // namespace ZOTH::platform
