#include "common/proxy_configuration.h"
#include "common/strings.h"
#include "tools/crash_doctor/test_report.h"

#include <map>

namespace vantor::tools {

namespace {

const std::string kUrl = VANTOR_CRASH_COLLECTION_URL;

/// libcurl's codes, as HttpUploader passes them on.
struct Explanation {
    const char* subject;
    const char* seen;
    const char* advice;
};

const std::map<int32_t, Explanation> kExplanations = {
    {2,
     {"libcurl", "libcurl.so.4 cannot be loaded",
      "Install it (Debian: libcurl4), and look at LD_LIBRARY_PATH."}},
    {5, {"proxy", "the proxy's name is not known", "Correct the variable that names it (https_proxy)."}},
    {6,
     {"connection", "the name of the host is not known",
      "Look at the name service (/etc/resolv.conf); a machine without it needs a proxy (https_proxy)."}},
    {7,
     {"connection", "the connection was refused",
      "Look whether the collection server runs, and what a firewall lets through."}},
    {28,
     {"connection", "nothing was heard for as long as the upload waits",
      "Look what a firewall swallows; many networks want a proxy (https_proxy)."}},
    {35,
     {"connection", "the TLS hand-shake failed",
      "What answers there may be no HTTPS server, or an older one than TLS 1.2."}},
    {42,
     {"connection", "nothing was heard for as long as crash_doctor waits",
      "Look what a firewall swallows; many networks want a proxy (https_proxy)."}},
    {52,
     {"connection", "the connection was closed without an answer", "Look at the collection server's log."}},
    {56,
     {"connection", "the connection broke off", "Look at the log of the collection server, and of a proxy."}},
    {60,
     {"certificate", "the server's certificate is not trusted, has expired, or is another host's",
      "Add its authority to the machine's, or name a file that has it (SSL_CERT_FILE); look at the machine's "
      "clock."}},
    {77,
     {"certificate", "the file of authorities cannot be read",
      "Install the machine's (Debian: ca-certificates), or correct SSL_CERT_FILE."}},
    {97,
     {"proxy", "the proxy does not do as it should", "Correct the variable that names it (https_proxy)."}},
};

/// Through a proxy, these are the proxy's as a rule.
bool isOfConnection(int32_t error) {
    return error == 7 || error == 28 || error == 35 || error == 42 || error == 52 || error == 56;
}

} // namespace

Finding explainFailure(const HttpUploader::UploadResponse& response) {
    if (response.error >= 100)
        return {Level::Fail, "collection server",
                kUrl + " answered " + std::to_string(response.http_status) +
                    ". Look at its log; 4xx is an answer for ever, 5xx may pass."};

    ProxyConfiguration proxy;
    getProxyConfiguration(&proxy);
    const auto entry = kExplanations.find(response.error);
    if (entry == kExplanations.end())
        return {Level::Fail, "connection",
                kUrl + ", " + toStringUsingStreamOperator(proxy) + ": libcurl's error " +
                    std::to_string(response.error) + ". Try the address with curl, as this user."};

    const auto& [subject, seen, advice] = entry->second;
    if (proxy.is_used && isOfConnection(response.error))
        return {Level::Fail, "proxy",
                kUrl + " through " + toStringUsingStreamOperator(proxy) + ": " + seen +
                    ". Look whether the proxy runs and lets this user through (https_proxy, no_proxy)."};
    return {Level::Fail, subject, kUrl + ": " + seen + ". " + advice};
}

} // namespace vantor::tools
