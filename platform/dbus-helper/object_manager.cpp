// org.freedesktop.DBus.ObjectManager: managed objects and their change signals.
#include <cerrno>
#include <cstring>

#include "dbus-helper/dbus_connector.h"
#include "dbus-helper/sdbus_utils.h"
#include "message_codec.h"

using DbusHelper::SdBusMessagePtr;

namespace sdbus_utils
{

namespace
{

const char* const kObjectManagerInterface = "org.freedesktop.DBus.ObjectManager";

int ReadObjectPath(sd_bus_message* message, std::string& path)
{
    const char* text = nullptr;
    const int r = sd_bus_message_read_basic(message, 'o', &text);
    if (r <= 0)
        return r < 0 ? r : -ENXIO;
    path = text;
    return 0;
}

// Reads "a{sa{sv}}" at the current position.
int ReadInterfaces(sd_bus_message* message, InterfaceMap& interfaces)
{
    int r = sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "{sa{sv}}");
    if (r <= 0)
        return r < 0 ? r : -ENXIO;
    while ((r = sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, "sa{sv}")) > 0) {
        const char* name = nullptr;
        r = sd_bus_message_read_basic(message, 's', &name);
        if (r <= 0)
            return r < 0 ? r : -ENXIO;
        TypedPropertyMap properties;
        r = ParsePropertiesWithType(message, properties);
        if (r < 0)
            return r;
        interfaces[name] = std::move(properties);
        r = sd_bus_message_exit_container(message);
        if (r < 0)
            return r;
    }
    if (r < 0)
        return r;
    r = sd_bus_message_exit_container(message);
    return r < 0 ? r : 0;
}

} // namespace

int ParseInterfaceAdded(sd_bus_message* message, std::string& path, InterfaceMap& interfaces)
{
    const int r = ReadObjectPath(message, path);
    if (r < 0)
        return r;
    return ReadInterfaces(message, interfaces);
}

int ParseInterfaceRemoved(sd_bus_message* message, std::string& path, std::vector<std::string>& interfaces)
{
    int r = ReadObjectPath(message, path);
    if (r < 0)
        return r;
    // Read as an array of strings, so nothing sd-bus allocates is left to free.
    std::vector<std::string> names;
    r = DbusHelper::MessageCodec::Read(message, names);
    if (r < 0)
        return r;
    interfaces.insert(interfaces.end(), names.begin(), names.end());
    return 0;
}

namespace object_manager
{

int GetManagedObjects(sd_bus* bus, const std::string& service, const std::string& path,
    ManagedObjects& objects, std::string& error)
{
    SdBusMessagePtr reply;
    int r = CallMethod(bus, service, path, kObjectManagerInterface, "GetManagedObjects", &reply, error, "");
    if (r < 0)
        return r;
    r = sd_bus_message_enter_container(reply.get(), SD_BUS_TYPE_ARRAY, "{oa{sa{sv}}}");
    while (r > 0
        && (r = sd_bus_message_enter_container(reply.get(), SD_BUS_TYPE_DICT_ENTRY, "oa{sa{sv}}")) > 0) {
        std::string object;
        InterfaceMap interfaces;
        r = ReadObjectPath(reply.get(), object);
        if (r >= 0)
            r = ReadInterfaces(reply.get(), interfaces);
        if (r >= 0)
            r = sd_bus_message_exit_container(reply.get());
        if (r >= 0) {
            objects[object] = std::move(interfaces);
            r = 1;
        }
    }
    if (r < 0) {
        error = std::string("malformed GetManagedObjects reply: ") + std::strerror(-r);
        return r;
    }
    return 0;
}

} // namespace object_manager
} // namespace sdbus_utils
