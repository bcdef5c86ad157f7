#pragma once

#include "collector/http_server.h"
#include "collector/report_service.h"
#include "collector/symbol_service.h"

#include <functional>
#include <string>
#include <vector>

namespace vantor::collector {

/// The collector's paths: which request is whose. Any thread may call.
class Web {
public:
    /// The services outlive the object.
    Web(ReportService& reports, SymbolService& symbols);

    HttpDecision decide(const HttpRequest& request) const;

private:
    struct Route {
        std::string method;
        std::string pattern; ///< a path, in which one '*' may stand for anything
        /// What is done; it is told what '*' stands for.
        std::function<HttpDecision(const HttpRequest& request, const std::string& part)> act;
    };

    const std::vector<Route> m_routes; // the first that fits
};

} // namespace vantor::collector
