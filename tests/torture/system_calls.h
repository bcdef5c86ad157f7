#pragma once

#include <string>
#include <vector>

namespace vantor::torture {

/// What is done to a system call.
struct CallFaults {
    int call;
    const char* name;
    std::vector<int> errors; ///< that a kernel may really answer with; empty: see `reason`
    const char* reason = ""; ///< why the call is not made to fail
};

/// Null for a call that stands in no list: it is to be given errors, or a reason.
const CallFaults* faultsOf(int call);

/// Whether a call with this first argument may fail although nothing is wrong with its others.
bool mayFail(int call, unsigned long argument);

/// Calls at which nothing is done at all, with the reason. They are not even looked at.
const std::vector<CallFaults>& callsLeftOut();

/// "openat"; the number for a call that stands in no list.
std::string callName(int call);
/// -1: there is no such call in the lists.
int callNamed(const std::string& name);

} // namespace vantor::torture
