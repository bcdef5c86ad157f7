#include "crash/globals.h"

vantor::crash::CrashHandler* g_crash_handler = nullptr;
uint64_t g_custom_data_addr = 0;
int32_t g_parent_pid = 0;
