// MultiByteToWideChar, WideCharToMultiByte and the process-wide ANSI code page. UTF-8 goes through
// the layer's own converter (CodePageUtf8.cpp); every other code page through glibc iconv, with
// descriptors kept per thread, since an iconv_t must not be shared between threads.
#include "platform/CodePage.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <iconv.h>
#include <mutex>
#include <string>

namespace ZOTH::platform {

namespace {

std::atomic<UINT> g_ansiCodePage{1252};

// The iconv name of a Windows code page.
std::string IconvName(UINT codePage) {
    if (codePage == 20127) return "ASCII";
    if (codePage >= 28591 && codePage <= 28599) return "ISO-8859-" + std::to_string(codePage - 28590);
    if (codePage == 28603) return "ISO-8859-13";
    if (codePage == 28605) return "ISO-8859-15";
    if (codePage == 20866) return "KOI8-R";
    if (codePage == 21866) return "KOI8-U";
    return "CP" + std::to_string(codePage);
}

// Code pages that are Unicode forms or may take more than 2 bytes for one UTF-16 unit.
bool IsAnsiCodePage(UINT codePage) {
    return codePage != CP_ACP && codePage != CP_OEMCP && codePage != 2 && codePage != CP_THREAD_ACP &&
           codePage != CP_UTF8 && codePage != 65000 && codePage != 1200 && codePage != 1201 &&
           codePage != 12000 && codePage != 12001 && codePage != 54936;
}

// Owns one iconv descriptor. Opening and closing go through one lock: they may load and unload
// glibc's converter modules, which the dynamic loader does under locks of its own that thread
// checkers cannot see. Conversions on separate descriptors need no lock.
class Converter {
public:
    Converter() = default;
    Converter(const std::string& to, const std::string& from) { Open(to, from); }
    ~Converter() { Close(); }
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;
    bool Ok() const { return cd_ != None(); }
    iconv_t Get() const { return cd_; }

    // Keeps descriptors per thread and direction for the last few code pages used there: opening
    // one for a double-byte page costs tens of microseconds. Returns it in its initial state.
    static const Converter& ForThread(UINT codePage, bool toWide) {
        struct Slot {
            UINT page = 0;
            Converter converter;
        };
        constexpr int kSlots = 4;
        thread_local Slot slots[2][kSlots];
        thread_local unsigned replace[2] = {0, 0};
        Slot* row = slots[toWide ? 1 : 0];
        for (int i = 0; i < kSlots; ++i) {
            if (row[i].page == codePage && row[i].converter.Ok()) {
                iconv(row[i].converter.cd_, nullptr, nullptr, nullptr, nullptr);
                return row[i].converter;
            }
        }
        Slot& slot = row[replace[toWide ? 1 : 0]++ % kSlots];
        std::string name = IconvName(codePage);
        if (toWide)
            slot.converter.Open("UTF-16LE", name);
        else
            slot.converter.Open(name, "UTF-32LE");
        slot.page = slot.converter.Ok() ? codePage : 0;
        return slot.converter;
    }

private:
    static iconv_t None() { return reinterpret_cast<iconv_t>(-1); }
    static std::mutex& Lock() {
        static std::mutex lock;
        return lock;
    }
    void Open(const std::string& to, const std::string& from) {
        std::lock_guard<std::mutex> hold(Lock());
        if (Ok()) iconv_close(cd_);
        cd_ = iconv_open(to.c_str(), from.c_str());
    }
    void Close() {
        if (!Ok()) return;
        std::lock_guard<std::mutex> hold(Lock());
        iconv_close(cd_);
        cd_ = None();
    }

