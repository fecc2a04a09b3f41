// SplitStringA/W and ReplaceAllDistinct on arbitrary text. The first byte picks the separator, the
// second whether empty pieces are kept. Joining the kept pieces with the separator gives the text
// back; dropping empty pieces, the set form and the wide form all agree with that.
#include "zoth/text/STRING_UTIL.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using ZOTH::STRING_UTIL;
    if (size < 2) return 0;
    char separator = static_cast<char>(data[0]);
    int keepFlag = data[1] & 1;
    std::string text(reinterpret_cast<const char*>(data + 2), size - 2);

    std::vector<std::string> all;
    STRING_UTIL::SplitStringA(text, separator, all, 1);
    std::vector<std::string> byByte(1); // a plain byte loop: a separator starts the next piece
    for (char c : text) {
        if (c == separator)
            byByte.emplace_back();
        else
            byByte.back() += c;
    }
    if (all != byByte) std::abort();
    std::string joined;
    for (size_t i = 0; i < all.size(); ++i)
        joined += (i ? std::string(1, separator) : std::string()) + all[i];
    if (joined != text) std::abort();
    size_t separators = 0;
    for (char c : text)
        separators += c == separator;
    if (all.size() != separators + 1) std::abort();

    std::vector<std::string> pieces{"held"};
    STRING_UTIL::SplitStringA(text, separator, pieces, keepFlag);
    if (pieces.empty() || pieces[0] != "held") std::abort(); // appended, never cleared
    std::vector<std::string> expected{"held"};
    for (const std::string& p : all)
        if (keepFlag || !p.empty()) expected.push_back(p);
    if (pieces != expected) std::abort();

    std::set<std::string> set;
    STRING_UTIL::SplitStringA(text, separator, set, keepFlag);
    if (set != std::set<std::string>(expected.begin() + 1, expected.end())) std::abort();

    std::wstring wide(text.begin(), text.end());
    std::vector<std::wstring> widePieces;
    STRING_UTIL::SplitStringW(wide, static_cast<wchar_t>(separator), widePieces, keepFlag);
    if (widePieces.size() != expected.size() - 1) std::abort();
    for (size_t i = 0; i < widePieces.size(); ++i)
        if (widePieces[i] != std::wstring(expected[i + 1].begin(), expected[i + 1].end())) std::abort();

    // Removing every separator leaves the pieces run together.
    std::string removed = text;
    STRING_UTIL::ReplaceAllDistinct(removed, std::string(1, separator), "");
    std::string together;
    for (const std::string& p : all)
        together += p;
    if (removed != together) std::abort();
    return 0;
}
