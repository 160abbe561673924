// Remote bus listener: local and remote connections, raw motion samples.
#include "dbus_listener.h"

#include "dbus-helper/sd_bus_open_user_remote.h"
#include "log.h"

namespace VideoDaemon
{

namespace
{
const char* const kCameraInterface = "com.tarnwell.common.Camd1.Camera";
const char* const kRawMotionData = "RawMotionData";
} // namespace

DbusListener::DbusListener()
{
    // A unit that goes away closes its connection; the listener lets it go.
    _Local.SetClosedHandler([] { Log::Warning("DbusListener, local dbus closed"); });
    _Remote.SetClosedHandler(
        [this] { Log::Warning("DbusListener, remote dbus %s closed", _RemoteName.c_str()); });
}

DbusListener::~DbusListener()
{
    Stop();
}

std::string DbusListener::RemotePath(const std::string& identifier)
{
    // Decoded: " --bus-path=unix:abstract=/tmp/dbus-<identifier>", appended
    // to the remote bridge's command line.
    return "%20--bus-path%3Dunix%3Aabstract%3D/tmp/dbus-" + identifier;
}

int DbusListener::Open(const std::string& host, const std::string& identifier)
{
    int r = 0;
    if (!host.empty() && !identifier.empty()) {
        sd_bus* raw = nullptr;
        r = sd_bus_open_user_remote(&raw, host.c_str(), RemotePath(identifier).c_str());
        if (r >= 0)
            r = _Remote.Adopt(DbusHelper::SdBusPtr(raw));
        if (r >= 0)
            _RemoteName = host + ":" + identifier;
    } else {
        r = _Local.Connect();
    }
    return r < 0 ? -1 : 0;
}

int DbusListener::Start(const std::string& host, const std::string& identifier)
{
    Stop();
    int r = Open("", "");
    if (r < 0) {
        Log::Error("DbusListener, failed to open local dbus listener");
        return r;
    }
    if (!host.empty() && !identifier.empty()) {
        r = Open(host, identifier);
        if (r < 0) {
            Log::Error("DbusListener, failed to open remote dbus listener");
            return r;
        }
        Log::Info("DbusListener, listening on remote dbus %s:%s", host.c_str(), identifier.c_str());
    }
    // Any sender, any path.
    r = _Local.ListenSignal(
        "", "", kCameraInterface, kRawMotionData, &DbusListener::RawMotionDataHandler, this);
    if (r < 0)
        Log::Error("DbusListener, failed register %s:%s:%s:%s", "", "", kCameraInterface, kRawMotionData);
    return 0;
}

void DbusListener::Stop()
{
    _Local.Disconnect();
    _Remote.Disconnect();
    _RemoteName.clear();
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
