// flowblur tests: the exported controls and the entry points around frames.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "host/SparkHost.h"
#include "shell/SparkDriver.h"
#include "shell/spark.h"
#include "tests/plugin/PluginTestSupport.h"

namespace {

using plugintest::PluginTest;

// The controls' initial contents. (The host reads them by byte offset; the header's static
// asserts hold each field at its offset.)
TEST(SparkControls, InitialContents) {
  EXPECT_EQ(SparkFloat0.value, 0.5f);
  EXPECT_EQ(SparkFloat0.minimum, -2.0f);
  EXPECT_EQ(SparkFloat0.maximum, 10.0f);
  EXPECT_EQ(SparkFloat0.increment, 0.05f);
  EXPECT_STREQ(SparkFloat0.title, "Amount of Blur %5.2f");
  EXPECT_EQ(SparkPup1.count, 2);
  EXPECT_EQ(SparkPup1.value, 0);
  EXPECT_STREQ(SparkPup1.titles[0], "Best Quality");
  EXPECT_STREQ(SparkPup1.titles[1], "Draft Quality");
  for (int i = 2; i < kSparkPupTitles; ++i) EXPECT_EQ(SparkPup1.titles[i], nullptr) << i;
  EXPECT_STREQ(SparkBoolean2.title, "Motion From Back");
  EXPECT_EQ(SparkBoolean2.value, 0);
  for (uint8_t b : SparkFloat0.reserved0) EXPECT_EQ(b, 0);
  for (uint8_t r : SparkBoolean2.reserved0) EXPECT_EQ(r, 0);
  // The title that the host prints the value into.
  char text[64];
  std::snprintf(text, sizeof text, SparkFloat0.title, static_cast<double>(SparkFloat0.value));
  EXPECT_STREQ(text, "Amount of Blur  0.50");
}

// Initialise tells the user of a version below 4 (NaN passes) and loads the setup whatever
// it says; UnInitialise saves it, so the controls survive the two.
TEST_F(PluginTest, InitialiseTestsTheVersionAndControlsSurviveUnInitialise) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const std::pair<float, bool> cases[] = {{4.0f, false}, {4.5f, false},
                                          {std::nextafter(4.0f, 0.0f), true},
                                          {3.0f, true},  {-1.0f, true}, {nan, false}};
  spark_info_struct info{};
  for (const auto& [version, told] : cases) {
    sparkhost::Reset();
    sparkhost::SetAPIVersion(version);
    info.FrameNo = 1234;
    EXPECT_EQ(SparkInitialise(info), 1);
    std::vector<sparkhost::Note> want;
    if (told) want.push_back({sparkhost::Note::kError, "The version doesn't support this plug-in"});
    EXPECT_EQ(sparkhost::Notes(), want) << version;
    EXPECT_EQ(sparkhost::Calls().apiVersion, 1);
    std::vector<sparkhost::SetupCall> setups = sparkhost::SetupCalls();
    ASSERT_EQ(setups.size(), 1u);
    EXPECT_FALSE(setups[0].save);
    EXPECT_NE(setups[0].info, nullptr);
    EXPECT_EQ(setups[0].copy.FrameNo, 1234);
  }
  sparkhost::AddSetupValue("SparkFloat0", &SparkFloat0, sizeof SparkFloat0);
  sparkhost::AddSetupValue("SparkBoolean2", &SparkBoolean2, sizeof SparkBoolean2);
  SparkFloat0.value = 2.25f;
  SparkBoolean2.value = 1;
  info.FrameNo = 77;
  SparkUnInitialise(info);
  ASSERT_EQ(sparkhost::SetupCalls().size(), 2u);
  EXPECT_TRUE(sparkhost::SetupCalls()[1].save);
  EXPECT_EQ(sparkhost::SetupCalls()[1].copy.FrameNo, 77);
  SparkFloat0.value = 0.5f;
  SparkBoolean2.value = 0;
  SparkInitialise(info);
  EXPECT_EQ(SparkFloat0.value, 2.25f);
  EXPECT_EQ(SparkBoolean2.value, 1);
}

TEST_F(PluginTest, SmallEntryPoints) {
  EXPECT_EQ(SparkClips(), 2);
  EXPECT_EQ(SparkProcessStart(), 1);
  // SetUp registered the first temporary buffer.
  EXPECT_EQ(TempBufferId, sparkhost::kFirstTempBuffer);
  SparkMemoryTempBuffers();
  EXPECT_EQ(TempBufferId, sparkhost::kFirstTempBuffer + 1);
  EXPECT_EQ(sparkhost::RegisteredBuffers(), 2);
  for (int format = -300; format <= 300; ++format) {
    bool want = format == 24 || format == 25 || format == 48 || format == 49 || format == 64;
    EXPECT_EQ(SparkIsInputFormatSupported(format), want) << format;
  }
  EXPECT_FALSE(SparkIsInputFormatSupported(std::numeric_limits<int>::min()));
  EXPECT_FALSE(SparkIsInputFormatSupported(std::numeric_limits<int>::max()));
}

TEST_F(PluginTest, CallbackProcessesAndRedrawsOnlyForReasonOne) {
  sparkhost::SetClip(0, plugintest::Layout(8, 8, 26), 2);  // a format nothing processes
  sparkhost::SetClip(1, plugintest::Layout(8, 8, 26), 2);
  spark_info_struct info = sparkhost::BeginFrame(0);
  for (int reason : {0, 2, -1, 100}) EXPECT_EQ(sparkCallback(reason, info), nullptr) << reason;
  EXPECT_EQ(sparkhost::Calls().cursorBusy + sparkhost::Calls().viewingDraw, 0);
  EXPECT_EQ(sparkCallback(1, info), sparkhost::BufferPixels(sparkhost::kResultBuffer));
  EXPECT_EQ(sparkhost::Calls().cursorBusy, 1);
  EXPECT_EQ(sparkhost::Calls().viewingDraw, 1);
  // A null from SparkProcess is handed on, and the viewer is redrawn all the same.
  sparkhost::FailGetBuffer(sparkhost::kResultBuffer);
  EXPECT_EQ(sparkCallback(1, info), nullptr);
  EXPECT_EQ(sparkhost::Calls().cursorBusy, 2);
  EXPECT_EQ(sparkhost::Calls().viewingDraw, 2);
}

TEST(SparkFrame, PixelCountIsMultipliedIn32Bits) {
  const int32_t w = Width, h = Height;
  const int64_t rows[][3] = {{1920, 1080, 2073600},
                             {50000, 50000, 2500000000LL - 4294967296LL},
                             {65536, 65536, 0},
                             {-3, 7, -21}};
  for (const auto& r : rows) {
    Width = static_cast<int32_t>(r[0]);
    Height = static_cast<int32_t>(r[1]);
    EXPECT_EQ(NuvMPSparkGetNumberOfFramePixels(), r[2]) << r[0] << " x " << r[1];
  }
  Width = w;
  Height = h;
}

}  // namespace
