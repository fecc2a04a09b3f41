// The libcurl commands' shared options and their answer by curl's conventions.
#include "HttpOptions.h"

#include <cstdio>
#include <cstdlib>

namespace zoth_cli {

using ZOTH::CHttpClientCurl;

int TransferFailed(const char* what, CHttpClientCurl& client) {
    std::string text = client.GetErrorText();
    const CURLcode code = client.GetResultCode();
    if (text.empty()) text = curl_easy_strerror(code);
    if (code != CURLE_OK) text += " (libcurl code " + std::to_string(code) + ")";
    return Error(std::string(what) + " failed: " + text);
}

int PrintBody(const std::string& body) {
    std::fwrite(body.data(), 1, body.size(), stdout);
    return 0;
}

namespace {

// A download's own options: --resume, --sha256 HEX, --md5 HEX, --retry N, --retry-max-time S. 1 when
// args[i] is one (i moves past its value), 0 when not, -1 when malformed (message in error).
int TakeDownloadOption(const Args& args, size_t& i, CHttpClientCurl& client, int& retries, long& maxSeconds,
                       std::string& error) {
    const std::string& option = args[i];
    if (option == "--resume") {
        client.SetDownloadResume(true);
        return 1;
    }
    if (option != "--sha256" && option != "--md5" && option != "--retry" && option != "--retry-max-time")
        return 0;
    if (i + 1 >= args.size()) {
        error = option + " needs a value";
        return -1;
    }
    const std::string& value = args[++i];
    char* end = nullptr;
    if (option == "--sha256" || option == "--md5") {
        if (!client.SetDownloadDigest(option.substr(2), value)) error = option + ": not a digest: " + value;
    } else if (option == "--retry") {
        const long n = std::strtol(value.c_str(), &end, 10);
        if (*end != '\0' || value.empty() || n < 0 || n > 1000) error = "--retry needs a count 0..1000";
        retries = static_cast<int>(n);
    } else {
        maxSeconds = std::strtol(value.c_str(), &end, 10);
        if (*end != '\0' || value.empty() || maxSeconds < 0 || maxSeconds > 86400 * 7)
            error = "--retry-max-time needs seconds";
    }
    return error.empty() ? 1 : -1;
}

} // namespace

std::string TakeOptions(const Args& args, unsigned accept, CHttpClientCurl& client, HttpFlags& flags,
                        Args& positional) {
    int retries = 0;
    long maxSeconds = 0;
    bool optionsEnded = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
            positional.push_back(arg);
            continue;
        }
        std::string error;
        if (arg == "--") {
            optionsEnded = true;
        } else if (arg == "--verify") {
            client.SetTlsVerify(true);
        } else if (arg == "--cacert") {
            if (i + 1 >= args.size() || args[i + 1].empty()) return "--cacert needs a FILE";
            client.SetTlsCaPath(args[++i]);
        } else if (arg == "-L" || arg == "--location") {
            client.SetFollowRedirects(true);
        } else if ((accept & kResponseFlags) && (arg == "-f" || arg == "--fail")) {
            flags.fail = true;
        } else if ((accept & kResponseFlags) && (arg == "-i" || arg == "--include")) {
            flags.include = true;
        } else if ((accept & kDownloadFlags) &&
                   TakeDownloadOption(args, i, client, retries, maxSeconds, error) != 0) {
            if (!error.empty()) return error;
        } else {
            // The proxy options and -v (ProxyFlags.cpp).
            size_t used = i;
            const int taken = TakeProxyOption(args, used, client, error);
            if (taken < 0) return error;
            if (taken == 0) return "unknown option '" + arg + "'";
            i = used - 1;
        }
    }
    if (retries > 0 || maxSeconds > 0)
        client.SetRetryPolicy(retries + 1, static_cast<DWORD>(maxSeconds * 1000));
    return "";
}

std::string CheckCount(const Args& positional, size_t least, size_t most, const char* usage) {
    if (positional.size() > most)
        return "unexpected argument '" + positional[most] + "' (usage: " + usage + ")";
    if (positional.size() < least) return std::string("missing arguments (usage: ") + usage + ")";
    return "";
}

int Answer(const char* name, CHttpClientCurl& client, const HttpFlags& flags, const std::string& body) {
    if (flags.fail && client.GetStatusCode() >= 400) {
        std::fprintf(stderr, "zoth: %s failed: %s\n", name, client.GetErrorText().c_str());
        return 22;
    }
    if (flags.include) std::fputs(client.GetResponseHeaders().c_str(), stdout);
    return PrintBody(body);
}

} // namespace zoth_cli
