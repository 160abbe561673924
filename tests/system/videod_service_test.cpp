// videod as a process on a private bus: its interface, Echo and Exit, a second daemon, captures, snapshots,
// playback, the live stream, a start without peers and bad input, judged by busctl, ffprobe and gst-launch.
#include <cmath>
#include <filesystem>
#include <regex>
#include <sstream>

#include "support/ffprobe.h"
#include "system/videod_fixture.h"

namespace VideodSystemTest
{
namespace
{

const std::vector<std::string> kMembersInOrder = { "Exit", "Echo", "Snapshot", "StartRecording",
    "PauseRecording", "ResumeRecording", "StopRecording", "StartSnapVoice", "StopSnapVoice", "PauseSnapVoice",
    "ResumeSnapVoice", "SetMotionDetectionPeriod", "StartAutoLog", "StopAutoLog", "PauseAutoLog",
    "ResumeAutoLog", "StartPlayback", "StopPlayback", "PausePlayback", "ResumePlayback", "SeekPlayback",
    "GetPlaybackProgress", "StartCapture", "StopCapture", "CaptureActive", "VideoInput", "RecordingState",
    "RecordingFilename", "PreviousRecordingFilename", "SnapVoiceState", "SnapVoiceFilename",
    "PreviousSnapVoiceFilename", "AutoLogState", "AutoLogFilename", "PreviousAutoLogFilename",
    "PlaybackState", "PlaybackFilename", "PlaybackDuration", "PlaybackPosition", "ActiveCaptures",
    "InactiveCaptures", "PausedCaptures", "DisplayContent", "SystemMicMute", "StreamJpegQuality",
    "StreamTcpQueueSize", "PlaybackRate", "Remote", "OverlayUserText", "OverlayDateTimeStyle",
    "OverlayCountStyle", "H264EncoderBitrate", "H264EncoderGop", "H264EncoderQuant",
    "AutoLogH264EncoderBitrate", "AutoLogH264EncoderGop", "AutoLogH264EncoderQuant", "DeinterlaceMethod",
    "TcpLiveStreamEnabled", "CaptureZoom", "CaptureZoomMin", "CaptureZoomMax", "CapturePanX",
    "CapturePanXMin", "CapturePanXMax", "CapturePanY", "CapturePanYMin", "CapturePanYMax", "PlumblineCapable",
    "AutoRotateCapable", "CameraRollAngle", "CameraRollAngleRaw", "CameraPitch", "CameraPitchAngle",
    "RotationAngle", "RotationOverrideAngle", "RotationEnabled", "RotationSteps", "CaptureResetToDefaults",
    "CaptureAutogain", "CaptureBrightness", "CaptureContrast", "CaptureHue", "CaptureSaturation", "HeartBeat",
    "SnapshotCreated", "PlaybackProgress", "MotionDetected", "VideoGrew", "SnapVoiceGrew", "AutoLogGrew" };

// Method name -> input signature.
const std::vector<std::pair<std::string, std::string>> kMethods = { { "Exit", "" }, { "Echo", "s" },
    { "Snapshot", "suuu" }, { "StartRecording", "sssuuu" }, { "PauseRecording", "" },
    { "ResumeRecording", "" }, { "StopRecording", "" }, { "StartSnapVoice", "sssuuu" },
    { "StopSnapVoice", "" }, { "PauseSnapVoice", "" }, { "ResumeSnapVoice", "" },
    { "SetMotionDetectionPeriod", "u" }, { "StartAutoLog", "sssuuu" }, { "StopAutoLog", "" },
    { "PauseAutoLog", "" }, { "ResumeAutoLog", "" }, { "StartPlayback", "sd" }, { "StopPlayback", "b" },
    { "PausePlayback", "" }, { "ResumePlayback", "" }, { "SeekPlayback", "i" }, { "GetPlaybackProgress", "" },
    { "StartCapture", "i" }, { "StopCapture", "" }, { "CaptureResetToDefaults", "" } };

// The interface's section of an introspection document.
std::string InterfaceSection(const std::string& xml)
{
    const size_t start = xml.find(std::string("<interface name=\"") + kInterface + "\"");
    if (start == std::string::npos)
        return "";
    return xml.substr(start, xml.find("</interface>", start) - start);
}

// Member names of an interface section in document order.
std::vector<std::string> MemberNames(const std::string& section)
{
    std::vector<std::string> names;
    const std::regex member("<(method|property|signal) name=\"([A-Za-z0-9]+)\"");
    for (auto it = std::sregex_iterator(section.begin(), section.end(), member); it != std::sregex_iterator();
         ++it)
        names.push_back((*it)[2]);
    return names;
}

// A whitespace-free copy, so documents compare by content.
std::string Squeezed(const std::string& text)
{
    std::string squeezed;
    for (char c : text)
        if (!std::isspace(static_cast<unsigned char>(c)))
            squeezed += c;
    return squeezed;
}

struct AsyncReply {
    bool done = false;
    bool failed = false;
    int value = 0;
    std::string text;
    // Whether the file named by `expect` existed when the reply arrived.
    std::string expect;
    bool existed = false;
    VideodTest::SdBusSlotPtr slot;
};

int OnIntReply(sd_bus_message* reply, void* userdata, sd_bus_error*)
{
    auto* state = static_cast<AsyncReply*>(userdata);
    state->done = true;
    if (!state->expect.empty())
        state->existed = std::filesystem::exists(state->expect);
    if (sd_bus_message_is_method_error(reply, nullptr)) {
        state->failed = true;
        return 0;
    }
    sd_bus_message_read(reply, "i", &state->value);
    return 0;
}

} // namespace

class VideodService : public VideodFixture
{
protected:
    // Processes the fixture's connection until every reply is in (bounded).
    bool WaitForReplies(std::initializer_list<AsyncReply*> replies, int timeoutMs = 15000)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        auto all = [&] {
            for (AsyncReply* reply : replies)
                if (!reply->done)
                    return false;
            return true;
        };
        while (!all() && std::chrono::steady_clock::now() < deadline) {
            if (sd_bus_process(Bus(), nullptr) > 0)
                continue;
            sd_bus_wait(Bus(), 100000);
        }
        return all();
    }

