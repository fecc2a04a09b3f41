// The system's proxy settings through libproxy, which reads the environment, GNOME's and KDE's
// settings, PAC scripts and WPAD.
#include "platform/SystemProxy.h"

#include <proxy.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

namespace ZOTH::platform {

namespace {

// One libproxy factory per process, made on first use: it caches a PAC script between calls.
struct Resolver {
    explicit Resolver(pid_t owner) : pid(owner) {}
    const pid_t pid;
    std::mutex lock; // libproxy's factory is used by one thread at a time
    pxProxyFactory* factory = nullptr;
};

std::atomic<Resolver*> s_resolver{nullptr};

// This process's resolver. A forked child makes its own and leaves its parent's alone, never freed:
// a thread that did not survive the fork may have held its lock.
Resolver* CurrentResolver() {
    const pid_t pid = ::getpid();
    Resolver* current = s_resolver.load(std::memory_order_acquire);
    while (current == nullptr || current->pid != pid) {
        auto* fresh = new Resolver(pid);
        if (s_resolver.compare_exchange_strong(current, fresh, std::memory_order_acq_rel)) return fresh;
        delete fresh; // another thread of this process was first, or the loop sees its parent's
    }
    return current;
}

} // namespace

std::vector<std::string> SystemProxiesFor(const std::string& url) {
    Resolver* resolver = CurrentResolver();
    std::vector<std::string> proxies;
    std::lock_guard<std::mutex> guard(resolver->lock);
    if (resolver->factory == nullptr) resolver->factory = px_proxy_factory_new();
    if (resolver->factory == nullptr) return proxies;
    char** answer = px_proxy_factory_get_proxies(resolver->factory, url.c_str());
    if (answer == nullptr) return proxies;
    for (char** p = answer; *p != nullptr; ++p)
        proxies.emplace_back(*p);
    px_proxy_factory_free_proxies(answer);
    return proxies;
}

} // namespace ZOTH::platform
