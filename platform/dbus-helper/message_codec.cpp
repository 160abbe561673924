// Conversions between sd-bus message contents and C++ values.
#include "message_codec.h"

#include <cerrno>

namespace DbusHelper
{

namespace
{

template <typename T> int ReadBasic(sd_bus_message* m, char type, T& value)
{
    T raw {};
    const int r = sd_bus_message_read_basic(m, type, &raw);
    if (r < 0)
        return r;
    if (r == 0)
        return -ENXIO;
    value = raw;
    return r;
}

template <typename T>
int ReadArray(
    sd_bus_message* m, const char* element, std::vector<T>& values, int (*read_element)(sd_bus_message*, T&))
{
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, element);
    if (r <= 0)
        return r < 0 ? r : -ENXIO;
    std::vector<T> result;
    while ((r = sd_bus_message_at_end(m, false)) == 0) {
        T item {};
        r = read_element(m, item);
        if (r < 0)
            return r;
        result.push_back(std::move(item));
    }
    if (r < 0)
        return r;
    r = sd_bus_message_exit_container(m);
    if (r < 0)
        return r;
    values = std::move(result);
    return 1;
}

template <typename T> int ReadOne(sd_bus_message* m, T& value)
{
    return MessageCodec::Read(m, value);
}

int ReadString(sd_bus_message* m, char type, std::string& value)
{
    const char* text = nullptr;
    const int r = sd_bus_message_read_basic(m, type, &text);
    if (r < 0)
        return r;
    if (r == 0)
        return -ENXIO;
    value = text ? text : "";
    return r;
}

template <typename T> int AppendArray(sd_bus_message* m, const char* element, const std::vector<T>& values)
{
    int r = sd_bus_message_open_container(m, SD_BUS_TYPE_ARRAY, element);
    if (r < 0)
        return r;
    for (const T& item : values) {
        r = MessageCodec::Append(m, item);
        if (r < 0)
            return r;
    }
    return sd_bus_message_close_container(m);
}

template <char Type, typename T> int ReadBasicAny(sd_bus_message* m, std::any& value)
{
    T raw {};
    const int r = ReadBasic(m, Type, raw);
    if (r >= 0)
        value = raw;
    return r;
}

template <char Type, typename T> int ReadBasicElement(sd_bus_message* m, T& value)
{
    return ReadBasic(m, Type, value);
}

int ReadStringElement(sd_bus_message* m, std::string& value)
{
    // Object paths and signatures read as their text too.
    char type = 0;
    const int r = sd_bus_message_peek_type(m, &type, nullptr);
    if (r <= 0)
        return r < 0 ? r : -ENXIO;
    return ReadString(m, type, value);
}

template <char Type, typename T> int ReadArrayAny(sd_bus_message* m, const char* element, std::any& value)
{
    std::vector<T> values;
    const int r = ReadArray<T>(m, element, values, &ReadBasicElement<Type, T>);
    if (r >= 0)
        value = std::move(values);
    return r;
}

int ReadStringArrayAny(sd_bus_message* m, const char* element, std::any& value)
{
    std::vector<std::string> values;
    const int r = ReadArray<std::string>(m, element, values, &ReadStringElement);
    if (r >= 0)
        value = std::move(values);
    return r;
}

int ReadContents(sd_bus_message* m, const std::string& signature, std::any& value)
{
    if (signature == "b") {
        // sd-bus reads booleans as int.
        int raw = 0;
        const int r = ReadBasic(m, 'b', raw);
        if (r >= 0)
            value = raw != 0;
        return r;
    }
    if (signature == "y")
        return ReadBasicAny<'y', uint8_t>(m, value);
    if (signature == "n")
        return ReadBasicAny<'n', int16_t>(m, value);
    if (signature == "q")
        return ReadBasicAny<'q', uint16_t>(m, value);
    if (signature == "i")
        return ReadBasicAny<'i', int32_t>(m, value);
    if (signature == "u")
        return ReadBasicAny<'u', uint32_t>(m, value);
    if (signature == "x")
        return ReadBasicAny<'x', int64_t>(m, value);
    if (signature == "t")
        return ReadBasicAny<'t', uint64_t>(m, value);
    if (signature == "d")
        return ReadBasicAny<'d', double>(m, value);
    if (signature == "s" || signature == "o" || signature == "g") {
        std::string text;
        const int r = ReadString(m, signature[0], text);
        if (r >= 0)
            value = std::move(text);
        return r;
    }
    if (signature == "as" || signature == "ao")
        return ReadStringArrayAny(m, signature.c_str() + 1, value);
    if (signature == "ad")
        return ReadArrayAny<'d', double>(m, "d", value);
    if (signature == "ai")
        return ReadArrayAny<'i', int32_t>(m, "i", value);
    if (signature == "au")
        return ReadArrayAny<'u', uint32_t>(m, "u", value);
    if (signature == "ay")
        return ReadArrayAny<'y', uint8_t>(m, "y", value);
    value.reset();
    return sd_bus_message_skip(m, signature.c_str());
}

} // namespace

