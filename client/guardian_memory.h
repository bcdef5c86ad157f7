#pragma once

#include "client/guardian_state.h"

#include <cstddef>
#include <string>
#include <sys/types.h>

namespace vantor::client {

/// The memory of a guardian: two stacks, each above a page that nobody may touch, the state, and copies of
/// the texts that the server is started with. The application's own may change or go.
///
/// The guardian uses it as long as it runs; the owner sees to that. Forked children do not get the stacks,
/// and share the rest, until they give it back on their part.
class GuardianMemory {
public:
    /// `program` is the server's path. The environment is the process's, with `data_home` for XDG_DATA_HOME
    /// unless that is empty; nobody may change it meanwhile.
    explicit GuardianMemory(const std::string& program, const std::string& data_home = "");
    ~GuardianMemory();
    GuardianMemory(const GuardianMemory&) = delete;
    GuardianMemory& operator=(const GuardianMemory&) = delete;

    /// False when there was no memory; errno says why. Nothing else may be called then.
    bool isThere() const { return m_stacks != nullptr && m_state != nullptr; }
    GuardianState& state() const { return *m_state; }
    void* stackTop() const;

private:
    const pid_t m_owner;
    char* const m_stacks;
    size_t m_shared_size;
    GuardianState* m_state = nullptr; // with the texts behind it
};

} // namespace vantor::client
