#include "collector/body_receivers.h"

#include "collector/answers.h"

namespace vantor::collector {

namespace {

constexpr uint64_t kMostIgnoredBytes = 65'536;

/// Whether it is worth while to go on receiving what will be refused.
bool isBearable(uint64_t bytes, uint64_t most_bytes) {
    return bytes <= 2 * most_bytes;
}

} // namespace

FormReceiver::FormReceiver(const std::string& boundary, const FormLimits& limits,
                           std::unique_ptr<FormSink> sink,
                           std::function<HttpResponse(const std::optional<Rejection>&)> finish)
    : m_most_bytes(limits.body_bytes),
      m_sink(std::move(sink)),
      m_reader(boundary, limits, *m_sink),
      m_finish(std::move(finish)) {}

bool FormReceiver::take(std::string_view piece) {
    m_bytes += piece.size();
    if (m_reader.feed(piece))
        m_sink.reset(); // the reader does not call it any more; what is wrong is said at the end
    return isBearable(m_bytes, m_most_bytes);
}

HttpResponse FormReceiver::answer() {
    return m_finish(m_reader.finish());
}

FileReceiver::FileReceiver(std::unique_ptr<TemporaryFile> file, uint64_t most_bytes,
                           std::function<HttpResponse(std::unique_ptr<TemporaryFile>)> finish)
    : m_file(std::move(file)),
      m_most_bytes(most_bytes),
      m_finish(std::move(finish)) {}

bool FileReceiver::take(std::string_view piece) {
    m_bytes += piece.size();
    if (m_bytes > m_most_bytes)
        m_rejection = tooLarge("The file", m_most_bytes);
    else if (!m_rejection && !m_file->write(piece))
        m_rejection = noStorage("The file cannot be stored");
    return isBearable(m_bytes, m_most_bytes);
}

HttpResponse FileReceiver::answer() {
    return m_rejection ? refusal(*m_rejection) : m_finish(std::move(m_file));
}

IgnoringReceiver::IgnoringReceiver(std::function<HttpResponse()> finish) : m_finish(std::move(finish)) {}

bool IgnoringReceiver::take(std::string_view piece) {
    m_bytes += piece.size();
    return isBearable(m_bytes, kMostIgnoredBytes);
}

HttpResponse IgnoringReceiver::answer() {
    return m_finish();
}

} // namespace vantor::collector
