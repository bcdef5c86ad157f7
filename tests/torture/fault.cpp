#include "tests/torture/fault.h"

#include "tests/torture/system_calls.h"

#include <cstring>
#include <map>

namespace vantor::torture {

namespace {

const std::map<Role, std::string> kRoleNames = {
    {Role::Application, "application"}, {Role::Guardian, "guardian"},   {Role::Starter, "starter"},
    {Role::Server, "server"},           {Role::Companion, "companion"}, {Role::Writer, "writer"}};

const std::map<Run, std::string> kRunNames = {{Run::Library, "library"},
                                              {Run::Fallback, "fallback"},
                                              {Run::Unwilling, "unwilling"},
                                              {Run::HandMade, "hand-made"}};

template <typename Key>
std::optional<Key> keyOf(const std::map<Key, std::string>& names, const std::string& name) {
    for (const auto& [key, own_name] : names) {
        if (own_name == name)
            return key;
    }
    return std::nullopt;
}

} // namespace

std::string nameOf(Role role) {
    return kRoleNames.at(role);
}

std::string nameOf(Run run) {
    return kRunNames.at(run);
}

std::optional<Role> roleNamed(const std::string& name) {
    return keyOf(kRoleNames, name);
}

std::optional<Run> runNamed(const std::string& name) {
    return keyOf(kRunNames, name);
}

std::string describeEffect(const Fault& fault) {
    switch (fault.kind) {
    case Fault::Kind::Kill:
        return "kill";
    case Fault::Kind::Stop:
        return "stop";
    case Fault::Kind::Bereave:
        return "bereave";
    case Fault::Kind::Error:
        break;
    }
    return strerrorname_np(fault.error);
}

bool setEffect(const std::string& word, Fault& fault) {
    static const std::map<std::string, Fault::Kind> kKinds = {
        {"kill", Fault::Kind::Kill}, {"stop", Fault::Kind::Stop}, {"bereave", Fault::Kind::Bereave}};
    const auto kind = kKinds.find(word);
    fault.kind = kind != kKinds.end() ? kind->second : Fault::Kind::Error;
    constexpr int kMostErrors = 134;
    for (int error = 1; fault.kind == Fault::Kind::Error && fault.error == 0 && error < kMostErrors;
         ++error) {
        const char* const name = strerrorname_np(error);
        if (name != nullptr && word == name)
            fault.error = error;
    }
    return fault.kind != Fault::Kind::Error || fault.error != 0;
}

std::string describe(const Fault& fault) {
    return "--run " + nameOf(fault.run) + " --role " + nameOf(fault.role) + " --call " +
           callName(fault.call) + " --number " + std::to_string(fault.number) + " --effect " +
           describeEffect(fault);
}

} // namespace vantor::torture
