// flowblur tests: host frames whose rows sit at odd addresses (odd strides, odd buffer
// starts) give the same pixels as the same frames laid out evenly.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "host/SparkHost.h"
#include "shell/shell.h"
#include "tests/plugin/PluginTestSupport.h"

namespace {

using plugintest::ClipFramePixels;
using plugintest::Encode;
using plugintest::Layout;
using plugintest::MaxSampleDifference;
using plugintest::ResultPixels;
using plugintest::Texture;
using sparkhost::kResultBuffer;

// Draft works at a quarter of this, which still leaves the estimator two levels.
constexpr int32_t kWidth = 128;
constexpr int32_t kHeight = 96;

// ---- Through the driver: the host hands over 16-bit (and 8-bit) frames with odd strides ----

struct DriverCase {
  int32_t format;
  float amount;
  int32_t quality;  // SparkPup1: 0 Best, 1 Draft
};

std::string DriverName(const testing::TestParamInfo<DriverCase>& info) {
  const DriverCase& c = info.param;
  return "format" + std::to_string(c.format) + (c.amount < 0.0f ? "_sharpen" : "_blur") +
         (c.quality ? "_draft" : "_best");
}

class OddStrideDriver : public plugintest::PluginTest,
                        public testing::WithParamInterface<DriverCase> {
 protected:
  // Frame 2 of a clip moving by (2, 1) a frame, every buffer at the clip's layout; `pad`
  // bytes after each row (0: packed). Returns the packed result.
  std::vector<uint8_t> Run(int32_t pad) {
    const DriverCase& c = GetParam();
    sparkhost::Reset();
    SparkMemoryTempBuffers();
    MakeClips(Layout(kWidth, kHeight, c.format, pad), 4, 2.0, 1.0);
    SparkFloat0.value = c.amount;
    SparkPup1.value = c.quality;
    spark_info_struct info = sparkhost::BeginFrame(2);
    EXPECT_EQ(SparkProcess(info), sparkhost::BufferPixels(kResultBuffer));
    EXPECT_TRUE(sparkhost::Notes().empty()) << sparkhost::Notes()[0].text;
    return ResultPixels();
  }
};

// Odd strides put every second row at an odd address, in the frames, the temporary buffer
// and the result alike. Half-float frames (49) are left out: their conversion takes rows as
// packed whatever the stride, and the library then sees only its own float planes.
TEST_P(OddStrideDriver, SameResultAsPackedRows) {
  const int32_t format = GetParam().format;
  const std::vector<uint8_t> packed = Run(0);
  // The frame really changed: the comparison below is between two rendered frames.
  EXPECT_GT(MaxSampleDifference(packed, ClipFramePixels(0, 2), format), 0);
  for (int32_t pad : {3, 5}) {
    std::vector<uint8_t> odd = Run(pad);
    ASSERT_EQ(odd.size(), packed.size());
    EXPECT_EQ(MaxSampleDifference(odd, packed, format), 0) << "pad " << pad;
    EXPECT_TRUE(odd == packed) << "pad " << pad;
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, OddStrideDriver,
                         testing::Values(DriverCase{48, 0.5f, 0}, DriverCase{48, 0.5f, 1},
                                         DriverCase{48, -2.0f, 0}, DriverCase{48, -2.0f, 1},
                                         DriverCase{64, 0.5f, 0}, DriverCase{64, -2.0f, 1},
                                         DriverCase{24, -2.0f, 0}),
                         DriverName);

// ---- Through the flow and render calls: buffers that start at any address ----

// Three-channel frames of the texture moving by (2, 1) a frame, packed, in the pixel type's
// samples: 16-bit words up to `white`, or floats in 0..1.
std::vector<uint8_t> PackedFrame(int32_t type, int32_t t, float white) {
  const int32_t bytes = type == 2 ? 4 : 2;
  std::vector<uint8_t> out(static_cast<size_t>(kWidth) * kHeight * 3 * bytes);
  size_t i = 0;
  for (int32_t y = 0; y < kHeight; ++y)
    for (int32_t x = 0; x < kWidth; ++x)
      for (int32_t c = 0; c < 3; ++c, i += bytes) {
        const double v = Texture(x + 2.0 * t, y + 1.0 * t, c);
        if (type == 2) {
          const float f = static_cast<float>(v);
          std::memcpy(&out[i], &f, 4);
        } else {
          const uint16_t w = static_cast<uint16_t>(
              white == 65535.0f ? Encode(v, 48) : static_cast<uint32_t>(v * white + 0.5));
          std::memcpy(&out[i], &w, 2);
        }
      }
  return out;
}

// A packed frame copied into a block at `offset` bytes from its start, rows `pad` bytes
// longer than the pixels and stored bottom-up when `rowOrder` is 0; padding holds a marker.
struct Placed {
  std::vector<uint8_t> block;
  int32_t offset, rowBytes, used, rowOrder;

  Placed(const std::vector<uint8_t>& packed, int32_t offset_, int32_t pad, int32_t rowOrder_)
      : offset(offset_),
        rowBytes(static_cast<int32_t>(packed.size() / kHeight) + pad),
        used(static_cast<int32_t>(packed.size() / kHeight)),
        rowOrder(rowOrder_) {
    block.assign(static_cast<size_t>(offset) + static_cast<size_t>(rowBytes) * kHeight + 16, 0x5A);
    for (int32_t y = 0; y < kHeight; ++y)
      std::memcpy(Row(y), &packed[static_cast<size_t>(y) * used], static_cast<size_t>(used));
  }
  uint8_t* Pixels() { return block.data() + offset; }
  uint8_t* Row(int32_t y) {
    const int32_t stored = rowOrder == 1 ? y : kHeight - 1 - y;
    return Pixels() + static_cast<size_t>(stored) * rowBytes;
  }
  std::vector<uint8_t> Packed() {
    std::vector<uint8_t> out;
    for (int32_t y = 0; y < kHeight; ++y) out.insert(out.end(), Row(y), Row(y) + used);
    return out;
  }
};

struct DirectResult {
  std::vector<uint8_t> output, first, second, front;
};

// CalculateFlow from frame 1 to frame 0, then RenderBlur of frame 1, every image placed at
// `offset` with `pad`. Returns the output and the three inputs as they are afterwards (a
// white point other than 65535 rescales them in place).
DirectResult RunDirect(int32_t type, int32_t mode, float amount, float white, int32_t offset,
                       int32_t pad, int32_t rowOrder) {
  Width = kWidth;
  Height = kHeight;
  Placed first(PackedFrame(type, 1, white), offset, pad, rowOrder);
  Placed second(PackedFrame(type, 0, white), offset, pad, rowOrder);
  Placed front(PackedFrame(type, 1, white), offset, pad, rowOrder);
  Placed output(std::vector<uint8_t>(first.Packed().size(), 0xEE), offset, pad, rowOrder);
  PLOpticalFlowUChar* estimator = CreateFlowEstimator(kWidth, kHeight, mode);
  EXPECT_NE(estimator, nullptr);
  EXPECT_EQ(CalculateFlow(estimator, first.Pixels(), kWidth, kHeight, first.rowBytes, rowOrder,
                          second.Pixels(), kWidth, kHeight, second.rowBytes, rowOrder, type, false,
                          0.7f, white),
            0);
  EXPECT_EQ(RenderBlur(estimator, output.Pixels(), kWidth, kHeight, output.rowBytes, rowOrder,
                       front.Pixels(), kWidth, kHeight, front.rowBytes, rowOrder, type, amount,
                       white),
            0);
  DestroyFlowEstimator(estimator);
  return {output.Packed(), first.Packed(), second.Packed(), front.Packed()};
}

struct DirectCase {
  int32_t type;  // 1 UShort, 2 Float
  int32_t mode;  // 1 Best, 2 Draft
  float amount;
  float white;
};

std::string DirectName(const testing::TestParamInfo<DirectCase>& info) {
  const DirectCase& c = info.param;
  return std::string(c.type == 1 ? "ushort" : "float") + (c.mode == 1 ? "_best" : "_draft") +
         (c.amount < 0.0f ? "_sharpen" : "_blur") + "_white" +
         std::to_string(static_cast<int32_t>(c.white));
}

class OddAddressCalls : public plugintest::PluginTest,
                        public testing::WithParamInterface<DirectCase> {};

// Every start offset 1 to 3 (odd for 16-bit words, off the 4-byte grid for floats), with
// packed and odd-padded rows, top-down and bottom-up, against the aligned packed run.
TEST_P(OddAddressCalls, SameResultAsAlignedBuffers) {
  const DirectCase& c = GetParam();
  const int32_t pixelBytes = c.type == 2 ? 12 : 6;
  const int32_t format = c.type == 2 ? 64 : 48;  // compared as 16-bit words either way
  const DirectResult aligned = RunDirect(c.type, c.mode, c.amount, c.white, 0, 0, 1);
  EXPECT_GT(MaxSampleDifference(aligned.output, aligned.front, format), 0);
  for (int32_t offset : {1, 2, 3})
    for (int32_t pad : {0, 3})
      for (int32_t rowOrder : {1, 0}) {
        if (rowOrder == 0 && offset != 1) continue;
        SCOPED_TRACE("offset " + std::to_string(offset) + " pad " + std::to_string(pad) +
                     " row order " + std::to_string(rowOrder) + " row bytes " +
                     std::to_string(kWidth * pixelBytes + pad));
        const DirectResult odd = RunDirect(c.type, c.mode, c.amount, c.white, offset, pad, rowOrder);
        EXPECT_EQ(MaxSampleDifference(odd.output, aligned.output, format), 0);
        EXPECT_TRUE(odd.output == aligned.output);
        EXPECT_TRUE(odd.first == aligned.first);
        EXPECT_TRUE(odd.second == aligned.second);
        EXPECT_TRUE(odd.front == aligned.front);
      }
}

INSTANTIATE_TEST_SUITE_P(Types, OddAddressCalls,
                         testing::Values(DirectCase{1, 1, 0.5f, 65535.0f},
                                         DirectCase{1, 2, -2.0f, 65535.0f},
                                         // Rescaled in place before and after: the
                                         // 16-bit arithmetic on the host's rows.
                                         DirectCase{1, 1, -2.0f, 32767.0f},
                                         DirectCase{2, 1, 0.5f, 65535.0f},
                                         DirectCase{2, 2, -2.0f, 65535.0f}),
                         DirectName);

}  // namespace
