// Cutting SQL text into statements, with the few rules of SQLite's tokenizer that decide where a
// statement ends.
#include "SqlStatements.h"

#include <cctype>

namespace zoth_cli {

namespace {

bool IsWordChar(char ch) {
    const unsigned char c = static_cast<unsigned char>(ch);
    return std::isalnum(c) != 0 || c == '_' || c == '$' || c >= 0x80;
}

bool Is(const std::string& word, const char* keyword) {
    std::string upper;
    for (char ch : word)
        upper += static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
    return upper == keyword;
}

} // namespace

std::vector<std::string> SplitStatements(const std::string& sql) {
    std::vector<std::string> statements;
    size_t start = 0;          // where the current statement began
    bool hasToken = false;     // it holds more than blanks and comments
    int words = 0;             // its words so far, up to the few that tell a trigger
    bool trigger = false;      // CREATE [TEMP|TEMPORARY] TRIGGER: its body holds ';'
    bool afterEnd = false;     // the last token was the word END
    std::string first, second; // its first two words
    auto finish = [&](size_t end) {
        if (hasToken) statements.push_back(sql.substr(start, end - start));
        start = end;
        hasToken = trigger = afterEnd = false;
        words = 0;
    };
    size_t i = 0;
    while (i < sql.size()) {
        const char ch = sql[i];
        const char next = i + 1 < sql.size() ? sql[i + 1] : '\0';
        if (std::isspace(static_cast<unsigned char>(ch)) != 0) {
            ++i;
        } else if (ch == '-' && next == '-') { // to the end of the line
            size_t end = sql.find('\n', i);
            i = end == std::string::npos ? sql.size() : end + 1;
        } else if (ch == '/' && next == '*') { // to "*/", or to the end of the text
            size_t end = sql.find("*/", i + 2);
            i = end == std::string::npos ? sql.size() : end + 2;
        } else if (ch == '\'' || ch == '"' || ch == '`' || ch == '[') {
            // Quoted text or name: a doubled quote stands for itself, so "''" simply closes and opens.
            const char close = ch == '[' ? ']' : ch;
            size_t end = sql.find(close, i + 1);
            i = end == std::string::npos ? sql.size() : end + 1;
            hasToken = true;
            afterEnd = false;
        } else if (ch == ';') {
            ++i;
            if (!trigger || afterEnd) finish(i);
            afterEnd = false;
        } else if (IsWordChar(ch)) {
            size_t end = i;
            while (end < sql.size() && IsWordChar(sql[end]))
                ++end;
            const std::string word = sql.substr(i, end - i);
            i = end;
            hasToken = true;
            afterEnd = Is(word, "END");
            // CREATE TRIGGER, CREATE TEMP TRIGGER, CREATE TEMPORARY TRIGGER
            if (words == 0) first = word;
            if (words == 1) second = word;
            const bool temp = Is(second, "TEMP") || Is(second, "TEMPORARY");
            if (Is(first, "CREATE") && Is(word, "TRIGGER") && (words == 1 || (words == 2 && temp)))
                trigger = true;
            ++words;
        } else {
            ++i;
            hasToken = true;
            afterEnd = false;
        }
    }
    finish(sql.size());
    return statements;
}

} // namespace zoth_cli
