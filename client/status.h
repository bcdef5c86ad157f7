#pragma once

#include "client/annotation_error.h"

#include <vantor/crash_client_c.h>

namespace vantor::client {

VantorCrashStatus statusOf(AnnotationError error);

} // namespace vantor::client
