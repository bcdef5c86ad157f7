#include "collector/symbol_service.h"

#include "collector/answers.h"
#include "collector/body_receivers.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <random>

namespace vantor::collector {

namespace {

/// More uploads than anybody has open at one time; beyond, the oldest is forgotten.
constexpr size_t kMostUploads = 64;

/// The form of sym-upload-v1: one file, and fields that say what the file says itself.
class IncomingSymbols : public FormSink {
public:
    explicit IncomingSymbols(std::unique_ptr<TemporaryFile> file) : m_file(std::move(file)) {}

    std::optional<Rejection> beginFile(const std::string& name, const std::string&) override {
        if (name != "symbol_file" || m_has_begun)
            return Rejection{Rejection::Kind::Bad, "The form must have one file, named \"symbol_file\"."};
        m_has_begun = true;
        return std::nullopt;
    }
    std::optional<Rejection> fileData(std::string_view piece) override {
        return m_file->write(piece) ? std::nullopt : std::optional(noStorage("The symbols cannot be stored"));
    }
    std::optional<Rejection> endFile() override { return std::nullopt; }
    std::optional<Rejection> field(const std::string&, const std::string&) override { return std::nullopt; }

    const TemporaryFile& file() const { return *m_file; }

private:
    std::unique_ptr<TemporaryFile> m_file;
    bool m_has_begun = false;
};

/// 128 bits that nobody guesses.
std::string newNumber() {
    std::random_device random;
    std::array<char, 33> text = {};
    for (size_t i = 0; i < 4; ++i)
        (void)snprintf(text.data() + 8 * i, 9, "%08x", random());
    return text.data();
}

/// Takes as long whatever the difference is.
bool areEqual(const std::string& a, const std::string& b) {
    unsigned int difference = a.size() == b.size() ? 0 : 1;
    for (size_t i = 0; i < std::min(a.size(), b.size()); ++i)
        difference |= static_cast<unsigned int>(a[i] ^ b[i]);
    return difference == 0;
}

/// Whether it can be part of a URL, as it is in an answer.
bool isHost(const std::string& text) {
    constexpr const char* kAllowed = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz.-:[]";
    return !text.empty() && text.find_first_not_of(kAllowed) == std::string::npos;
}

/// In the very form that sym_upload looks for, blanks included.
HttpResponse json(const std::string& text) {
    HttpResponse response;
    response.content_type = "application/json";
    response.body = text + "\n";
    return response;
}

HttpResponse noFile() {
    return refusal(noStorage("The symbols cannot be stored"));
}

} // namespace

SymbolService::SymbolService(SymbolStore& store, Options options)
    : m_store(store),
      m_options(std::move(options)) {}

HttpDecision SymbolService::receiveForm(const HttpRequest& request) {
    if (std::optional<HttpResponse> refused = refuseStranger(request))
        return *refused;
    const std::optional<std::string> boundary = boundaryOf(request.content_type);
    if (!boundary)
        return textAnswer(400, "Symbols are a form of the type multipart/form-data.");
    FormLimits limits;
    limits.file_bytes = m_options.most_bytes;
    limits.body_bytes = m_options.most_bytes + 65'536; // the fields, and what stands around them
    if (request.content_length.value_or(0) > limits.body_bytes)
        return refusal(tooLarge("The symbol file", m_options.most_bytes));
    std::unique_ptr<TemporaryFile> file = m_options.new_file();
    if (file == nullptr)
        return noFile();

    auto symbols = std::make_unique<IncomingSymbols>(std::move(file));
    const IncomingSymbols& incoming = *symbols;
    return std::make_unique<FormReceiver>(
        *boundary, limits, std::move(symbols), [this, &incoming](const std::optional<Rejection>& rejection) {
            return rejection ? refusal(*rejection) : add(incoming.file(), "Added.");
        });
}

HttpDecision SymbolService::status(const HttpRequest& request, const std::string& module) {
    if (std::optional<HttpResponse> refused = refuseStranger(request))
        return *refused;
    const size_t slash = module.find('/');
    const bool is_there =
        slash != std::string::npos && m_store.has({module.substr(0, slash), module.substr(slash + 1)});
    return json(is_there ? R"({"status": "FOUND"})" : R"({"status": "MISSING"})");
}

HttpDecision SymbolService::create(const HttpRequest& request) {
    if (std::optional<HttpResponse> refused = refuseStranger(request))
        return *refused;
    if (!isHost(request.host))
        return textAnswer(400, "The request does not say by which name it knows this server.");
    const std::string number = newNumber();
    {
        MutexLock lock(m_mutex);
        m_uploads.push_back({number, nullptr});
        if (m_uploads.size() > kMostUploads)
            m_uploads.pop_front();
    }
    return json(R"({"uploadUrl": "https://)" + request.host + "/v1/uploads/" + number +
                R"(", "uploadKey": ")" + number + R"("})");
}

