// Compiler and processor features that the tracing loops use, each with a fallback
// where the compiler or the processor lacks it, so that the code builds anywhere
// and uses the feature where it exists.
#pragma once

#if defined(__x86_64__) || defined(__i386__)
#define HEMIRAY_X86 1
#else
#define HEMIRAY_X86 0
#endif

// Compiles a function for AVX2 where the processor family has it; elsewhere the
// function is compiled for the baseline and never chosen (cpuHasAvx2 is false).
#if HEMIRAY_X86 && (defined(__GNUC__) || defined(__clang__))
#define HEMIRAY_TARGET_AVX2 [[gnu::target("avx2")]]
#else
#define HEMIRAY_TARGET_AVX2
#endif

namespace hemiray {

// Asks for the cache line holding p; a hint only.
inline void prefetch(const void* p) {
#if defined(__GNUC__) || defined(__clang__)
    __builtin_prefetch(p);
#else
    (void)p;
#endif
}

// Whether the processor running this process has AVX2.
inline bool cpuHasAvx2() {
#if HEMIRAY_X86 && (defined(__GNUC__) || defined(__clang__))
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
#else
    return false;
#endif
}

}  // namespace hemiray
