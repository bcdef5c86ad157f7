#pragma once

#include "collector/http_server.h"
#include "collector/rejection.h"

namespace vantor::collector {

/// One line of text.
HttpResponse textAnswer(unsigned int status, const std::string& line);

/// What the sender of something that is not kept is told: whether another try may help, and why not.
HttpResponse refusal(const Rejection& rejection);

} // namespace vantor::collector