int MessageCodec::Read(sd_bus_message* m, bool& value)
{
    int raw = 0;
    const int r = ReadBasic(m, 'b', raw);
    if (r >= 0)
        value = raw != 0;
    return r;
}
int MessageCodec::Read(sd_bus_message* m, int32_t& value)
{
    return ReadBasic(m, 'i', value);
}
int MessageCodec::Read(sd_bus_message* m, uint32_t& value)
{
    return ReadBasic(m, 'u', value);
}
int MessageCodec::Read(sd_bus_message* m, uint64_t& value)
{
    return ReadBasic(m, 't', value);
}
int MessageCodec::Read(sd_bus_message* m, double& value)
{
    return ReadBasic(m, 'd', value);
}
int MessageCodec::Read(sd_bus_message* m, float& value)
{
    double raw = 0;
    const int r = ReadBasic(m, 'd', raw);
    if (r >= 0)
        value = static_cast<float>(raw);
    return r;
}
int MessageCodec::Read(sd_bus_message* m, std::string& value)
{
    return ReadString(m, 's', value);
}
int MessageCodec::Read(sd_bus_message* m, std::vector<double>& value)
{
    return ReadArray<double>(m, "d", value, &ReadOne<double>);
}
int MessageCodec::Read(sd_bus_message* m, std::vector<float>& value)
{
    return ReadArray<float>(m, "d", value, &ReadOne<float>);
}
int MessageCodec::Read(sd_bus_message* m, std::vector<std::string>& value)
{
    return ReadArray<std::string>(m, "s", value, &ReadOne<std::string>);
}

int MessageCodec::Append(sd_bus_message* m, const bool& value)
{
    const int raw = value ? 1 : 0;
    return sd_bus_message_append_basic(m, 'b', &raw);
}
int MessageCodec::Append(sd_bus_message* m, const int32_t& value)
{
    return sd_bus_message_append_basic(m, 'i', &value);
}
int MessageCodec::Append(sd_bus_message* m, const uint32_t& value)
{
    return sd_bus_message_append_basic(m, 'u', &value);
}
int MessageCodec::Append(sd_bus_message* m, const uint64_t& value)
{
    return sd_bus_message_append_basic(m, 't', &value);
}
int MessageCodec::Append(sd_bus_message* m, const double& value)
{
    return sd_bus_message_append_basic(m, 'd', &value);
}
int MessageCodec::Append(sd_bus_message* m, const float& value)
{
    const double wire = value;
    return sd_bus_message_append_basic(m, 'd', &wire);
}
int MessageCodec::Append(sd_bus_message* m, const std::string& value)
{
    return sd_bus_message_append_basic(m, 's', value.c_str());
}
int MessageCodec::Append(sd_bus_message* m, const std::vector<double>& value)
{
    return AppendArray(m, "d", value);
}
int MessageCodec::Append(sd_bus_message* m, const std::vector<float>& value)
{
    return AppendArray(m, "d", value);
}
int MessageCodec::Append(sd_bus_message* m, const std::vector<std::string>& value)
{
    return AppendArray(m, "s", value);
}

int MessageCodec::ReadVariant(sd_bus_message* m, std::string& signature, std::any& value)
{
    char type = 0;
    const char* contents = nullptr;
    int r = sd_bus_message_peek_type(m, &type, &contents);
    if (r <= 0)
        return r < 0 ? r : -ENXIO;
    if (type != SD_BUS_TYPE_VARIANT || !contents)
        return -ENXIO;
    signature = contents;
    r = sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, contents);
    if (r < 0)
        return r;
    r = ReadContents(m, signature, value);
    if (r < 0)
        return r;
    return sd_bus_message_exit_container(m);
}

} // namespace DbusHelper