    bool SnapshotAsync(AsyncReply& reply, const std::string& path, uint32_t width, uint32_t height)
    {
        sd_bus_slot* slot = nullptr;
        reply.expect = path;
        const int r = sd_bus_call_method_async(Bus(), &slot, kService, kPath, kInterface, "Snapshot",
            &OnIntReply, &reply, "suuu", path.c_str(), width, height, 90u);
        reply.slot.reset(slot);
        return r >= 0;
    }

    // Echo through sd-bus, so that strings longer than a command line travel.
    std::string Echo(const std::string& text, bool* ok)
    {
        VideodTest::SdBusError error;
        sd_bus_message* raw = nullptr;
        *ok = sd_bus_call_method(
                  Bus(), kService, kPath, kInterface, "Echo", error.Get(), &raw, "s", text.c_str())
            >= 0;
        VideodTest::SdBusMessagePtr reply(raw);
        const char* answer = nullptr;
        if (!*ok || sd_bus_message_read(reply.get(), "s", &answer) < 0)
            return "";
        return answer;
    }

    std::string Introspection()
    {
        VideodTest::SdBusError error;
        sd_bus_message* raw = nullptr;
        if (sd_bus_call_method(Bus(), kService, kPath, "org.freedesktop.DBus.Introspectable", "Introspect",
                error.Get(), &raw, "")
            < 0)
            return "";
        VideodTest::SdBusMessagePtr reply(raw);
        const char* xml = nullptr;
        sd_bus_message_read(reply.get(), "s", &xml);
        return xml ? xml : "";
    }

    bool Serving()
    {
        bool ok = false;
        return Echo("still there", &ok) == "still there" && ok;
    }
};

