// Images of the codec plug-in released on two threads at once: each thread's
// registry gives its bitmaps, pages and file handles back to the plug-in
// while the other thread does the same (run under ThreadSanitizer by
// `make tsan`).
#include "load_support.h"

#include <barrier>
#include <thread>

#include "core/PageStore.h"
#include "support/Checkers.h"

namespace kestrelyn::loadtest {
namespace {

using PluginReleaseThreads = LoadFixture;

// What one thread saw; checked on the main thread.
struct ThreadOutcome {
    int nLoaded = 0;      // images that came from the plug-in, of the right colour
    int nClosedOk = 0;    // closes that returned OK
    int nLiveAfter = -1;  // registry records left at the end
    std::string sProblem; // the first thing that went wrong
};

TEST_F(PluginReleaseThreads, TwoThreadsReleasePluginImagesAtOnce) {
    KY_REQUIRE_CHECKER(IsKyimgplugAvailable(), "the codec plug-in is not built");
    const std::string tga = Path("small.tga");
    WriteBytes(tga, SmallTarga());
    const std::vector<ARGB> colours = {0xFFFF0000u, 0xFF00FF00u, 0xFF0000FFu};
    const std::string tif = Path("three.tif");
    ASSERT_TRUE(WriteMultiPageTiff(tif, colours));
    const std::vector<std::uint8_t> tgaBytes = SmallTarga();
    const int fds = OpenDescriptors();

    constexpr int kRounds = 6;
    constexpr int kFiles = 4; // Targa files per round, besides a byte array and a document
    std::barrier together(2); // each round, both threads close at the same moment
    auto work = [&](ThreadOutcome& out) {
        Imaging local;
        local.TiffOpenMultiPageAsReadOnly(true);
        for (int round = 0; round < kRounds; ++round) {
            std::vector<std::int32_t> ids;
            for (int i = 0; i < kFiles; ++i)
                ids.push_back(local.CreateImageFromFile(tga));
            ids.push_back(local.CreateImageFromByteArray(tgaBytes)); // through a temporary file
            const std::int32_t doc = local.CreateImageFromFile(tif); // pages locked in the plug-in
            ids.push_back(doc);
            for (std::int32_t id : ids) {
                const ImageRecord* rec = FindImageRecord(id);
                if (!rec) {
                    if (out.sProblem.empty()) out.sProblem = "a load failed";
                    continue;
                }
                const bool bPlugin = rec->nKind == KindPlugin && rec->nPlugBitmap != 0;
                // The Targa's top-left pixel is blue; the document shows page 0.
                const ARGB want = id == doc ? colours[0] : 0xFF0000FFu;
                local.SetNativeImage(id);
                const bool bColour = static_cast<ARGB>(local.PixelGetColor(0, 0)) == want;
                out.nLoaded += bPlugin && bColour;
                if ((!bPlugin || !bColour) && out.sProblem.empty())
                    out.sProblem =
                        "image " + std::to_string(id) + " not a plug-in image of its colour";
            }
            if (ShowPage(doc, 2) != OK && out.sProblem.empty()) out.sProblem = "page 2 not shown";
            // Both threads hold their plug-in images; now both give them back.
            together.arrive_and_wait();
            for (std::int32_t id : ids)
                out.nClosedOk += local.CloseImage(id) == OK;
        }
        out.nLiveAfter = LiveImagesNow();
    };
    ThreadOutcome a, b;
    std::thread t1(work, std::ref(a)), t2(work, std::ref(b));
    t1.join();
    t2.join();
    constexpr int kPerThread = kRounds * (kFiles + 2);
    for (const ThreadOutcome* o : {&a, &b}) {
        EXPECT_EQ(o->sProblem, "");
        EXPECT_EQ(o->nLoaded, kPerThread);
        EXPECT_EQ(o->nClosedOk, kPerThread);
        EXPECT_EQ(o->nLiveAfter, 0);
    }
    EXPECT_EQ(TempFiles(), 0);
    EXPECT_EQ(OpenDescriptors(), fds); // every file handle of the plug-in closed
}

} // namespace
} // namespace kestrelyn::loadtest
