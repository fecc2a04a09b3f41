// zoth commands and demo section of the file subsystem.
#include "Commands.h"

#include "zoth/file/CFileHepler.h"
#include "zoth/file/CPathHelper.h"
#include "zoth/platform/Win32Path.h"
#include "zoth/text/STRING_UTIL.h"

#include "RmtreeReasons.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace zoth_cli {

namespace {

using ZOTH::CFileHepler;
using ZOTH::CPathHelper;
using ZOTH::STRING_UTIL;

std::string Md5OfBytes(std::string bytes) {
    unsigned char digest[16] = {};
    STRING_UTIL::Buffer2Md5(reinterpret_cast<unsigned char*>(bytes.data()),
                            static_cast<unsigned int>(bytes.size()), digest);
    return STRING_UTIL::Hex2String(digest, 16);
}

// Whether `path` names a folder (links followed). Asked of the file system itself: on Windows a path
// ending in "\." names the same entry as the path, so "FILE\." exists too.
bool IsFolder(const std::string& path) {
    std::error_code ec;
    return std::filesystem::is_directory(std::filesystem::path(path), ec);
}

std::string TimeText(const _SYSTEMTIME& t) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%04u-%02u-%02u %02u:%02u:%02u.%03u", t.wYear, t.wMonth, t.wDay,
                  t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
    return buffer;
}

// The C library's reason for the failure in errno, e.g. "Permission denied".
std::string ErrnoText() {
    return std::strerror(errno);
}

int RunMd5(const Args& args) {
    if (args.empty()) return Usage("md5", "needs FILE, -s TEXT or -");
    if (args[0] == "-s") {
        if (args.size() < 2) return Usage("md5", "-s needs TEXT");
        if (args.size() > 2) return Extra("md5", args[2]);
        std::printf("%s\n", Md5OfBytes(args[1]).c_str());
        return 0;
    }
    if (args.size() > 1) return Extra("md5", args[1]);
    if (args[0] == "-") return Md5OfStdin();
    if (IsOption(args[0])) return UnknownOption("md5", args[0]);
    const std::string& path = args[0];
    // GetFileMd5 would create a missing file, so look first.
    if (!PathFileExistsA(path.c_str())) return Error("no such file: " + path);
    if (IsFolder(path)) return Error(path + " is a folder");
    std::string md5 = CFileHepler::GetFileMd5(path, "");
    if (md5.empty()) {
        // A file this user may read but not write: digest a temporary copy, then remove it.
        std::string temp =
            (std::filesystem::temp_directory_path() / ("zoth-md5-" + std::to_string(::getpid()))).string();
        md5 = CFileHepler::GetFileMd5(path, temp);
        std::error_code ec;
        std::filesystem::remove(temp, ec);
    }
    if (md5.empty()) {
        // The library says only that it failed: ask the C library why the file cannot be read.
        FILE* file = std::fopen(path.c_str(), "rb");
        if (file == nullptr) return Error("cannot read " + path + ": " + ErrnoText());
        std::fclose(file);
        return Error("cannot read " + path);
    }
    std::printf("%s  %s\n", md5.c_str(), path.c_str());
    return 0;
}

int RunLs(const Args& args) {
    if (args.empty()) return Usage("ls", "needs DIR");
    if (args.size() > 2) return Extra("ls", args[2]);
    if (IsOption(args[0])) return UnknownOption("ls", args[0]);
    const std::string& dir = args[0];
    if (!PathFileExistsA(dir.c_str())) return Error("no such folder: " + dir);
    if (!IsFolder(dir)) return Error("not a folder: " + dir);
    // The listing passes over a folder it cannot open: find out first, so that is no empty listing.
    std::error_code ec;
    std::filesystem::directory_iterator probe(std::filesystem::path(dir), ec);
    if (ec) return Error("cannot list " + dir + ": " + ec.message());
    std::string filter = args.size() == 2 ? args[1] : "";
    for (const auto& [name, path] : CPathHelper::GetLocalDirMap(dir))
        if (filter.empty() || name.find(filter) != std::string::npos) std::printf("%s/\n", name.c_str());
    for (const auto& [name, path] : CPathHelper::GetLocalFileMap(dir, filter))
        std::printf("%s\n", name.c_str());
    return 0;
}

int RunRmtree(const Args& args) {
    if (args.empty()) return Usage("rmtree", "needs DIR");
    if (args.size() > 1) return Extra("rmtree", args[1]);
    if (IsOption(args[0])) return UnknownOption("rmtree", args[0]);
    const std::string& dir = args[0];
    if (std::string refusal = RmtreeRefusal(dir); !refusal.empty()) return Error("rmtree: " + refusal);
    if (!CPathHelper::DeleteDirectory(dir)) return Error("rmtree: " + WhatResisted(dir));
    return 0;
}

int RunVersion(const Args& args) {
    if (args.empty()) return Usage("version", "needs FILE");
    if (args.size() > 1) return Extra("version", args[1]);
    if (IsOption(args[0])) return UnknownOption("version", args[0]);
    const std::string& path = args[0];
    if (!PathFileExistsA(path.c_str())) return Error("no such file: " + path);
    if (IsFolder(path)) return Error(path + " is a folder");
    std::string text = CFileHepler::GetExeFileVersion(path);
    if (text.empty()) return Error(path + " has no version resource");
    std::printf("%s (packed 0x%08X)\n", text.c_str(),
                static_cast<unsigned>(CFileHepler::GetFileVersion(path)));
    return 0;
}

