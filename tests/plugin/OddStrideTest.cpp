// flowblur tests: images for the flow and render calls whose rows sit at odd addresses (odd
// start offsets, odd strides, bottom-up rows) give the same pixels as the same images laid
// out evenly. (Odd strides through the driver are in the render tests.)
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "host/SparkHost.h"
#include "shell/shell.h"
#include "tests/plugin/PluginTestSupport.h"

namespace {

// Draft works at a quarter of this, which still leaves the estimator two levels.
constexpr int32_t kWidth = 128;
constexpr int32_t kHeight = 96;

struct DirectCase {
  int32_t type;  // 1 UShort, 2 Float
  int32_t mode;  // 1 Best, 2 Draft
  float amount;
  float white;
};

// Three-channel frames of the texture moving by (2, 1) a frame, in rows `rowBytes` apart
// from `offset` bytes into the block, bottom-up when `rowOrder` is 0; the rest of the block
// holds a marker. Samples are 16-bit words up to `white`, or floats in 0..1.
struct Placed {
  int32_t offset, rowBytes, rowOrder;
  std::vector<uint8_t> block;
  uint8_t* Pixels() { return block.data() + offset; }
  uint8_t* Row(int32_t y) { return Pixels() + (rowOrder == 1 ? y : kHeight - 1 - y) * rowBytes; }
  std::vector<uint8_t> Packed(int32_t bytes) {
    std::vector<uint8_t> out;
    for (int32_t y = 0; y < kHeight; ++y) out.insert(out.end(), Row(y), Row(y) + kWidth * bytes);
    return out;
  }
};

Placed Frame(const DirectCase& c, int32_t t, int32_t offset, int32_t pad, int32_t rowOrder) {
  const int32_t bytes = c.type == 2 ? 4 : 2;
  Placed p{offset, kWidth * 3 * bytes + pad, rowOrder, {}};
  p.block.assign(static_cast<size_t>(offset + p.rowBytes * kHeight + 16), 0x5A);
  for (int32_t y = 0; y < kHeight; ++y)
    for (int32_t i = 0; i < kWidth * 3; ++i) {
      const double v = plugintest::Texture(i / 3 + 2.0 * t, y + 1.0 * t, i % 3);
      const float f = static_cast<float>(v);
      const uint16_t w = static_cast<uint16_t>(v * c.white + 0.5);
      std::memcpy(p.Row(y) + i * bytes, c.type == 2 ? static_cast<const void*>(&f) : &w, bytes);
    }
  return p;
}

// CalculateFlow from frame 1 to frame 0, then RenderBlur of frame 1, every image placed at
// `offset` with `pad`. Returns the output and the three inputs as they are afterwards (a
// white point other than 65535 rescales them in place).
std::vector<std::vector<uint8_t>> RunDirect(const DirectCase& c, int32_t offset, int32_t pad,
                                            int32_t rowOrder) {
  Width = kWidth;
  Height = kHeight;
  Placed first = Frame(c, 1, offset, pad, rowOrder), second = Frame(c, 0, offset, pad, rowOrder);
  Placed front = Frame(c, 1, offset, pad, rowOrder), output = Frame(c, 5, offset, pad, rowOrder);
  PLOpticalFlowUChar* estimator = CreateFlowEstimator(kWidth, kHeight, c.mode);
  EXPECT_NE(estimator, nullptr);
  EXPECT_EQ(CalculateFlow(estimator, first.Pixels(), kWidth, kHeight, first.rowBytes, rowOrder,
                          second.Pixels(), kWidth, kHeight, second.rowBytes, rowOrder, c.type,
                          false, 0.7f, c.white),
            0);
  EXPECT_EQ(RenderBlur(estimator, output.Pixels(), kWidth, kHeight, output.rowBytes, rowOrder,
                       front.Pixels(), kWidth, kHeight, front.rowBytes, rowOrder, c.type, c.amount,
                       c.white),
            0);
  DestroyFlowEstimator(estimator);
  const int32_t bytes = c.type == 2 ? 4 : 2;
  return {output.Packed(bytes), first.Packed(bytes), second.Packed(bytes), front.Packed(bytes)};
}

class OddAddressCalls : public plugintest::PluginTest,
                        public testing::WithParamInterface<DirectCase> {};

// Every start offset 1 to 3 (odd for 16-bit words, off the 4-byte grid for floats), with
// packed and odd-padded rows, top-down and bottom-up, against the aligned packed run.
TEST_P(OddAddressCalls, SameResultAsAlignedBuffers) {
  const DirectCase& c = GetParam();
  const auto aligned = RunDirect(c, 0, 0, 1);
  EXPECT_NE(aligned[0], aligned[3]);  // the output really is a rendered frame
  for (int32_t offset : {1, 2, 3})
    for (int32_t pad : {0, 3})
      for (int32_t rowOrder : {1, 0}) {
        if (rowOrder == 0 && offset != 1) continue;
        SCOPED_TRACE("offset " + std::to_string(offset) + " pad " + std::to_string(pad) +
                     " row order " + std::to_string(rowOrder));
        EXPECT_TRUE(RunDirect(c, offset, pad, rowOrder) == aligned);
      }
}

INSTANTIATE_TEST_SUITE_P(Types, OddAddressCalls,
                         testing::Values(DirectCase{1, 1, 0.5f, 65535.0f},
                                         DirectCase{1, 2, -2.0f, 65535.0f},
                                         // Rescaled in place before and after: the
                                         // 16-bit arithmetic on the host's rows.
                                         DirectCase{1, 1, -2.0f, 32767.0f},
                                         DirectCase{2, 1, 0.5f, 65535.0f},
                                         DirectCase{2, 2, -2.0f, 65535.0f}));

}  // namespace
