#include "tests/support/header_fields.h"
#include "tests/support/tls_server.h"

#include <algorithm>

namespace vantor::test {

std::string ReceivedRequest::header(const std::string& name) const {
    const std::string* value = findField(headers, name);
    return value != nullptr ? *value : "";
}

const FormPart* ReceivedRequest::part(const std::string& name) const {
    const auto found =
        std::find_if(form.begin(), form.end(), [&name](const FormPart& part) { return part.name == name; });
    return found != form.end() ? &*found : nullptr;
}

Answer Answer::status_code(int status, std::string body) {
    Answer answer;
    answer.status = status;
    answer.body = std::move(body);
    return answer;
}

Answer Answer::raw(std::string bytes) {
    Answer answer;
    answer.kind = Kind::Raw;
    answer.body = std::move(bytes);
    return answer;
}

Answer Answer::hangUp() {
    Answer answer;
    answer.kind = Kind::HangUp;
    return answer;
}

Answer Answer::silence() {
    Answer answer;
    answer.kind = Kind::Silence;
    return answer;
}

} // namespace vantor::test
