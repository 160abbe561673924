// Remote user bus connection through ssh and systemd-stdio-bridge.
#include "dbus-helper/sd_bus_open_user_remote.h"

#include <time.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>

#include "dbus-helper/dbus_connector.h"

namespace
{

// D-Bus address values escape every byte outside [-0-9A-Za-z_/.\*].
std::string EscapeAddressValue(const std::string& text)
{
    std::string escaped;
    for (unsigned char c : text) {
        const bool plain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z')
            || c == '-' || c == '_' || c == '/' || c == '.' || c == '\\' || c == '*';
        if (plain) {
            escaped += static_cast<char>(c);
        } else {
            char hex[4];
            std::snprintf(hex, sizeof(hex), "%%%02x", c);
            escaped += hex;
        }
    }
    return escaped;
}

uint64_t MonotonicUsec()
{
    timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

// Drives the handshake (authentication, then Hello) until the remote bus has
// accepted the connection, for at most `timeoutUsec`. sd-bus's own wait for
// the authentication is bounded only by its 90 s default, too long for the
// main loop that opens the bus. Returns 0, -ETIMEDOUT or another negative errno.
int WaitUntilReady(sd_bus* bus, uint64_t timeoutUsec)
{
    const uint64_t deadline = MonotonicUsec() + timeoutUsec;
    for (;;) {
        int r = sd_bus_is_ready(bus);
        if (r != 0)
            return r < 0 ? r : 0;
        r = sd_bus_process(bus, nullptr);
        if (r < 0)
            return r;
        if (r > 0)
            continue;
        const uint64_t now = MonotonicUsec();
        if (now >= deadline)
            return -ETIMEDOUT;
        r = sd_bus_wait(bus, deadline - now);
        if (r < 0)
            return r;
    }
}

} // namespace

extern "C" int sd_bus_open_user_remote(sd_bus** ret, const char* host, const char* path)
{
    if (!ret || !host || !*host || !path)
        return -EINVAL;

    // BatchMode: never wait for a password prompt that nobody can answer.
    const std::string address = "unixexec:path=ssh,argv1=-xT,argv2=-oBatchMode%3dyes,argv3=--,argv4="
        + EscapeAddressValue(host) + ",argv5=systemd-stdio-bridge" + path;

    sd_bus* raw = nullptr;
    int r = sd_bus_new(&raw);
    if (r < 0)
        return r;
    DbusHelper::SdBusPtr bus(raw);
    r = sd_bus_set_address(raw, address.c_str());
    if (r >= 0)
        r = sd_bus_set_bus_client(raw, 1);
    if (r >= 0)
        r = sd_bus_set_method_call_timeout(raw, DbusHelper::kMethodCallTimeoutUsec);
    if (r >= 0)
        r = sd_bus_start(raw);
    if (r >= 0)
        r = WaitUntilReady(raw, DbusHelper::kMethodCallTimeoutUsec);
    if (r < 0) {
        // Closed before release: flushing a connection that never got ready
        // would wait for the handshake again.
        sd_bus_close(raw);
        return r;
    }
    *ret = bus.release();
    return 0;
}