TEST_F(VideodService, PublishesItsInterfaceEchoesExitsAndLeavesTheNameToTheFirstDaemon)
{
    StartPeersOnNtscCamera();
    StartDaemonAndWait();

    // The members in interface order, as the installed introspection file describes them.
    const std::string section = InterfaceSection(Introspection());
    EXPECT_EQ(MemberNames(section), kMembersInOrder);
    const std::string installed = VideodTest::ReadFile(
        std::string(getenv("VIDEOD_SOURCE_DIR")) + "/packaging/" + kInterface + ".xml");
    EXPECT_EQ(Squeezed(InterfaceSection(installed)), Squeezed(section));

    bool ok = false;
    EXPECT_EQ(Echo("", &ok), "");
    EXPECT_TRUE(ok);
    std::string large(64 * 1024, 'x');
    for (size_t i = 0; i < large.size(); ++i)
        large[i] = static_cast<char>('a' + i % 26);
    EXPECT_EQ(Echo(large, &ok), large);
    EXPECT_TRUE(ok);

    // A change announced on the next turn of the loop follows the reply of the call that caused it.
    std::vector<std::string> order;
    sd_bus_slot* matchSlot = nullptr;
    ASSERT_GE(sd_bus_match_signal(
                  Bus(), &matchSlot, kService, kPath, "org.freedesktop.DBus.Properties", "PropertiesChanged",
                  [](sd_bus_message* message, void* userdata, sd_bus_error*) {
                      for (const std::string& name : VideodFixture::ChangedNames(message))
                          static_cast<std::vector<std::string>*>(userdata)->push_back("changed " + name);
                      return 0;
                  },
                  &order),
        0);
    VideodTest::SdBusSlotPtr match(matchSlot);
    sd_bus_slot* callSlot = nullptr;
    ASSERT_GE(sd_bus_call_method_async(
                  Bus(), &callSlot, kService, kPath, "org.freedesktop.DBus.Properties", "Set",
                  [](sd_bus_message* reply, void* userdata, sd_bus_error*) {
                      static_cast<std::vector<std::string>*>(userdata)->push_back(
                          sd_bus_message_is_method_error(reply, nullptr) ? "error" : "reply");
                      return 0;
                  },
                  &order, "ssv", kInterface, "RotationSteps", "s", "90"),
        0);
    VideodTest::SdBusSlotPtr call(callSlot);
    ASSERT_TRUE(WaitFor([&] {
        while (sd_bus_process(Bus(), nullptr) > 0) { }
        return std::find(order.begin(), order.end(), "changed RotationSteps") != order.end();
    }));
    ASSERT_FALSE(order.empty());
    EXPECT_EQ(order.front(), "reply");
    EXPECT_EQ(Get("RotationSteps"), "s \"90\"");

    // A second daemon cannot take the name: its start fails with -5 and it never starts a streamer.
    const size_t second = StartDaemon();
    EXPECT_TRUE(WaitFor([&] {
        return DaemonLog(second).find("DbusServer: Start sd_bus_request_name failed") != std::string::npos;
    })) << DaemonLog(second);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_EQ(DaemonLog(second).find("[Server] Starting ORB streamer"), std::string::npos);
    EXPECT_TRUE(DaemonRunning(second));
    EXPECT_TRUE(Serving());

    // Exit answers, then the daemon cleans up and returns 0.
    EXPECT_EQ(CallMethod("Exit"), 0);
    EXPECT_EQ(WaitForExit(0), 0);
    const std::string log = DaemonLog(0);
    EXPECT_NE(log.find("Cleaning up and exiting video daemon ...."), std::string::npos);
    for (const char* line : { "GSTShark vars:", "GST_DEBUG:                ", "GST_TRACERS:              ",
             "GST_SHARK_CTF_DISABLE:    ", "GST_SHARK_LOCATION:       ", "GST_SHARK_FILE_BUFFERING: " })
        EXPECT_NE(log.find(line), std::string::npos) << line;
}

