// A forward proxy for plain HTTP on loopback, on Linux and Windows alike, for the system-proxy tests.
// Declare what its handlers use before it: they may run until its destructor has stopped it.
#pragma once

#include "LoopbackServer.h"

#include <stdexcept>

namespace zoth_test {

// A forward proxy for plain HTTP: takes absolute-form GETs and POSTs for any host, sends them on to
// the same port on 127.0.0.1, and records "METHOD target" of each.
class RelayProxy {
public:
    RelayProxy() {
        auto relay = [this](const httplib::Request& req, httplib::Response& res, std::string body) {
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_seen.push_back(req.method + " " + req.target);
            }
            const size_t authority = req.target.find("://");
            const size_t colon = req.target.find(':', authority + 3);
            const size_t slash = req.target.find('/', authority + 3);
            if (authority == std::string::npos || colon == std::string::npos || slash == std::string::npos)
                return void(res.status = 400);
            httplib::Request forward;
            forward.method = req.method;
            forward.path = req.target.substr(slash);
            for (const auto& [name, value] : req.headers)
                if (name == "Content-Type" || name == "X-Test") forward.headers.emplace(name, value);
            forward.body = std::move(body);
            httplib::Client client("127.0.0.1", std::stoi(req.target.substr(colon + 1, slash - colon - 1)));
            httplib::Response answer;
            httplib::Error error;
            if (!client.send(forward, answer, error)) return void(res.status = 502);
            res.status = answer.status;
            res.set_content(answer.body, answer.get_header_value("Content-Type").c_str());
        };
        m_server.Http().Get(
            ".*", [relay](const httplib::Request& req, httplib::Response& res) { relay(req, res, ""); });
        m_server.Http().Post(".*", [relay](const httplib::Request& req, httplib::Response& res,
                                           const httplib::ContentReader& read) {
            std::string body;
            const std::string type = req.get_header_value("Content-Type");
            const_cast<httplib::Request&>(req).headers.erase("Content-Type"); // multipart comes raw
            read([&](const char* data, size_t size) { return body.append(data, size), true; });
            const_cast<httplib::Request&>(req).headers.emplace("Content-Type", type);
            relay(req, res, std::move(body));
        });
        if (!m_server.Start()) throw std::runtime_error("proxy cannot listen");
    }
    int Port() const { return m_server.Port(); }
    std::vector<std::string> Seen() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_seen;
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_seen;
    LoopbackServer m_server; // last: stopped before what its handler uses goes away
};

} // namespace zoth_test
