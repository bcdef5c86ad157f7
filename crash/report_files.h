#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace vantor::crash {

// A crash report on disk is a pair of files: the minidump GUID.dmp, and beside it GUID.params with the
// crash's parameters as text. These functions know names and texts; they touch no file. The format is in
// docs/report-files.md.

/// The largest parameters file that is accepted, in bytes.
inline constexpr int64_t kMostParamsBytes = 102'400;
/// The length of a report's name. Only the length is looked at: the dumper's GUIDs are not canonical ones.
inline constexpr size_t kGuidLength = 36;
inline constexpr size_t kMostNameBytes = 128;
inline constexpr size_t kMostValueBytes = 512;

/// The path of the parameters file that belongs to a dump, and the other way round.
std::string paramsPathOf(const std::string& dump_path);
std::string dumpPathOf(const std::string& params_path);

/// A report's name: the file's name without directory and extension.
std::string stemOf(const std::string& path);

/// One parameter as it stands in the file; "" for one that is left out, because the reader drops empty lines
/// and could not read it back.
std::string formatRecord(const std::string& name, const std::string& value);

/// What the text of a parameters file comes to.
struct ParamsVerdict {
    /// Why the report is rejected, in the words that the user is told; "" for a report that is accepted.
    std::string complaint;
    /// What is uploaded: "guid" and every parameter of the text. Empty for a rejected report.
    std::map<std::string, std::string> upload_params;
};

/// Judges a parameters file by its text, for the report named `stem`. A later parameter of the same name
/// replaces an earlier one, and one named "guid" the stem.
ParamsVerdict judgeParams(const std::string& text, const std::string& stem);

} // namespace vantor::crash
