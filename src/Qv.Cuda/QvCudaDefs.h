#pragma once
// Shared by host and device code: per-pixel functions are written once and marked with
// QV_HD so that the CUDA kernels and the host runner compile the same source.
#include <cuda_runtime_api.h>
#include <vector_functions.h>
#include <vector_types.h>

#if defined(__CUDACC__)
#define QV_HD __host__ __device__
#define QV_FORCEINLINE __forceinline__
#else
#define QV_HD
#define QV_FORCEINLINE inline __attribute__((always_inline))
#endif
