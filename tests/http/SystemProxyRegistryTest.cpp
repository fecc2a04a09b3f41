// The system's proxy on Windows: the user's Internet Settings, written to the registry by the test
// (and put back after it), are found through WinHTTP and used by transfers of an object that opted
// in: a fixed proxy with its bypass list, and a PAC script served on loopback.
#if defined(_WIN32)
#include "zoth/http/CHttpClientCurl.h"

#include "LoopbackServer.h"
#include "Portable.h"
#include "RelayProxy.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

using ZOTH::CHttpClientCurl;
using zoth_test::LoopbackServer;
using zoth_test::Recorder;
using zoth_test::RelayProxy;

namespace {

constexpr const wchar_t* kSettingsKey = L"Software\\Microsoft\\Windows\\CurrentVersion\\Internet Settings";
constexpr const wchar_t* kConnectionsKey =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Internet Settings\\Connections";

// One registry value of the current user: its type and bytes, or none.
struct Value {
    DWORD type = 0;
    std::vector<BYTE> bytes;
};

std::optional<Value> Read(const wchar_t* key, const wchar_t* name) {
    HKEY handle;
    if (RegOpenKeyExW(HKEY_CURRENT_USER, key, 0, KEY_READ, &handle) != ERROR_SUCCESS) return std::nullopt;
    Value value;
    DWORD size = 0;
    LONG status = RegQueryValueExW(handle, name, nullptr, &value.type, nullptr, &size);
    if (status == ERROR_SUCCESS) {
        value.bytes.resize(size);
        status = RegQueryValueExW(handle, name, nullptr, &value.type, value.bytes.data(), &size);
    }
    RegCloseKey(handle);
    if (status != ERROR_SUCCESS) return std::nullopt;
    return value;
}

// Writes the value, or removes it when `value` is none.
void Write(const wchar_t* key, const wchar_t* name, const std::optional<Value>& value) {
    HKEY handle;
    if (RegCreateKeyExW(HKEY_CURRENT_USER, key, 0, nullptr, 0, KEY_WRITE, nullptr, &handle, nullptr) !=
        ERROR_SUCCESS)
        throw std::runtime_error("cannot open the Internet Settings key");
    if (value)
        RegSetValueExW(handle, name, 0, value->type, value->bytes.data(),
                       static_cast<DWORD>(value->bytes.size()));
    else
        RegDeleteValueW(handle, name);
    RegCloseKey(handle);
}

Value Dword(DWORD number) {
    Value value{REG_DWORD, std::vector<BYTE>(sizeof number)};
    std::memcpy(value.bytes.data(), &number, sizeof number);
    return value;
}

Value Text(const std::string& text) {
    const std::wstring wide(text.begin(), text.end()); // ASCII only here
    Value value{REG_SZ, std::vector<BYTE>((wide.size() + 1) * sizeof(wchar_t))};
    std::memcpy(value.bytes.data(), wide.c_str(), value.bytes.size());
    return value;
}

// The settings a user makes in Internet Options, in both places Windows keeps them: the
// Connections key's DefaultConnectionSettings (a version, a counter, flags, then the proxy list,
// the bypass list and the PAC URL, each a length and its characters), which WinHTTP reads, and the
// older single values beside it.
struct ProxyConfig {
    std::string proxy, bypass, pacUrl;
};

class ScopedInternetSettings {
public:
    explicit ScopedInternetSettings(const ProxyConfig& config) {
        for (const wchar_t* name : kNames)
            m_saved.push_back(Read(kSettingsKey, name));
        m_savedConnection = Read(kConnectionsKey, L"DefaultConnectionSettings");
        Apply(config);
    }
    ~ScopedInternetSettings() {
        for (size_t i = 0; i < std::size(kNames); ++i)
            Write(kSettingsKey, kNames[i], m_saved[i]);
        Write(kConnectionsKey, L"DefaultConnectionSettings", m_savedConnection);
    }
    ScopedInternetSettings(const ScopedInternetSettings&) = delete;
    ScopedInternetSettings& operator=(const ScopedInternetSettings&) = delete;