    iconv_t cd_ = None();
};

// Collects output units, counting only when the capacity is 0.
template <typename Unit> struct Sink {
    Unit* destination;
    size_t capacity;
    size_t count = 0;
    bool full = false;

    void Put(Unit unit) {
        if (capacity != 0) {
            if (count >= capacity) {
                full = true;
                return;
            }
            destination[count] = unit;
        }
        ++count;
    }
};

// Windows maps the five bytes that 1252 leaves undefined to the C1 controls of the same value.
bool Cp1252Undefined(UINT codePage, unsigned char byte) {
    return codePage == 1252 && (byte == 0x81 || byte == 0x8D || byte == 0x8F || byte == 0x90 || byte == 0x9D);
}

UINT Resolve(UINT codePage) {
    return codePage == CP_ACP || codePage == CP_THREAD_ACP ? g_ansiCodePage.load() : codePage;
}

} // namespace

long long CodePageToUtf16(UINT codePage, const char* source, size_t count, wchar_t* destination,
                          size_t capacity, bool strict) {
    const Converter& converter = Converter::ForThread(codePage, true);
    if (!converter.Ok()) return kNoCodePage;

    Sink<wchar_t> sink{destination, capacity};
    char* in = const_cast<char*>(source);
    size_t inLeft = count;
    char chunk[1024];
    bool flushed = false;
    while (!flushed && !sink.full) {
        char* out = chunk;
        size_t outLeft = sizeof chunk;
        size_t rc;
        if (inLeft > 0) {
            rc = iconv(converter.Get(), &in, &inLeft, &out, &outLeft);
        } else {
            rc = iconv(converter.Get(), nullptr, nullptr, &out, &outLeft); // pending state, if any
            flushed = true;
        }
        int error = rc == static_cast<size_t>(-1) ? errno : 0;
        for (char* p = chunk; p + 1 < out; p += 2)
            sink.Put(static_cast<wchar_t>(static_cast<unsigned char>(p[0]) | static_cast<unsigned char>(p[1])
                                                                                 << 8));
        if ((error == EILSEQ || error == EINVAL) && inLeft > 0) {
            // An invalid byte, or a lead byte cut off by the end of the input.
            unsigned char byte = static_cast<unsigned char>(*in);
            if (Cp1252Undefined(codePage, byte)) {
                sink.Put(static_cast<wchar_t>(byte));
            } else {
                if (strict) return kInvalidInput;
                sink.Put(L'?');
            }
            ++in;
            --inLeft;
            iconv(converter.Get(), nullptr, nullptr, nullptr, nullptr);
        } else if (error != 0 && error != E2BIG) {
            return kInvalidInput;
        }
    }
    if (sink.full) return kBufferTooSmall;
    return static_cast<long long>(sink.count);
}

long long Utf16ToCodePage(UINT codePage, const wchar_t* source, size_t count, char* destination,
                          size_t capacity, const char* defaultChar, BOOL* usedDefault) {
    const Converter& converter = Converter::ForThread(codePage, false);
    if (!converter.Ok()) return kNoCodePage;

    const char* fallback = defaultChar != nullptr && defaultChar[0] != '\0' ? defaultChar : "?";
    size_t fallbackLength = std::min<size_t>(std::strlen(fallback), 2);
    bool used = false;
    Sink<char> sink{destination, capacity};
    auto putDefault = [&] {
        used = true;
        for (size_t i = 0; i < fallbackLength; ++i)
            sink.Put(fallback[i]);
    };

    // Code points go to iconv in runs; what cannot be a character goes straight to the default.
    unsigned char run[4 * 256];
    size_t i = 0;
    while (i < count && !sink.full) {
        size_t runLength = 0;
        bool broken = false;
        while (i < count && runLength < sizeof run) {
            uint32_t cp = static_cast<uint32_t>(source[i]);
            size_t take = 1;
            if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < count) {
                uint32_t next = static_cast<uint32_t>(source[i + 1]);
                if (next >= 0xDC00 && next <= 0xDFFF) {
                    cp = 0x10000 + ((cp - 0xD800) << 10) + (next - 0xDC00);
                    take = 2;
                }
            }
            if ((cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) {
                if (runLength == 0) i += take; // lone surrogate or no character at the start of a run
                broken = true;
                break;
            }
            for (int b = 0; b < 4; ++b)
                run[runLength++] = static_cast<unsigned char>(cp >> (8 * b));
            i += take;
        }

        char* in = reinterpret_cast<char*>(run);
        size_t inLeft = runLength;
        while (inLeft > 0 && !sink.full) {
            char chunk[1024];
            char* out = chunk;
            size_t outLeft = sizeof chunk;
            size_t rc = iconv(converter.Get(), &in, &inLeft, &out, &outLeft);
            int error = rc == static_cast<size_t>(-1) ? errno : 0;
            for (char* p = chunk; p < out; ++p)
                sink.Put(*p);
            if (error == EILSEQ || error == EINVAL) {
                uint32_t cp = static_cast<unsigned char>(in[0]) | static_cast<unsigned char>(in[1]) << 8 |
                              static_cast<unsigned char>(in[2]) << 16 |
                              static_cast<unsigned char>(in[3]) << 24;
                if (cp < 0x100 && Cp1252Undefined(codePage, static_cast<unsigned char>(cp)))
                    sink.Put(static_cast<char>(cp));
                else
                    putDefault();
                in += 4;
                inLeft -= 4;
                iconv(converter.Get(), nullptr, nullptr, nullptr, nullptr);
            } else if (error != 0 && error != E2BIG) {
                return kInvalidInput;
            }
        }
        if (broken && runLength == 0) putDefault();
    }
    if (!sink.full) {
        char chunk[64];
        char* out = chunk;
        size_t outLeft = sizeof chunk;
        iconv(converter.Get(), nullptr, nullptr, &out, &outLeft);
        for (char* p = chunk; p < out; ++p)
            sink.Put(*p);
    }
    if (sink.full) return kBufferTooSmall;
    if (usedDefault != nullptr) *usedDefault = used ? TRUE : FALSE;
    return static_cast<long long>(sink.count);
}

} // namespace ZOTH::platform

