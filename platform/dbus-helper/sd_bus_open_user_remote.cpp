// Remote user bus connection through ssh and systemd-stdio-bridge.
#include "dbus-helper/sd_bus_open_user_remote.h"

#include <cerrno>
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
    // The unique name is known once the remote bus has answered Hello; that
    // wait is bounded by the method-call time-out.
    const char* unique = nullptr;
    if (r >= 0)
        r = sd_bus_get_unique_name(raw, &unique);
    if (r < 0)
        return r;
    *ret = bus.release();
    return 0;
}
