#pragma once

#include "client/guardian_state.h"

#include <cstddef>
#include <string>

namespace vantor::client {

/// The memory of a guardian, in one mapping: two stacks, each above a page that nobody may touch, the state,
/// and copies of the texts that the server is started with. The application's own may change or go.
///
/// The guardian uses it as long as it runs; the owner sees to that. Forked children do not get the stacks.
class GuardianMemory {
public:
    /// `program` is the server's path. The environment is the process's; nobody may change it meanwhile.
    explicit GuardianMemory(const std::string& program);
    ~GuardianMemory();
    GuardianMemory(const GuardianMemory&) = delete;
    GuardianMemory& operator=(const GuardianMemory&) = delete;

    /// False when there was no memory; errno says why. Nothing else may be called then.
    bool isThere() const { return m_mapping != nullptr; }
    GuardianState& state() const { return *m_state; }
    void* stackTop() const { return m_stack_top; }

private:
    char* m_mapping = nullptr;
    size_t m_size;
    void* m_stack_top = nullptr;
    GuardianState* m_state = nullptr;
};

} // namespace vantor::client
