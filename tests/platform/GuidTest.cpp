#include "zoth/platform/Win32Guid.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

TEST(PlatformGuid, VersionFourAndDistinct) {
    EXPECT_EQ(CoCreateGuid(nullptr), E_INVALIDARG);

    std::set<std::string> seen;
    int bitCounts[128] = {};
    const int rounds = 2000;
    for (int i = 0; i < rounds; ++i) {
        GUID g;
        std::memset(&g, 0xA5, sizeof(g));
        ASSERT_EQ(CoCreateGuid(&g), S_OK);
        EXPECT_EQ(g.Data3 >> 12, 4) << "version nibble";
        EXPECT_EQ(g.Data4[0] >> 6, 2) << "variant bits";
        unsigned char raw[16];
        std::memcpy(raw, &g, 16);
        seen.insert(std::string(reinterpret_cast<char*>(raw), 16));
        for (int bit = 0; bit < 128; ++bit)
            bitCounts[bit] += (raw[bit / 8] >> (bit % 8)) & 1;
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(rounds));
    // Every bit outside the fixed version and variant bits must vary; a stuck bit (or a source that
    // returned the same bytes) shows up as a count of 0 or `rounds`.
    int varying = 0;
    for (int bit = 0; bit < 128; ++bit)
        if (bitCounts[bit] > rounds / 4 && bitCounts[bit] < rounds * 3 / 4) ++varying;
    EXPECT_EQ(varying, 122);
}
