// Checks the simulated peer daemons of host/peers through busctl and sd-bus on a private bus.
#include "dbus/dbus_test_env.h"

#include <string>

using VideodTest::DbusTestEnv;
using VideodTest::SdBusError;
using VideodTest::SdBusMessagePtr;

namespace
{

class Peers : public DbusTestEnv
{
};

TEST_F(Peers, DisplayCountsResetCscCallsInAReadableProperty)
{
    ASSERT_TRUE(StartPeer("display")) << LastError();
    const std::string object = "/com/tarnwell/common/Display1";
    std::string out;
    ASSERT_EQ(0,
        Busctl({ "get-property", "com.tarnwell.common.Display1", object, "com.tarnwell.host.Simulation",
                   "ResetCscCount" },
            &out));
    EXPECT_EQ("u 0\n", out);
    for (int i = 0; i < 2; ++i)
        ASSERT_EQ(0,
            Busctl({ "call", "com.tarnwell.common.Display1", object, "com.tarnwell.common.Display1.Control",
                "ResetCsc" }));
    ASSERT_EQ(0,
        Busctl({ "get-property", "com.tarnwell.common.Display1", object, "com.tarnwell.host.Simulation",
                   "ResetCscCount" },
            &out));
    EXPECT_EQ("u 2\n", out);
    EXPECT_NE(0,
        Busctl({ "set-property", "com.tarnwell.common.Display1", object, "com.tarnwell.host.Simulation",
            "ResetCscCount", "u", "7" }));
}

TEST_F(Peers, AStoppedPeerReleasesItsNameAndCallsFailQuickly)
{
    ASSERT_TRUE(StartPeer("display")) << LastError();
    ASSERT_TRUE(StopPeer("display"));
    SdBusError error;
    sd_bus_message* raw = nullptr;
    int r = sd_bus_call_method(Bus(), "com.tarnwell.common.Display1", "/com/tarnwell/common/Display1",
        "com.tarnwell.common.Display1.Control", "ResetCsc", error.get(), &raw, "");
    SdBusMessagePtr reply(raw);
    EXPECT_LT(r, 0);
    EXPECT_TRUE(sd_bus_error_has_name(&error.error, "org.freedesktop.DBus.Error.ServiceUnknown"))
        << error.Text();
}

} // namespace
