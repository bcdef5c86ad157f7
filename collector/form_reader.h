#pragma once

#include "collector/part_header.h"
#include "collector/rejection.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vantor::collector {

/// The most that a form may hold, the limit itself included. As they stand, everything that a crash server
/// sends fits: its parameters file has at most 102,400 bytes, in which a record takes four or more.
struct FormLimits {
    uint64_t body_bytes = 65ULL * 1024 * 1024;
    uint64_t file_bytes = 64ULL * 1024 * 1024; ///< all files together
    size_t fields = 25'601;                    ///< those records, and "guid"
    size_t field_bytes = 128ULL * 1024;        ///< the names and values of all fields together
    size_t name_bytes = 128;                   ///< a part's name
    size_t value_bytes = 512;                  ///< a field's value
};

/// The most that the header of a part may take, with the empty line at its end.
inline constexpr size_t kMostPartHeaderBytes = 8192;

/// What a form is read into. Each call may refuse what it is given, which ends the reading.
class FormSink {
public:
    virtual ~FormSink() = default;

    /// A file begins. Its name is the sender's: any bytes but NUL.
    virtual std::optional<Rejection> beginFile(const std::string& name, const std::string& filename) = 0;
    /// The next bytes of the file that began last; never none.
    virtual std::optional<Rejection> fileData(std::string_view piece) = 0;
    virtual std::optional<Rejection> endFile() = 0;
    /// One whole field. The name holds any bytes but NUL, the value any.
    virtual std::optional<Rejection> field(const std::string& name, const std::string& value) = 0;
};

/// Reads a form (multipart/form-data) that comes in pieces of any size, in little memory: what it keeps is
/// bounded by a part's header and one value, and what it hands on by the limits. What becomes of a form does
/// not depend on the pieces.
///
/// Every byte must be in its place up to the closing boundary: nothing but a line's end may stand before the
/// first boundary, each part has a header with a name, and lines end with CR LF. What follows the closing
/// boundary is not looked at.
///
/// One thread at a time uses an object.
class FormReader {
public:
    /// The sink outlives the reader.
    FormReader(const std::string& boundary, const FormLimits& limits, FormSink& sink);
    FormReader(const FormReader&) = delete;
    FormReader& operator=(const FormReader&) = delete;

    /// Takes the next piece of the body. Returns why the form is refused, if it is by now; what is fed
    /// afterwards is thrown away.
    const std::optional<Rejection>& feed(std::string_view piece);

    /// The body has ended. Returns why the form is refused, and nothing when the sink was given all of it.
    const std::optional<Rejection>& finish();

private:
    enum class State { Start, AfterBoundary, Header, Body, Epilogue };

    bool step(std::string_view* rest);
    bool readStart(std::string_view* rest);
    bool readAfterBoundary(std::string_view* rest);
    bool readHeader(std::string_view* rest);
    bool readBody(std::string_view* rest);

    void beginPart();
    void takeBody(std::string_view piece);
    void endPart();
    void countFieldBytes(size_t count);
    void refuse(const Rejection& rejection);

    const std::string m_delimiter; // what ends a part's body
    const FormLimits m_limits;
    FormSink& m_sink;

    State m_state = State::Start;
    std::optional<Rejection> m_rejection;
    std::string m_unread; // bytes that mean nothing yet without those that follow
    PartHeader m_part;
    std::string m_value; // of the field that is being read
    uint64_t m_body_bytes = 0;
    uint64_t m_file_bytes = 0;
    size_t m_fields = 0;
    size_t m_field_bytes = 0;
};

/// The boundary that a Content-Type header declares: `multipart/form-data; boundary=...`. Empty for any other
/// type, and for a boundary that is none: 1 to 70 characters of those that the format has for it.
std::optional<std::string> boundaryOf(std::string_view content_type);

} // namespace vantor::collector
