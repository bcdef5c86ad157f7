#pragma once

#include <string>

namespace vantor::test {

/// Takes the place of the process's standard error while it lives.
class CapturedStandardError {
public:
    CapturedStandardError();
    ~CapturedStandardError();
    CapturedStandardError(const CapturedStandardError&) = delete;
    CapturedStandardError& operator=(const CapturedStandardError&) = delete;

    /// What was written so far.
    std::string text() const;

private:
    int m_original;
    int m_captured;
};

} // namespace vantor::test
