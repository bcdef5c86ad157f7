#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

namespace vantor {

/// The proxy that HTTP requests go through.
struct ProxyConfiguration {
    bool is_used = false;
    std::string host; ///< without scheme, user and password
    uint16_t port = 0;
};

/// Replaces `*out` by the settings that an https request would use now: those of the first variable of
/// https_proxy, HTTPS_PROXY, all_proxy and ALL_PROXY that is set, unless no_proxy (or NO_PROXY) is "*". Hosts
/// that no_proxy names one by one go without the proxy all the same: which host is asked for is not known
/// here. Any thread may call it, under locks too: it reads the environment and nothing else.
void getProxyConfiguration(ProxyConfiguration* out);

/// "no proxy" or "proxy HOST:PORT". Never a user's name or password.
std::ostream& operator<<(std::ostream& stream, const ProxyConfiguration& proxy);

} // namespace vantor
