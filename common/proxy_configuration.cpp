#include "common/proxy_configuration.h"

#include "common/environment.h"

#include <algorithm>
#include <charconv>
#include <ostream>

namespace vantor {

namespace {

std::string firstSetVariable(std::initializer_list<const char*> names) {
    for (const char* name : names) {
        std::string value = environmentVariable(name);
        if (!value.empty())
            return value;
    }
    return "";
}

/// Takes "[SCHEME://][USER:PASSWORD@]HOST[:PORT][/...]" apart; HOST may be an IPv6 address in brackets.
ProxyConfiguration parseProxy(std::string text) {
    // The HTTP library's defaults.
    const uint16_t default_port = text.starts_with("https://") ? 443 : 1080;
    if (const size_t scheme = text.find("://"); scheme != std::string::npos)
        text.erase(0, scheme + 3);
    text.erase(0, text.rfind('@') + 1); // first of all, since a password may hold anything; npos + 1 is 0
    text.erase(std::min(text.find('/'), text.size()));

    ProxyConfiguration proxy = {.is_used = true, .host = text, .port = default_port};
    const size_t colon = text.rfind(':');
    if (colon != std::string::npos && text.find(']', colon) == std::string::npos) {
        proxy.host.erase(colon);
        (void)std::from_chars(text.data() + colon + 1, text.data() + text.size(),
                              proxy.port); // or the default
    }
    return proxy;
}

} // namespace

void getProxyConfiguration(ProxyConfiguration* out) {
    *out = ProxyConfiguration();
    const std::string proxy = firstSetVariable({"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"});
    if (!proxy.empty() && firstSetVariable({"no_proxy", "NO_PROXY"}) != "*")
        *out = parseProxy(proxy);
}

std::ostream& operator<<(std::ostream& stream, const ProxyConfiguration& proxy) {
    if (!proxy.is_used)
        return stream << "no proxy";
    return stream << "proxy " << proxy.host << ":" << proxy.port;
}

} // namespace vantor
