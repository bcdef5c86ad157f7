#include "collector/web.h"

#include "collector/answers.h"

#include <optional>

namespace vantor::collector {

namespace {

/// What '*' stands for in a path that fits; nothing when it does not fit.
std::optional<std::string> partOf(const std::string& path, const std::string& pattern) {
    const size_t star = pattern.find('*');
    if (star == std::string::npos)
        return path == pattern ? std::optional<std::string>("") : std::nullopt;

    const std::string prefix = pattern.substr(0, star);
    const std::string suffix = pattern.substr(star + 1);
    if (path.size() < prefix.size() + suffix.size() || !path.starts_with(prefix) || !path.ends_with(suffix))
        return std::nullopt;
    return path.substr(prefix.size(), path.size() - prefix.size() - suffix.size());
}

} // namespace

Web::Web(ReportService& reports, SymbolService& symbols)
    : m_routes{
          {"GET", "/", [&reports](const HttpRequest&, const std::string&) { return reports.list(); }},
          {"GET", "/diagnostics/crashes/*.stack",
           [&reports](const HttpRequest& request, const std::string&) {
               return reports.stackTrace(request.path);
           }},
          {"POST", "/api/1/upload_crash/",
           [&reports](const HttpRequest& request, const std::string&) { return reports.receive(request); }},
          {"POST", "/api/1/upload_symbols/",
           [&symbols](const HttpRequest& request, const std::string&) {
               return symbols.receiveForm(request);
           }},
          {"GET", "/v1/symbols/*:checkStatus",
           [&symbols](const HttpRequest& request, const std::string& module) {
               return symbols.status(request, module);
           }},
          {"POST", "/v1/uploads:create",
           [&symbols](const HttpRequest& request, const std::string&) { return symbols.create(request); }},
          {"POST", "/v1/uploads/*:complete",
           [&symbols](const HttpRequest& request, const std::string& upload) {
               return symbols.complete(request, upload);
           }},
          {"PUT", "/v1/uploads/*",
           [&symbols](const HttpRequest& request, const std::string& upload) {
               return symbols.put(request, upload);
           }},
      } {}

HttpDecision Web::decide(const HttpRequest& request) const {
    const std::string method = request.method == "HEAD" ? "GET" : request.method; // the server sends no body
    std::string allowed;
    for (const Route& route : m_routes) {
        const std::optional<std::string> part = partOf(request.path, route.pattern);
        if (!part)
            continue;
        if (method == route.method)
            return route.act(request, *part);
        allowed += (allowed.empty() ? "" : ", ") + route.method;
    }
    if (allowed.empty())
        return textAnswer(404, "There is nothing here.");

    HttpResponse response = textAnswer(405, "This path knows " + allowed + " alone.");
    response.allowed_methods = allowed;
    return response;
}

} // namespace vantor::collector
