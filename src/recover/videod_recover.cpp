// videod-recover: makes a playable MP4 of a capture whose recording process ended without finishing the
// file (killed, power lost), from the file and the muxer's moov recovery file.
//
//   videod-recover BROKEN.mp4 RECOVERY OUT.mp4
//
// The inputs are only read. A capture that was finished after all is copied to OUT.mp4 unchanged. Exit
// status: 0 recovered or copied, 1 the inputs cannot be recovered, 2 wrong usage.
#include <gst/gst.h>
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "recover/capture_file.h"
#include "recover/index_rebuilder.h"
#include "recover/recovered_file_writer.h"
#include "recover/recovery_file.h"

using namespace VideoDaemon;

namespace
{

const char kName[] = "videod-recover";

int Fail(const std::string& message, int status = 1)
{
    std::fprintf(stderr, "%s: %s\n", kName, message.c_str());
    return status;
}

bool SamePath(const std::string& first, const std::string& second)
{
    struct stat a {
    };
    struct stat b {
    };
    if (stat(first.c_str(), &a) != 0 || stat(second.c_str(), &b) != 0)
        return first == second;
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

std::string Seconds(std::uint64_t duration, std::uint32_t timescale)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", timescale ? static_cast<double>(duration) / timescale : 0.0);
    return text;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4)
        return Fail(std::string("usage: ") + kName + " BROKEN.mp4 RECOVERY OUT.mp4", 2);
    const std::string broken = argv[1];
    const std::string recovery_path = argv[2];
    const std::string out = argv[3];
    if (SamePath(out, broken) || SamePath(out, recovery_path))
        return Fail(out + ": the output must not be one of the inputs", 2);

    std::string error;
    CaptureFile capture;
    if (!capture.Open(broken, error))
        return Fail(error);
    RecoveryFile recovery;
    if (capture.IsComplete()) {
        RecoveredFileWriter writer(recovery, capture);
        if (!writer.Copy(out, error))
            return Fail(error);
        std::printf("%s: finished with its index; copied unchanged to %s\n", broken.c_str(), out.c_str());
        return 0;
    }
    if (!recovery.Load(recovery_path, error))
        return Fail(error);

    gst_init(nullptr, nullptr);
    IndexRebuilder rebuilder(recovery, capture);
    if (!rebuilder.Rebuild(error))
        return Fail(error);
    RecoveredFileWriter writer(recovery, capture);
    if (!writer.Write(out, rebuilder.Tracks(), rebuilder.MediaUsed(), error))
        return Fail(error);

    std::printf("%s: recovered to %s\n", broken.c_str(), out.c_str());
    for (std::size_t i = 0; i < rebuilder.Tracks().size(); ++i) {
        const TrackIndex& index = rebuilder.Tracks()[i];
        const RecoveryTrack& track = recovery.Tracks()[i];
        const char* kind = track.codec == RecoveryTrack::Codec::kAvc ? "H.264"
            : track.codec == RecoveryTrack::Codec::kAac              ? "AAC"
                                                                     : "other";
        std::printf("  track %u (%s): %zu samples, %s s\n", index.TrackId(), kind, index.Count(),
            Seconds(index.Duration(), track.timescale).c_str());
    }
    std::printf("  %zu samples from the recovery file, %zu found in the media data; %llu of %llu media bytes "
                "used (%s)\n",
        rebuilder.SamplesFromEntries(), rebuilder.SamplesFromMedia(),
        static_cast<unsigned long long>(rebuilder.MediaUsed()),
        static_cast<unsigned long long>(capture.MediaLength()), rebuilder.StopReason().c_str());
    return 0;
}
