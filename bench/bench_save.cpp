// Saving speed and the page store's memory.
//   bench_save [benchmark flags]          encodes a 6000x4000 picture as JPEG
//                                         q75, PNG and LZW TIFF (Google Benchmark)
//   bench_save --encode IN.png OUTDIR     loads IN.png, prints the best of three
//                                         times in ms for each encoding, wall
//                                         clock ("png") and processor ("png_cpu")
//   bench_save --swap IN.tif OUT.tif      opens IN.tif editable, swaps pages 1
//                                         and 2, saves as CCITT4; prints ms and
//                                         the peak resident size in kB
//   bench_save --baseline SCRATCH.tif     starts the library and the plug-in
//                                         only; prints ms and the peak in kB
// bench/save_peer.py runs the last two beside vips, PIL, tiffcp and convert.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "kestrelyn/Imaging.h"

using namespace kestrelyn;

namespace {

double Ms(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

// Processor time of the process so far: meaningful on a busy machine.
double CpuMs() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
}

std::int32_t MakePicture(Imaging& img) {
    const std::int32_t id = img.CreateNewImage(6000, 4000, 24, 0xFFFFFFFFu);
    std::vector<std::uint8_t> rgb(static_cast<std::size_t>(6000) * 4000 * 3);
    std::uint32_t seed = 12345;
    for (std::size_t y = 0; y < 4000; ++y)
        for (std::size_t x = 0; x < 6000; ++x) {
            seed = seed * 1664525u + 1013904223u;
            std::uint8_t* p = &rgb[(y * 6000 + x) * 3];
            p[0] = static_cast<std::uint8_t>(x * 255 / 6000 + (seed >> 29));
            p[1] = static_cast<std::uint8_t>(y * 255 / 4000);
            p[2] = static_cast<std::uint8_t>(((x / 40 + y / 40) % 2) * 128 + (seed >> 30));
        }
    img.SetPixelArrayBytesRGB(rgb, 0, 0, 6000, 4000);
    return id;
}

void Encode(benchmark::State& state, int which) {
    Imaging img;
    MakePicture(img);
    const std::string out = "/tmp/bench_save_out";
    for (auto _ : state) {
        KestrelynStatus st = which == 0   ? img.SaveAsJPEG(out, 75)
                             : which == 1 ? img.SaveAsPNG(out)
                                          : img.SaveAsTIFF(out, CompressionLZW);
        if (st != OK) state.SkipWithError("save failed");
    }
    std::remove(out.c_str());
}
void BM_SaveJpeg75(benchmark::State& s) {
    Encode(s, 0);
}
void BM_SavePng(benchmark::State& s) {
    Encode(s, 1);
}
void BM_SaveTiffLzw(benchmark::State& s) {
    Encode(s, 2);
}
BENCHMARK(BM_SaveJpeg75)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_SavePng)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_SaveTiffLzw)->Unit(benchmark::kMillisecond)->Iterations(3);

int EncodeFile(const char* in, const std::string& dir) {
    Imaging img;
    if (img.CreateImageFromFile(in) == 0) return 1;
    for (const char* kind : {"jpeg", "png", "tiff"}) {
        double best = 1e30, bestCpu = 1e30;
        for (int i = 0; i < 3; ++i) {
            const double c0 = CpuMs();
            const auto t0 = std::chrono::steady_clock::now();
            KestrelynStatus st =
                std::strcmp(kind, "jpeg") == 0  ? img.SaveAsJPEG(dir + "/ky.jpg", 75)
                : std::strcmp(kind, "png") == 0 ? img.SaveAsPNG(dir + "/ky.png")
                                                : img.SaveAsTIFF(dir + "/ky.tif", CompressionLZW);
            if (st != OK) return 1;
            best = std::min(best, Ms(t0));
            bestCpu = std::min(bestCpu, CpuMs() - c0);
        }
        std::printf("%s %.1f\n%s_cpu %.1f\n", kind, best, kind, bestCpu);
    }
    return 0;
}

int SwapPages(const char* in, const char* out) {
    const auto t0 = std::chrono::steady_clock::now();
    {
        Imaging img;
        const std::int32_t doc = img.TiffCreateMultiPageFromFile(in);
        const double openMs = Ms(t0);
        if (doc == 0 || img.TiffSwapPages(doc, 1, 2) != OK) return 1;
        const auto t1 = std::chrono::steady_clock::now();
        if (img.TiffSaveMultiPageToFile(doc, out, CompressionCCITT4) != OK) return 1;
        std::printf("open_ms %.1f\nsave_ms %.1f\n", openMs, Ms(t1));
        img.CloseImage(doc);
    }
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    std::printf("ms %.1f\nmaxrss_kb %ld\n", Ms(t0), ru.ru_maxrss);
    return 0;
}

// The same harness doing nothing but starting: an Imaging object, the
// plug-in loaded (a one-pixel TIFF loaded through it), then the peak.
int Baseline(const char* scratch) {
    const auto t0 = std::chrono::steady_clock::now();
    {
        Imaging img;
        img.CreateNewImage(1, 1, 24, 0xFFFFFFFFu);
        if (img.SaveAsTIFF(scratch, CompressionLZW) != OK || img.CreateImageFromFile(scratch) == 0)
            return 1;
        std::remove(scratch);
    }
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    std::printf("ms %.1f\nmaxrss_kb %ld\n", Ms(t0), ru.ru_maxrss);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "--encode") == 0) return EncodeFile(argv[2], argv[3]);
    if (argc == 4 && std::strcmp(argv[1], "--swap") == 0) return SwapPages(argv[2], argv[3]);
    if (argc == 3 && std::strcmp(argv[1], "--baseline") == 0) return Baseline(argv[2]);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
