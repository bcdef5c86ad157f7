#pragma once

#include <optional>
#include <string>
#include <vector>

namespace vantor::test {

/// One part of a multipart/form-data body, byte for byte. Names are as they stand between the quotation
/// marks: a quotation mark within a name arrives as %22.
struct FormPart {
    std::string name;
    std::optional<std::string> filename; ///< absent: a field, not a file
    std::string content_type;            ///< "" when the part has none
    std::string body;
};

/// Takes a multipart/form-data body apart. `content_type` is the request's header, with the boundary.
/// Empty when the header names another type, or when the body is not well formed in every byte.
std::optional<std::vector<FormPart>> parseMultipart(const std::string& content_type, const std::string& body);

} // namespace vantor::test
