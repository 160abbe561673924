// AacEncodePipeline: instance numbering, the shared queue name, AAC encoded from the microphone.
#include <syslog.h>

#include "pipeline_harness.h"
#include "pipelines/aac_encode_pipeline.h"
#include "pipelines/mic_input_pipeline.h"

using namespace PipelineHarness;
using VideoDaemon::AacEncodePipeline;

// Runs first in this executable, so the instances are the process's first two.
TEST(AacEncodePipeline, NumbersItsInstancesAndSharesTheQueueName)
{
    AacEncodePipeline first;
    AacEncodePipeline second;
    EXPECT_EQ(first.GetSourceName(), "aac_encode_source0");
    EXPECT_EQ(first.GetSinkName(), "aac_encode_sink0");
    EXPECT_EQ(second.GetSourceName(), "aac_encode_source1");
    EXPECT_EQ(second.GetSinkName(), "aac_encode_sink1");
    // Both marks of the template are replaced.
    for (AacEncodePipeline* aac : { &first, &second }) {
        const std::string description = aac->GetDescription();
        EXPECT_EQ(description.find('%'), std::string::npos);
        EXPECT_NE(description.find("name=" + aac->GetSourceName() + " "), std::string::npos);
        EXPECT_NE(description.find("name=" + aac->GetSinkName() + " "), std::string::npos);
    }
    ASSERT_TRUE(first.Launch(false, false, false));
    ASSERT_TRUE(second.Launch(false, false, false));
    EXPECT_NE(ElementOf(first, "acc_queue"), nullptr);
    EXPECT_NE(ElementOf(second, "acc_queue"), nullptr);
    EXPECT_NE(ElementOf(second, "aac_encode_sink1"), nullptr);
}

TEST(AacEncodePipeline, EncodesTheMicrophoneTo48kStereoAac)
{
    VideoDaemon::MicInputPipeline mic;
    AacEncodePipeline aac;
    Consumer consumer("aac_test_out");
    ASSERT_TRUE(mic.Launch(false, true, false));
    ASSERT_TRUE(aac.Launch(false, true, true));
    ASSERT_TRUE(consumer.Launch(false, false, false));
    ASSERT_TRUE(aac.ListenTo(&mic, "", ""));
    ASSERT_TRUE(consumer.ListenTo(&aac, "", ""));
    // Producers first: a live listener reaches PLAYING with its first buffer.
    ASSERT_EQ(mic.SetState(GST_STATE_PLAYING, 2000), 0);
    ASSERT_EQ(aac.SetState(GST_STATE_PLAYING, 2000), 0);
    ASSERT_EQ(consumer.SetState(GST_STATE_PLAYING, 2000), 0);

    int frames = 0;
    for (; frames < 20; ++frames) {
        SamplePtr sample(consumer.Pull());
        ASSERT_TRUE(sample) << "after " << frames << " frames";
        const GstStructure* caps = gst_caps_get_structure(gst_sample_get_caps(sample.get()), 0);
        ASSERT_STREQ(gst_structure_get_name(caps), "audio/mpeg");
        int version = 0, rate = 0, channels = 0;
        gst_structure_get_int(caps, "mpegversion", &version);
        gst_structure_get_int(caps, "rate", &rate);
        gst_structure_get_int(caps, "channels", &channels);
        EXPECT_EQ(version, 4);
        EXPECT_EQ(rate, 48000);
        EXPECT_EQ(channels, 2);
        EXPECT_GT(gst_buffer_get_size(gst_sample_get_buffer(sample.get())), 0u);
    }
    consumer.SetState(GST_STATE_NULL);
    aac.SetState(GST_STATE_NULL);
    mic.SetState(GST_STATE_NULL);
}
