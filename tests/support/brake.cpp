#include "tests/support/brake.h"

#include "tests/support/descriptor_message.h"
#include "tests/support/programs.h"

#include <cstdio>
#include <cstdlib>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>

namespace vantor::test {

namespace {

bool isReadable(int descriptor) {
    constexpr int kPatienceMilliseconds = 30'000;
    pollfd entry = {.fd = descriptor, .events = POLLIN, .revents = 0};
    return poll(&entry, 1, kPatienceMilliseconds) == 1 && (entry.revents & POLLIN) != 0;
}

} // namespace

Brake::Brake(const std::string& directory, std::function<void(int)> at_growth)
    : m_at_growth(std::move(at_growth)),
      m_listening(listenAt(directory + "/brake")) {
    if (!m_listening.isOpen()) {
        perror("brake");
        abort(); // nothing can be tested
    }
    setenv(kBrakeVariable, (directory + "/brake").c_str(), 1);
    m_thread = std::thread([this] { serve(); });
}

Brake::~Brake() {
    m_thread.join();
}

std::string Brake::server() {
    return kBrakedServer;
}

void Brake::serve() const {
    if (!isReadable(m_listening.get()))
        return;
    const Descriptor connection(accept4(m_listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    const Descriptor calls(receiveDescriptor(connection.get()));
    for (int count = 1; calls.isOpen() && isReadable(calls.get()); ++count) {
        seccomp_notif call = {};
        if (ioctl(calls.get(), SECCOMP_IOCTL_NOTIF_RECV, &call) != 0)
            continue; // the server was killed just now
        m_at_growth(count);
        seccomp_notif_resp answer = {
            .id = call.id, .val = 0, .error = 0, .flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE};
        (void)ioctl(calls.get(), SECCOMP_IOCTL_NOTIF_SEND, &answer); // fails if the server has gone
    }
}

} // namespace vantor::test
