#pragma once

#include "collector/form_reader.h"
#include "collector/http_server.h"
#include "collector/report_store.h"

#include <functional>
#include <string>

namespace vantor::collector {

/// What the network may do with reports: send them, and read their stack traces. Any thread may call.
class ReportService {
public:
    /// `on_stored` is called with the name of each report that was stored and is to be walked. The store
    /// outlives the object.
    ReportService(ReportStore& store, const FormLimits& limits,
                  std::function<void(const std::string&)> on_stored);

    /// A report's form.
    HttpDecision receive(const HttpRequest& request) const;
    /// A report's stack trace, by the path that the crash server prints.
    HttpResponse stackTrace(const std::string& path) const;
    /// The page that lists the newest reports.
    HttpResponse list() const;

private:
    void announceIfWaiting(const std::string& name) const;

    ReportStore& m_store;
    const FormLimits m_limits;
    const std::function<void(const std::string&)> m_on_stored;
};

} // namespace vantor::collector
