// A 50-page bitonal 300-dpi TIFF (group 4) to PDF through Imaging: load the
// file, PdfCreateFromMultipageTIFF, close. bench/pdf_peer.sh makes the file
// and sets img2pdf and ImageMagick beside this program on the same file.
//
//   bench_pdf --convert IN.tif OUT.pdf   one conversion, for time and memory
//   bench_pdf [benchmark options]       the timed loop (makes the file first)
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "kestrelyn/Imaging.h"

namespace {

// Read-only opening keeps the file and decodes one page at a time; an
// editable open would first burst every page into a file of its own. The
// engine decodes TIFF itself; KY_BENCH_PLUGIN_LOAD=1 lets the codec plug-in
// decode instead (the default order of loading).
kestrelyn::KestrelynStatus Convert(const std::string& sTiff, const std::string& sPdf) {
    kestrelyn::Imaging oImaging;
    oImaging.TiffOpenMultiPageAsReadOnly(true);
    if (std::getenv("KY_BENCH_PLUGIN_LOAD") == nullptr) oImaging.DisableKyimgplugCodecs(true);
    const std::int32_t nID = oImaging.CreateImageFromFile(sTiff);
    if (nID == 0) return oImaging.GetStat();
    const kestrelyn::KestrelynStatus nStatus =
        oImaging.PdfCreateFromMultipageTIFF(nID, sPdf, "bench", "bench_pdf", "kestrelyn");
    oImaging.CloseImage(nID);
    return nStatus;
}

std::string DataDir() {
    return (std::filesystem::temp_directory_path() / "kestrelyn-bench-pdf").string();
}

std::string BenchTiff() {
    const std::string sTiff = DataDir() + "/bitonal50.tif";
    if (!std::filesystem::exists(sTiff)) {
        const std::string sCommand =
            std::string("bash '") + KY_BENCH_DIR + "/pdf_peer.sh' make-data '" + sTiff + "'";
        if (std::system(sCommand.c_str()) != 0) return "";
    }
    return sTiff;
}

void BM_PdfCreateFromMultipageTIFF(benchmark::State& state) {
    const std::string sTiff = BenchTiff();
    if (sTiff.empty()) {
        state.SkipWithError("no test file (tiffcp and ImageMagick are needed)");
        return;
    }
    const std::string sPdf = DataDir() + "/bench_pdf.pdf";
    for (auto _ : state) {
        if (Convert(sTiff, sPdf) != kestrelyn::OK) state.SkipWithError("conversion failed");
    }
    state.counters["bytes"] = static_cast<double>(std::filesystem::file_size(sPdf));
}
BENCHMARK(BM_PdfCreateFromMultipageTIFF)->Unit(benchmark::kMillisecond)->MinTime(2.0);

} // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "--convert") == 0) {
        const kestrelyn::KestrelynStatus nStatus = Convert(argv[2], argv[3]);
        if (nStatus != kestrelyn::OK)
            std::fprintf(stderr, "status %d\n", static_cast<int>(nStatus));
        return nStatus == kestrelyn::OK ? 0 : 1;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
