// Peak memory of a large job against the image's own size.
//   bench_memory [benchmark flags]   makes (once) a 20000x20000 JPEG in
//                                    BUILD/bench-data/memory, then runs the job
//                                    below in a child process and reports its
//                                    peak resident size (VmHWM) and the ratio
//                                    to the image's 24-bit pixels
//   bench_memory --job IN.jpg DIR [--whole]
//                                    loads IN.jpg, SetBrightness(20), saves
//                                    TIFF (LZW), PNG and PDF into DIR; prints
//                                    "peak_kb image_kb ms rss_after_close_kb";
//                                    --whole runs the point filter over the
//                                    whole image at once (the frame before it
//                                    worked in bands)
//   bench_memory --new W H DEPTH     CreateNewImage(W, H, DEPTH, white); prints
//                                    the same four figures
//   bench_memory --make OUT.jpg W H  writes the test picture
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "filters/modFilters.h"
#include "kestrelyn/Imaging.h"

using namespace kestrelyn;

namespace {

constexpr int kSide = 20000;

long StatusKb(const char* key) {
    std::ifstream in("/proc/self/status");
    std::string line;
    const std::string k = std::string(key) + ":";
    while (std::getline(in, line))
        if (line.rfind(k, 0) == 0) return std::stol(line.substr(k.size()));
    return -1;
}

double Ms(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

long ImageKb(long w, long h, int bits) {
    return (((w * bits + 31) / 32) * 4 * h) / 1024;
}

// A photo-like picture written band by band, so that making it costs the
// image and one band.
int Make(const char* out, int w, int h) {
    Imaging img;
    if (img.CreateNewImage(w, h, 24) == 0) return 1;
    const int band = 256;
    std::vector<std::uint8_t> rgb(static_cast<std::size_t>(w) * band * 3);
    std::uint32_t seed = 12345;
    for (int top = 0; top < h; top += band) {
        const int rows = std::min(band, h - top);
        for (int y = 0; y < rows; ++y)
            for (int x = 0; x < w; ++x) {
                seed = seed * 1664525u + 1013904223u;
                std::uint8_t* p = &rgb[(static_cast<std::size_t>(y) * w + x) * 3];
                const int Y = top + y;
                p[0] = static_cast<std::uint8_t>(x * 255 / w + (seed >> 29));
                p[1] = static_cast<std::uint8_t>(Y * 255 / h);
                p[2] = static_cast<std::uint8_t>(((x / 64 + Y / 64) % 2) * 100 + (seed >> 30));
            }
        if (img.SetPixelArrayBytesRGB(rgb, 0, top, w, rows) != OK) return 1;
    }
    return img.SaveAsJPEG(out, 85) == OK ? 0 : 1;
}

int Job(const std::string& in, const std::string& dir, bool bWhole) {
    if (bWhole) SetFilterBandPixels(std::size_t(1) << 40);
    const auto t0 = std::chrono::steady_clock::now();
    Imaging img;
    if (img.CreateImageFromFile(in) == 0) return 1;
    const long kb = ImageKb(img.GetWidth(), img.GetHeight(), 24);
    if (img.SetBrightness(20) != OK) return 1;
    if (img.SaveAsTIFF(dir + "/memory.tif") != OK) return 1;
    if (img.SaveAsPNG(dir + "/memory.png") != OK) return 1;
    if (!img.SaveAsPDF(dir + "/memory.pdf")) return 1;
    const double ms = Ms(t0);
    img.CloseImage(img.GetNativeImage());
    std::printf("%ld %ld %.0f %ld\n", StatusKb("VmHWM"), kb, ms, StatusKb("VmRSS"));
    return 0;
}

int New(int w, int h, int depth) {
    const auto t0 = std::chrono::steady_clock::now();
    Imaging img;
    const std::int32_t id = img.CreateNewImage(w, h, depth, -1);
    if (id == 0) return 1;
    const double ms = Ms(t0);
    img.CloseImage(id);
    std::printf("%ld %ld %.0f %ld\n", StatusKb("VmHWM"), ImageKb(w, h, depth), ms,
                StatusKb("VmRSS"));
    return 0;
}

std::string Self() {
    char buf[4096];
    const ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string();
}

std::string DataDir() {
    // BUILD/bin/bench_memory -> BUILD/bench-data/memory
    std::string self = Self();
    std::string build = self.substr(0, self.rfind('/'));
    build = build.substr(0, build.rfind('/'));
    const std::string dir = build + "/bench-data/memory";
    if (std::system(("mkdir -p '" + dir + "'").c_str()) != 0) return "/tmp";
    return dir;
}

struct Figures {
    long peak = 0, image = 0, after = 0;
    double ms = 0;
};

// Runs this program with arguments and reads its figures.
bool Child(const std::string& args, Figures& f) {
    FILE* p = popen(("'" + Self() + "' " + args).c_str(), "r");
    if (!p) return false;
    const int got = std::fscanf(p, "%ld %ld %lf %ld", &f.peak, &f.image, &f.ms, &f.after);
    return pclose(p) == 0 && got == 4;
}

void Report(benchmark::State& state, const Figures& f) {
    state.SetIterationTime(f.ms / 1000.0);
    state.counters["after_close_kb"] = static_cast<double>(f.after);
    const long peak = f.peak, image = f.image;
    state.counters["peak_kb"] = static_cast<double>(peak);
    state.counters["image_kb"] = static_cast<double>(image);
    state.counters["ratio"] = static_cast<double>(peak) / static_cast<double>(image);
}

void BM_JpegBrightnessSaves(benchmark::State& state, bool bWhole) {
    const std::string dir = DataDir();
    const std::string jpg = dir + "/big.jpg";
    if (access(jpg.c_str(), R_OK) != 0 &&
        std::system(("'" + Self() + "' --make '" + jpg + "' " + std::to_string(kSide) + " " +
                     std::to_string(kSide))
                        .c_str()) != 0) {
        state.SkipWithError("cannot make the picture");
        return;
    }
    for (auto _ : state) {
        Figures f;
        if (!Child("--job '" + jpg + "' '" + dir + "'" + (bWhole ? " --whole" : ""), f)) {
            state.SkipWithError("the job failed");
            return;
        }
        Report(state, f);
    }
}

void BM_NewWhite(benchmark::State& state, int w, int h, int depth) {
    for (auto _ : state) {
        Figures f;
        if (!Child("--new " + std::to_string(w) + " " + std::to_string(h) + " " +
                       std::to_string(depth),
                   f)) {
            state.SkipWithError("the job failed");
            return;
        }
        Report(state, f);
    }
}

} // namespace

// One run each: every run is a whole process over a 1.2 GB image.
BENCHMARK_CAPTURE(BM_NewWhite, rgb20000, kSide, kSide, 24)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_NewWhite, bitonalA0, 19866, 28087, 1)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_JpegBrightnessSaves, banded, false)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_JpegBrightnessSaves, whole, true)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    if (argc >= 5 && std::strcmp(argv[1], "--make") == 0)
        return Make(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
    if (argc >= 4 && std::strcmp(argv[1], "--job") == 0)
        return Job(argv[2], argv[3], argc >= 5 && std::strcmp(argv[4], "--whole") == 0);
    if (argc >= 5 && std::strcmp(argv[1], "--new") == 0)
        return New(std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4]));
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
