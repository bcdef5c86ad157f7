#pragma once

#include <map>
#include <sstream>
#include <string>

// How applications of the tests do what they are told on standard input: one command in a line, answered by
// one line on standard output.

namespace vantor::test {

using Words = std::istringstream; // what follows a command's name
using Command = std::string (*)(Words&);
using Commands = std::map<std::string, Command>;

inline const char* const kDone = "done";

std::string wordFrom(Words& words);

/// Ends the application with a message when it cannot do its part.
void require(bool is_done, const char* what);

/// Does commands until standard input ends.
void perform(const Commands& commands);

// Commands that every application has.

/// "child COMMAND[;COMMAND...]": in a forked process; its pid and how it ended.
std::string inChild(Words& words);
/// The answer is "no child" or "a child".
std::string waitForAnybody(Words&);
/// Mounts a /proc of its own, for a process namespace.
std::string mountProcesses(Words&);
/// "threads COUNT": that do nothing.
std::string startThreads(Words& words);

} // namespace vantor::test
