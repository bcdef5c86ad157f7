#pragma once

#include "collector/form_reader.h"
#include "collector/http_server.h"
#include "collector/temporary_file.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace vantor::collector {

// What requests with a body come in by. A body that is refused is received to its end all the same, so that
// its sender learns why; one that goes on far beyond its bound is cut off.

/// Receives a form for a sink, and then does what is to be done with it.
class FormReceiver : public BodyReceiver {
public:
    /// `finish` is called after the last piece: with why the form is refused, or with nothing when the sink,
    /// which it may then use, has taken all of it. A sink goes as soon as its form is refused.
    FormReceiver(const std::string& boundary, const FormLimits& limits, std::unique_ptr<FormSink> sink,
                 std::function<HttpResponse(const std::optional<Rejection>&)> finish);

    bool take(std::string_view piece) override;
    HttpResponse answer() override;

private:
    const uint64_t m_most_bytes;
    uint64_t m_bytes = 0;
    std::unique_ptr<FormSink> m_sink;
    FormReader m_reader;
    std::function<HttpResponse(const std::optional<Rejection>&)> m_finish;
};

/// Receives a body into a file.
class FileReceiver : public BodyReceiver {
public:
    /// `finish` is called when the whole body is in the file.
    FileReceiver(std::unique_ptr<TemporaryFile> file, uint64_t most_bytes,
                 std::function<HttpResponse(std::unique_ptr<TemporaryFile>)> finish);

    bool take(std::string_view piece) override;
    HttpResponse answer() override;

private:
    std::unique_ptr<TemporaryFile> m_file;
    const uint64_t m_most_bytes;
    uint64_t m_bytes = 0;
    std::function<HttpResponse(std::unique_ptr<TemporaryFile>)> m_finish;
    std::optional<Rejection> m_rejection;
};

/// Receives a body that says nothing of importance.
class IgnoringReceiver : public BodyReceiver {
public:
    explicit IgnoringReceiver(std::function<HttpResponse()> finish);

    bool take(std::string_view piece) override;
    HttpResponse answer() override;

private:
    uint64_t m_bytes = 0;
    std::function<HttpResponse()> m_finish;
};

} // namespace vantor::collector
