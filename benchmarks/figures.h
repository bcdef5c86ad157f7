#pragma once

#include <cstdio>
#include <string>

/// One line of the table that script/bench prints: what we need for something, beside what a yardstick needs.
struct Figure {
    std::string name;
    std::string unit; ///< of both values; empty for a count
    double ours;
    std::string yardstick_name;
    double yardstick;
    double goal; ///< what ours / yardstick should be at most; 0 where there is none
};

/// Prints it to standard output, as a JSON object on a line of its own.
inline void printFigure(const Figure& figure) {
    printf("{\"figure\": \"%s\", \"unit\": \"%s\", \"ours\": %.4g, \"yardstick\": \"%s\", \"theirs\": %.4g, "
           "\"ratio\": %.4g, \"goal\": %.4g}\n",
           figure.name.c_str(), figure.unit.c_str(), figure.ours, figure.yardstick_name.c_str(),
           figure.yardstick, figure.ours / figure.yardstick, figure.goal);
    (void)fflush(stdout);
}
