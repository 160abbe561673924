// videod under load as a process on a private bus: many readers of the live stream, one that never reads,
// and hundreds of recording, snapshot and playback cycles, judged by the frames the readers count and by the
// daemon's descriptors, threads and resident memory before and after.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "support/ffprobe.h"
#include "system/videod_fixture.h"

namespace VideodSystemTest
{
namespace
{

using Clock = std::chrono::steady_clock;

constexpr uint16_t kLivePort = 4000;
constexpr double kLiveFps = 25.0;
constexpr const char* kThumbnailWritten = "[Snapshot] Snapshot file exist and match requested:";
constexpr const char* kRecordingEos = "HandleRecordingEos: Handling EOS...";

// A TCP connection to the live stream on the loopback interface; -1 when it cannot be made.
int ConnectToLiveStream(int receiveBuffer = 0)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (receiveBuffer > 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_port = htons(kLivePort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Reads the multipart stream on a thread of its own and counts the parts that hold a JPEG picture.
class LiveStreamReader
{
public:
    LiveStreamReader()
        : _Fd(ConnectToLiveStream())
    {
        if (_Fd >= 0)
            _Thread = std::thread([this] { Read(); });
    }

    ~LiveStreamReader()
    {
        _Stop = true;
        if (_Thread.joinable())
            _Thread.join();
        if (_Fd >= 0)
            close(_Fd);
    }

    LiveStreamReader(const LiveStreamReader&) = delete;
    LiveStreamReader& operator=(const LiveStreamReader&) = delete;

    bool Connected() const { return _Fd >= 0; }
    int Frames() const { return _Frames; }
    int NotJpeg() const { return _NotJpeg; }

private:
    void Read()
    {
        std::string pending;
        char buffer[64 * 1024];
        while (!_Stop) {
            pollfd pfd { _Fd, POLLIN, 0 };
            if (poll(&pfd, 1, 100) <= 0)
                continue;
            const ssize_t n = recv(_Fd, buffer, sizeof buffer, 0);
            if (n <= 0)
                return;
            pending.append(buffer, static_cast<size_t>(n));
            CountWholeParts(pending);
        }
    }

    // A part runs from one boundary to the next: headers, an empty line, the picture.
    void CountWholeParts(std::string& pending)
    {
        static const std::string boundary = "--frame";
        size_t start = pending.find(boundary);
        while (start != std::string::npos) {
            const size_t next = pending.find(boundary, start + boundary.size());
            if (next == std::string::npos)
                break;
            const size_t body = pending.find("\r\n\r\n", start);
            if (body != std::string::npos && body + 6 <= next
                && pending.compare(body + 4, 2, "\xff\xd8") == 0)
                ++_Frames;
            else
                ++_NotJpeg;
            start = next;
        }
        if (start != std::string::npos && start > 0)
            pending.erase(0, start);
    }

    int _Fd = -1;
    std::thread _Thread;
    std::atomic<bool> _Stop { false };
    std::atomic<int> _Frames { 0 };
    std::atomic<int> _NotJpeg { 0 };
};

// What the daemon holds of the system: open descriptors, threads, resident memory.
struct Footprint {
    int fds = 0;
    int threads = 0;
    long rssKiB = 0;
};

int CountEntries(const std::string& directory)
{
    std::error_code error;
    int count = 0;
    for (auto it = std::filesystem::directory_iterator(directory, error);
         !error && it != std::filesystem::directory_iterator(); it.increment(error))
        ++count;
    return count;
}

Footprint FootprintOf(pid_t pid)
{
    const std::string proc = "/proc/" + std::to_string(pid);
    Footprint footprint;
    footprint.fds = CountEntries(proc + "/fd");
    footprint.threads = CountEntries(proc + "/task");
    std::istringstream status(VideodTest::ReadFile(proc + "/status"));
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0)
            footprint.rssKiB = std::stol(line.substr(6));
    return footprint;
}

void PrintFootprints(const char* what, const Footprint& before, const Footprint& after)
{
    std::printf("[load] %s: fds %d -> %d, threads %d -> %d, VmRSS %ld KiB -> %ld KiB (%+ld KiB)\n", what,
        before.fds, after.fds, before.threads, after.threads, before.rssKiB, after.rssKiB,
        after.rssKiB - before.rssKiB);
    std::fflush(stdout);
}

// Frames per second each reader counted over `span`, after a second for the stream to reach them.
std::vector<double> MeasureFrameRates(
    const std::vector<std::unique_ptr<LiveStreamReader>>& readers, std::chrono::milliseconds span)
{
    std::this_thread::sleep_for(std::chrono::seconds(1));
    std::vector<int> first;
    for (const auto& reader : readers)
        first.push_back(reader->Frames());
    const auto start = Clock::now();
    std::this_thread::sleep_for(span);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::vector<double> rates;
    for (size_t at = 0; at < readers.size(); ++at)
        rates.push_back((readers[at]->Frames() - first[at]) / seconds);
    return rates;
}

void PrintFrameRates(const char* what, const std::vector<double>& rates)
{
    std::printf("[load] %s:", what);
    for (double rate : rates)
        std::printf(" %.1f", rate);
    std::printf(" fps\n");
    std::fflush(stdout);
}

} // namespace

class VideodLoad : public VideodFixture
{
protected:
    pid_t DaemonPid() const { return _Daemons.at(0); }

