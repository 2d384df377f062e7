#include <algorithm>

#include "DemosaicKernel.h"
#include "QvCudaCompDemosaic.h"
#include "QvException.h"
#include "QvLaunch.cuh"
#include "TextureBinding.h"

namespace Qv {
namespace Kernel {

// The demosaic on the CUDA backend. A block of 32 x 8 threads demosaics tiles of 64 x 32
// pixels, each thread a column of two 2 x 2 quads (a quad holds one pixel of every phase). For
// each tile the block turns the raw samples of the tile and a two-sample apron into normalized
// floats in shared memory, eight samples a load; each thread then takes its 6 x 8 window from
// there and stores each of its pixel pairs with one vector store. The blocks stay resident and
// walk the tiles, each fetching the raw samples of its next tile while it demosaics the current
// one. The arithmetic is DemosaicPixel's, as on the host, so both backends give the same bytes.
namespace DemosaicTile {
constexpr int kThreadsX = 32, kThreadsY = 8, kThreads = kThreadsX * kThreadsY;
constexpr int kMinBlocksPerSM = 4;
constexpr int kQuadRows = 2;  // quads a thread does, one under the other
constexpr int kWidth = 2 * kThreadsX, kHeight = 2 * kQuadRows * kThreadsY;
// The shared tile starts eight columns left of the output tile, so that loads of eight samples
// stay aligned, and two rows above it.
constexpr int kLeft = 8, kTop = 2;
constexpr int kCols = kWidth + 2 * kLeft, kRows = kHeight + 2 * kTop;
constexpr int kGroupsPerRow = kCols / 8, kGroups = kGroupsPerRow * kRows;
constexpr int kGroupsPerThread = (kGroups + kThreads - 1) / kThreads;
// Source and target rows must be aligned this far for the vector loads and stores.
constexpr size_t kAlignment = 16;
}  // namespace DemosaicTile

// Eight raw samples, as one load.
template <class S>
struct SEightSamples;
template <>
struct SEightSamples<L_uc> {
  using Type = uint2;
  __device__ static QV_FORCEINLINE uint32_t Get(const Type& q, int i) {
    return ((i < 4 ? q.x : q.y) >> (8 * (i & 3))) & 0xFFu;
  }
  __device__ static QV_FORCEINLINE void Set(Type& q, int i, uint32_t v) {
    (i < 4 ? q.x : q.y) |= v << (8 * (i & 3));
  }
};
template <>
struct SEightSamples<L_us> {
  using Type = uint4;
  __device__ static QV_FORCEINLINE uint32_t& Word(Type& q, int i) {
    return i < 2 ? q.x : (i < 4 ? q.y : (i < 6 ? q.z : q.w));
  }
  __device__ static QV_FORCEINLINE uint32_t Get(Type q, int i) {
    return (Word(q, i) >> (16 * (i & 1))) & 0xFFFFu;
  }
  __device__ static QV_FORCEINLINE void Set(Type& q, int i, uint32_t v) {
    Word(q, i) |= v << (16 * (i & 1));
  }
};

// Stores the pixel pair (x, y), (x + 1, y); the second only where bPair is set.
template <class TTarget>
__device__ QV_FORCEINLINE void StorePixelPair(const SDeviceImageDesc2D& xTarget, int x, int y,
                                              float3 a, float3 b, bool bPair) {
  using E = typename TTarget::Element;
  if (!bPair) {
    StorePixel<TTarget>(xTarget, x, y, make_float4(a.x, a.y, a.z, 1.0f));
    return;
  }
  const uint32_t uAlpha = StoreChannel<TTarget>(1.0f);
  const uint32_t ar = StoreChannel<TTarget>(a.x), ag = StoreChannel<TTarget>(a.y),
                 ab = StoreChannel<TTarget>(a.z);
  const uint32_t br = StoreChannel<TTarget>(b.x), bg = StoreChannel<TTarget>(b.y),
                 bb = StoreChannel<TTarget>(b.z);
  E* p = PixelPtr<TTarget>(xTarget, x, y);
  if constexpr (sizeof(E) == 1) {
    *reinterpret_cast<uint2*>(p) =
        make_uint2(ar | ag << 8 | ab << 16 | uAlpha << 24, br | bg << 8 | bb << 16 | uAlpha << 24);
  } else {
    *reinterpret_cast<uint4*>(p) =
        make_uint4(ar | ag << 16, ab | uAlpha << 16, br | bg << 16, bb | uAlpha << 16);
  }
}

// The raw samples of this thread's groups of the tile whose output starts at (x0, y0).
template <class S>
__device__ QV_FORCEINLINE void FetchGroups(
    typename SEightSamples<S>::Type (&aRaw)[DemosaicTile::kGroupsPerThread],
    const SDeviceImageDesc2D& xSource, int x0, int y0) {
  using namespace DemosaicTile;
  using E = typename S::Element;
  using Load = SEightSamples<S>;
  const int iW = xSource.xFormat.iWidth, iH = xSource.xFormat.iHeight;
  const int iThread = static_cast<int>(threadIdx.y) * kThreadsX + static_cast<int>(threadIdx.x);
#pragma unroll
  for (int k = 0; k < kGroupsPerThread; ++k) {
    const int g = iThread + k * kThreads;
    aRaw[k] = typename Load::Type{};
    if (kGroups % kThreads != 0 && g >= kGroups) continue;
    const int r = g / kGroupsPerRow, sx = x0 - kLeft + (g - r * kGroupsPerRow) * 8;
    const E* pRow = PixelPtr<S>(xSource, 0, min(max(y0 - kTop + r, 0), iH - 1));
    if (sx >= 0 && sx + 7 < iW) {
      aRaw[k] = __ldg(reinterpret_cast<const typename Load::Type*>(pRow + sx));
    } else {  // the edge repeats outside the image
#pragma unroll
      for (int i = 0; i < 8; ++i) Load::Set(aRaw[k], i, pRow[min(max(sx + i, 0), iW - 1)]);
    }
  }
}

// The fetched samples, normalized as ReadChannel does, into the shared tile.
template <class S>
__device__ QV_FORCEINLINE void StoreGroups(
    const typename SEightSamples<S>::Type (&aRaw)[DemosaicTile::kGroupsPerThread],
    float (&afTile)[DemosaicTile::kRows][DemosaicTile::kCols]) {
  using namespace DemosaicTile;
  using Load = SEightSamples<S>;
  const int iThread = static_cast<int>(threadIdx.y) * kThreadsX + static_cast<int>(threadIdx.x);
#pragma unroll
  for (int k = 0; k < kGroupsPerThread; ++k) {
    const int g = iThread + k * kThreads;
    if (kGroups % kThreads != 0 && g >= kGroups) continue;
    const int r = g / kGroupsPerRow, c = (g - r * kGroupsPerRow) * 8;
    float v[8];
#pragma unroll
    for (int i = 0; i < 8; ++i) {
      // The sample as a float, exactly and without the conversion unit: placed in the mantissa
      // of 2^23, which is then taken away.
      const float f = __uint_as_float(0x4B000000u | Load::Get(aRaw[k], i)) - 8388608.0f;
      v[i] = DivideByStoreScale(f, S::fStoreScale);
    }
    *reinterpret_cast<float4*>(&afTile[r][c]) = make_float4(v[0], v[1], v[2], v[3]);
    *reinterpret_cast<float4*>(&afTile[r][c + 4]) = make_float4(v[4], v[5], v[6], v[7]);
  }
}

template <class TTarget, class S, int ePattern>
__global__ void __launch_bounds__(DemosaicTile::kThreads, DemosaicTile::kMinBlocksPerSM)
    DemosaicImage(SDeviceImageDesc2D xTarget, SDeviceImageDesc2D xSource, SBayerGains xGains) {
  using namespace DemosaicTile;
  __shared__ __align__(16) float afTile[kRows][kCols];
  const int iW = xSource.xFormat.iWidth, iH = xSource.xFormat.iHeight;
  const int iTilesX = (iW + kWidth - 1) / kWidth, iTiles = iTilesX * ((iH + kHeight - 1) / kHeight);
  const int tx = static_cast<int>(threadIdx.x), ty = static_cast<int>(threadIdx.y);

  typename SEightSamples<S>::Type aRaw[kGroupsPerThread];
  int iTile = static_cast<int>(blockIdx.x);
  if (iTile < iTiles)
    FetchGroups<S>(aRaw, xSource, (iTile % iTilesX) * kWidth, (iTile / iTilesX) * kHeight);
  for (; iTile < iTiles; iTile += static_cast<int>(gridDim.x)) {
    const int x0 = (iTile % iTilesX) * kWidth, y0 = (iTile / iTilesX) * kHeight;
    __syncthreads();  // the last tile's windows have been read
    StoreGroups<S>(aRaw, afTile);
    __syncthreads();
    const int iNext = iTile + static_cast<int>(gridDim.x);
    if (iNext < iTiles)
      FetchGroups<S>(aRaw, xSource, (iNext % iTilesX) * kWidth, (iNext / iTilesX) * kHeight);

    const int x = x0 + 2 * tx, y = y0 + 2 * kQuadRows * ty;
    if (x >= iW || y >= iH) continue;
    // Window rows y - 2 .. y + 2 kQuadRows + 1 and columns x - 2 .. x + 3.
    float w[2 * kQuadRows + 4][6];
#pragma unroll
    for (int i = 0; i < 2 * kQuadRows + 4; ++i)
#pragma unroll
      for (int j = 0; j < 6; j += 2) {
        const float2 p = *reinterpret_cast<const float2*>(
            &afTile[2 * kQuadRows * ty + i][2 * tx + kLeft - 2 + j]);
        w[i][j] = p.x;
        w[i][j + 1] = p.y;
      }
    const bool bPair = x + 1 < iW;
#pragma unroll
    for (int dy = 0; dy < 2 * kQuadRows; ++dy) {
      float3 c[2];
#pragma unroll
      for (int dx = 0; dx < 2; ++dx)
        c[dx] = DemosaicPixel(BayerPhase(ePattern, dx, dy), xGains,
                              [&](int i, int j) { return w[2 + dy + j][2 + dx + i]; });
      if (y + dy < iH) StorePixelPair<TTarget>(xTarget, x, y + dy, c[0], c[1], bPair);
    }
  }
}

template <class TTarget, class S, int ePattern>
void LaunchTiles(const SDeviceImageDesc2D& xTarget, const SDeviceImageDesc2D& xSource,
                 const SBayerGains& xGains, cudaStream_t hStream) {
  using namespace DemosaicTile;
  // Once a kernel instance (the device does not change); fewer blocks for small images.
  // The resident blocks walk all tiles.
  static const unsigned s_uResident =
      ResidentBlocks(DemosaicImage<TTarget, S, ePattern>, DemosaicTile::kThreads);
  const int iTiles = ((xSource.xFormat.iWidth + kWidth - 1) / kWidth) *
                     ((xSource.xFormat.iHeight + kHeight - 1) / kHeight);
  const unsigned uBlocks = std::min(s_uResident, static_cast<unsigned>(iTiles));
  DemosaicImage<TTarget, S, ePattern>
      <<<uBlocks, dim3(kThreadsX, kThreadsY), 0, hStream>>>(xTarget, xSource, xGains);
}

template <class TTarget, class S>
void LaunchDemosaicTiles(const SDeviceImageDesc2D& xTarget, const SDeviceImageDesc2D& xSource,
                         int32_t eBayerType, const SBayerGains& xGains, cudaStream_t hStream) {
  switch (eBayerType) {
    case EPixelType::BayerRG:
      LaunchTiles<TTarget, S, EPixelType::BayerRG>(xTarget, xSource, xGains, hStream);
      break;
    case EPixelType::BayerBG:
      LaunchTiles<TTarget, S, EPixelType::BayerBG>(xTarget, xSource, xGains, hStream);
      break;
    case EPixelType::BayerGR:
      LaunchTiles<TTarget, S, EPixelType::BayerGR>(xTarget, xSource, xGains, hStream);
      break;
    default:
      LaunchTiles<TTarget, S, EPixelType::BayerGB>(xTarget, xSource, xGains, hStream);
      break;
  }
}

}  // namespace Kernel

namespace {

bool IsAligned(const CQvDeviceImage2D& xImage, size_t uAlignment) {
  return reinterpret_cast<uintptr_t>(xImage.GetDevicePointer()) % uAlignment == 0 &&
         xImage.GetDevicePitch() % uAlignment == 0;
}

template <class TTarget, class S>
void LaunchDemosaic(CQvCudaComp& xComp, const char* szName, CQvDeviceImage2D& xTarget,
                    const CQvDeviceImage2D& xSource, const Kernel::SBayerGains& xGains) {
  const CQvImageFormat& xFormat = xTarget.GetFormat();
  const int32_t eBayerType = xSource.GetFormat().ePixelType;
  if (Device::IsCuda() && IsAligned(xSource, Kernel::DemosaicTile::kAlignment) &&
      IsAligned(xTarget, Kernel::DemosaicTile::kAlignment)) {
    xComp.Begin(szName, xComp.GetStream());
    Kernel::LaunchDemosaicTiles<TTarget, S>(xTarget.GetDesc(), xSource.GetDesc(), eBayerType,
                                            xGains, xComp.GetStream());
    xComp.End(szName, xComp.GetStream());
    return;
  }
  if (Device::IsCuda()) {
    // Images that do not allow the tile's vector accesses: one pixel a thread, through the
    // texture.
    CTextureBinding xBinding(xSource, false, false, cudaAddressModeClamp);
    const Kernel::FDemosaic<TTarget, S> fnPixel{xTarget.GetDesc(), xBinding.Get(), eBayerType,
                                                xGains};
    LaunchPerPixel(xComp, szName, xFormat.iWidth, xFormat.iHeight, fnPixel);
    return;
  }
  const SDeviceImageDesc2D xTrg = xTarget.GetDesc(), xSrc = xSource.GetDesc();
  LaunchHostRows(xComp, szName, xFormat.iHeight, xFormat.iWidth, [&](int y0, int y1) {
    Kernel::HostDemosaicRows<TTarget, S>(xTrg, xSrc, eBayerType, xGains, y0, y1);
  });
}

}  // namespace

CQvCudaCompDemosaic::CQvCudaCompDemosaic() = default;

CQvCudaCompDemosaic::~CQvCudaCompDemosaic() = default;

void CQvCudaCompDemosaic::Debayer(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource,
                                  float fRedGain, float fGreenGain, float fBlueGain) {
  try {
    const CQvImageFormat& xSrcFormat = xSource.GetFormat();
    if (!IsBayerPixelType(xSrcFormat.ePixelType))
      QV_THROW("The given source image is not of bayer pixel type");
    if (xSrcFormat.eDataType != EDataType::UByte && xSrcFormat.eDataType != EDataType::UShort)
      QV_THROW("The given source image is not of UByte or UShort data type");
    if (&xTarget == &xSource) QV_THROW("Target and source must be different images");

    CQvImageFormat xTrgFormat = xSrcFormat;
    xTrgFormat.ePixelType = EPixelType::RGBA;
    xTarget.Create(xTrgFormat);
    EvalKernelDim_2D_1D(xTrgFormat, 32, 8);
    const Kernel::SBayerGains xGains{fRedGain, fGreenGain, fBlueGain};
    const char* szName = "Debayer --> Kernel::DemosaicImage";
    if (xSrcFormat.eDataType == EDataType::UByte)
      LaunchDemosaic<RGBA_uc, L_uc>(*this, szName, xTarget, xSource, xGains);
    else
      LaunchDemosaic<RGBA_us, L_us>(*this, szName, xTarget, xSource, xGains);
  } catch (const CQvException& e) {
    QV_RETHROW("Error demosaicing", e);
  }
}

}  // namespace Qv
