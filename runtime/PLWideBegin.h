// flowblur: every function from here to the include of runtime/PLWideEnd.h is compiled for
// AVX2, for the wide loops of the file that includes both. Callers run them only where
// PLWideChosen() (runtime/PLWidePath.h). The target adds no fused multiply-add, and the build
// keeps -ffp-contract=off. No include guard: one region per include.
#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif
