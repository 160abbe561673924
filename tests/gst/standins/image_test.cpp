// The picture stand-ins on real pixels: the levelling element turns the
// picture by the roll it reports, the SVG overlay draws its document over the
// frames, the zoom and pan element crops and scales.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace Levelling
{

constexpr int kSize = 64;
constexpr double kMarkerDistance = 20.0;

void OnRoll(GstElement*, double roll, gpointer data)
{
    static_cast<std::vector<double>*>(data)->push_back(roll);
}

// A black square RGBA picture with a white 6x6 marker `kMarkerDistance` pixels right of the centre.
std::vector<guint8> MarkedPicture()
{
    std::vector<guint8> frame(kSize * kSize * 4, 0);
    const int centre_x = kSize / 2 + static_cast<int>(kMarkerDistance);
    for (int y = kSize / 2 - 3; y < kSize / 2 + 3; ++y) {
        for (int x = centre_x - 3; x < centre_x + 3; ++x) {
            guint8* pixel = &frame[(static_cast<size_t>(y) * kSize + x) * 4];
            pixel[0] = pixel[1] = pixel[2] = 255;
        }
    }
    for (size_t i = 3; i < frame.size(); i += 4)
        frame[i] = 255;
    return frame;
}

// Where the marker is, as the clockwise angle in degrees from "right of the centre" (y points down),
// and its distance from the centre.
std::pair<double, double> MarkerPosition(const std::vector<guint8>& frame)
{
    double sum_x = 0, sum_y = 0, count = 0;
    for (int y = 0; y < kSize; ++y) {
        for (int x = 0; x < kSize; ++x) {
            if (frame.at((static_cast<size_t>(y) * kSize + x) * 4) > 128) {
                sum_x += x + 0.5;
                sum_y += y + 0.5;
                ++count;
            }
        }
    }
    if (count == 0)
        return { NAN, 0.0 };
    const double dx = sum_x / count - kSize / 2.0, dy = sum_y / count - kSize / 2.0;
    return { std::atan2(dy, dx) * 180.0 / M_PI, std::hypot(dx, dy) };
}

TEST(TarnwellDsl, TurnsThePictureClockwiseByTheDisplayRollFromTheRollOrTheOverrideInStepsOrContinuously)
{
    TestPipeline harness(FrameLoop("video/x-raw,format=RGBA,width=64,height=64,framerate=30/1",
        "tarnwell-dsl name=dsl silent=false plumbline-enabled=false dsl-enabled=false "
        "rotation-steps=0 rotation-threshold=7 rotation-frames-trigger=15"));
    ASSERT_TRUE(harness.Parsed() && harness.Start()) << harness.Error();
    GstPtr<GstElement> dsl = harness.Element("dsl");
    const std::vector<guint8> picture = MarkedPicture();
    std::vector<double> rolls;
    g_signal_connect(dsl.get(), "camera-roll-changed", G_CALLBACK(OnRoll), &rolls);

    const struct {
        bool enabled;
        double roll;
        guint steps;
        gint override;
        double displayRoll; // also the marker's turn
    } rows[] = {
        { false, 40.0, 0, 0, 0.0 },
        { true, 0.0, 0, 0, 0.0 },
        { true, 90.0, 0, 0, 90.0 },
        { true, -30.0, 0, 0, -30.0 },
        { true, 40.0, 1, 0, 0.0 },
        { true, 50.0, 1, 0, 90.0 },
        { true, -100.0, 1, 0, -90.0 },
        { true, 100.0, 2, 0, 180.0 },
        { true, 80.0, 2, 0, 0.0 },
        { true, 10.0, 0, 45, 45.0 },
        { true, 10.0, 2, 270, -90.0 },
        { false, 10.0, 0, 45, 0.0 },
    };
    for (const auto& row : rows) {
        SCOPED_TRACE("enabled " + std::to_string(row.enabled) + " roll " + std::to_string(row.roll)
            + " steps " + std::to_string(row.steps) + " override " + std::to_string(row.override));
        g_object_set(dsl.get(), "dsl-enabled", row.enabled, "rotation-steps", row.steps, "rotation-override",
            row.override, nullptr);
        g_signal_emit_by_name(dsl.get(), "simulate-camera-angles", row.roll, 0.0);
        double displayRoll = NAN;
        g_object_get(dsl.get(), "display-roll", &displayRoll, nullptr);
        EXPECT_DOUBLE_EQ(displayRoll, row.displayRoll);

        const std::vector<guint8> out = harness.PushFrame(picture);
        ASSERT_EQ(out.size(), picture.size());
        if (row.displayRoll == 0.0) {
            EXPECT_EQ(out, picture) << "a level picture passes unchanged";
            continue;
        }
        const auto [angle, distance] = MarkerPosition(out);
        EXPECT_NEAR(std::remainder(angle - row.displayRoll, 360.0), 0.0, 3.0);
        EXPECT_NEAR(distance, kMarkerDistance, 1.0);
        // The corners turned in from outside are opaque black.
        EXPECT_EQ((std::array { out[0], out[1], out[2], out[3] }), (std::array<guint8, 4> { 0, 0, 0, 255 }));
    }
    // Each roll is reported once, when it changes.
    EXPECT_EQ(rolls, (std::vector<double> { 40.0, 0.0, 90.0, -30.0, 40.0, 50.0, -100.0, 100.0, 80.0, 10.0 }));
}

} // namespace Levelling

namespace Overlay
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

} // namespace Overlay

namespace Tiling
{

constexpr int kWidth = 64;
constexpr int kHeight = 48;
const char* kRgbaCaps = "video/x-raw,format=RGBA,width=64,height=48,framerate=30/1";

struct Rgb {
    int r, g, b;
};

// An opaque RGBA frame painted by `paint(x, y)`.
std::vector<uint8_t> Frame(const std::function<Rgb(int, int)>& paint)
{
    std::vector<uint8_t> frame;
    for (int y = 0; y < kHeight; y++) {
        for (int x = 0; x < kWidth; x++) {
            const Rgb c = paint(x, y);
            frame.insert(frame.end(),
                { static_cast<uint8_t>(c.r), static_cast<uint8_t>(c.g), static_cast<uint8_t>(c.b), 255 });
        }
    }
    return frame;
}

// Red rising with x, green rising with y.
const std::vector<uint8_t> kGradient = Frame([](int x, int y) { return Rgb { x * 4, y * 5, 0 }; });
// Four quadrants: red, green (top right), blue (bottom left), white.
const std::vector<uint8_t> kQuadrants = Frame([](int x, int y) {
    const Rgb colours[4] = { { 255, 0, 0 }, { 0, 255, 0 }, { 0, 0, 255 }, { 255, 255, 255 } };
    return colours[(y >= kHeight / 2) * 2 + (x >= kWidth / 2)];
});

Rgb PixelAt(const std::vector<uint8_t>& frame, int x, int y)
{
    const uint8_t* p = &frame.at((y * kWidth + x) * 4);
    return { p[0], p[1], p[2] };
}

double GetDouble(GstElement* element, const char* name)
{
    double value = 0;
    g_object_get(element, name, &value, nullptr);
    return value;
}

TEST(TarnwellTiling,
    ZoomWhilePlayingShowsTheCentreScaledToTheFullFrameAndZoomOneLeavesItUntouchedAndPanLimitsFollowTheZoom)
{
    TestPipeline harness(FrameLoop(kRgbaCaps, "tarnwell-tiling name=gpu background-mode=2 silent=false"));
    ASSERT_TRUE(harness.Parsed() && harness.Start()) << harness.Error();
    ASSERT_EQ(harness.PushFrame(kGradient), kGradient);

    GstPtr<GstElement> gpu = harness.Element("gpu");
    g_object_set(gpu.get(), "zoom", 2.0, nullptr);
    const std::vector<uint8_t> output = harness.PushFrame(kGradient);
    ASSERT_EQ(output.size(), kGradient.size());
    // At zoom 2 the output pixel (x, y) comes from (16 + x/2, 12 + y/2).
    for (int y = 4; y < kHeight - 4; y += 7) {
        for (int x = 4; x < kWidth - 4; x += 9) {
            const Rgb pixel = PixelAt(output, x, y);
            EXPECT_NEAR(pixel.r, (16 + x / 2.0) * 4, 6) << "x=" << x << " y=" << y;
            EXPECT_NEAR(pixel.g, (12 + y / 2.0) * 5, 6) << "x=" << x << " y=" << y;
        }
    }

    g_object_set(gpu.get(), "zoom", 1.0, nullptr);
    EXPECT_EQ(harness.PushFrame(kGradient), kGradient);

    // After setting the zoom, then the pan (unless NAN): the limits, and the pan as clamped.
    struct Row {
        double zoom, pan_x, pan_y, limit, x, y;
    };
    for (const Row& row : { Row { 1.0, 0.2, 0.1, 0.0, 0.0, 0.0 }, Row { 2.0, 0.1, -0.2, 0.25, 0.1, -0.2 },
             Row { 4.0, 3.0, -0.5, 0.375, 0.375, -0.375 },
             Row { 2.0, NAN, NAN, 0.25, 0.25, -0.25 } }) { // zooming out pulls the pan back inside
        g_object_set(gpu.get(), "zoom", row.zoom, nullptr);
        if (!std::isnan(row.pan_x))
            g_object_set(gpu.get(), "pan-x", row.pan_x, "pan-y", row.pan_y, nullptr);
        for (auto [name, value] :
            { std::pair { "pan-x-min", -row.limit }, { "pan-x-max", row.limit }, { "pan-y-min", -row.limit },
                { "pan-y-max", row.limit }, { "pan-x", row.x }, { "pan-y", row.y } })
            EXPECT_DOUBLE_EQ(GetDouble(gpu.get(), name), value) << name << " at zoom " << row.zoom;
    }
}

TEST(TarnwellTiling, PanToTheLimitsShowsOneQuadrantOnlyInPackedAndPlanarFormats)
{
    // The window reaches exactly the frame's edge at the pan limits.
    for (const std::string format : { "RGBA", "I420", "UYVY" }) {
        SCOPED_TRACE(format);
        TestPipeline harness(FrameLoop(kRgbaCaps,
            "videoconvert ! video/x-raw,format=" + format
                + " ! tarnwell-tiling name=gpu ! videoconvert ! video/x-raw,format=RGBA"));
        ASSERT_TRUE(harness.Parsed() && harness.Start()) << harness.Error();
        GstPtr<GstElement> gpu = harness.Element("gpu");
        g_object_set(gpu.get(), "zoom", 2.0, nullptr);
        g_object_set(gpu.get(), "pan-x", GetDouble(gpu.get(), "pan-x-max"), "pan-y",
            GetDouble(gpu.get(), "pan-y-min"), nullptr);

        const std::vector<uint8_t> output = harness.PushFrame(kQuadrants);
        ASSERT_EQ(output.size(), kQuadrants.size());
        int wrong = 0;
        for (size_t i = 0; i < output.size(); i += 4)
            wrong += output[i] > 40 || output[i + 1] < 215 || output[i + 2] > 40;
        EXPECT_EQ(wrong, 0) << "pixels outside the top-right quadrant's green";

        g_object_set(gpu.get(), "pan-x", GetDouble(gpu.get(), "pan-x-min"), "pan-y",
            GetDouble(gpu.get(), "pan-y-max"), nullptr);
        const Rgb blue = PixelAt(harness.PushFrame(kQuadrants), kWidth / 2, kHeight / 2);
        EXPECT_TRUE(blue.r < 40 && blue.g < 40 && blue.b > 215) << blue.r << "," << blue.g << "," << blue.b;
    }
}

} // namespace Tiling