TEST_F(VideodService, RecordsTakesSnapshotsPlaysBackAndServesTheLiveStream)
{
    StartPeersOnNtscCamera();
    StartDaemonAndWait();
    ASSERT_TRUE(AddMatch(std::string("type='signal',path='") + kPath + "'"));

    // A five-second recording.
    const std::string video = StorageDir() + "/recording.mp4";
    const std::string thumb = video + "-thumb.jpg";
    EXPECT_EQ(
        CallForInt("StartRecording", { "sssuuu", video, video + ".moov", thumb, "320", "240", "85" }), 0)
        << DaemonLog();
    std::vector<std::string> seen;
    EXPECT_TRUE(WaitForChanged("ActiveCaptures", &seen));
    EXPECT_NE(std::find(seen.begin(), seen.end(), "RecordingState"), seen.end());
    EXPECT_EQ(Get("RecordingState"), "i 1");
    EXPECT_EQ(Get("ActiveCaptures"), "as 1 \"video\"");
    EXPECT_EQ(Get("RecordingFilename"), "s \"" + video + "\"");
    const std::string calls = DbusTestEnv::Get("com.tarnwell.common.StorageDaemon1",
        "/com/tarnwell/common/StorageDaemon1/device0", "com.tarnwell.host.Simulation", "WriteActiveCalls");
    EXPECT_NE(calls.find("true"), std::string::npos) << calls;

    std::this_thread::sleep_for(std::chrono::seconds(5));
    EXPECT_EQ(CallForInt("StopRecording"), 0);
    seen.clear();
    EXPECT_TRUE(WaitForChanged("InactiveCaptures", &seen));
    EXPECT_EQ(Get("RecordingState"), "i 0");
    EXPECT_EQ(Get("InactiveCaptures"), "as 3 \"video\" \"snapVoice\" \"autolog\"");
    ASSERT_TRUE(WaitFor([&] { return !GstTest::FfprobeValues(video, "format=duration").empty(); }, 15000));

    EXPECT_EQ(GstTest::FfprobeValues(thumb, "stream=codec_name,width,height"),
        (std::vector<std::string> { "mjpeg", "320", "240" }));
    EXPECT_EQ(
        GstTest::FfprobeValues(video, "stream=codec_name"), (std::vector<std::string> { "h264", "aac" }));
    const double duration = std::stod(GstTest::FfprobeValues(video, "format=duration").at(0));
    EXPECT_NEAR(duration, 5.0, 1.0);

    // Snapshots: the reply waits for the file; a second one meanwhile is refused; bad sizes give -1.
    AddMatch("type='signal',member='SnapshotCreated'");
    AsyncReply first;
    AsyncReply second;
    ASSERT_TRUE(SnapshotAsync(first, StorageDir() + "/first.jpg", 640, 480));
    ASSERT_TRUE(SnapshotAsync(second, StorageDir() + "/second.jpg", 640, 480));
    ASSERT_TRUE(WaitForReplies({ &first, &second }));
    EXPECT_FALSE(first.failed);
    EXPECT_EQ(first.value, 0);
    EXPECT_TRUE(first.existed);
    EXPECT_EQ(second.value, -1);
    EXPECT_FALSE(std::filesystem::exists(StorageDir() + "/second.jpg"));
    EXPECT_EQ(GstTest::FfprobeValues(StorageDir() + "/first.jpg", "stream=width,height"),
        (std::vector<std::string> { "640", "480" }));
    AsyncReply zero;
    ASSERT_TRUE(SnapshotAsync(zero, StorageDir() + "/zero.jpg", 0, 0));
    ASSERT_TRUE(WaitForReplies({ &zero }));
    EXPECT_EQ(zero.value, -1);

    // Playback to its last frame, then back to the live picture.
    EXPECT_EQ(CallForInt("StartPlayback", { "sd", video, "1.0" }), 0) << DaemonLog();
    EXPECT_TRUE(WaitFor([&] { return Get("DisplayContent") == "s \"Media Playing\""; }));
    bool progress = false;
    EXPECT_TRUE(WaitFor(
        [&] {
            while (auto message = WaitForMessage(50))
                progress
                    = progress || sd_bus_message_is_signal(message.get(), kInterface, "PlaybackProgress");
            return progress;
        },
        10000));
    EXPECT_TRUE(WaitFor([&] { return Get("DisplayContent") == "s \"Media Last Frame\""; }, 15000));
    EXPECT_EQ(CallForInt("StopPlayback", { "b", "true" }), 0);
    EXPECT_TRUE(WaitFor([&] { return Get("DisplayContent") == "s \"Live Feed\""; }));

    // The live stream, read by an independent client.
    std::string out;
    Run({ "gst-launch-1.0", "-v", "tcpclientsrc", "host=127.0.0.1", "port=4000", "num-buffers=400", "!",
            "multipartdemux", "boundary=frame", "!", "jpegdec", "!", "fpsdisplaysink", "video-sink=fakesink",
            "text-overlay=false", "signal-fps-measurements=true" },
        &out, 20000);
    const std::regex average("average: ([0-9.]+)");
    double fps = 0.0;
    for (auto it = std::sregex_iterator(out.begin(), out.end(), average); it != std::sregex_iterator(); ++it)
        fps = std::stod((*it)[1]);
    EXPECT_GE(fps, 25.0) << out.substr(out.size() > 2000 ? out.size() - 2000 : 0);

    EXPECT_EQ(CallMethod("Exit"), 0);
    EXPECT_EQ(WaitForExit(0), 0);
}

