// The yardstick of what the sending of left-over pairs costs: sends the pairs of a directory as the forms
// that the crash server makes of them, over libcurl's multi interface, and does nothing else; not even are
// they deleted.
//
//     upload_yardstick URL AUTHORITY-FILE DIRECTORY http/1.1 CONNECTIONS
//     upload_yardstick URL AUTHORITY-FILE DIRECTORY h2 STREAMS              over one connection
//
// Exits with status 0 when the server has accepted all of them.

#include "benchmarks/left_overs.h"

#include <cstdio>
#include <cstdlib>
#include <curl/curl.h>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

size_t ignore(char*, size_t size, size_t count, void*) {
    return size * count;
}

/// The pairs, by the names of their parameters.
std::vector<std::string> pairsIn(const std::string& directory) {
    std::vector<std::string> pairs;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        if (isParams(entry.path()))
            pairs.push_back(entry.path());
    }
    return pairs;
}

class Sender {
public:
    Sender(const char* url, const char* authority, bool is_http2, long most)
        : m_url(url),
          m_authority(authority),
          m_is_http2(is_http2),
          m_most(static_cast<size_t>(most)) {
        curl_multi_setopt(m_multi, CURLMOPT_MAX_HOST_CONNECTIONS, is_http2 ? 1L : most);
    }

    /// How many were accepted.
    size_t send(std::vector<std::string> pairs) {
        while (!pairs.empty() || m_active > 0) {
            for (; !pairs.empty() && m_active < m_most; pairs.pop_back())
                start(pairs.back());
            int running = 0;
            curl_multi_poll(m_multi, nullptr, 0, 1000, nullptr); // not at all, for what was just started
            curl_multi_perform(m_multi, &running);
            finishSome();
        }
        return m_accepted;
    }

private:
    CURL* newHandle() {
        CURL* easy = curl_easy_init();
        curl_easy_setopt(easy, CURLOPT_URL, m_url);
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, m_headers);
        curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(easy, CURLOPT_CAINFO, m_authority);
        curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, ignore);
        curl_easy_setopt(easy, CURLOPT_PIPEWAIT, m_is_http2 ? 1L : 0L);
        curl_easy_setopt(easy, CURLOPT_HTTP_VERSION,
                         static_cast<long>(m_is_http2 ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1));
        return easy;
    }

    void start(const std::string& params_path) {
        if (m_spare.empty())
            m_spare.push_back(newHandle());
        CURL* easy = m_spare.back();
        m_spare.pop_back();
        curl_mime* form = formOf(easy, params_path);
        curl_easy_setopt(easy, CURLOPT_PRIVATE, form);
        curl_easy_setopt(easy, CURLOPT_MIMEPOST, form);
        curl_multi_add_handle(m_multi, easy);
        ++m_active;
    }

    static curl_mime* formOf(CURL* easy, const std::string& params_path) {
        const std::string path = params_path.substr(0, params_path.rfind('.'));
        curl_mime* form = curl_mime_init(easy);
        addField(form, "guid", path.substr(path.rfind('/') + 1));
        std::ifstream params(params_path);
        for (std::string name, value; std::getline(params, name) && std::getline(params, value);)
            addField(form, name, value);
        curl_mimepart* dump = curl_mime_addpart(form);
        curl_mime_name(dump, "crash");
        curl_mime_filedata(dump, (path + ".dmp").c_str());
        curl_mime_type(dump, "application/octet-stream");
        return form;
    }

    static void addField(curl_mime* form, const std::string& name, const std::string& value) {
        curl_mimepart* field = curl_mime_addpart(form);
        curl_mime_name(field, name.c_str());
        curl_mime_data(field, value.data(), value.size());
    }

    void finishSome() {
        int left = 0;
        while (const CURLMsg* message = curl_multi_info_read(m_multi, &left)) {
            CURL* easy = message->easy_handle;
            curl_mime* form = nullptr;
            long status = 0;
            curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
            curl_easy_getinfo(easy, CURLINFO_PRIVATE, &form);
            m_accepted += message->data.result == CURLE_OK && status == 200 ? 1 : 0;
            curl_multi_remove_handle(m_multi, easy);
            curl_mime_free(form);
            m_spare.push_back(easy);
            --m_active;
        }
    }

    const char* const m_url;
    const char* const m_authority;
    const bool m_is_http2;
    const size_t m_most;
    CURLM* const m_multi = curl_multi_init();
    curl_slist* const m_headers = curl_slist_append(nullptr, "Expect:");
    std::vector<CURL*> m_spare;
    size_t m_active = 0;
    size_t m_accepted = 0;
};

} // namespace

int main(int argc, char** argv) {
    const bool is_http2 = argc == 6 && argv[4] == std::string_view("h2");
    const long most = argc == 6 ? atol(argv[5]) : 0;
    if (most < 1) {
        fprintf(stderr, "usage: upload_yardstick URL AUTHORITY-FILE DIRECTORY http/1.1|h2 MOST-AT-A-TIME\n");
        return 2;
    }

    curl_global_init(CURL_GLOBAL_DEFAULT);
    const std::vector<std::string> pairs = pairsIn(argv[3]);
    const size_t accepted = Sender(argv[1], argv[2], is_http2, most).send(pairs);
    if (accepted != pairs.size())
        fprintf(stderr, "%zu of %zu pairs were accepted\n", accepted, pairs.size());
    _exit(accepted == pairs.size() ? 0 : 1); // all is sent: what is left to free is nobody's time
}
