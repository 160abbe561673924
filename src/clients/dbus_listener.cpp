// Remote bus listener: local and remote connections, raw motion samples.
#include "dbus_listener.h"

#include "log.h"

namespace VideoDaemon
{

DbusListener::~DbusListener()
{
    Stop();
}

int DbusListener::Start(const std::string& host, const std::string& identifier)
{
    Stop();
    int r = _Local.Open("", "");
    if (r < 0) {
        Log::Error("DbusListener, failed to open local dbus listener");
        return r;
    }
    if (!host.empty() && !identifier.empty()) {
        r = _Remote.Open(host, identifier);
        if (r < 0) {
            Log::Error("DbusListener, failed to open remote dbus listener");
            return r;
        }
        Log::Info("DbusListener, listening on remote dbus %s:%s", host.c_str(), identifier.c_str());
    }
    _Local.Register("", "", "com.tarnwell.common.Camd1.Camera", "RawMotionData",
        &DbusListener::RawMotionDataHandler, this);
    return 0;
}

void DbusListener::Stop()
{
    _Local.Close();
    _Remote.Close();
}

int DbusListener::RawMotionDataHandler(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    double v[7] = {};
    if (sd_bus_message_read(message, "ddddddd", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6]) < 0)
        return -1;
    static_cast<DbusListener*>(userdata)->_RawMotionData.emit(v[0], v[1], v[2], v[3], v[4], v[5], v[6]);
    return 0;
}

} // namespace VideoDaemon