TEST_F(VideodService, RunsTheThreeCapturesTogetherPausesWithoutAGapAndFollowsTheSettingsPeer)
{
    StartPeersOnNtscCamera();
    StartDaemonAndWait();

    // A recording with SnapVoice and autolog beside it.
    const std::string video = StorageDir() + "/together.mp4";
    const std::string narration = StorageDir() + "/narration.mp4";
    const std::string autolog = StorageDir() + "/autolog.mp4";
    // One thumbnail at a time: a start while the previous capture's picture
    // is still being taken is refused with -3, as a client sees it.
    const auto start = [&](const char* method, const std::string& file) {
        int result = -3;
        WaitFor([&] {
            result = CallForInt(
                method, { "sssuuu", file, file + ".moov", file + "-thumb.jpg", "160", "120", "80" });
            return result != -3;
        });
        return result;
    };
    const auto recordingStarted = std::chrono::steady_clock::now();
    EXPECT_EQ(start("StartRecording", video), 0) << DaemonLog();
    EXPECT_EQ(start("StartSnapVoice", narration), 0) << DaemonLog();
    const auto autologStarted = std::chrono::steady_clock::now();
    EXPECT_EQ(start("StartAutoLog", autolog), 0) << DaemonLog();
    EXPECT_TRUE(WaitFor([&] { return Get("SnapVoiceState") == "i 1"; })) << DaemonLog();
    EXPECT_EQ(Get("RecordingState"), "i 1");
    EXPECT_EQ(Get("AutoLogState"), "i 1");
    EXPECT_EQ(Get("ActiveCaptures"), "as 3 \"video\" \"snapVoice\" \"autolog\"");
    EXPECT_EQ(Get("InactiveCaptures"), "as 0");
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_EQ(CallForInt("StopSnapVoice"), 0);
    EXPECT_EQ(Get("ActiveCaptures"), "as 2 \"video\" \"autolog\"");
    EXPECT_TRUE(WaitFor(
        [&] { return DaemonLog().find("HandleSnapvoiceEos: Handling EOS...") != std::string::npos; }));

    // The recording alone on the "video" encoder is paused for two seconds, beside the running autolog.
    std::this_thread::sleep_for(std::chrono::seconds(1));
    EXPECT_EQ(CallForInt("PauseRecording"), 0);
    EXPECT_EQ(Get("RecordingState"), "i 2");
    EXPECT_EQ(Get("PausedCaptures"), "as 1 \"video\"");
    EXPECT_EQ(CallForInt("PauseRecording"), -1);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_EQ(CallForInt("ResumeRecording"), 0);
    EXPECT_EQ(Get("RecordingState"), "i 1");
    EXPECT_EQ(CallForInt("ResumeRecording"), -1);
    std::this_thread::sleep_for(std::chrono::seconds(2));

    EXPECT_EQ(CallForInt("StopRecording"), 0);
    const double recordedSeconds
        = std::chrono::duration<double>(std::chrono::steady_clock::now() - recordingStarted).count() - 2.0;
    EXPECT_EQ(CallForInt("StopAutoLog"), 0);
    const double autologSeconds
        = std::chrono::duration<double>(std::chrono::steady_clock::now() - autologStarted).count();
    EXPECT_EQ(Get("InactiveCaptures"), "as 3 \"video\" \"snapVoice\" \"autolog\"");
    EXPECT_EQ(Get("PreviousRecordingFilename"), "s \"" + video + "\"");
    EXPECT_EQ(Get("PreviousSnapVoiceFilename"), "s \"" + narration + "\"");
    EXPECT_EQ(Get("PreviousAutoLogFilename"), "s \"" + autolog + "\"");
    for (const std::string& file : { video, narration, autolog }) {
        ASSERT_TRUE(WaitFor([&] { return !GstTest::FfprobeValues(file, "format=duration").empty(); }, 15000))
            << file << DaemonLog();
        EXPECT_EQ(
            GstTest::FfprobeValues(file, "stream=codec_name"), (std::vector<std::string> { "h264", "aac" }))
            << file;
        EXPECT_EQ(GstTest::FfprobeValues(file + "-thumb.jpg", "stream=codec_name,width,height"),
            (std::vector<std::string> { "mjpeg", "160", "120" }))
            << file;
    }
    // The paused seconds are left out of the recording, and its times run on without a jump.
    EXPECT_NEAR(GstTest::FfprobeNumber(video, "format=duration"), recordedSeconds, 0.8);
    EXPECT_NEAR(GstTest::FfprobeNumber(autolog, "format=duration"), autologSeconds, 0.8);
    for (const char* stream : { "v:0", "a:0" }) {
        const std::vector<GstTest::Packet> packets = GstTest::FfprobePackets(video, stream);
        ASSERT_GT(packets.size(), 50u) << stream;
        std::ostringstream times;
        for (const GstTest::Packet& packet : packets)
            times << packet.pts << packet.flags << ' ';
        EXPECT_LT(GstTest::LargestGap(packets), 0.2) << stream << ": " << times.str();
    }

    // Encoder settings changed at the settings peer reach the "video" encoder.
    const char* settings = "com.tarnwell.common.Settings1";
    const char* section = "/com/tarnwell/common/Settings1/videoRecording";
    EXPECT_EQ(Set(settings, section, settings, "h264EncodingBitrate", { "u", "3000" }), 0);
    EXPECT_TRUE(WaitFor([&] { return Get("H264EncoderBitrate") == "u 3000"; })) << Get("H264EncoderBitrate");
    EXPECT_EQ(Set(settings, section, settings, "h264EncodingBitrate", { "u", "1500" }), 0);
    EXPECT_TRUE(WaitFor([&] { return Get("H264EncoderBitrate") == "u 1500"; })) << Get("H264EncoderBitrate");
    EXPECT_NE(Get("AutoLogH264EncoderBitrate"), "u 1500");

    // An overlay setting is taken without a complaint, and a recording made after it is still whole.
    const size_t logBefore = DaemonLog().size();
    EXPECT_EQ(
        Set(settings, "/com/tarnwell/common/Settings1/overlay", settings, "enableDate", { "b", "false" }), 0);
    const std::string after = StorageDir() + "/after-settings.mp4";
    EXPECT_EQ(CallForInt("StartRecording",
                  { "sssuuu", after, after + ".moov", after + "-thumb.jpg", "160", "120", "80" }),
        0);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_EQ(CallForInt("StopRecording"), 0);
    ASSERT_TRUE(WaitFor([&] { return !GstTest::FfprobeValues(after, "format=duration").empty(); }, 15000));
    EXPECT_GT(GstTest::FfprobePackets(after, "v:0").size(), 30u);
    const std::string log = DaemonLog().substr(logBefore);
    EXPECT_EQ(log.find("Failed to set overlay"), std::string::npos) << log;
    EXPECT_EQ(log.find("EnableOverlays failed"), std::string::npos) << log;
    EXPECT_EQ(log.find("[Streamer] error in pipeline"), std::string::npos) << log;
    EXPECT_TRUE(Serving());

    EXPECT_EQ(CallMethod("Exit"), 0);
    EXPECT_EQ(WaitForExit(0), 0);
}

