// A program built against an installed Kestrelyn. Besides an image of the
// engine's own it reads and writes Targa files, which only the codec plug-in
// handles: the installed library has to find its plug-in by itself. Scratch
// files go to the folder given as the first argument.
#include <kestrelyn/Imaging.h>

#include <cstdint>
#include <cstdio>
#include <string>

namespace {

bool WriteFile(const std::string& path, const unsigned char* data, std::size_t size) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    const bool ok = std::fwrite(data, 1, size, f) == size;
    return std::fclose(f) == 0 && ok;
}

bool PixelIs(kestrelyn::Imaging& img, int x, int y, std::uint32_t argb) {
    const auto got = static_cast<std::uint32_t>(img.PixelGetColor(x, y));
    if (got == argb) return true;
    std::fprintf(stderr, "pixel %d,%d is %08x, not %08x\n", x, y, static_cast<unsigned>(got),
                 static_cast<unsigned>(argb));
    return false;
}

} // namespace

int main(int argc, char** argv) {
    const std::string dir = argc > 1 ? argv[1] : ".";
    kestrelyn::Imaging img;
    if (img.CreateNewImage(64, 48, 24) == 0) return 1;
    std::printf("consumer ok %dx%d\n", img.GetWidth(0), img.GetHeight(0));
    if (img.GetStat() != kestrelyn::OK) return 1;

    // A 2 x 1 true-colour Targa made by hand: blue, green, red per pixel.
    const unsigned char targa[] = {0, 0, 2, 0, 0,  0, 0,    0,    0,    0,    0,    0,
                                   2, 0, 1, 0, 24, 0, 0x30, 0x20, 0x10, 0x60, 0x50, 0x40};
    const std::string handMade = dir + "/hand.tga";
    if (!WriteFile(handMade, targa, sizeof targa)) return 1;
    if (img.CreateImageFromFile(handMade) == 0) {
        std::fprintf(stderr, "no Targa reader (codec plug-in not found): status %d\n",
                     static_cast<int>(img.GetStat()));
        return 2;
    }
    if (img.GetWidth(0) != 2 || img.GetHeight(0) != 1) return 3;
    if (!PixelIs(img, 0, 0, 0xFF102030u) || !PixelIs(img, 1, 0, 0xFF405060u)) return 3;

    // Written through the plug-in (which takes 32-bit images) and read back.
    const std::string saved = dir + "/saved.tga";
    if (img.CreateNewImage(64, 48, 32) == 0) return 1;
    if (img.PixelSetColor(5, 7, static_cast<std::int32_t>(0xFF336699u)) != kestrelyn::OK) return 1;
    if (img.SaveAsTGA(saved) != kestrelyn::OK) {
        std::fprintf(stderr, "SaveAsTGA failed: status %d\n", static_cast<int>(img.GetStat()));
        return 4;
    }
    if (img.CreateImageFromFile(saved) == 0 || img.GetWidth(0) != 64) return 4;
    if (!PixelIs(img, 5, 7, 0xFF336699u) || !PixelIs(img, 6, 7, 0xFF000000u)) return 4;
    std::printf("plug-in ok\n");
    return 0;
}
