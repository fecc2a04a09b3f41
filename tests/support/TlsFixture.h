// The Linux-side loopback servers that scripts/run-windows-tests.sh starts for the Windows test
// programs (tests/support/tls_servers.py): HTTPS with certificates of a CA made for the run, and
// plain HTTP. The script names their list in ZOTH_TLS_FIXTURE; without it there are none.
#pragma once

#include <cstdlib>
#include <fstream>
#include <map>
#include <string>

namespace zoth_test {

class TlsFixture {
public:
    // Reads the list named by ZOTH_TLS_FIXTURE; Present() tells whether there was one.
    TlsFixture() {
        const char* file = std::getenv("ZOTH_TLS_FIXTURE");
        if (file == nullptr || *file == '\0') return;
        std::ifstream in(file);
        for (std::string line; std::getline(in, line);) {
            if (!line.empty() && line.back() == '\r') line.pop_back();
            const size_t eq = line.find('=');
            if (eq != std::string::npos) m_values[line.substr(0, eq)] = line.substr(eq + 1);
        }
    }
    bool Present() const { return m_values.count("good") && m_values.count("ca"); }

    // A URL of a server ("good", "other_host", "self_signed" over HTTPS, "plain" over HTTP) for host.
    // localhost by default: libcurl 7.88 on Schannel matches a certificate's DNS names only, never
    // its IP addresses.
    std::string Url(const std::string& server, const std::string& path,
                    const std::string& host = "localhost") const {
        return (server == "plain" ? "http://" : "https://") + host + ":" + Value(server) + path;
    }
    // A file or folder: "ca", "other_ca" (a CA that signed nothing here), "ca_folder".
    std::string Value(const std::string& key) const {
        auto it = m_values.find(key);
        return it == m_values.end() ? "" : it->second;
    }

private:
    std::map<std::string, std::string> m_values;
};

} // namespace zoth_test
