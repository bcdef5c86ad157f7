#pragma once

#include <string>

namespace vantor::client {

/// An error of the system's in English words: "No space left on device". Any thread.
std::string errorText(int error);

/// What to do when a file or a directory could not be written, as a sentence.
std::string adviceForWriting(int error);

} // namespace vantor::client
