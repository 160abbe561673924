// Owning handles for sd-bus connections, slots, messages and errors.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

namespace DbusHelper
{

struct SdBusCloser {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
// For a reference to a connection that someone else owns: dropped, never closed.
struct SdBusReleaser {
    void operator()(sd_bus* bus) const { sd_bus_unref(bus); }
};
struct SdBusSlotReleaser {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
struct SdBusMessageReleaser {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};

// Owns a connection: flushes and closes it when released.
using SdBusPtr = std::unique_ptr<sd_bus, SdBusCloser>;
// Shares a connection that another owner opened, services and closes.
using SdBusRefPtr = std::unique_ptr<sd_bus, SdBusReleaser>;
using SdBusSlotPtr = std::unique_ptr<sd_bus_slot, SdBusSlotReleaser>;
using SdBusMessagePtr = std::unique_ptr<sd_bus_message, SdBusMessageReleaser>;

// An sd_bus_error that frees itself.
class SdBusError
{
public:
    SdBusError() = default;
    ~SdBusError() { sd_bus_error_free(&_Error); }
    SdBusError(const SdBusError&) = delete;
    SdBusError& operator=(const SdBusError&) = delete;

    sd_bus_error* Get() { return &_Error; }
    bool IsSet() const { return sd_bus_error_is_set(&_Error) > 0; }
    const char* Name() const { return _Error.name ? _Error.name : ""; }
    const char* Message() const { return _Error.message ? _Error.message : ""; }

private:
    sd_bus_error _Error = SD_BUS_ERROR_NULL;
};

} // namespace DbusHelper
