// flowblur: ends the AVX2 region that runtime/PLWideBegin.h opened.
#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif
