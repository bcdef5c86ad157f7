#include "collector/answers.h"

namespace vantor::collector {

namespace {

constexpr unsigned int kRetrySeconds = 60;

unsigned int statusOf(Rejection::Kind kind) {
    switch (kind) {
    case Rejection::Kind::Bad:
        return 400;
    case Rejection::Kind::TooLarge:
        return 413;
    case Rejection::Kind::NoStorage:
        return 503;
    }
    return 500; // not reached
}

} // namespace

HttpResponse textAnswer(unsigned int status, const std::string& line) {
    HttpResponse response;
    response.status = status;
    response.body = line + "\n";
    return response;
}

HttpResponse refusal(const Rejection& rejection) {
    HttpResponse response = textAnswer(statusOf(rejection.kind), rejection.reason);
    if (rejection.kind == Rejection::Kind::NoStorage)
        response.retry_after = kRetrySeconds;
    return response;
}

} // namespace vantor::collector
