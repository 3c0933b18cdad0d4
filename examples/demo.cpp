// The demo: makes images, sets and reads pixels, converts formats, and prints
// what it did. Exits with 1 if any step did not give what it should.
#include <kestrelyn/Imaging.h>

#include <cstdio>
#include <vector>

using namespace kestrelyn;

namespace {

int gFailures = 0;

void Check(bool bOk, const char* sWhat) {
    std::printf("  %-58s %s\n", sWhat, bOk ? "ok" : "FAILED");
    if (!bOk) ++gFailures;
}

} // namespace

int main() {
    Imaging img;
    std::printf("Kestrelyn %.7f on engine %s\n", img.GetVersion(), img.GetGdiplusVersion().c_str());

    std::printf("New images at every depth:\n");
    for (int depth : {1, 4, 8, 16, 24, 32, 48, 64}) {
        const std::int32_t id = img.CreateNewImage(64, 48, depth, 0xFFFFFFFFu);
        std::printf("  depth %2d: id %9d, %s, %dx%d, stride %d\n", depth, id,
                    img.GetPixelFormatString().c_str(), img.GetWidth(), img.GetHeight(),
                    img.GetImageStride());
        if (id == 0) ++gFailures;
    }
    img.CreateNewImage(8, 8, 12);
    Check(img.GetStat() == InvalidParameter, "depth 12 is refused with InvalidParameter");

    std::printf("Pixels of a 24-bit image:\n");
    const std::int32_t rgb = img.CreateNewImage(16, 16, 24, 0xFF2040A0u);
    img.PixelSetColor(3, 4, 0xFFFF8000u);
    Check(img.PixelGetColor(3, 4) == 0xFFFF8000u, "PixelSetColor then PixelGetColor");
    std::vector<std::int32_t> block(4 * 4, static_cast<std::int32_t>(0xFF00C000u));
    img.SetPixelArrayARGB(block, 8, 8, 4, 4);
    std::vector<std::int32_t> back;
    img.GetPixelArrayARGB(back, 8, 8, 4, 4);
    Check(back == block, "a 4x4 block written and read back");
    img.SetHorizontalResolution(300.0f);
    img.SetVerticalResolution(300.0f);
    std::printf("  16 px at 300 dpi = %.3f mm wide\n", img.GetWidthMM());

    std::printf("Conversions:\n");
    const std::int32_t argb = img.CreateClonedImageARGB(rgb);
    Check(img.GetPixelFormatString(argb) == "32bppARGB", "CreateClonedImageARGB gives 32bppARGB");
    Check(img.GetHorizontalResolution(argb) == 300.0f, "the copy keeps its resolution");
    const std::int32_t copy = img.CreateClonedImageI(rgb);
    const std::int32_t area = img.CreateClonedImageArea(rgb, 2, 2, 5, 3);
    std::printf("  independent copy %d (%s), area %dx%d\n", copy,
                img.GetPixelFormatString(copy).c_str(), img.GetWidth(area), img.GetHeight(area));
    img.ClearImage(0xFFFFFFFFu);
    img.SetNativeImage(copy);
    Check(img.PixelGetColor(3, 4) == 0xFFFF8000u, "the copy did not change with the source");

    std::printf("Handles:\n");
    const HGLOBAL dib = img.GetDib(rgb);
    Check(dib != 0, "a DIB of the 24-bit image");
    img.RemoveDib(dib);
    Check(img.CopyToClipboard() == OK, "copy to the clipboard");
    img.DeleteClipboardData();

    std::printf("Base64 of \"Kestrelyn\": %s\n", img.Encode64String("Kestrelyn").c_str());

    img.CloseImage(area);
    img.RemoveAllImage();
    img.GetWidth();
    Check(img.GetStat() == InvalidParameter, "after RemoveAllImage the native id is stale");

    std::printf("%s\n", gFailures == 0 ? "All steps done." : "Some steps failed.");
    return gFailures == 0 ? 0 : 1;
}
