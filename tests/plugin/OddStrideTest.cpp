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

// Three-channel frames of the texture moving by (2, 1) a frame, packed, in the pixel type's
// samples: 16-bit words up to `white`, or floats in 0..1.
std::vector<uint8_t> PackedFrame(int32_t type, int32_t t, float white) {
  const int32_t bytes = type == 2 ? 4 : 2;
  std::vector<uint8_t> out(static_cast<size_t>(kWidth) * kHeight * 3 * bytes);
  size_t i = 0;
  for (int32_t y = 0; y < kHeight; ++y)
    for (int32_t x = 0; x < kWidth; ++x)
      for (int32_t c = 0; c < 3; ++c, i += bytes) {
        const double v = plugintest::Texture(x + 2.0 * t, y + 1.0 * t, c);
        const float f = static_cast<float>(v);
        const uint16_t w = static_cast<uint16_t>(v * white + 0.5);
        std::memcpy(&out[i], type == 2 ? static_cast<const void*>(&f) : &w, bytes);
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

// CalculateFlow from frame 1 to frame 0, then RenderBlur of frame 1, every image placed at
// `offset` with `pad`. Returns the output and the three inputs as they are afterwards (a
// white point other than 65535 rescales them in place).
std::vector<std::vector<uint8_t>> RunDirect(int32_t type, int32_t mode, float amount, float white,
                                            int32_t offset, int32_t pad, int32_t rowOrder) {
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

class OddAddressCalls : public plugintest::PluginTest,
                        public testing::WithParamInterface<DirectCase> {};

// Every start offset 1 to 3 (odd for 16-bit words, off the 4-byte grid for floats), with
// packed and odd-padded rows, top-down and bottom-up, against the aligned packed run.
TEST_P(OddAddressCalls, SameResultAsAlignedBuffers) {
  const DirectCase& c = GetParam();
  const auto aligned = RunDirect(c.type, c.mode, c.amount, c.white, 0, 0, 1);
  EXPECT_NE(aligned[0], aligned[3]);  // the output really is a rendered frame
  for (int32_t offset : {1, 2, 3})
    for (int32_t pad : {0, 3})
      for (int32_t rowOrder : {1, 0}) {
        if (rowOrder == 0 && offset != 1) continue;
        SCOPED_TRACE("offset " + std::to_string(offset) + " pad " + std::to_string(pad) +
                     " row order " + std::to_string(rowOrder));
        EXPECT_TRUE(RunDirect(c.type, c.mode, c.amount, c.white, offset, pad, rowOrder) == aligned);
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
