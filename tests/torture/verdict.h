#pragma once

#include "tests/torture/fault.h"
#include "tests/torture/scene.h"

#include <string>

namespace vantor::torture {

enum class Outcome {
    Delivered,  ///< sent by the run's own server
    Kept,       ///< a whole pair, which the next start sent
    Completed,  ///< a whole dump without parameters, which a start more than ten seconds later completed and
                ///< sent
    Repeated,   ///< sent twice under one name
    LoneDump,   ///< a dump that no server of an application without the library ever sends
    Unexpected, ///< nothing was to be expected: the process did not come to its crash, or was killed, or had
                ///< no consent
    Lost,       ///< for a cause that the list allows
    NotReached, ///< the call did not come in this run
    Wrong,      ///< everything else
};

inline constexpr Outcome kOutcomes[] = {Outcome::Delivered, Outcome::Kept,       Outcome::Completed,
                                        Outcome::Repeated,  Outcome::LoneDump,   Outcome::Unexpected,
                                        Outcome::Lost,      Outcome::NotReached, Outcome::Wrong};

std::string nameOf(Outcome outcome);

struct Verdict {
    Outcome outcome = Outcome::Wrong;
    std::string sentence = {}; ///< why it is lost, or what is wrong
};

/// Holds what was seen against what is promised.
Verdict judge(const Fault& fault, const Observation& seen);

} // namespace vantor::torture
