// The display daemon's colour-space reset: asked for when the NTSC, PAL or TCP client input comes up from
// NULL, over one short-lived connection to the simulated display daemon on a private bus.
#include <cstdlib>
#include <set>

#include "dbus/dbus_test_env.h"
#include "streamer_harness.h"

using namespace StreamerHarness;

namespace
{

const char kDisplay[] = "com.tarnwell.common.Display1";
const char kDisplayObject[] = "/com/tarnwell/common/Display1";
const char kSimulation[] = "com.tarnwell.host.Simulation";
const char kResetLine[] = "[ORB] One of the input pipelines is moving towards PLAYING, reapply CSC";

class OrbStreamerColourSpace : public VideodTest::DbusTestEnv, public StreamerFixture
{
protected:
    std::string ResetCount() { return Get(kDisplay, kDisplayObject, kSimulation, "ResetCscCount"); }

    // The connections on the bus, by their unique names.
    std::set<std::string> UniqueNames()
    {
        std::set<std::string> names;
        VideodTest::SdBusError error;
        sd_bus_message* raw = nullptr;
        if (sd_bus_call_method(Bus(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                "ListNames", error.Get(), &raw, "")
            < 0)
            return names;
        VideodTest::SdBusMessagePtr reply(raw);
        char** list = nullptr;
        if (sd_bus_message_read_strv(reply.get(), &list) < 0)
            return names;
        for (char** name = list; name && *name; ++name) {
            if (**name == ':')
                names.insert(*name);
            free(*name);
        }
        free(list);
        return names;
    }

    // Changes the state of the pipeline at `index` and waits until its bus has reported the change.
    void ChangeState(int index, GstState state)
    {
        bool reached = false;
        sigc::connection watch = At(index).signal_state_changed.connect(
            [&](GstState, GstState new_state) { reached = reached || new_state == state; });
        At(index).SetState(state, 0);
        EXPECT_TRUE(RunMainLoopUntil([&] { return reached; })) << index;
        watch.disconnect();
    }
};

TEST_F(OrbStreamerColourSpace, EachResetUsesAConnectionOfItsOwnAndEachInputComingUpFromNullAsksOnce)
{
    // No display daemon, or no bus: the call's failure is returned.
    EXPECT_LT(streamer.DisplayDResetCscParams(), 0);
    EXPECT_TRUE(log.Contains(LOG_DEBUG, "int VideoDaemon::OrbStreamer::DisplayDResetCscParams()"));
    WithoutBus([&] { EXPECT_LT(streamer.DisplayDResetCscParams(), 0); });
    EXPECT_TRUE(log.Contains(LOG_ERR, "[ORB] failed to open bus"));

    ASSERT_TRUE(StartPeer("display")) << LastError();
    const std::set<std::string> before = UniqueNames();
    ASSERT_FALSE(before.empty());
    EXPECT_GE(streamer.DisplayDResetCscParams(), 0);
    EXPECT_GE(streamer.DisplayDResetCscParams(), 0);
    EXPECT_EQ("u 2", ResetCount());
    // Both connections are gone once the calls have returned.
    EXPECT_TRUE(RunMainLoopUntil([&] { return UniqueNames() == before; }));

    streamer.InitializePipelines();
    ASSERT_EQ("u 2", ResetCount());
    int expected = 2;
    for (int index : { kNtscCameraIndex, kPalCameraIndex, kTcpClientIndex }) {
        ASSERT_EQ(1, At(index).Initialize(Pipeline::LaunchFlags()));
        ChangeState(index, GST_STATE_READY);
        EXPECT_EQ("u " + std::to_string(++expected), ResetCount()) << index;
    }
    EXPECT_EQ(3u, log.Count(LOG_WARNING, kResetLine));
    // Coming back down to READY is no new input, nor is any other pipeline.
    ChangeState(kNtscCameraIndex, GST_STATE_PAUSED);
    ChangeState(kNtscCameraIndex, GST_STATE_READY);
    ChangeState(kTestInputIndex, GST_STATE_READY);
    EXPECT_EQ("u 5", ResetCount());
    EXPECT_EQ(3u, log.Count(LOG_WARNING, kResetLine));
}

} // namespace
