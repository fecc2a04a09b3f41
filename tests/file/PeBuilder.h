// Builds small PE images in memory for the version-reading tests: a DOS header, PE headers (PE32 or
// PE32+), one ".rsrc" section and a resource tree type 16 -> name 1 -> language 0x409 -> a
// VS_VERSIONINFO block with a VS_FIXEDFILEINFO. The image ends with the fixed information, so cutting
// any byte off the end leaves no readable version.
#pragma once

#include <cstdint>
#include <string>

namespace zoth_test {

struct PeVersion {
    uint16_t first = 1, second = 2, third = 3, fourth = 4;
    bool pe32plus = false;
};

// Offsets inside the image that tests like to damage.
constexpr size_t kPeHeaderOffset = 0x40; // "PE\0\0"
constexpr size_t kPeSectionTableOffset32 = 0x40 + 24 + 224;
constexpr size_t kPeResourceOffset = 0x200; // file offset of the resource section
constexpr size_t kPeDataEntryOffset = 0x200 + 0x48;
constexpr size_t kPeBlockOffset = 0x200 + 0x58; // the VS_VERSIONINFO block
constexpr size_t kPeFixedInfoOffset = kPeBlockOffset + 40;

inline void PutU16(std::string& s, size_t at, uint16_t v) {
    s[at] = static_cast<char>(v & 0xFF);
    s[at + 1] = static_cast<char>(v >> 8);
}

inline void PutU32(std::string& s, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        s[at + static_cast<size_t>(i)] = static_cast<char>((v >> (8 * i)) & 0xFF);
}

inline std::string BuildPe(const PeVersion& v = {}) {
    const uint32_t rsrcRva = 0x1000;
    const size_t blockSize = 40 + 52;
    const size_t rsrcSize = 0x58 + blockSize;
    std::string s(kPeResourceOffset + rsrcSize, '\0');

    s[0] = 'M';
    s[1] = 'Z';
    PutU32(s, 0x3C, kPeHeaderOffset);
    size_t pe = kPeHeaderOffset;
    s.replace(pe, 4, std::string("PE\0\0", 4));
    PutU16(s, pe + 4, v.pe32plus ? 0x8664 : 0x14C); // machine
    PutU16(s, pe + 6, 1);                           // one section
    uint16_t optionalSize = v.pe32plus ? 240 : 224;
    PutU16(s, pe + 20, optionalSize);
    PutU16(s, pe + 22, 0x2102); // executable, DLL

    size_t opt = pe + 24;
    PutU16(s, opt, v.pe32plus ? 0x20B : 0x10B);
    size_t directories = opt + (v.pe32plus ? 112 : 96);
    PutU32(s, directories - 4, 16); // number of data directories
    PutU32(s, directories + 2 * 8, rsrcRva);
    PutU32(s, directories + 2 * 8 + 4, static_cast<uint32_t>(rsrcSize));

    size_t section = opt + optionalSize;
    s.replace(section, 5, ".rsrc");
    PutU32(s, section + 8, static_cast<uint32_t>(rsrcSize)); // virtual size
    PutU32(s, section + 12, rsrcRva);
    PutU32(s, section + 16, static_cast<uint32_t>(rsrcSize)); // raw size
    PutU32(s, section + 20, kPeResourceOffset);

    size_t r = kPeResourceOffset;
    PutU16(s, r + 14, 1);                         // root: one id entry
    PutU32(s, r + 16, 16);                        // RT_VERSION
    PutU32(s, r + 20, 0x80000000u | 0x18);        // -> name directory
    PutU16(s, r + 0x18 + 14, 1);                  // names: one id entry
    PutU32(s, r + 0x18 + 16, 1);                  // name 1
    PutU32(s, r + 0x18 + 20, 0x80000000u | 0x30); // -> language directory
    PutU16(s, r + 0x30 + 14, 1);
    PutU32(s, r + 0x30 + 16, 0x409);
    PutU32(s, r + 0x30 + 20, 0x48); // -> data entry
    PutU32(s, kPeDataEntryOffset, rsrcRva + 0x58);
    PutU32(s, kPeDataEntryOffset + 4, static_cast<uint32_t>(blockSize));

    size_t b = kPeBlockOffset;
    PutU16(s, b, static_cast<uint16_t>(blockSize));
    PutU16(s, b + 2, 52);
    const char key[] = "VS_VERSION_INFO";
    for (size_t i = 0; i < sizeof key; ++i)
        PutU16(s, b + 6 + 2 * i, static_cast<uint8_t>(key[i]));
    size_t f = kPeFixedInfoOffset;
    PutU32(s, f, 0xFEEF04BDu);
    PutU32(s, f + 4, 0x00010000u);
    PutU32(s, f + 8, (static_cast<uint32_t>(v.first) << 16) | v.second);
    PutU32(s, f + 12, (static_cast<uint32_t>(v.third) << 16) | v.fourth);
    PutU32(s, f + 16, 0x00090009u); // product version 9.9.9.9, which must not be read
    PutU32(s, f + 20, 0x00090009u);
    return s;
}

} // namespace zoth_test
