// Decoding speed: a 6000x4000 photo-like picture as JPEG, PNG and
// uncompressed TIFF, loaded through Imaging (CreateImageFromFile + GetWidth +
// CloseImage), once by the default route (the plug-in first for JPEG and
// TIFF) and once by the engine alone (DisableKyimgplugCodecs(true)).
//   bench_decode [benchmark flags]       Google Benchmark, wall and process
//                                        CPU time per load
//   bench_decode --load FILE [engine]    one load, for timing a whole process
// The files are made once (by bench/decode_peer.py --make, with PIL) in
// <build>/bench-data/decode, or in $KY_DECODE_DIR. bench/decode_peer.py
// prints vips, PIL and OpenCV on the same files beside these numbers.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "kestrelyn/Imaging.h"

using namespace kestrelyn;

namespace {

std::string gDir;

std::string DataDir(const char* argv0) {
    if (const char* env = std::getenv("KY_DECODE_DIR")) return env;
    char self[PATH_MAX] = {};
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    const std::filesystem::path exe = n > 0 ? std::filesystem::path(self) : argv0;
    return (exe.parent_path().parent_path() / "bench-data" / "decode").string();
}

// Makes the three files with the peer script unless they are there already.
bool EnsureFiles() {
    bool all = true;
    for (const char* f : {"photo.jpg", "photo.png", "photo.tif"})
        all = all && std::filesystem::exists(gDir + "/" + f);
    if (all) return true;
    const std::string cmd =
        "/usr/bin/python3 " KY_BENCH_DIR "/decode_peer.py --make '" + gDir + "'";
    return std::system(cmd.c_str()) == 0;
}

bool LoadOnce(Imaging& img, const std::string& path) {
    const std::int32_t id = img.CreateImageFromFile(path);
    if (id == 0) return false;
    const bool ok = img.GetWidth(id) == 6000;
    img.CloseImage(id);
    return ok;
}

void Decode(benchmark::State& state, const char* file, bool bEngineOnly) {
    Imaging img;
    img.DisableKyimgplugCodecs(bEngineOnly);
    const std::string path = gDir + "/" + file;
    if (!LoadOnce(img, path)) { // warm the page cache and the plug-in
        state.SkipWithError("load failed");
        return;
    }
    for (auto _ : state)
        if (!LoadOnce(img, path)) state.SkipWithError("load failed");
}

void BM_DecodeJpeg(benchmark::State& s) {
    Decode(s, "photo.jpg", false);
}
void BM_DecodePng(benchmark::State& s) {
    Decode(s, "photo.png", false);
}
void BM_DecodeTiff(benchmark::State& s) {
    Decode(s, "photo.tif", false);
}
void BM_DecodeJpegEngine(benchmark::State& s) {
    Decode(s, "photo.jpg", true);
}
void BM_DecodePngEngine(benchmark::State& s) {
    Decode(s, "photo.png", true);
}
void BM_DecodeTiffEngine(benchmark::State& s) {
    Decode(s, "photo.tif", true);
}

void Register() {
    for (auto* b : {benchmark::RegisterBenchmark("BM_DecodeJpeg", BM_DecodeJpeg),
                    benchmark::RegisterBenchmark("BM_DecodeJpegEngine", BM_DecodeJpegEngine),
                    benchmark::RegisterBenchmark("BM_DecodePng", BM_DecodePng),
                    benchmark::RegisterBenchmark("BM_DecodePngEngine", BM_DecodePngEngine),
                    benchmark::RegisterBenchmark("BM_DecodeTiff", BM_DecodeTiff),
                    benchmark::RegisterBenchmark("BM_DecodeTiffEngine", BM_DecodeTiffEngine)})
        b->Unit(benchmark::kMillisecond)
            ->MeasureProcessCPUTime()
            ->UseRealTime()
            ->Iterations(1)
            ->Repetitions(7)
            ->ComputeStatistics(
                "min",
                [](const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); })
            ->DisplayAggregatesOnly(true);
}

} // namespace

int main(int argc, char** argv) {
    gDir = DataDir(argv[0]);
    if (argc >= 3 && std::strcmp(argv[1], "--load") == 0) {
        Imaging img;
        img.DisableKyimgplugCodecs(argc >= 4 && std::strcmp(argv[3], "engine") == 0);
        return LoadOnce(img, argv[2]) ? 0 : 1;
    }
    if (!EnsureFiles()) {
        std::fprintf(stderr, "bench_decode: cannot make the files in %s\n", gDir.c_str());
        return 1;
    }
    std::printf("files in %s\n", gDir.c_str());
    Register();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