int RunStat(const Args& args) {
    if (args.empty()) return Usage("stat", "needs FILE");
    if (args.size() > 1) return Extra("stat", args[1]);
    if (IsOption(args[0])) return UnknownOption("stat", args[0]);
    if (!PathFileExistsA(args[0].c_str())) return Error("no such file or folder: " + args[0]);
    _SYSTEMTIME created = {}, written = {}, accessed = {};
    if (!CFileHepler::GetFileTimeInfo(args[0], &created, &written, &accessed))
        return Error("cannot read the times of " + args[0]);
    std::printf("created:  %s\nwritten:  %s\naccessed: %s\n", TimeText(created).c_str(),
                TimeText(written).c_str(), TimeText(accessed).c_str());
    return 0;
}

} // namespace

std::vector<Command> FileCommands() {
    return {
        {"md5", "md5 FILE | md5 -s TEXT | md5 -", "MD5 of a file, of TEXT or of standard input", RunMd5,
         "  -s TEXT  the MD5 of TEXT itself\n  -        the MD5 of standard input"},
        {"ls", "ls DIR [FILTER]", "folders and files in DIR; FILTER is a case-sensitive part of the name",
         RunLs},
        {"rmtree", "rmtree DIR", "delete DIR with everything in it (links are removed, not followed)",
         RunRmtree,
         "  (none)   refuses the root, '.', '..' and a DIR that is itself a link; when an entry resists,\n"
         "           names it and says why (read-only, access denied, in use)"},
        {"version", "version FILE", "file version of a PE file (.exe, .dll) from its version resource",
         RunVersion},
        {"stat", "stat FILE", "creation, last write and last access time of FILE in local time", RunStat},
    };
}

void FileDemo(Demo& demo) {
    const std::string root = CPathHelper::GetCombinPath(demo.WorkDir(), "files");
    const std::string file = CPathHelper::GetCombinPath(root, "notes.txt");
    bool ok = CreateDirectoryA(root.c_str(), nullptr);
    demo.Step("file", "folder", ok, root);

    ok = CFileHepler::WriteDataToFile(std::string("hello "), file, CREATE_ALWAYS) == 1;
    demo.Step("file", "write", ok, "6 bytes with CREATE_ALWAYS");
    const std::string tail("world\0!", 7);
    ok = CFileHepler::WriteDataToFile(tail, file, OPEN_ALWAYS) == 1;
    demo.Step("file", "append", ok, "7 more bytes (one NUL) with OPEN_ALWAYS");

    std::string content;
    ok = CFileHepler::ReadDataByFilePath(file, content) == 1 && content == "hello " + tail;
    demo.Step("file", "read back", ok, std::to_string(content.size()) + " bytes, both runs in order");

    unsigned __int64 size = CFileHepler::GetFileSize(file, "");
    demo.Step("file", "size", size == 13, std::to_string(size) + " bytes");

    std::string md5 = CFileHepler::GetFileMd5(file, "");
    demo.Step("file", "md5", !md5.empty() && md5 == Md5OfBytes("hello " + tail), md5);

    _SYSTEMTIME created = {}, written = {}, accessed = {};
    ok = CFileHepler::GetFileTimeInfo(file, &created, &written, &accessed) == 1 && written.wYear >= 2024;
    demo.Step("file", "times", ok, "written " + TimeText(written));

    ok = CFileHepler::GetFileVersion(file) == 0 && CFileHepler::GetExeFileVersion(file).empty();
    demo.Step("file", "version", ok, "a text file has no version resource");

    const std::string sub = CPathHelper::GetCombinPath(root, "sub");
    CreateDirectoryA(sub.c_str(), nullptr);
    CFileHepler::WriteDataToFile(std::string("log"), CPathHelper::GetCombinPath(root, "run.log"),
                                 CREATE_ALWAYS);
    CFileHepler::WriteDataToFile(std::string("deep"), CPathHelper::GetCombinPath(sub, "deep.txt"),
                                 CREATE_ALWAYS);
    auto files = CPathHelper::GetLocalFileMap(root, ".txt");
    auto dirs = CPathHelper::GetLocalDirMap(root);
    auto all = CPathHelper::GetLocalDirList(root);
    ok = files.size() == 1 && files.count("notes.txt") == 1 && dirs.size() == 1 && dirs.count("sub") == 1 &&
         all.size() == 3;
    demo.Step("file", "listing", ok,
              std::to_string(files.size()) + " .txt file, " + std::to_string(dirs.size()) + " folder, " +
                  std::to_string(all.size()) + " entries");

    ok = CPathHelper::DeleteFilesFromDirectory(root) == 1 && !PathFileExistsA(file.c_str()) &&
         PathFileExistsA(sub.c_str()) && CPathHelper::GetLocalFileList(sub, "").empty();
    demo.Step("file", "delete files", ok, "every file gone, folders kept");

    ok = CPathHelper::DeleteDirectory(root) == 1 && !PathFileExistsA(root.c_str());
    demo.Step("file", "delete tree", ok, "folder removed");

    std::string exeDir = CPathHelper::GetExeDir();
    demo.Step("file", "executable folder", !exeDir.empty(), exeDir);
}

} // namespace zoth_cli
