// A folder of the test's own in the system's temporary folder, removed with everything in it when
// the object goes away.
#pragma once

#include "Portable.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>

namespace zoth_test {

class TempDir {
public:
    TempDir() {
        const std::filesystem::path base = std::filesystem::temp_directory_path();
        std::mt19937_64 random(
            std::random_device{}() ^
            static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()));
        for (int attempt = 0; attempt < 100 && m_path.empty(); ++attempt) {
            const std::filesystem::path dir = base / ("zoth-test-" + std::to_string(random() % 1000000000));
            std::error_code ec;
            if (std::filesystem::create_directory(dir, ec)) m_path = dir.string();
        }
        if (m_path.empty()) throw std::runtime_error("cannot create a temporary folder");
    }
    ~TempDir() {
        std::error_code ec;
        // Tests may leave folders without write or search permission; give them back first.
        for (auto it = std::filesystem::recursive_directory_iterator(
                 m_path, std::filesystem::directory_options::skip_permission_denied, ec);
             !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
            if (!it->is_symlink(ec))
                std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                             std::filesystem::perm_options::add, ec);
        }
        std::filesystem::remove_all(m_path, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_path; }
    // Path of `name` inside the folder, joined with the platform's separator.
    std::string operator/(const std::string& name) const { return m_path + kSep + name; }

private:
    std::string m_path;
};

// The whole content of a file, as bytes; "" when it cannot be read.
inline std::string FileText(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

} // namespace zoth_test