TEST_F(VideodService, StartsWithoutPeersRecordsOnTheTestInputAndSurvivesBadInput)
{
    // No peer daemon at all: the test input feeds the graph.
    StartDaemon();
    ASSERT_TRUE(WaitForName(kService, true)) << DaemonLog();
    ASSERT_TRUE(WaitFor([&] { return Get("CaptureActive") == "b true"; }, 20000)) << DaemonLog();
    EXPECT_EQ(Get("VideoInput"), "i 0");
    std::string all;
    EXPECT_EQ(
        Busctl(
            { "call", kService, kPath, "org.freedesktop.DBus.Properties", "GetAll", "s", kInterface }, &all),
        0);

    const std::string video = TempDir() + "/test-input.mp4";
    EXPECT_EQ(CallForInt("StartRecording",
                  { "sssuuu", video, video + ".moov", video + "-thumb.jpg", "160", "120", "80" }),
        0)
        << DaemonLog();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_EQ(CallForInt("StopRecording"), 0);
    ASSERT_TRUE(WaitFor([&] { return !GstTest::FfprobeValues(video, "format=duration").empty(); }, 15000));
    EXPECT_EQ(GstTest::FfprobeValues(video, "stream=codec_name", "v"), (std::vector<std::string> { "h264" }));

    // Every method answers something with its own arguments, and refuses a wrong signature.
    for (const auto& [method, signature] : kMethods) {
        if (method == "Exit")
            continue;
        std::string out;
        EXPECT_NE(CallMethod(method, { "x", "1" }, &out), 0) << method;
    }
    for (const std::vector<std::string>& call :
        std::vector<std::vector<std::string>> { { "PauseRecording" }, { "ResumeRecording" },
            { "StopRecording" }, { "StopSnapVoice" }, { "PauseSnapVoice" }, { "ResumeSnapVoice" },
            { "SetMotionDetectionPeriod", "u", "500" }, { "StopAutoLog" }, { "PauseAutoLog" },
            { "ResumeAutoLog" }, { "PausePlayback" }, { "ResumePlayback" }, { "SeekPlayback", "i", "1000" },
            { "StopPlayback", "b", "false" }, { "GetPlaybackProgress" }, { "CaptureResetToDefaults" } }) {
        std::vector<std::string> args(call.begin() + 1, call.end());
        EXPECT_EQ(CallMethod(call[0], args), 0) << call[0];
    }
    EXPECT_EQ(CallForInt("SetMotionDetectionPeriod", { "u", "300" }), 1);
    EXPECT_TRUE(Serving());

    // Strings of 1 MiB.
    const std::string huge(1024 * 1024, 'v');
    bool ok = false;
    EXPECT_EQ(Echo(huge, &ok).size(), huge.size());
    const std::string hugePath = TempDir() + "/" + std::string(1024 * 1024, 'p');
    EXPECT_NE(CallInt("StartPlayback", "sd", hugePath.c_str(), 1.0), 0);
    const int hugeRecording = CallInt("StartRecording", "sssuuu", hugePath.c_str(), "", "", 160u, 120u, 80u);
    EXPECT_NE(hugeRecording, -1000);
    CallInt("StopRecording", "");
    EXPECT_TRUE(Serving());

    // Paths in directories that do not exist.
    const std::string missing = TempDir() + "/no/such/dir";
    AsyncReply snapshot;
    ASSERT_TRUE(SnapshotAsync(snapshot, missing + "/still.jpg", 320, 240));
    EXPECT_TRUE(WaitForReplies({ &snapshot }));
    EXPECT_NE(snapshot.value, 0);
    CallForInt("StartRecording",
        { "sssuuu", missing + "/r.mp4", missing + "/r.moov", missing + "/t.jpg", "160", "120", "80" });
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    CallForInt("StopRecording");
    EXPECT_TRUE(Serving());
    EXPECT_EQ(CallForInt("StartPlayback", { "sd", missing + "/r.mp4", "1.0" }), -1);

    // Playback rates that are no number, and a directory.
    EXPECT_EQ(CallInt("StartPlayback", "sd", video.c_str(), std::nan("")), -1);
    EXPECT_EQ(CallInt("StartPlayback", "sd", video.c_str(), INFINITY), -1);
    EXPECT_EQ(CallInt("StartPlayback", "sd", video.c_str(), -INFINITY), -1);
    CallInt("StartPlayback", "sd", TempDir().c_str(), 1.0);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    CallForInt("StopPlayback", { "b", "true" });
    EXPECT_TRUE(Serving());

    // The remote unit: an empty host names none; a port outside 0..65535 is refused.
    EXPECT_EQ(Set(kService, kPath, kInterface, "Remote", { "(sis)", "", "4000", "" }), 0);
    EXPECT_NE(Set(kService, kPath, kInterface, "Remote", { "(sis)", "10.0.0.2", "70000", "" }), 0);
    EXPECT_NE(Set(kService, kPath, kInterface, "Remote", { "(sis)", "10.0.0.2", "-1", "" }), 0);
    EXPECT_EQ(Get("Remote"), "(sis) \"\" 4000 \"\"");

    // The overlay model keeps what is set.
    EXPECT_EQ(Set(kService, kPath, kInterface, "OverlayUserText",
                  { "(iisis)", "10", "20", "inspection", "24", "yellow" }),
        0);
    EXPECT_EQ(Get("OverlayUserText"), "(iisis) 10 20 \"inspection\" 24 \"yellow\"");
    EXPECT_EQ(Set(kService, kPath, kInterface, "OverlayDateTimeStyle", { "i", "3" }), 0);
    EXPECT_EQ(Get("OverlayDateTimeStyle"), "i 3");

    // Property writes with the wrong variant type change nothing.
    for (const auto& [property, value] : std::vector<std::pair<std::string, std::vector<std::string>>> {
             { "CaptureZoom", { "s", "2" } }, { "SystemMicMute", { "i", "1" } },
             { "StreamJpegQuality", { "s", "50" } }, { "Remote", { "s", "host" } },
             { "OverlayUserText", { "(iis)", "1", "2", "text" } }, { "H264EncoderBitrate", { "d", "1.5" } },
             { "RotationSteps", { "u", "90" } }, { "CaptureBrightness", { "b", "true" } } })
        EXPECT_NE(Set(kService, kPath, kInterface, property, value), 0) << property;
    EXPECT_NE(Set(kService, kPath, kInterface, "CaptureActive", { "b", "false" }), 0);
    EXPECT_NE(Set(kService, kPath, kInterface, "CaptureZoom", { "d", "100" }), 0);
    EXPECT_NE(Set(kService, kPath, kInterface, "DeinterlaceMethod", { "s", "sideways" }), 0);
    EXPECT_NE(Set(kService, kPath, kInterface, "RotationSteps", { "s", "45" }), 0);
    EXPECT_TRUE(Serving());

    EXPECT_EQ(CallMethod("Exit"), 0);
    EXPECT_EQ(WaitForExit(0), 0);
}

} // namespace VideodSystemTest
