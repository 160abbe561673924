// H.264 encoder behind a valve, publishing access units for the MP4 muxers; one instance per prefix.
#pragma once

#include "pipelines/pipeline.h"
#include "pipelines/probe.h"

namespace VideoDaemon
{

class H264EncodePipeline : public Pipeline
{
public:
    // `prefix` makes every element name unique in the process; it must be a
    // plain word (letters, digits, underscore).
    explicit H264EncodePipeline(std::string prefix);

    // Launches and keeps frames without a time out of the encoder.
    bool Launch(bool attach_probes, bool connect_bus, bool connect_queue_signals) override;

    std::string GetDescription() override { return description; }
    std::string GetSinkName() override { return sink_name; }
    std::string GetSourceName() override { return source_name; }

    // true closes the valve in front of the encoder, false opens it.
    void SetValve(bool drop);

    void SetBitrate(unsigned bitrate);
    void SetGopSize(unsigned gop_size);
    void SetQuantParam(unsigned quant_param);
    // 0 when the pipeline or the encoder is missing.
    unsigned GetBitrate() const;
    unsigned GetGopSize() const;
    unsigned GetQuantParam() const;

    template <typename T> void SetH264EncoderProperty(const char* name, T value);
    // Leaves `value` untouched when the pipeline or the encoder is missing.
    template <typename T> void GetH264EncoderProperty(const char* name, T& value) const;

private:
    static GstPadProbeReturn DropUntimedFrame(GstPad* pad, GstPadProbeInfo* info, gpointer user_data);

    std::string description;
    std::string sink_name;
    std::string source_name;
    std::string encoder_name;
    std::string valve_name;
    std::string queue_name;
    Probe untimed_frames;
};

} // namespace VideoDaemon
