// Raster engine: lock conversion against a plain memcpy of the same bytes.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "platform/modGdiPlus.h"

using namespace kestrelyn;

namespace {

constexpr INT kWidth = 6000;
constexpr INT kHeight = 4000;

struct Fixture {
    GpBitmap* bmp = nullptr;
    std::vector<std::uint8_t> argb;
    Fixture() {
        GdipCreateBitmapFromScan0(kWidth, kHeight, 0, PixelFormat24bppRGB, nullptr, &bmp);
        BitmapData d;
        GdipBitmapLockBits(bmp, nullptr, ImageLockModeWrite, PixelFormat24bppRGB, &d);
        auto* p = static_cast<std::uint8_t*>(d.Scan0);
        for (std::size_t i = 0; i < static_cast<std::size_t>(d.Stride) * kHeight; ++i)
            p[i] = static_cast<std::uint8_t>(i * 131 + (i >> 9));
        GdipBitmapUnlockBits(bmp, &d);
        argb.resize(static_cast<std::size_t>(kWidth) * kHeight * 4);
    }
    ~Fixture() { GdipDisposeImage(bmp); }
};

Fixture& Shared() {
    static Fixture f;
    return f;
}

BitmapData UserBuffer(Fixture& f) {
    BitmapData d;
    d.Width = kWidth;
    d.Height = kHeight;
    d.Stride = kWidth * 4;
    d.PixelFormat = PixelFormat32bppARGB;
    d.Scan0 = f.argb.data();
    return d;
}

// 24bppRGB bitmap read into a caller's 32bppARGB buffer (lock mode 5).
void BM_Lock24To32ARGB(benchmark::State& state) {
    Fixture& f = Shared();
    for (auto _ : state) {
        BitmapData d = UserBuffer(f);
        GdipBitmapLockBits(f.bmp, nullptr, 5, PixelFormat32bppARGB, &d);
        GdipBitmapUnlockBits(f.bmp, &d);
        benchmark::DoNotOptimize(f.argb.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(f.argb.size()));
}

// A caller's 32bppARGB buffer written into the 24bppRGB bitmap (lock mode 6).
void BM_Lock32ARGBTo24(benchmark::State& state) {
    Fixture& f = Shared();
    for (auto _ : state) {
        BitmapData d = UserBuffer(f);
        GdipBitmapLockBits(f.bmp, nullptr, 6, PixelFormat32bppARGB, &d);
        GdipBitmapUnlockBits(f.bmp, &d);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(f.argb.size()));
}

// The reference: memcpy of the 32-bit buffer's bytes.
void BM_Memcpy32(benchmark::State& state) {
    Fixture& f = Shared();
    std::vector<std::uint8_t> dst(f.argb.size(), 1);
    for (auto _ : state) {
        std::memcpy(dst.data(), f.argb.data(), f.argb.size());
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(f.argb.size()));
}

} // namespace

BENCHMARK(BM_Memcpy32)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_Lock24To32ARGB)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_Lock32ARGBTo24)->Unit(benchmark::kMillisecond)->MinTime(1.0);

BENCHMARK_MAIN();
