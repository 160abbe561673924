// CPU figures of the benchmarks: a process's share of one core over a window, the load average, a
// recording's frame rate, their summary over several windows, and the streamer's chain as one
// gst-launch-1.0 pipeline with tees for the interpipes, the reference the streamer and the daemon are
// measured against.
#pragma once

#include <glib.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_process.h"
#include "common/glib_ptr.h"
#include "support/ffprobe.h"

namespace VideodBench
{

constexpr double kCpuWindowSeconds = 10.0;
constexpr double kCpuSettleSeconds = 3.0;

// User + system CPU seconds of process `pid` ("self" for this one), from /proc/<pid>/stat.
inline double CpuSeconds(const std::string& pid)
{
    std::ifstream in("/proc/" + pid + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // The command name may hold spaces; the fields after it are counted from its closing parenthesis.
    const size_t close = text.rfind(')');
    if (close == std::string::npos)
        return -1;
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    // Field 3 (state) comes first; utime and stime are fields 14 and 15.
    for (int number = 3; number <= 15 && fields >> field; ++number) {
        if (number == 14)
            utime = std::stoull(field);
        else if (number == 15)
            stime = std::stoull(field);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

inline void SleepSeconds(double seconds)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

// Share of one core that process `pid` takes over the window, measured after it has settled; `wait`
// passes the time (a process measuring itself keeps its main loop running meanwhile).
inline double CpuShare(const std::string& pid, void (*wait)(double seconds))
{
    wait(kCpuSettleSeconds);
    const double before = CpuSeconds(pid);
    const auto start = std::chrono::steady_clock::now();
    wait(kCpuWindowSeconds);
    const double after = CpuSeconds(pid);
    if (before < 0 || after < 0)
        return -1;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return (after - before) / seconds;
}

// The one-minute load average: other work on a shared machine takes cores from the live graphs, whose
// leaky queues then drop frames, so a CPU figure is read together with it and the frame rate.
inline double LoadAverage()
{
    std::ifstream in("/proc/loadavg");
    double load = -1;
    in >> load;
    return load;
}

// Frames per second of the first video stream of a finished file, from its packets' times.
inline double FileFrameRate(const std::string& file)
{
    const std::vector<GstTest::Packet> packets = GstTest::FfprobePackets(file, "v:0");
    if (packets.size() < 2)
        return -1;
    const auto [first, last] = std::minmax_element(packets.begin(), packets.end(),
        [](const GstTest::Packet& a, const GstTest::Packet& b) { return a.pts < b.pts; });
    return last->pts > first->pts ? static_cast<double>(packets.size() - 1) / (last->pts - first->pts) : -1;
}

struct CpuFigures {
    double share = -1; // of one core; negative when the graph did not run
    double fps = -1; // of the recording's file (the slowest of its files); negative without one
    double load = -1; // load average at the end of the window
};

// The windows of one graph under one load: the median share, its spread, the lowest frame rate and the
// highest load average; failed windows are counted and left out.
struct CpuSummary {
    double median = -1;
    double low = -1;
    double high = -1;
    double fps = -1;
    double load = -1;
    int failed = 0;
};

inline CpuSummary Summarise(const std::vector<CpuFigures>& runs)
{
    CpuSummary summary;
    std::vector<double> shares;
    for (const CpuFigures& run : runs) {
        if (run.share < 0) {
            ++summary.failed;
            continue;
        }
        shares.push_back(run.share);
        if (summary.fps < 0 || run.fps < summary.fps)
            summary.fps = run.fps;
        summary.load = std::max(summary.load, run.load);
    }
    if (shares.empty())
        return summary;
    std::sort(shares.begin(), shares.end());
    summary.median = shares[shares.size() / 2];
    summary.low = shares.front();
    summary.high = shares.back();
    return summary;
}

// "12.3% (11.9-12.8) 29.97 fps": the median share with its spread, and the lowest frame rate.
inline std::string CpuText(const CpuSummary& summary)
{
    char text[80];
    if (summary.median < 0)
        std::snprintf(text, sizeof(text), "failed");
    else if (summary.fps < 0)
        std::snprintf(text, sizeof(text), "%5.1f%% (%4.1f-%4.1f)          ", summary.median * 100,
            summary.low * 100, summary.high * 100);
    else
        std::snprintf(text, sizeof(text), "%5.1f%% (%4.1f-%4.1f) %5.2f fps", summary.median * 100,
            summary.low * 100, summary.high * 100, summary.fps);
    return text;
}

// What runs besides the live picture.
enum class Load { kLive, kRecording, kThreeCaptures };

// Whether the chain carries the live stream: the MJPEG encoder and the TCP server on port 4000 the daemon
// runs besides the streamer's own graph.
enum class LiveStream { kWithout, kWith };

inline const char* LoadName(Load load)
{
    switch (load) {
    case Load::kLive:
        return "live picture only";
    case Load::kRecording:
        return "recording";
    case Load::kThreeCaptures:
        return "recording + SnapVoice + autolog";
    }
    return "";
}

constexpr int kLiveStreamPort = 4000;

// The streamer's chain as one pipeline, element for element as src/pipelines launches it. Each
// interpipesink becomes a tee (or, with no listener, a fakesink as it is not synchronised either) and
// each interpipesrc a queue with its limits: one buffer, leaking, for the picture hops, unbounded for the
// hops into the muxers and the AAC encoder. The sinks that never get a buffer (the closed snapshot
// branch, an encoder whose valve drops) do not wait for one, as their pipelines' state does not hold the
// others back in the streamer. The muxers' file sinks write unbuffered, as the daemon sets them after each
// launch. The speaker, listening to nothing, is left out. With the live stream the camera's output is
// tee'd to the MJPEG encoder, whose pictures go to the TCP server on every interface, port 4000, with the
// daemon's queue of 60 buffers.
inline std::string SinglePipeline(Load load, const std::string& dir, LiveStream live = LiveStream::kWithout)
{
    const std::string hop = " ! queue max-size-buffers=1 max-size-bytes=0 max-size-time=0 leaky=downstream ";
    const std::string open_hop = " ! queue max-size-buffers=0 max-size-bytes=0 max-size-time=0 ";
    const bool capturing = load != Load::kLive;
    const bool streaming = live == LiveStream::kWith;

    auto overlay = [&](const std::string& name) {
        return "gpu." + hop
            + "! imxipuvideotransform ! video/x-raw,format=BGRA ! rsvgoverlaytarnwell name=ov_" + name
            + " fit-to-frame=true enabled=true ov_" + name
            + ".src_first ! queue max-size-buffers=1 max-size-time=50000000 leaky=downstream ";
    };
    auto encoder = [&](const std::string& tee, bool drop) {
        return "rec." + hop
            + "! video/x-raw,format=BGRA,width=640,height=480,framerate=30000/1001 ! valve drop="
            + (drop ? "true" : "false")
            + " ! imxipuvideotransform ! video/x-raw,format=I420 ! queue leaky=downstream max-size-buffers=2 "
              "! imxvpuenc_h264 bitrate=0 gop-size=16 quant-param=24 idr-interval=16 ! h264parse "
              "! video/x-h264,stream-format=avc,alignment=au,profile=main ! tee name="
            + tee + " ";
    };
    auto muxer = [&](const std::string& name, const std::string& video, const char* filter) {
        return video + "." + open_hop + "! video/x-h264 ! idrvalve drop=false " + filter
            + "! multiqueue name=" + name + "_mq max-size-buffers=30 max-size-time=0 " + name
            + "_mq. ! muxpause ! mp4mux name=" + name + "_mux moov-recovery-file=" + dir + "/" + name
            + ".mrf ! queue max-size-buffers=10 ! identity silent=false "
              "! filesink async=false sync=false buffer-mode=unbuffered location="
            + dir + "/" + name + ".mp4 aac." + open_hop + "! audio/mpeg ! " + name + "_mq. " + name
            + "_mq. ! muxpause ! " + name + "_mux. ";
    };

    std::string description
        = "imxv4l2videosrc fps=30000/1001 crop-meta-x=24 crop-meta-width=672 crop-meta-y=24 "
          "crop-meta-height=504 do-timestamp=true "
          "! video/x-raw,format=UYVY,width=720,height=504,framerate=30000/1001,interlace-mode=interleaved,"
          "device-mode=interleaved "
          "! vbiread line-dup-enabled=false line-dup-top-start=3 line-dup-top-stop=33 line-dup-bot-start=433 "
          "line-dup-bot-stop=480 first-top-data-line=0 num-top-data-lines=30 first-bot-data-line=433 "
          "num-bot-data-lines=37 set-tff-flag=true "
          "! queue leaky=downstream max-size-buffers=1 "
          "! imxipuvideotransform deinterlace=true input-crop=true ! "
          "video/x-raw,format=RGBA,width=640,height=480 "
          "! progressive-caps-filter ! capssetter "
          "caps=video/x-raw,pixel-aspect-ratio=1/1,framerate=30000/1001 "
          "! video/x-raw,width=640,height=480,framerate=30000/1001"
        + std::string(streaming ? " ! tee name=camera camera." : "") + hop
        + "! queue max-size-buffers=6 leaky=downstream ! tarnwell-motion-filter roll-filter-coeffs=\"1 1\" "
          "! tarnwell-dsl silent=false plumbline-enabled=false dsl-enabled=false rotation-steps=0 "
          "rotation-threshold=7 rotation-frames-trigger=15 "
          "! tarnwell-tiling name=tiling background-mode=2 silent=false tiling.src "
          "! queue leaky=downstream max-size-buffers=4 ! tee name=gpu ";
    if (streaming)
        description += "camera." + hop
            + "! queue leaky=downstream max-size-buffers=2 ! imxipuvideotransform ! video/x-raw,format=I420 "
              "! imxvpuenc_mjpeg ! tarnwellexif ! capsfilter caps=image/jpeg ! tee name=mjpeg mjpeg."
            + hop
            + "! queue leaky=downstream "
              "! tarnwell-static-jpeg location=/etc/rig/tarnwellLogo.jpg silent=true "
              "! multipartmux boundary=frame ! tcpserversink sync=false async=false host=0.0.0.0 port="
            + std::to_string(kLiveStreamPort) + " buffers-max=60 ";
    description += overlay("display") + hop
        + "! video/x-raw,format=BGRA,width=640,height=480 ! queue max-size-buffers=2 leaky=downstream "
          "! imxipuvideotransform ! imxipuvideosink qos=false use-vsync=true sync=false "
          "force-aspect-ratio=false "
          "output-rotation=5 ";
    description += overlay("recording") + "! tee name=rec ";
    description += encoder("video", !capturing);
    description += "rec." + hop
        + "! video/x-raw,format=BGRA,width=640,height=480 ! tarnwell-valve num-buffers-pass=0 "
          "! imxipuvideotransform ! capsfilter caps=video/x-raw,format=I420,width=640,height=480 "
          "! imxvpuenc_mjpeg quality-factor=85 ! multifilesink post-messages=true async=false location="
        + dir + "/dummy.jpeg ";
    description += "alsasrc provide-clock=false do-timestamp=false "
                   "! audio/x-raw,rate=44100,channels=2,format=S16LE,layout=interleaved ! volume volume=1 "
                   "! tee name=mic ";
    if (!capturing)
        return description
            + "video. ! fakesink sync=false async=false mic. ! fakesink sync=false async=false";

    description += "mic." + open_hop
        + "! queue max-size-buffers=10 leaky=downstream ! audioconvert "
          "! audio/x-raw,format=F32LE,channels=2 ! audioresample ! "
          "audio/x-raw,format=F32LE,channels=2,rate=48000 "
          "! queue max-size-buffers=10 leaky=downstream ! avenc_aac "
          "! audio/mpeg,mpegversion=4,format=F32LE,channels=2,rate=48000 ! tee name=aac ";
    description += muxer("video", "video", "");
    if (load == Load::kThreeCaptures) {
        description += muxer("snapvoice", "video", "! snapvoice reset=true ");
        description += encoder("autolog", false) + muxer("autolog", "autolog", "");
    }
    return description;
}

// gst-launch-1.0 running `description` (split as a shell would, one word per argument) as a child that
// dies with the benchmark; its files are finished with an EOS on SIGINT (-e). Its errors go to ours. The
// process id, or -1 with the reason printed.
inline pid_t StartGstLaunch(const std::string& description)
{
    gint argc = 0;
    gchar** raw_argv = nullptr;
    GError* raw_error = nullptr;
    if (!g_shell_parse_argv(("gst-launch-1.0 -q -e " + description).c_str(), &argc, &raw_argv, &raw_error)) {
        VideoDaemon::GErrorPtr error(raw_error);
        std::fprintf(stderr, "gst-launch-1.0: %s\n", error->message);
        return -1;
    }
    const std::vector<std::string> argv(raw_argv, raw_argv + argc);
    g_strfreev(raw_argv);
    return Spawn(argv, -1, STDERR_FILENO);
}

// Waits (bounded) for child `pid` to end; SIGKILL when it does not.
inline void Reap(pid_t pid, int seconds)
{
    for (int i = 0; i < seconds * 50; ++i) {
        if (waitpid(pid, nullptr, WNOHANG) == pid)
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

} // namespace VideodBench