HttpDecision SymbolService::put(const HttpRequest& request, const std::string& upload) {
    if (!isOpen(upload))
        return textAnswer(404, "There is no such upload.");
    if (request.content_length.value_or(0) > m_options.most_bytes)
        return refusal(tooLarge("The symbol file", m_options.most_bytes));
    std::unique_ptr<TemporaryFile> file = m_options.new_file();
    if (file == nullptr)
        return noFile();
    return std::make_unique<FileReceiver>(std::move(file), m_options.most_bytes,
                                          [this, upload](std::unique_ptr<TemporaryFile> received) {
                                              return keep(upload, std::move(received));
                                          });
}

HttpDecision SymbolService::complete(const HttpRequest& request, const std::string& upload) {
    if (std::optional<HttpResponse> refused = refuseStranger(request))
        return *refused;
    return std::make_unique<IgnoringReceiver>([this, upload] {
        const std::unique_ptr<TemporaryFile> file = takeFile(upload);
        if (file == nullptr)
            return textAnswer(404, "There is no such upload, or its file has not arrived.");
        return add(*file, R"({"result": "OK"})");
    });
}

std::optional<HttpResponse> SymbolService::refuseStranger(const HttpRequest& request) const {
    if (m_options.key.empty())
        return textAnswer(403, "This collector takes no symbols: it was started without --symbol-key.");
    if (!areEqual(request.key, m_options.key))
        return textAnswer(403, "The key is missing or wrong.");
    return std::nullopt;
}

HttpResponse SymbolService::add(const TemporaryFile& file, const std::string& success) {
    SymbolModule module;
    const std::string path = "/proc/self/fd/" + std::to_string(file.descriptor());
    if (const std::optional<Rejection> rejection = m_store.add(path, &module))
        return refusal(*rejection);
    m_options.on_added(module);
    return json(success);
}

bool SymbolService::isOpen(const std::string& upload) {
    MutexLock lock(m_mutex);
    return std::any_of(m_uploads.begin(), m_uploads.end(),
                       [&](const Upload& open) { return open.number == upload; });
}

HttpResponse SymbolService::keep(const std::string& upload, std::unique_ptr<TemporaryFile> file) {
    MutexLock lock(m_mutex);
    for (Upload& open : m_uploads) {
        if (open.number == upload) {
            open.file = std::move(file);
            return textAnswer(200, "Received.");
        }
    }
    return textAnswer(404, "There is no such upload any more.");
}

std::unique_ptr<TemporaryFile> SymbolService::takeFile(const std::string& upload) {
    MutexLock lock(m_mutex);
    const auto found = std::find_if(m_uploads.begin(), m_uploads.end(),
                                    [&](const Upload& open) { return open.number == upload; });
    if (found == m_uploads.end() || found->file == nullptr)
        return nullptr;
    std::unique_ptr<TemporaryFile> file = std::move(found->file);
    m_uploads.erase(found);
    return file;
}

} // namespace vantor::collector
