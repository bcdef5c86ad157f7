#pragma once

#include "collector/http_server.h"
#include "collector/symbol_store.h"
#include "collector/temporary_file.h"
#include "common/mutex.h"

#include <deque>
#include <functional>
#include <memory>
#include <string>

namespace vantor::collector {

/// Takes symbol files from Breakpad's sym_upload, in both of its protocols: one form, or a file between two
/// calls. Whoever shows the key may send them. Any thread may call.
class SymbolService {
public:
    struct Options {
        std::string key; ///< "": nobody may send symbols
        uint64_t most_bytes = 0;
        /// Makes a file to receive symbols in; null when there is none to be had.
        std::function<std::unique_ptr<TemporaryFile>()> new_file;
        /// Called for each module whose symbols have arrived.
        std::function<void(const SymbolModule&)> on_added;
    };

    /// The store outlives the object.
    SymbolService(SymbolStore& store, Options options);

    /// sym-upload-v1: the form.
    HttpDecision receiveForm(const HttpRequest& request);

    // sym-upload-v2, in the order of its calls.

    /// Whether the symbols of "FILE/ID" are there.
    HttpDecision status(const HttpRequest& request, const std::string& module);
    /// Opens an upload, and tells where the file is to be put.
    HttpDecision create(const HttpRequest& request);
    /// The file itself. The upload's number is secret enough: it was told to somebody with the key.
    HttpDecision put(const HttpRequest& request, const std::string& upload);
    /// Adds the file to the store.
    HttpDecision complete(const HttpRequest& request, const std::string& upload);

private:
    /// An upload between its calls.
    struct Upload {
        std::string number;
        std::unique_ptr<TemporaryFile> file; ///< null until it has arrived
    };

    std::optional<HttpResponse> refuseStranger(const HttpRequest& request) const;
    HttpResponse add(const TemporaryFile& file, const std::string& success);
    bool isOpen(const std::string& upload);
    HttpResponse keep(const std::string& upload, std::unique_ptr<TemporaryFile> file);
    std::unique_ptr<TemporaryFile> takeFile(const std::string& upload);

    SymbolStore& m_store;
    const Options m_options;
    Mutex m_mutex;
    std::deque<Upload> m_uploads VANTOR_GUARDED_BY(m_mutex); // the oldest first
};

} // namespace vantor::collector
