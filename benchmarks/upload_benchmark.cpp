// What a collection server does under a storm of reports: sends forms over a few kept connections, each with
// a report of its own, and prints how many a second were accepted.
//
//     upload_benchmark URL AUTHORITY-FILE CONNECTIONS REPORTS BYTES
//
// BYTES is the size of each dump.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <curl/curl.h>
#include <string>
#include <thread>
#include <vector>

namespace {

/// A minidump of one stream, as a collector takes it, which differs from every other.
std::string dumpOf(int number, size_t size) {
    const uint32_t header[] = {0x504d444d, 0xa793, 1, 32, 0, 0, 0, 0};
    const uint32_t directory[] = {0x12345678, static_cast<uint32_t>(size - 44), 44};
    std::string dump(size, static_cast<char>('a' + number % 26));
    std::memcpy(dump.data(), header, sizeof(header));
    std::memcpy(dump.data() + sizeof(header), directory, sizeof(directory));
    return dump;
}

/// The name of a report that no run has sent before.
std::string nameOf(int number, uint64_t run) {
    char name[48] = {};
    (void)snprintf(name, sizeof(name), "%08x-%04x-%04x-%08x-00000000.dmp", static_cast<unsigned int>(number),
                   static_cast<unsigned int>(run & 0xffff), static_cast<unsigned int>(run >> 16 & 0xffff),
                   static_cast<unsigned int>(run >> 32));
    return name;
}

size_t ignore(char*, size_t size, size_t count, void*) {
    return size * count;
}

/// Whether the server accepted it.
bool send(CURL* easy, int number, uint64_t run, size_t size) {
    const std::string dump = dumpOf(number, size);
    curl_mime* form = curl_mime_init(easy);
    curl_mimepart* field = curl_mime_addpart(form);
    curl_mime_name(field, "product");
    curl_mime_data(field, "benchmark", CURL_ZERO_TERMINATED);
    curl_mimepart* file = curl_mime_addpart(form);
    curl_mime_name(file, "crash");
    curl_mime_filename(file, nameOf(number, run).c_str());
    curl_mime_data(file, dump.data(), dump.size());
    curl_easy_setopt(easy, CURLOPT_MIMEPOST, form);
    const CURLcode result = curl_easy_perform(easy);
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    curl_mime_free(form);
    return result == CURLE_OK && status == 200;
}

CURL* newConnection(const char* url, const char* authority) {
    CURL* easy = curl_easy_init();
    curl_easy_setopt(easy, CURLOPT_URL, url);
    curl_easy_setopt(easy, CURLOPT_CAINFO, authority);
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(easy, CURLOPT_TIMEOUT, 60L);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, ignore);
    return easy;
}

} // namespace

int main(int argc, char** argv) {
    const int connections = argc == 6 ? atoi(argv[3]) : 0;
    const int reports = argc == 6 ? atoi(argv[4]) : 0;
    const size_t size = argc == 6 ? strtoul(argv[5], nullptr, 10) : 0;
    if (connections < 1 || reports < 1 || size < 100) {
        fprintf(stderr, "usage: upload_benchmark URL AUTHORITY-FILE CONNECTIONS REPORTS BYTES\n");
        return 2;
    }

    curl_global_init(CURL_GLOBAL_DEFAULT);
    const auto begin = std::chrono::steady_clock::now();
    const auto run = static_cast<uint64_t>(begin.time_since_epoch().count());
    std::atomic<int> next = 0;
    std::atomic<int> refused = 0;
    std::vector<std::thread> senders;
    for (int i = 0; i < connections; ++i) {
        senders.emplace_back([&] {
            CURL* easy = newConnection(argv[1], argv[2]);
            for (int number = next++; number < reports; number = next++)
                refused += send(easy, number, run, size) ? 0 : 1;
            curl_easy_cleanup(easy);
        });
    }
    for (std::thread& sender : senders)
        sender.join();

    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    if (refused != 0) {
        fprintf(stderr, "%d of %d reports were not accepted\n", refused.load(), reports);
        return 1;
    }
    printf("%.1f\n", reports / took.count());
}
