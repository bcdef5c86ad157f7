#include "common/environment.h"
#include "common/proxy_configuration.h"
#include "common/strings.h"
#include "tools/crash_doctor/surroundings.h"

#include <cerrno>
#include <sys/auxv.h>
#include <unistd.h>

namespace vantor::tools {

namespace {

Finding checkRights() {
    if (getauxval(AT_SECURE) != 0)
        return {
            Level::Warn, "process",
            "it runs with more rights than its caller (set-user-id or file capabilities): the environment, "
            "with data directory, proxy and authorities, counts as not set. Start it without them."};
    const std::string process_1 = getpid() == 1 ? ", process 1" : "";
    return {Level::Ok, "process",
            "user " + std::to_string(geteuid()) + process_1 + ", no_new_privs " + ownStatus("NoNewPrivs")};
}

Finding checkDebugger() {
    const std::string tracer = ownStatus("TracerPid");
    if (tracer.empty() || tracer == "0")
        return {Level::Ok, "debugger", "none is attached"};
    return {Level::Warn, "debugger",
            "process " + tracer + " (" + firstLine("/proc/" + tracer + "/comm") +
                ") traces this one. What it traces, nobody else can read after a crash: detach it."};
}

Finding checkYama() {
    const std::string scope = firstLine("/proc/sys/kernel/yama/ptrace_scope");
    if (scope.empty())
        return {Level::Ok, "Yama", "not in this kernel"};
    if (scope == "2")
        return {Level::Fail, "Yama",
                "ptrace_scope is 2: without CAP_SYS_PTRACE no process may read another one. Have the "
                "administrator set kernel.yama.ptrace_scope=1 (sysctl)."};
    if (scope == "3")
        return {
            Level::Fail, "Yama",
            "ptrace_scope is 3: no process may read another one, until the machine starts again. Have the "
            "administrator set kernel.yama.ptrace_scope=1 in /etc/sysctl.d, and start it again."};
    return {Level::Ok, "Yama", "ptrace_scope is " + scope + ", which lets the crash server read the process"};
}

} // namespace

Findings checkProcess() {
    if (access("/proc/self/status", R_OK) != 0)
        return {{Level::Fail, "process",
                 "/proc cannot be read: " + errorText(errno) +
                     ". So nobody can read a crashed process: mount it."}};
    return {checkRights(), checkDebugger(), checkYama()};
}

Findings checkUploadSettings() {
    ProxyConfiguration proxy;
    getProxyConfiguration(&proxy);
    Findings findings = {{Level::Ok, "proxy", toStringUsingStreamOperator(proxy)}};

    const std::string authorities = environmentVariable("SSL_CERT_FILE");
    if (authorities.empty())
        findings.push_back({Level::Ok, "authorities", "the system's"});
    else if (access(authorities.c_str(), R_OK) == 0)
        findings.push_back({Level::Ok, "authorities", "SSL_CERT_FILE names " + authorities});
    else
        findings.push_back({Level::Fail, "authorities",
                            "SSL_CERT_FILE names " + authorities + ", which cannot be read: " +
                                errorText(errno) + ". Correct it, or unset it to use the system's."});
    return findings;
}

} // namespace vantor::tools