    void Apply(const ProxyConfig& config) {
        constexpr uint32_t kDirect = 1, kProxy = 2, kPacUrl = 4;
        const uint32_t flags =
            kDirect | (config.proxy.empty() ? 0 : kProxy) | (config.pacUrl.empty() ? 0 : kPacUrl);
        Value blob{REG_BINARY, {}};
        const auto add = [&](uint32_t number) {
            const BYTE* p = reinterpret_cast<const BYTE*>(&number);
            blob.bytes.insert(blob.bytes.end(), p, p + sizeof number);
        };
        const auto addText = [&](const std::string& text) {
            add(static_cast<uint32_t>(text.size()));
            blob.bytes.insert(blob.bytes.end(), text.begin(), text.end());
        };
        add(0x46);        // the layout's version
        add(++m_counter); // Windows counts every change
        add(flags);
        addText(config.proxy);
        addText(config.bypass);
        addText(config.pacUrl);
        blob.bytes.resize(blob.bytes.size() + 32, 0); // the fields after: none set
        Write(kConnectionsKey, L"DefaultConnectionSettings", blob);
        Write(kSettingsKey, L"ProxyEnable", Dword(config.proxy.empty() ? 0 : 1));
        Write(kSettingsKey, L"ProxyServer",
              config.proxy.empty() ? std::nullopt : std::optional(Text(config.proxy)));
        Write(kSettingsKey, L"ProxyOverride",
              config.bypass.empty() ? std::nullopt : std::optional(Text(config.bypass)));
        Write(kSettingsKey, L"AutoConfigURL",
              config.pacUrl.empty() ? std::nullopt : std::optional(Text(config.pacUrl)));
    }

private:
    static constexpr const wchar_t* kNames[] = {L"ProxyEnable", L"ProxyServer", L"ProxyOverride",
                                                L"AutoConfigURL"};
    std::vector<std::optional<Value>> m_saved;
    std::optional<Value> m_savedConnection;
    uint32_t m_counter = 1000;
};

} // namespace

TEST(SystemProxyRegistry, StaticProxyAndBypassListFromInternetSettings) {
    LoopbackServer origin;
    Recorder recorder(origin);
    ASSERT_TRUE(origin.Start());
    RelayProxy proxy;
    const std::string address = "127.0.0.1:" + std::to_string(proxy.Port());
    const std::string port = std::to_string(origin.Port());
    const std::string named = "http://named.test:" + port, bypassed = "http://skip.example:" + port;
    ScopedInternetSettings settings({address, "*.example;<local>", ""});

    CHttpClientCurl client;
    client.SetSystemProxy(true);
    std::string response;
    const struct {
        const char* name;
        std::string url;
        std::string proxy; // GetLastProxy afterwards; "" direct
    } cases[] = {
        {"a host the proxy serves", named + "/a", "http://" + address},
        {"the loopback address: the proxy too (no bypass entry names it)", origin.Url("/b"),
         "http://" + address},
        {"a name without a dot: <local>, direct", "http://localhost:" + port + "/d", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(1, client.HttpGet(c.url, "", "", response)) << client.GetResultCode();
        EXPECT_EQ(Recorder::Answer("GET", ""), response);
        EXPECT_EQ(c.proxy, client.GetLastProxy());
    }
    EXPECT_EQ((std::vector<std::string>{"GET " + named + "/a", "GET " + origin.Url("/b")}), proxy.Seen());

    // A bypassed host goes direct: it does not resolve, so the transfer fails rather than reach the proxy.
    EXPECT_EQ(0, client.HttpGet(bypassed + "/e", "", "", response));
    EXPECT_EQ(CURLE_COULDNT_RESOLVE_HOST, client.GetResultCode());
    // An object that did not opt in goes direct.
    CHttpClientCurl plain;
    EXPECT_EQ(1, plain.HttpGet(origin.Url("/f"), "", "", response)) << plain.GetResultCode();
    EXPECT_EQ("", plain.GetLastProxy());
    EXPECT_EQ(2u, proxy.Seen().size());
}

// A PAC script named in Internet Settings, run by WinHttpGetProxyForUrl.
TEST(SystemProxyRegistry, PacScriptFromInternetSettings) {
    LoopbackServer origin;
    Recorder recorder(origin);
    ASSERT_TRUE(origin.Start());
    RelayProxy proxy;
    LoopbackServer pac;
    const std::string pacUrl = zoth_test::ServePac(pac, {{"alpha.test", zoth_test::PacProxy(proxy.Port())}});
    ScopedInternetSettings settings({"", "", pacUrl});

    const std::string alpha = "http://alpha.test:" + std::to_string(origin.Port()) + "/pac";
    CHttpClientCurl client;
    client.SetSystemProxy(true);
    std::string response;
    EXPECT_EQ(1, client.HttpGet(alpha, "", "", response)) << client.GetResultCode();
    EXPECT_EQ("http://127.0.0.1:" + std::to_string(proxy.Port()), client.GetLastProxy());
    EXPECT_EQ((std::vector<std::string>{"GET " + alpha}), proxy.Seen());
    EXPECT_EQ(1, client.HttpGet(origin.Url("/direct"), "", "", response)) << client.GetResultCode();
    EXPECT_EQ("", client.GetLastProxy());
}
#endif
