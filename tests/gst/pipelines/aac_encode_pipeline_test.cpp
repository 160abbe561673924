// AacEncodePipeline: instance numbering, the shared queue name, AAC encoded from the microphone.
#include <syslog.h>

#include "pipeline_harness.h"
#include "pipelines/aac_encode_pipeline.h"
#include "pipelines/mic_input_pipeline.h"
#include "support/death_test_style.h"

using namespace PipelineHarness;
using VideoDaemon::AacEncodePipeline;

TEST(AacEncodePipelineDeathTest, TheFirstInstanceOfAProcessIsNumberedZero)
{
    GstTest::UseFreshProcessDeathTests();
    EXPECT_EXIT(
        {
            AacEncodePipeline aac;
            fprintf(stderr, "[%s %s]", aac.GetSourceName().c_str(), aac.GetSinkName().c_str());
            exit(0);
        },
        ::testing::ExitedWithCode(0), "\\[aac_encode_source0 aac_encode_sink0\\]");
}

// Whichever instances the process made before, the next two take the next two numbers; both marks of the
// template are replaced and the queue's name is shared.
TEST(AacEncodePipeline, NumbersItsInstancesInOrderSharesTheQueueNameAndEncodesTheMicrophoneTo48kStereoAac)
{
    VideoDaemon::MicInputPipeline mic;
    AacEncodePipeline aac;
    AacEncodePipeline second;
    const std::string number = aac.GetSourceName().substr(std::string("aac_encode_source").size());
    ASSERT_FALSE(number.empty());
    const std::string next = std::to_string(std::stoul(number) + 1);
    EXPECT_EQ(aac.GetSinkName(), "aac_encode_sink" + number);
    EXPECT_EQ(second.GetSourceName(), "aac_encode_source" + next);
    EXPECT_EQ(second.GetSinkName(), "aac_encode_sink" + next);
    ASSERT_TRUE(second.Launch(false, false, false));
    Consumer consumer("aac_test_out");
    ASSERT_TRUE(mic.Launch(false, true, false));
    ASSERT_TRUE(aac.Launch(false, true, true));
    for (AacEncodePipeline* instance : { &aac, &second })
        for (const std::string& name :
            { instance->GetSourceName(), instance->GetSinkName(), std::string("acc_queue") })
            EXPECT_NE(ElementOf(*instance, name), nullptr) << name;
    ASSERT_TRUE(consumer.Launch(false, false, false));
    ASSERT_TRUE(aac.ListenTo(&mic, "", ""));
    ASSERT_TRUE(consumer.ListenTo(&aac, "", ""));
    // Producers first: a live listener reaches PLAYING with its first buffer.
    ASSERT_EQ(mic.SetState(GST_STATE_PLAYING, 2000), 0);
    ASSERT_EQ(aac.SetState(GST_STATE_PLAYING, 2000), 0);
    ASSERT_EQ(consumer.SetState(GST_STATE_PLAYING, 2000), 0);

    for (int frame = 0; frame < 20; ++frame) {
        GstSamplePtr sample(consumer.Pull());
        ASSERT_TRUE(sample) << "frame " << frame;
        EXPECT_GT(gst_buffer_get_size(gst_sample_get_buffer(sample.get())), 0u) << "frame " << frame;
        const GstStructure* caps = gst_caps_get_structure(gst_sample_get_caps(sample.get()), 0);
        int version = 0, rate = 0, channels = 0;
        gst_structure_get_int(caps, "mpegversion", &version);
        gst_structure_get_int(caps, "rate", &rate);
        gst_structure_get_int(caps, "channels", &channels);
        EXPECT_EQ(std::string(gst_structure_get_name(caps)) + " " + std::to_string(version) + " "
                + std::to_string(rate) + " " + std::to_string(channels),
            "audio/mpeg 4 48000 2")
            << "frame " << frame;
    }
    consumer.SetState(GST_STATE_NULL);
    aac.SetState(GST_STATE_NULL);
    mic.SetState(GST_STATE_NULL);
}
