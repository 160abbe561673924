// The SVG overlay stand-in draws its document over the frames.
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

constexpr int kWidth = 64;
constexpr int kHeight = 48;

// A red bar 32 units wide over the full height of a 64x48 document.
const char* kLeftHalfRed = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"64\" height=\"48\">"
                           "<rect x=\"0\" y=\"0\" width=\"32\" height=\"48\" fill=\"#ff0000\"/></svg>";
// A 16x16 document filled blue: covers the frame only when fitted.
const char* kSmallBlue = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"16\" height=\"16\">"
                         "<rect x=\"0\" y=\"0\" width=\"16\" height=\"16\" fill=\"#0000ff\"/></svg>";

using Bgr = std::array<uint8_t, 3>;
const Bgr kGrey { 40, 40, 40 };
const Bgr kRed { 0, 0, 255 };
const Bgr kBlue { 255, 0, 0 };

// An opaque grey BGRA frame.
const std::vector<uint8_t> kGreyFrame = [] {
    std::vector<uint8_t> frame(kWidth * kHeight * 4, 40);
    for (size_t i = 3; i < frame.size(); i += 4)
        frame[i] = 255;
    return frame;
}();

Bgr PixelAt(const std::vector<uint8_t>& frame, int x, int y)
{
    const uint8_t* p = &frame.at((y * kWidth + x) * 4);
    return { p[0], p[1], p[2] };
}

// Counts the pixels of a rectangle that have the colour.
int CountColour(const std::vector<uint8_t>& frame, int x0, int y0, int x1, int y1, const Bgr& colour)
{
    int count = 0;
    for (int y = y0; y < y1; y++)
        for (int x = x0; x < x1; x++)
            count += PixelAt(frame, x, y) == colour;
    return count;
}

} // namespace

TEST(RsvgOverlayTarnwell, DrawsTheDocumentWhereItHasContentAtItsOwnSizeOrFittedUnlessDisabledOrUnreadable)
{
    TestPipeline harness(FrameLoop("video/x-raw,format=BGRA,width=64,height=48,framerate=30/1",
        "rsvgoverlaytarnwell name=svg_overlay svg_overlay.src_first"));
    ASSERT_TRUE(harness.Parsed() && harness.Start()) << harness.Error();
    GstPtr<GstElement> overlay = harness.Element("svg_overlay");
    EXPECT_EQ(harness.PushFrame(kGreyFrame), kGreyFrame) << "no document yet";

    g_object_set(overlay.get(), "data", kLeftHalfRed, nullptr);
    const std::vector<uint8_t> output = harness.PushFrame(kGreyFrame);
    ASSERT_EQ(output.size(), kGreyFrame.size());
    EXPECT_EQ(CountColour(output, 0, 0, 32, kHeight, kRed), 32 * kHeight);
    EXPECT_EQ(CountColour(output, 32, 0, kWidth, kHeight, kGrey), 32 * kHeight);

    g_object_set(overlay.get(), "data", kSmallBlue, nullptr);
    const std::vector<uint8_t> replaced = harness.PushFrame(kGreyFrame);
    EXPECT_EQ(CountColour(replaced, 0, 0, 16, 16, kBlue), 16 * 16);
    EXPECT_EQ(PixelAt(replaced, 20, 20), kGrey) << "the red bar is gone";
    EXPECT_EQ(PixelAt(replaced, 40, 30), kGrey) << "a document drawn at its own size";

    g_object_set(overlay.get(), "fit-to-frame", TRUE, nullptr);
    EXPECT_EQ(CountColour(harness.PushFrame(kGreyFrame), 0, 0, kWidth, kHeight, kBlue), kWidth * kHeight)
        << "fitted to the frame";

    g_object_set(overlay.get(), "enabled", FALSE, nullptr);
    EXPECT_EQ(harness.PushFrame(kGreyFrame), kGreyFrame) << "disabled";
    g_object_set(overlay.get(), "enabled", TRUE, "data", "this is not svg", nullptr);
    EXPECT_EQ(harness.PushFrame(kGreyFrame), kGreyFrame) << "an unreadable document draws nothing";
}
