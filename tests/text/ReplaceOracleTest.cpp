// ReplaceAll, ReplaceAllDistinct and Url2Domain against the plain algorithms they replaced (search
// the whole text again after each replacement), on every short input over small alphabets.
#include "zoth/text/STRING_UTIL.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using ZOTH::STRING_UTIL;

namespace {

// The plain algorithms, kept as the oracle. `limit` bounds the replacements, since some rules never
// end (old "ab", new "bbaa"); false when the limit was reached.
template <typename Str>
bool OracleDistinct(Str& text, const Str& oldValue, const Str& newValue, size_t position) {
    if (oldValue.empty()) return true;
    while ((position = text.find(oldValue, position)) != Str::npos) {
        text.replace(position, oldValue.size(), newValue);
        position += newValue.size();
    }
    return true;
}

template <typename Str>
bool OracleRepeated(Str& text, const Str& oldValue, const Str& newValue, unsigned start, int limit) {
    if (oldValue == newValue || oldValue.empty()) return true;
    if (newValue.find(oldValue) != Str::npos) return OracleDistinct(text, oldValue, newValue, start);
    typename Str::size_type position;
    while ((position = text.find(oldValue, start)) != Str::npos) {
        if (limit-- == 0) return false;
        text.replace(position, oldValue.size(), newValue);
    }
    return true;
}

std::string OracleUrl2Domain(const std::string& url) {
    std::string result = url;
    OracleRepeated<std::string>(result, url.find("https") != std::string::npos ? "https://" : "http://", "",
                                0, -1);
    size_t slash = result.find('/');
    if (slash != std::string::npos) result.erase(slash);
    return result;
}

// Every string of length 0 to `most` over `alphabet`.
std::vector<std::string> AllStrings(const std::string& alphabet, size_t most) {
    std::vector<std::string> all{""};
    for (size_t begin = 0, length = 1; length <= most; ++length) {
        size_t end = all.size();
        for (size_t i = begin; i < end; ++i)
            for (char c : alphabet)
                all.push_back(all[i] + c);
        begin = end;
    }
    return all;
}

std::wstring Wide(const std::string& text) {
    return std::wstring(text.begin(), text.end());
}

} // namespace

TEST(TextReplaceOracle, SameResultsAsSearchingAgainAfterEachReplacement) {
    const std::vector<std::string> texts = AllStrings("ab", 7), olds = AllStrings("ab", 3);
    std::vector<std::string> news = AllStrings("ab", 3);
    news.push_back("bbaa"); // with old "ab", an endless rule
    size_t compared = 0, endless = 0;
    for (const std::string& oldValue : olds)
        for (const std::string& newValue : news)
            for (const std::string& text : texts)
                for (unsigned start = 0; start <= text.size() + 1; start += (text.size() > 4 ? 3 : 1)) {
                    std::string expected = text;
                    if (!OracleRepeated(expected, oldValue, newValue, start, 200)) {
                        ++endless; // the library's form never ends either
                        continue;
                    }
                    std::string got = text;
                    ASSERT_EQ(expected, STRING_UTIL::ReplaceAll(got, oldValue, newValue, start))
                        << "text " << text << " old " << oldValue << " new " << newValue << " start "
                        << start;
                    if (start == 0 && text.size() % 3 == 0) { // the wide form, on a share of the cases
                        std::wstring wide = Wide(text), wideOld = Wide(oldValue), wideNew = Wide(newValue);
                        EXPECT_EQ(Wide(expected), STRING_UTIL::ReplaceAll(wide, wideOld, wideNew, start));
                    }
                    std::string distinct = text, expectedDistinct = text;
                    OracleDistinct(expectedDistinct, oldValue, newValue, 0);
                    ASSERT_EQ(expectedDistinct, STRING_UTIL::ReplaceAllDistinct(distinct, oldValue, newValue))
                        << "text " << text << " old " << oldValue << " new " << newValue;
                    std::wstring wideDistinct = Wide(text);
                    EXPECT_EQ(Wide(expectedDistinct),
                              STRING_UTIL::ReplaceAllDistinct(wideDistinct, Wide(oldValue), Wide(newValue)));
                    ++compared;
                }
    EXPECT_GT(compared, 50000u);
    EXPECT_GT(endless, 0u); // the oracle's limit was met, so endless rules were among the cases
}

TEST(TextReplaceOracle, Url2DomainSameAsBefore) {
    const std::vector<std::string> pieces = {"http://", "https://", "h", "s", ":", "/", "x."};
    std::vector<std::string> urls{""};
    for (size_t begin = 0, length = 1; length <= 5; ++length) {
        size_t end = urls.size();
        for (size_t i = begin; i < end; ++i)
            for (const std::string& piece : pieces)
                urls.push_back(urls[i] + piece);
        begin = end;
    }
    for (const std::string& url : urls) {
        ASSERT_EQ(OracleUrl2Domain(url), STRING_UTIL::Url2Domain(url)) << url;
        ASSERT_EQ((url.find("https") != std::string::npos ? "https://" : "http://") + OracleUrl2Domain(url),
                  STRING_UTIL::Url2DomainHasHttpType(url))
            << url;
    }
    // Linear: a long run of heads that each removal joins into a new one. Quadratic it took seconds.
    std::string nested;
    for (int i = 0; i < 20000; ++i)
        nested += "http:/";
    for (int i = 0; i < 20000; ++i)
        nested += "/";
    nested += "host/path";
    EXPECT_EQ("host", STRING_UTIL::Url2Domain(nested));
}
