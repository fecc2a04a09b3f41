// A client whose own headers define TRUE, ERROR_SUCCESS, INFINITE and more its own way, then include
// the umbrella header. Built with -Wall -Wextra -Werror: a redefinition or conflicting type in the
// library's public headers fails the build itself. The tests then check that the client's
// definitions still stand and that the library works with them.
#include "ClientMacros.h"

// Values the library also offers, spelled otherwise than the library spells them: its guarded
// definitions step aside.
#define OPEN_ALWAYS (4)
#define CSIDL_APPDATA 26

#include "zoth/zoth.h"

#include "TempDir.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <type_traits>

using namespace ZOTH;

int ClientMacrosAfterUmbrella(); // UmbrellaCleanNamespace.cpp

namespace {

struct ClientMacro {
    const char* name;
    long long value;
    long long clientValue;
};

} // namespace

// Every name the client defined keeps the client's value.
TEST(UmbrellaClientMacros, ClientDefinitionsStand) {
    const ClientMacro table[] = {
        {"TRUE", TRUE, 1},
        {"FALSE", FALSE, 0},
        {"ERROR_SUCCESS", ERROR_SUCCESS, 1000},
        {"INFINITE", INFINITE, -1},
        {"MAX_PATH", MAX_PATH, 260},
        {"ERROR_FILE_NOT_FOUND", ERROR_FILE_NOT_FOUND, 9002},
        {"WAIT_TIMEOUT", WAIT_TIMEOUT, 77},
        {"GENERIC_READ", GENERIC_READ, 1},
        {"OPEN_EXISTING", OPEN_EXISTING, 3},
        {"CREATE_ALWAYS", CREATE_ALWAYS, 2},
        {"OPEN_ALWAYS", OPEN_ALWAYS, 4},
        {"CSIDL_APPDATA", CSIDL_APPDATA, 26},
    };
    for (const ClientMacro& m : table)
        EXPECT_EQ(m.value, m.clientValue) << m.name;
    EXPECT_EQ(ClientMacrosAfterUmbrella(), 1001); // the unit that includes the client's header last
    EXPECT_TRUE((std::is_same_v<BOOL, unsigned char>));
    EXPECT_TRUE((std::is_same_v<LONG, long>));
    // The types the library's declarations use are still the Win32 ones.
    EXPECT_EQ(sizeof(DWORD), 4u);
    EXPECT_EQ(sizeof(WORD), 2u);
    EXPECT_EQ(sizeof(__int64), 8u);
}

// The library works through the umbrella header with the client's macros in place: a file written
// with the client's CREATE_ALWAYS (the same value, spelled without `u`) and read back, and a time
// record converted both ways.
TEST(UmbrellaClientMacros, LibraryWorksBesideClientMacros) {
    zoth_test::TempDir dir;
    std::string path = dir / "client.txt";
    ASSERT_EQ(CFileHepler::WriteDataToFile(std::string("client"), path, CREATE_ALWAYS), 1);
    std::string data;
    ASSERT_EQ(CFileHepler::ReadDataByFilePath(path, data), 1);
    EXPECT_EQ(data, "client");

    SYSTEMTIME when = {};
    when.wYear = 2024;
    when.wMonth = 2;
    when.wDay = 29;
    when.wHour = 12;
    __int64 ticks = CTimeHelper::SystemTimeToInt64(when);
    ASSERT_NE(ticks, 0);
    SYSTEMTIME back = CTimeHelper::Int64ToSystemTime(ticks);
    EXPECT_EQ(back.wYear, 2024);
    EXPECT_EQ(back.wMonth, 2);
    EXPECT_EQ(back.wDay, 29);
    EXPECT_EQ(back.wHour, 12);
}
