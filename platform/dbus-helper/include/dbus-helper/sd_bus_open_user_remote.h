// Opening the user bus of another unit over ssh.
#pragma once

#include <systemd/sd-bus.h>

#ifdef __cplusplus
extern "C" {
#endif

// Connects to a user bus on `host` through `ssh host systemd-stdio-bridge`.
// `path` is appended, as D-Bus address text (percent-encoded), to the bridge's
// command line; it selects the remote bus, e.g.
// "%20--bus-path%3Dunix%3Aabstract%3D/tmp/dbus-XXXXXXXXXX". Waits until the
// bus has accepted the connection, at most DbusHelper::kMethodCallTimeoutUsec
// in all (-ETIMEDOUT after that). Returns 0 with *ret set, or a negative errno.
int sd_bus_open_user_remote(sd_bus** ret, const char* host, const char* path);

#ifdef __cplusplus
}
#endif
