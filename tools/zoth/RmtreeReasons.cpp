// The words of `zoth rmtree`: the library's removal says only whether the whole tree went.
#include "RmtreeReasons.h"

#include "Commands.h"

#include "zoth/platform/Win32File.h"

#include <filesystem>
#include <system_error>
#include <vector>

namespace zoth_cli {

namespace {

namespace fs = std::filesystem;

// The system's codes and attribute bits that the reasons tell apart.
constexpr unsigned long kFileNotFound = 2, kPathNotFound = 3, kAccessDenied = 5, kSharingViolation = 32,
                        kDirNotEmpty = 145;

bool IsSeparator(char ch) {
    return ch == '/' || (fs::path::preferred_separator == '\\' && ch == '\\');
}

// The system's code of a failed removal of `entry`, in words.
std::string ReasonText(unsigned long code, const std::string& entry) {
    // Read-only, as the library counts it: nobody may write it (the read-only attribute on Windows).
    std::error_code ec;
    const fs::perms perms = fs::symlink_status(fs::path(entry), ec).permissions();
    const fs::perms write = fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write;
    if (code == kAccessDenied && !ec && (perms & write) == fs::perms::none) return "it is read-only";
    switch (code) {
    case kAccessDenied:
        return "access denied";
    case kSharingViolation:
        return "it is in use by another program";
    case kDirNotEmpty:
        return "the folder is not empty";
    case kFileNotFound:
    case kPathNotFound:
        return "it vanished while being removed";
    default:
        return "system error " + std::to_string(code);
    }
}

} // namespace

std::string RmtreeRefusal(const std::string& dir) {
    if (dir.empty()) return "no folder named (empty argument)";
    std::error_code ec;
    const fs::path full = fs::weakly_canonical(fs::absolute(fs::path(dir), ec), ec);
    if (!ec && full == full.root_path()) return "refusing to remove the root folder " + dir;
    // "LINK/" names the link's target: judge the name itself, without trailing separators.
    std::string name = dir;
    while (name.size() > 1 && IsSeparator(name.back()) && name[name.size() - 2] != ':')
        name.pop_back();
    const fs::file_status status = fs::symlink_status(fs::path(name), ec);
    if (ec || !fs::exists(status)) return "no such folder: " + dir;
    if (fs::is_symlink(status))
        return dir + " is a link: rmtree neither follows it nor removes it (remove the link as a file)";
    if (!fs::is_directory(status)) return "not a folder: " + dir;
    const std::string last = fs::path(name).filename().string();
    if (last == "." || last == "..") return "refusing to remove '" + last + "': name the folder itself";
    return "";
}

std::string WhatResisted(const std::string& dir) {
    // Depth first without recursion, links not followed: files and links are tried as they are met,
    // folders after everything inside them, the deepest first.
    std::vector<fs::path> pending{fs::path(dir)}, entered;
    while (!pending.empty()) {
        const fs::path folder = pending.back();
        pending.pop_back();
        entered.push_back(folder);
        std::error_code ec;
        fs::directory_iterator it(folder, ec);
        if (ec) return "cannot open " + folder.string() + ": " + ec.message();
        for (; it != fs::directory_iterator(); it.increment(ec)) {
            const fs::path entry = it->path();
            const fs::file_status status = it->symlink_status(ec);
            if (!ec && fs::is_directory(status)) {
                pending.push_back(entry);
                continue;
            }
            if (!DeleteFileA(entry.string().c_str())) {
                const unsigned long code = GetLastError();
                return "could not remove " + entry.string() + ": " + ReasonText(code, entry.string());
            }
        }
        if (ec) return "cannot list " + folder.string() + ": " + ec.message();
    }
    for (auto folder = entered.rbegin(); folder != entered.rend(); ++folder) {
        if (!RemoveDirectoryA(folder->string().c_str())) {
            const unsigned long code = GetLastError();
            return "could not remove the folder " + folder->string() + ": " +
                   ReasonText(code, folder->string());
        }
    }
    return "the removal fell short, but nothing resists now: " + dir + " is gone";
}

} // namespace zoth_cli
