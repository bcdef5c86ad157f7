#pragma once

#include "collector/form_reader.h"

#include <cstdint>
#include <string>
#include <variant>

namespace vantor::collector {

/// What the command line of crash_collector says. The fields are explained to the user by kUsage.
struct Options {
    std::string address = "127.0.0.1";
    uint16_t port = 8443;
    std::string certificate_file;
    std::string key_file;
    std::string data_directory;
    std::string symbols_directory; ///< DATA/symbols when it is not given
    std::string symbol_key_file;   ///< "": no symbols are taken

    FormLimits form;
    uint64_t most_symbol_bytes = uint64_t(1) << 30;
    uint64_t keep_free_bytes = uint64_t(256) << 20;
    uint64_t connections = 4'096;
    uint64_t connections_per_address = 1'024;
    uint64_t silence_seconds = 60;
};

/// Something to print in the place of serving, and the status to end with.
struct EarlyEnd {
    std::string text;
    int status = 0;
};

extern const char* const kUsage;

/// Reads the command line. Does not look at what the paths name.
std::variant<Options, EarlyEnd> parseOptions(int argc, char** argv);

} // namespace vantor::collector
