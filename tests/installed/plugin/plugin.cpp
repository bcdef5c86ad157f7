#include <cstdio>
#include <vantor/crash_client.h>

extern "C" bool startPlugin() {
    const vantor::crash_client::Result started = vantor::crash_client::start();
    (void)vantor::crash_client::set("plugin", "was here");
    printf("plug-in: %s\n", started ? "started" : started.problem().c_str());
    return static_cast<bool>(started);
}
