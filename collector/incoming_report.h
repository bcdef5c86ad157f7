#pragma once

#include "collector/form_reader.h"
#include "collector/report_store.h"

#include <memory>
#include <optional>
#include <string>

namespace vantor::collector {

/// What one uploaded form becomes: a report. Its one file, "crash", is the dump, and the file's name without
/// ".dmp" the report's name; its fields are the parameters, "guid" no more than any other.
///
/// The dump is written to the disk as it comes. It goes with the object unless the report was committed.
/// One thread at a time uses an object.
class IncomingReport final : public FormSink {
public:
    /// The store outlives the object.
    explicit IncomingReport(ReportStore& store) : m_store(store) {}

    std::optional<Rejection> beginFile(const std::string& name, const std::string& filename) override;
    std::optional<Rejection> fileData(std::string_view piece) override;
    /// Refuses what is no whole minidump.
    std::optional<Rejection> endFile() override;
    std::optional<Rejection> field(const std::string& name, const std::string& value) override;

    /// To be called once, when the form has been read to its end without a rejection. Returns why the report
    /// is not kept; nothing when it is stored to last, or was already.
    std::optional<Rejection> commit();

    /// The report's name; "" until the file has begun.
    const std::string& name() const { return m_name; }

private:
    ReportStore& m_store;
    std::string m_name;
    std::unique_ptr<TemporaryFile> m_dump; // null until the file has begun
    Params m_params;
};

} // namespace vantor::collector
