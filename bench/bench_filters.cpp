// Filters through Imaging on a 6000x4000 32-bit image: each run includes the
// frame's conversion in and out. bench/filters_peer.py prints the OpenCV peer
// operations on the same pixels beside these numbers.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <vector>

#include "kestrelyn/Imaging.h"

namespace {

constexpr int kW = 6000, kH = 4000;

// The same pixels as the peer script: a multiplicative hash of the index.
std::vector<std::int32_t> BenchPixels() {
    std::vector<std::int32_t> px(static_cast<std::size_t>(kW) * kH);
    for (std::size_t i = 0; i < px.size(); ++i)
        px[i] = static_cast<std::int32_t>(0xFF000000u |
                                          ((static_cast<std::uint32_t>(i) * 2654435761u) >> 8));
    return px;
}

kestrelyn::Imaging& Bench() {
    static std::unique_ptr<kestrelyn::Imaging> im;
    static std::vector<std::int32_t> px = BenchPixels();
    if (!im) {
        im = std::make_unique<kestrelyn::Imaging>();
        im->CreateNewImage(kW, kH, 32);
    }
    im->SetPixelArrayARGB(px, 0, 0, kW, kH);
    return *im;
}

template <typename Fn> void TimeMember(benchmark::State& state, Fn fn) {
    kestrelyn::Imaging& im = Bench();
    for (auto _ : state) {
        const auto st = fn(im);
        if (st != kestrelyn::OK) state.SkipWithError("filter failed");
    }
}

void BM_Memcpy(benchmark::State& state) {
    std::vector<std::uint32_t> a(static_cast<std::size_t>(kW) * kH, 1), b(a.size());
    for (auto _ : state) {
        std::memcpy(b.data(), a.data(), a.size() * 4);
        benchmark::DoNotOptimize(b.data());
        benchmark::ClobberMemory();
    }
}

void BM_FxGrayscale(benchmark::State& s) {
    TimeMember(s, [](auto& im) { return im.FxGrayscale(); });
}
void BM_SetBrightness(benchmark::State& s) {
    TimeMember(s, [](auto& im) { return im.SetBrightness(10); });
}
void BM_SetContrast(benchmark::State& s) {
    TimeMember(s, [](auto& im) { return im.SetContrast(10); });
}
void BM_FxNegative(benchmark::State& s) {
    TimeMember(s, [](auto& im) { return im.FxNegative(); });
}
void BM_FxBlur(benchmark::State& s) {
    TimeMember(s, [](auto& im) { return im.FxBlur(); });
}
void BM_FxSharpen(benchmark::State& s) {
    TimeMember(s, [](auto& im) { return im.FxSharpen(); });
}
void BM_FxDespeckle(benchmark::State& s) {
    TimeMember(s, [](auto& im) { return im.FxDespeckle(); });
}
void BM_FxDespeckleMore(benchmark::State& s) {
    TimeMember(s, [](auto& im) { return im.FxDespeckleMore(); });
}
void BM_FxDilate(benchmark::State& s) {
    TimeMember(s, [](auto& im) { return im.FxDilate(); });
}

} // namespace

BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_FxGrayscale)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_SetBrightness)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_SetContrast)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_FxNegative)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_FxBlur)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_FxSharpen)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_FxDespeckle)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_FxDespeckleMore)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_FxDilate)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK_MAIN();