    int IntProperty(const char* name)
    {
        VideodTest::SdBusError error;
        int32_t value = -1000;
        sd_bus_get_property_trivial(Bus(), kService, kPath, kInterface, name, error.Get(), 'i', &value);
        return value;
    }

    std::string StringProperty(const char* name)
    {
        VideodTest::SdBusError error;
        char* value = nullptr;
        if (sd_bus_get_property_string(Bus(), kService, kPath, kInterface, name, error.Get(), &value) < 0)
            return "error";
        std::string text(value);
        free(value);
        return text;
    }

    // Waits (bounded) until the daemon's log holds `line` once more than `seen` times; counts it into
    // `seen`. Reads only what the log gained since the last look.
    bool WaitForLogLine(const std::string& line, int& seen, int timeoutMs = 5000)
    {
        return WaitBriefly(
            [&] {
                std::ifstream log(DaemonLogPath(0));
                log.seekg(_LogOffset);
                std::string fresh((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
                // Only whole lines; the rest is read again next time.
                fresh.resize(fresh.rfind('\n') == std::string::npos ? 0 : fresh.rfind('\n') + 1);
                _LogOffset += static_cast<std::streamoff>(fresh.size());
                // Every line waited for so far is counted, so none is missed in a stretch read for another.
                _LogLines.emplace(line, 0);
                for (auto& [text, count] : _LogLines)
                    for (size_t at = fresh.find(text); at != std::string::npos; at = fresh.find(text, at + 1))
                        ++count;
                if (_LogLines[line] <= seen)
                    return false;
                seen = _LogLines[line];
                return true;
            },
            timeoutMs);
    }

    // Starts and stops a short recording at `path`; true when it went active, its thumbnail was written
    // (the next start would be refused while it is in progress) and its muxer reported the end of the file.
    bool RecordingCycle(const std::string& path)
    {
        const std::string recovery = path + ".moov";
        const std::string thumb = path + "-thumb.jpg";
        if (CallInt(
                "StartRecording", "sssuuu", path.c_str(), recovery.c_str(), thumb.c_str(), 160u, 120u, 80u)
            != 0)
            return false;
        const bool active = IntProperty("RecordingState") == 1;
        const bool stopped = CallInt("StopRecording", "") == 0;
        return active && stopped && WaitForLogLine(kThumbnailWritten, _Thumbs)
            && WaitForLogLine(kRecordingEos, _Eos);
    }

    // Polls `done` every few milliseconds (cycles are short), bounded.
    static bool WaitBriefly(const std::function<bool()>& done, int timeoutMs = 5000)
    {
        const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
        while (!done()) {
            if (Clock::now() > deadline)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }

    // A settled picture of the daemon: the footprint once the last cycle's work has drained.
    Footprint SettledFootprint()
    {
        std::this_thread::sleep_for(std::chrono::seconds(2));
        return FootprintOf(DaemonPid());
    }

    static void ExpectUnchanged(const Footprint& before, const Footprint& after)
    {
        EXPECT_NEAR(after.fds, before.fds, 2);
        EXPECT_NEAR(after.threads, before.threads, 2);
        EXPECT_LE(after.rssKiB, before.rssKiB + 16 * 1024);
    }

    std::streamoff _LogOffset = 0;
    std::map<std::string, int> _LogLines { { kThumbnailWritten, 0 }, { kRecordingEos, 0 } };
    int _Thumbs = 0;
    int _Eos = 0;
};

TEST_F(VideodLoad, EightReadersOfTheLiveStreamEachGetTheFullFrameRate)
{
    StartPeersOnNtscCamera();
    StartDaemonAndWait();

    std::vector<std::unique_ptr<LiveStreamReader>> readers;
    for (int i = 0; i < 8; ++i) {
        readers.push_back(std::make_unique<LiveStreamReader>());
        ASSERT_TRUE(readers.back()->Connected()) << i;
    }
    const std::vector<double> rates = MeasureFrameRates(readers, std::chrono::seconds(5));
    PrintFrameRates("8 readers", rates);
    for (size_t at = 0; at < readers.size(); ++at) {
        EXPECT_GE(rates[at], kLiveFps) << "reader " << at;
        EXPECT_EQ(readers[at]->NotJpeg(), 0) << "reader " << at;
    }
    EXPECT_EQ(CallMethod("Exit"), 0);
    EXPECT_EQ(WaitForExit(0), 0);
}

TEST_F(VideodLoad, AReaderThatNeverReadsNeitherSlowsTheOthersNorGrowsTheDaemon)
{
    StartPeersOnNtscCamera();
    StartDaemonAndWait();

    // A small receive buffer, so the stalled reader's share backs up into the daemon at once.
    const int stalled = ConnectToLiveStream(4096);
    ASSERT_GE(stalled, 0);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    const Footprint before = FootprintOf(DaemonPid());

    std::vector<std::unique_ptr<LiveStreamReader>> readers;
    for (int i = 0; i < 8; ++i)
        readers.push_back(std::make_unique<LiveStreamReader>());
    const std::vector<double> early = MeasureFrameRates(readers, std::chrono::seconds(5));
    readers.clear();
    std::this_thread::sleep_for(std::chrono::seconds(46));
    for (int i = 0; i < 8; ++i)
        readers.push_back(std::make_unique<LiveStreamReader>());
    const std::vector<double> late = MeasureFrameRates(readers, std::chrono::seconds(5));
    const Footprint after = FootprintOf(DaemonPid());

    PrintFrameRates("8 readers beside a stalled one, first seconds", early);
    PrintFrameRates("8 readers beside a stalled one, after a minute", late);
    PrintFootprints("a minute with a stalled reader", before, after);
    for (size_t at = 0; at < readers.size(); ++at) {
        EXPECT_GE(early[at], kLiveFps) << "reader " << at;
        EXPECT_GE(late[at], kLiveFps) << "reader " << at;
    }
    EXPECT_LE(after.rssKiB, before.rssKiB + 20 * 1024);
    close(stalled);
    EXPECT_EQ(CallMethod("Exit"), 0);
    EXPECT_EQ(WaitForExit(0), 0);
}

TEST_F(VideodLoad, FiveHundredRecordingsLeaveNoDescriptorsThreadsOrMemoryBehind)
{
    StartPeersOnNtscCamera();
    StartDaemonAndWait();
    const std::string path = StorageDir() + "/cycle.mp4";
    // Warm-up: the allocator's per-thread pools of the capture threads exist before the footprint.
    for (int i = 0; i < 50; ++i)
        ASSERT_TRUE(RecordingCycle(path)) << DaemonLog();
    const Footprint before = SettledFootprint();

    int failed = 0;
    const auto start = Clock::now();
    for (int i = 0; i < 500; ++i)
        failed += RecordingCycle(path) ? 0 : 1;
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const Footprint after = SettledFootprint();

    std::printf("[load] 500 recording cycles in %.1f s, %d failed\n", seconds, failed);
    PrintFootprints("500 recording cycles", before, after);
    EXPECT_EQ(failed, 0);
    ExpectUnchanged(before, after);
    EXPECT_EQ(IntProperty("RecordingState"), 0);
    EXPECT_EQ(StringProperty("PreviousRecordingFilename"), path);
    // The cycles end before the first picture reaches the muxer; a recording of a second afterwards still
    // holds pictures and sound.
    const std::string last = StorageDir() + "/after-cycles.mp4";
    ASSERT_EQ(
        CallInt("StartRecording", "sssuuu", last.c_str(), "", (last + "-thumb.jpg").c_str(), 160u, 120u, 80u),
        0);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    ASSERT_EQ(CallInt("StopRecording", ""), 0);
    ASSERT_TRUE(WaitFor([&] { return !GstTest::FfprobeValues(last, "format=duration").empty(); }, 15000));
    EXPECT_EQ(
        GstTest::FfprobeValues(last, "stream=codec_name"), (std::vector<std::string> { "h264", "aac" }));
    EXPECT_GT(GstTest::FfprobePackets(last, "v:0").size(), 10u);
    EXPECT_EQ(CallMethod("Exit"), 0);
    EXPECT_EQ(WaitForExit(0), 0);
}

TEST_F(VideodLoad, FiveHundredSnapshotsLeaveNoDescriptorsThreadsOrMemoryBehind)
{
    StartPeersOnNtscCamera();
    StartDaemonAndWait();
    const std::string path = StorageDir() + "/still.jpg";
    auto snapshot = [&] { return CallInt("Snapshot", "suuu", path.c_str(), 160u, 120u, 80u) == 0; };
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(snapshot()) << DaemonLog();
    const Footprint before = SettledFootprint();

    int failed = 0;
    const auto start = Clock::now();
    for (int i = 0; i < 500; ++i)
        failed += snapshot() ? 0 : 1;
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const Footprint after = SettledFootprint();

    std::printf("[load] 500 snapshot cycles in %.1f s, %d failed\n", seconds, failed);
    PrintFootprints("500 snapshot cycles", before, after);
    EXPECT_EQ(failed, 0);
    ExpectUnchanged(before, after);
    EXPECT_EQ(GstTest::FfprobeValues(path, "stream=codec_name,width,height"),
        (std::vector<std::string> { "mjpeg", "160", "120" }));
    EXPECT_EQ(CallMethod("Exit"), 0);
    EXPECT_EQ(WaitForExit(0), 0);
}

TEST_F(VideodLoad, TwoHundredPlaybacksLeaveNoDescriptorsThreadsOrMemoryBehind)
{
    StartPeersOnNtscCamera();
    StartDaemonAndWait();
    const std::string video = StorageDir() + "/played.mp4";
    ASSERT_EQ(CallInt("StartRecording", "sssuuu", video.c_str(), "", (video + "-thumb.jpg").c_str(), 160u,
                  120u, 80u),
        0);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    ASSERT_EQ(CallInt("StopRecording", ""), 0);
    ASSERT_TRUE(WaitFor([&] { return !GstTest::FfprobeValues(video, "format=duration").empty(); }, 15000))
        << DaemonLog();

    // Started, playing on the display, stopped and back to the live picture.
    auto cycle = [&] {
        if (CallInt("StartPlayback", "sd", video.c_str(), 1.0) != 0)
            return false;
        const bool playing = WaitBriefly([&] { return StringProperty("DisplayContent") != "Live Feed"; });
        const bool stopped = CallInt("StopPlayback", "b", 1) == 0;
        return playing && stopped
            && WaitBriefly([&] { return StringProperty("DisplayContent") == "Live Feed"; });
    };
    // The first cycles' streaming threads leave the allocator's per-thread pools behind (they are reused,
    // not grown, by later cycles): the footprint is taken once they exist.
    for (int i = 0; i < 20; ++i)
        ASSERT_TRUE(cycle()) << DaemonLog();
    const Footprint before = SettledFootprint();

    int failed = 0;
    const auto start = Clock::now();
    Footprint midway;
    for (int i = 0; i < 200; ++i) {
        failed += cycle() ? 0 : 1;
        if (i == 99)
            midway = FootprintOf(DaemonPid());
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const Footprint after = SettledFootprint();
    PrintFootprints("first 100 playback cycles", before, midway);

    std::printf("[load] 200 playback cycles in %.1f s, %d failed\n", seconds, failed);
    PrintFootprints("200 playback cycles", before, after);
    EXPECT_EQ(failed, 0);
    EXPECT_NEAR(after.fds, before.fds, 2);
    EXPECT_NEAR(after.threads, before.threads, 2);
    // Each playback builds a new pipeline whose buffers the allocator keeps
    // pooled: the footprint rises over the first hundred cycles and then
    // stays. A leak would go on growing over the second hundred.
    EXPECT_LE(after.rssKiB, midway.rssKiB + 8 * 1024);
    EXPECT_EQ(IntProperty("PlaybackState"), 0);
    EXPECT_EQ(CallMethod("Exit"), 0);
    EXPECT_EQ(WaitForExit(0), 0);
}

} // namespace VideodSystemTest
