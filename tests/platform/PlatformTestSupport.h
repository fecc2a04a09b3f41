// Helpers shared by the platform layer's tests.
#pragma once

#include "zoth/platform/Win32Types.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>

// `call` gives `result` and leaves `error` as the last error (cleared before the call).
#define EXPECT_FAILS_WITH(call, result, error)                                                               \
    do {                                                                                                     \
        SetLastError(ERROR_SUCCESS);                                                                         \
        EXPECT_EQ((call), (result)) << #call;                                                                \
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(error)) << #call;                                       \
    } while (0)

namespace zoth_test {

constexpr uint64_t kUnixEpochTicks = 116444736000000000ULL, kTicksPerSecond = 10000000ULL;

inline uint64_t Ticks(const FILETIME& t) {
    return (static_cast<uint64_t>(t.dwHighDateTime) << 32) | t.dwLowDateTime;
}

inline FILETIME FromTicks(uint64_t ticks) {
    return FILETIME{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

// Sets an environment variable (null: removes it) for a scope, then puts the old value back. Time
// zone changes take effect at once.
class EnvScope {
public:
    EnvScope(const char* name, const char* value) : m_name(name), m_had(std::getenv(name) != nullptr) {
        if (m_had) m_old = std::getenv(name);
        Set(value);
    }
    ~EnvScope() { Set(m_had ? m_old.c_str() : nullptr); }

private:
    void Set(const char* value) {
        value ? setenv(m_name, value, 1) : unsetenv(m_name);
        tzset();
    }
    const char* m_name;
    bool m_had;
    std::string m_old;
};

} // namespace zoth_test
