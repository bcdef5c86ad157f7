#pragma once

#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace vantor::test {

/// Names the socket of a brake (brake.h) to the server that it stops.
inline const char* const kBrakeVariable = "VANTOR_TEST_BRAKE";

inline sockaddr_un socketAddress(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    return address;
}

/// A socket that listens; -1: an error.
inline int listenAt(const std::string& path) {
    const sockaddr_un address = socketAddress(path);
    const int listening = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
        listen(listening, 1) == 0)
        return listening;
    (void)close(listening);
    return -1;
}

/// Room for one descriptor beside a message of one byte.
struct DescriptorMessage {
    DescriptorMessage() {
        header.msg_iov = &text;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof(control);
    }
    DescriptorMessage(const DescriptorMessage&) = delete;
    DescriptorMessage& operator=(const DescriptorMessage&) = delete;

    char byte = 'd';
    iovec text = {&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr header = {};
};

inline bool sendDescriptor(int socket, int descriptor) {
    DescriptorMessage message;
    cmsghdr* const control = CMSG_FIRSTHDR(&message.header);
    control->cmsg_level = SOL_SOCKET;
    control->cmsg_type = SCM_RIGHTS;
    control->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(control), &descriptor, sizeof(descriptor));
    return sendmsg(socket, &message.header, 0) == 1;
}

/// -1: none came.
inline int receiveDescriptor(int socket) {
    DescriptorMessage message;
    if (recvmsg(socket, &message.header, MSG_CMSG_CLOEXEC) != 1 || CMSG_FIRSTHDR(&message.header) == nullptr)
        return -1;
    int descriptor = -1;
    std::memcpy(&descriptor, CMSG_DATA(CMSG_FIRSTHDR(&message.header)), sizeof(descriptor));
    return descriptor;
}

} // namespace vantor::test