using namespace ZOTH::platform;

namespace {

// Turns a kernel's result into the Win32 result and last error.
int Finish(long long result) {
    if (result >= 0) {
        if (result > INT_MAX) {
            SetLastError(ERROR_INSUFFICIENT_BUFFER);
            return 0;
        }
        if (result == 0) SetLastError(ERROR_NO_UNICODE_TRANSLATION); // nothing came out of the input
        return static_cast<int>(result);
    }
    SetLastError(result == kInvalidInput     ? ERROR_NO_UNICODE_TRANSLATION
                 : result == kBufferTooSmall ? ERROR_INSUFFICIENT_BUFFER
                                             : ERROR_INVALID_PARAMETER);
    return 0;
}

} // namespace

int MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR source, int count, LPWSTR destination,
                        int capacity) {
    if (source == nullptr || count == 0 || count < -1 || capacity < 0 ||
        (capacity > 0 && destination == nullptr)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    size_t length = count == -1 ? std::strlen(source) + 1 : static_cast<size_t>(count);
    UINT page = Resolve(codePage);
    if (page == CP_UTF8) {
        if ((flags & ~MB_ERR_INVALID_CHARS) != 0) {
            SetLastError(ERROR_INVALID_FLAGS);
            return 0;
        }
        return Finish(Utf8ToUtf16(source, length, destination, static_cast<size_t>(capacity),
                                  (flags & MB_ERR_INVALID_CHARS) != 0));
    }
    if ((flags & ~(MB_ERR_INVALID_CHARS | MB_PRECOMPOSED)) != 0) {
        SetLastError(ERROR_INVALID_FLAGS);
        return 0;
    }
    if (!IsAnsiCodePage(page)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    return Finish(CodePageToUtf16(page, source, length, destination, static_cast<size_t>(capacity),
                                  (flags & MB_ERR_INVALID_CHARS) != 0));
}

int WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR source, int count, LPSTR destination,
                        int capacity, LPCSTR defaultChar, BOOL* usedDefault) {
    if (source == nullptr || count == 0 || count < -1 || capacity < 0 ||
        (capacity > 0 && destination == nullptr)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    size_t length = count == -1 ? std::wcslen(source) + 1 : static_cast<size_t>(count);
    UINT page = Resolve(codePage);
    if (page == CP_UTF8) {
        if (defaultChar != nullptr || usedDefault != nullptr) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return 0;
        }
        if ((flags & ~WC_ERR_INVALID_CHARS) != 0) {
            SetLastError(ERROR_INVALID_FLAGS);
            return 0;
        }
        return Finish(Utf16ToUtf8(source, length, destination, static_cast<size_t>(capacity),
                                  (flags & WC_ERR_INVALID_CHARS) != 0));
    }
    if ((flags & ~WC_NO_BEST_FIT_CHARS) != 0) {
        SetLastError(ERROR_INVALID_FLAGS);
        return 0;
    }
    if (!IsAnsiCodePage(page)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    return Finish(Utf16ToCodePage(page, source, length, destination, static_cast<size_t>(capacity),
                                  defaultChar, usedDefault));
}

UINT GetACP() {
    return g_ansiCodePage.load();
}

BOOL ZothSetAnsiCodePage(UINT codePage) {
    if (!IsAnsiCodePage(codePage)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    Converter toWide("UTF-16LE", IconvName(codePage));
    Converter fromWide(IconvName(codePage), "UTF-32LE");
    if (!toWide.Ok() || !fromWide.Ok()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    g_ansiCodePage.store(codePage);
    return TRUE;
}
