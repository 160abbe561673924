// Typed property access through org.freedesktop.DBus.Properties.
#include "dbus-helper/sdbus_utils.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "dbus-helper/dbus_connector.h"
#include "message_codec.h"

using DbusHelper::MessageCodec;
using DbusHelper::SdBusError;
using DbusHelper::SdBusMessagePtr;
using DbusHelper::SdBusPtr;

namespace sdbus_utils
{

namespace
{

const char* const kPropertiesInterface = "org.freedesktop.DBus.Properties";

// The library's connection, one per thread since sd-bus connections are not
// thread-safe, together with the address it was opened for.
struct DefaultConnection {
    SdBusPtr bus;
    std::string address;
};
thread_local DefaultConnection default_connection;

std::string SessionAddress()
{
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    return address ? address : "";
}

std::string ErrorText(SdBusError& error, int r)
{
    if (error.IsSet())
        return std::string(error.Name()) + ": " + error.Message();
    return std::strerror(-r);
}

sd_bus* Resolve(sd_bus* bus, std::string& error)
{
    return bus ? bus : DefaultBus(error);
}

int CallGet(sd_bus* bus, const std::string& service, const std::string& path, const std::string& interface,
    const std::string& name, SdBusMessagePtr& reply, std::string& error)
{
    return CallMethod(bus, service, path, kPropertiesInterface, "Get", &reply, error, "ss", interface.c_str(),
        name.c_str());
}

template <typename T>
int Get(sd_bus* bus, const std::string& service, const std::string& path, const std::string& interface,
    const std::string& name, T& value, std::string& error)
{
    bus = Resolve(bus, error);
    if (!bus)
        return -ENOTCONN;
    SdBusMessagePtr reply;
    int r = CallGet(bus, service, path, interface, name, reply, error);
    if (r < 0)
        return r;

    const char* contents = nullptr;
    r = sd_bus_message_peek_type(reply.get(), nullptr, &contents);
    const char* expected = MessageCodec::Signature(value);
    if (r <= 0 || !contents || std::strcmp(contents, expected) != 0) {
        error = std::string("org.freedesktop.DBus.Error.InvalidSignature: property ") + name + " has type '"
            + (contents ? contents : "") + "', expected '" + expected + "'";
        return -EINVAL;
    }
    T result {};
    r = sd_bus_message_enter_container(reply.get(), SD_BUS_TYPE_VARIANT, contents);
    if (r >= 0)
        r = MessageCodec::Read(reply.get(), result);
    if (r >= 0)
        r = sd_bus_message_exit_container(reply.get());
    if (r < 0) {
        error = std::string("failed to read property ") + name + ": " + std::strerror(-r);
        return r;
    }
    value = std::move(result);
    return 0;
}

template <typename T>
int Set(sd_bus* bus, const std::string& service, const std::string& path, const std::string& interface,
    const std::string& name, const T& value, std::string& error)
{
    bus = Resolve(bus, error);
    if (!bus)
        return -ENOTCONN;
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(
        bus, &raw, service.c_str(), path.c_str(), kPropertiesInterface, "Set");
    SdBusMessagePtr call(raw);
    if (r >= 0)
        r = sd_bus_message_append(call.get(), "ss", interface.c_str(), name.c_str());
    if (r >= 0)
        r = sd_bus_message_open_container(call.get(), SD_BUS_TYPE_VARIANT, MessageCodec::Signature(value));
    if (r >= 0)
        r = MessageCodec::Append(call.get(), value);
    if (r >= 0)
        r = sd_bus_message_close_container(call.get());
    if (r < 0) {
        error = std::string("failed to build Set call: ") + std::strerror(-r);
        return r;
    }
    SdBusError call_error;
    r = sd_bus_call(bus, call.get(), DbusHelper::kMethodCallTimeoutUsec, call_error.Get(), nullptr);
    if (r < 0) {
        error = ErrorText(call_error, r);
        return r;
    }
    return 0;
}

template <typename Map, typename Store>
int ParseDictionary(sd_bus_message* message, Map& properties, Store store)
{
    int r = sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "{sv}");
    if (r <= 0)
        return r < 0 ? r : -ENXIO;
    while ((r = sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv")) > 0) {
        const char* key = nullptr;
        r = sd_bus_message_read_basic(message, 's', &key);
        if (r <= 0)
            return r < 0 ? r : -ENXIO;
        std::string signature;
        std::any value;
        r = MessageCodec::ReadVariant(message, signature, value);
        if (r < 0)
            return r;
        store(properties, std::string(key), std::move(signature), std::move(value));
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

sd_bus* DefaultBus(std::string& error)
{
    DefaultConnection& connection = default_connection;
    const std::string address = SessionAddress();
    if (connection.bus && (connection.address != address || sd_bus_is_open(connection.bus.get()) <= 0))
        connection.bus.reset();
    if (!connection.bus) {
        const int r = DbusHelper::DbusConnector::OpenUserBus(connection.bus);
        if (r < 0) {
            error = std::string("failed to open the user bus: ") + std::strerror(-r);
            return nullptr;
        }
        connection.address = address;
    }
    return connection.bus.get();
}

#define SDBUS_UTILS_DEFINE_PROPERTY_TYPE(Type)                                                               \
    int GetProperty(sd_bus* bus, const std::string& service, const std::string& path,                        \
        const std::string& interface, const std::string& name, Type& value, std::string& error)              \
    {                                                                                                        \
        return Get(bus, service, path, interface, name, value, error);                                       \
    }                                                                                                        \
    int SetProperty(sd_bus* bus, const std::string& service, const std::string& path,                        \
        const std::string& interface, const std::string& name, const Type& value, std::string& error)        \
    {                                                                                                        \
        return Set(bus, service, path, interface, name, value, error);                                       \
    }

SDBUS_UTILS_DEFINE_PROPERTY_TYPE(bool)
SDBUS_UTILS_DEFINE_PROPERTY_TYPE(int32_t)
SDBUS_UTILS_DEFINE_PROPERTY_TYPE(uint32_t)
SDBUS_UTILS_DEFINE_PROPERTY_TYPE(uint64_t)
SDBUS_UTILS_DEFINE_PROPERTY_TYPE(double)
SDBUS_UTILS_DEFINE_PROPERTY_TYPE(float)
SDBUS_UTILS_DEFINE_PROPERTY_TYPE(std::string)
SDBUS_UTILS_DEFINE_PROPERTY_TYPE(std::vector<double>)
SDBUS_UTILS_DEFINE_PROPERTY_TYPE(std::vector<float>)
SDBUS_UTILS_DEFINE_PROPERTY_TYPE(std::vector<std::string>)

#undef SDBUS_UTILS_DEFINE_PROPERTY_TYPE

int CallMethod(sd_bus* bus, const std::string& service, const std::string& path, const std::string& interface,
    const std::string& member, SdBusMessagePtr* reply, std::string& error, const char* types, ...)
{
    bus = Resolve(bus, error);
    if (!bus)
        return -ENOTCONN;
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(
        bus, &raw, service.c_str(), path.c_str(), interface.c_str(), member.c_str());
    SdBusMessagePtr call(raw);
    if (r >= 0 && types && *types) {
        va_list args;
        va_start(args, types);
        r = sd_bus_message_appendv(call.get(), types, args);
        va_end(args);
    }
    if (r < 0) {
        error = std::string("failed to build ") + member + " call: " + std::strerror(-r);
        return r;
    }
    SdBusError call_error;
    raw = nullptr;
    r = sd_bus_call(bus, call.get(), DbusHelper::kMethodCallTimeoutUsec, call_error.Get(), &raw);
    SdBusMessagePtr answer(raw);
    if (r < 0) {
        error = ErrorText(call_error, r);
        return r;
    }
    if (reply)
        *reply = std::move(answer);
    return r;
}

int GetAllProperties(sd_bus* bus, const std::string& service, const std::string& path,
    const std::string& interface, SdBusMessagePtr& reply, std::string& error)
{
    bus = Resolve(bus, error);
    if (!bus)
        return -ENOTCONN;
    const int r = CallMethod(
        bus, service, path, kPropertiesInterface, "GetAll", &reply, error, "s", interface.c_str());
    if (r < 0) {
        reply.reset();
        return r;
    }
    return 0;
}

int ParseProperties(sd_bus_message* message, PropertyMap& properties)
{
    return ParseDictionary(
        message, properties, [](PropertyMap& map, std::string key, std::string, std::any value) {
            map[std::move(key)] = std::move(value);
        });
}

int ParsePropertiesWithType(sd_bus_message* message, TypedPropertyMap& properties)
{
    return ParseDictionary(message, properties,
        [](TypedPropertyMap& map, std::string key, std::string signature, std::any value) {
            map[std::move(key)] = std::make_pair(std::move(signature), std::move(value));
        });
}

} // namespace sdbus_utils
