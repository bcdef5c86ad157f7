// Walks one dump, or parses one symbol file, for crash_collector, which starts it with limits. A program of
// its own: it begins faster without the libraries of a server, and a dump that takes it over finds no keys in
// its memory.

#include "collector/walk_child.h"

#include <cstdio>

int main(int argc, char** argv) {
    if (vantor::collector::isWalkChild(argc, argv))
        vantor::collector::runWalkChild(argc, argv);

    (void)fputs("crash_walker is started by crash_collector alone.\n", stderr);
    return 2;
}
