// Fuzz target for one decoder of the raster engine. The bytes travel through
// a memory stream to GdipLoadImageFromStream; the signature of the decoder
// under test is written over the first bytes so that every input reaches it.
// A decoded image has each of its frames (at most 8) selected and locked as
// 32bppARGB, and its palette and property items read.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/modGdiPlus.h"

using namespace kestrelyn;

namespace {

#if defined(KY_FUZZ_KIND_bmp)
void Sign(std::vector<std::uint8_t>& d) {
    if (d.size() >= 2) std::memcpy(d.data(), "BM", 2);
}
#elif defined(KY_FUZZ_KIND_ico)
void Sign(std::vector<std::uint8_t>& d) {
    if (d.size() >= 4) std::memcpy(d.data(), "\0\0\1\0", 4);
}
#elif defined(KY_FUZZ_KIND_jpeg)
void Sign(std::vector<std::uint8_t>& d) {
    if (d.size() >= 3) std::memcpy(d.data(), "\xff\xd8\xff", 3);
}
#elif defined(KY_FUZZ_KIND_png)
void Sign(std::vector<std::uint8_t>& d) {
    if (d.size() >= 8) std::memcpy(d.data(), "\x89PNG\r\n\x1a\n", 8);
}
#elif defined(KY_FUZZ_KIND_gif)
void Sign(std::vector<std::uint8_t>& d) {
    if (d.size() >= 6) std::memcpy(d.data(), d[4] == '7' ? "GIF87a" : "GIF89a", 6);
}
#elif defined(KY_FUZZ_KIND_tiff)
void Sign(std::vector<std::uint8_t>& d) {
    if (d.size() >= 4) std::memcpy(d.data(), d[0] == 'M' ? "MM\0*" : "II*\0", 4);
}
#else
#error "KY_FUZZ_KIND_<decoder> is not defined"
#endif

// Locks rows [y, y + h) as 32bppARGB and touches the first and last pixel so
// that a short buffer shows up.
void LockRows(GpImage* image, UINT w, UINT y, UINT h) {
    GpRect rect{0, INT(y), INT(w), INT(h)};
    BitmapData data;
    if (GdipBitmapLockBits(image, &rect, ImageLockModeRead, PixelFormat32bppARGB, &data) != OK)
        return;
    if (w && h && data.Scan0) {
        auto* first = static_cast<volatile std::uint8_t*>(data.Scan0);
        (void)first[0];
        (void)first[std::ptrdiff_t(h - 1) * data.Stride + std::ptrdiff_t(w) * 4 - 1];
    }
    GdipBitmapUnlockBits(image, &data);
}

// The whole frame, or for frames whose 32-bit copy would pass 64 MiB (the
// engine accepts pictures up to 2 GiB, a compressed file may be tiny) a band
// of rows at the top and one at the bottom.
void LockFrame(GpImage* image) {
    UINT w = 0, h = 0;
    if (GdipGetImageWidth(image, &w) != OK || GdipGetImageHeight(image, &h) != OK) return;
    if (!w || !h) return;
    const std::uint64_t rowBytes = std::uint64_t(w) * 4;
    const std::uint64_t band = std::max<std::uint64_t>(1, (std::uint64_t(32) << 20) / rowBytes);
    if (rowBytes * h <= (std::uint64_t(64) << 20)) {
        LockRows(image, w, 0, h);
    } else {
        UINT rows = UINT(std::min<std::uint64_t>(band, h));
        LockRows(image, w, 0, rows);
        LockRows(image, w, h - rows, rows);
    }
}

void ReadFacts(GpImage* image) {
    INT paletteSize = 0;
    if (GdipGetImagePaletteSize(image, &paletteSize) == OK && paletteSize > 0) {
        std::vector<std::uint8_t> buf(static_cast<std::size_t>(paletteSize));
        GdipGetImagePalette(image, reinterpret_cast<ColorPalette*>(buf.data()), paletteSize);
    }
    UINT total = 0, count = 0;
    if (GdipGetPropertySize(image, &total, &count) == OK && count > 0) {
        std::vector<PROPID> ids(count);
        if (GdipGetPropertyIdList(image, count, ids.data()) == OK) {
            for (PROPID id : ids) {
                UINT size = 0;
                if (GdipGetPropertyItemSize(image, id, &size) != OK || size == 0) continue;
                std::vector<std::uint8_t> item(size);
                GdipGetPropertyItem(image, id, size, reinterpret_cast<PropertyItem*>(item.data()));
            }
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint8_t> bytes(data, data + size);
    Sign(bytes);
    GpImage* image = nullptr;
    if (GdipLoadImageFromStream(CreateMemoryStream(std::move(bytes)), &image) != OK || !image)
        return 0;
    ReadFacts(image);
    LockFrame(image);
    UINT dims = 0;
    if (GdipImageGetFrameDimensionsCount(image, &dims) == OK && dims > 0 && dims < 8) {
        std::vector<GUID> list(dims);
        if (GdipImageGetFrameDimensionsList(image, list.data(), dims) == OK) {
            for (const GUID& dim : list) {
                UINT frames = 0;
                if (GdipImageGetFrameCount(image, &dim, &frames) != OK) continue;
                for (UINT f = 0; f < frames && f < 8; ++f) {
                    if (GdipImageSelectActiveFrame(image, &dim, f) != OK) continue;
                    LockFrame(image);
                }
            }
        }
    }
    GdipDisposeImage(image);
    return 0;
}
