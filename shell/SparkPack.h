// flowblur: conversions between the host's packed frames and the plug-in's working buffers.
#pragma once
#include <cstdint>

#include "shell/spark.h"

// The operations themselves (sparkCombineBuffers, sparkUnCombineBuffers,
// sparkCombine16FBuffers and their _mp workers) are exported and declared in spark.h.
//
// Buffers are contiguous, with no row padding: pixel k lies at k x bytes per pixel. The
// host splits the frame among its processors (sparkMpInfo); each worker converts its own
// pixels. By FormatCode:
//   24, 25  host 3 bytes            <-> combined 4 bytes: channels, then matte byte 0
//   48, 64  host 3 x 16 bits (12 significant bits at the top)
//                                   <-> combined 4 x 16 bits holding the 12 bits low
//   49      host 3 half floats      <-> 3 x 32-bit floats
// Uncombining 48/64 writes into the frame's existing words and keeps their four low bits.
// Null info or pixel pointers and unknown formats make a worker do nothing. The three
// pointers live in statics for the length of one fork: conversions must not overlap.

// Half to float, exact for all 65536 values (NaN payloads kept).
float SparkHalfToFloat(uint16_t half);
// Float to half: rounds on bit 12 alone (nearest, ties away from zero); overflow gives
// infinity; a NaN stays a NaN; values below 2^-25 in magnitude give +0 whatever their sign
// (negative values from 2^-25 up keep it).
uint16_t SparkFloatToHalf(float value);

// n floats at src to n halves at dst by SparkFloatToHalf (no alignment asked). Sixteen at a
// time in AVX2 lanes where PLWideChosen() (runtime/PLWidePath.h), with the same bits.
void SparkFloatsToHalves(unsigned char* dst, const unsigned char* src, uint64_t n);
// The same on a given loop, for tests that compare the two: wide only where
// PLWideAvailable().
void SparkFloatsToHalvesOnPath(bool wide, unsigned char* dst, const unsigned char* src,
                               uint64_t n);
// The wide loop (SparkPackWide.cpp): the first multiple of 16 of the n samples; returns
// how many it converted. Only where PLWideAvailable(); a FLOWBLUR_PLAIN_ONLY build has none.
uint64_t SparkFloatsToHalvesWide(unsigned char* dst, const unsigned char* src, uint64_t n);
