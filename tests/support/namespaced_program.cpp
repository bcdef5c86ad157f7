// What namespaces_test.cpp runs from outside: "tests" that end in the way that the argument names.

#include "tests/support/namespaces.h"

#include <csignal>
#include <string>
#include <unistd.h>

namespace {

int leaveProcessBehind() {
    if (fork() == 0)
        pause();
    return 0;
}

int endIn(const std::string& way) {
    if (way == "leave-process")
        return leaveProcessBehind();
    if (way == "crash")
        return raise(SIGKILL);
    return std::stoi(way);
}

} // namespace

int main(int /*argc*/, char** argv) {
    const std::string way = argv[1];
    vantor::test::runInNamespaces([&way] { return endIn(way); });
}
