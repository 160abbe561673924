// videod: the video daemon's entry. Runs the D-Bus service on one glib main loop until "Exit".
#include <glib.h>

#include <cstdlib>
#include <string>

#include "dbus_server/dbus_server.h"
#include "log.h"

namespace
{

GMainLoop* main_loop = nullptr;

// A fixed platform path, under VIDEOD_PLATFORM_ROOT when that is set (PC
// runs present their own decoder file and capture device there).
std::string PlatformPath(const std::string& path)
{
    const char* root = std::getenv("VIDEOD_PLATFORM_ROOT");
    return root && *root ? std::string(root) + path : path;
}

void OnExit()
{
    g_main_loop_quit(main_loop);
}

std::string OnEcho(std::string text)
{
    return text;
}

} // namespace

int main()
{
    using VideoDaemon::Log::Info;
    Info("GSTShark vars:");
    Info("GST_DEBUG:                %s", std::getenv("GST_DEBUG"));
    Info("GST_TRACERS:              %s", std::getenv("GST_TRACERS"));
    Info("GST_SHARK_CTF_DISABLE:    %s", std::getenv("GST_SHARK_CTF_DISABLE"));
    Info("GST_SHARK_LOCATION:       %s", std::getenv("GST_SHARK_LOCATION"));
    Info("GST_SHARK_FILE_BUFFERING: %s", std::getenv("GST_SHARK_FILE_BUFFERING"));

    main_loop = g_main_loop_new(nullptr, FALSE);
    {
        VideoDaemon::DbusServer::PlatformPaths paths;
        paths.camera_standard = PlatformPath(paths.camera_standard);
        paths.video_device = PlatformPath(paths.video_device);
        VideoDaemon::DbusServer server(main_loop, paths);
        server.signal_exit.connect(&OnExit);
        server.signal_echo.connect(&OnEcho);
        // A failed start is only logged: the loop runs all the same.
        server.Start();
        g_main_loop_run(main_loop);
        Info("Cleaning up and exiting video daemon ....");
        g_main_loop_unref(main_loop);
        main_loop = nullptr;
    }
    return 0;
}
