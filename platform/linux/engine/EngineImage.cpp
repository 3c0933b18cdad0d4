// Bitmaps of the engine: creation, clones, locks, pixels, facts, palettes,
// property items, rotation and frames.
//
// Choices of this engine:
// - GdipBitmapSetPixel on an indexed bitmap gives InvalidParameter.
// - GdipBitmapGetPixel/SetPixel and a second lock on a locked bitmap give
//   WrongState.
// - A read-write or write lock in a format other than the bitmap's (or at a
//   sub-byte offset that is not byte aligned) hands out a converted copy
//   that goes back at unlock; a lock in the bitmap's own format points into
//   the pixels (made private first when writing).
// - Locking into an indexed format other than the bitmap's maps colours onto
//   the bitmap's palette when it fits that format, else onto that format's
//   default palette.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/linux/engine/EngineInternal.h"

namespace kestrelyn {

using engine::Trap;

namespace {

std::atomic<std::uintptr_t> g_nextToken{1};

std::shared_ptr<engine::PixelBuffer> NewBuffer(std::size_t size) {
    auto buf = std::make_shared<engine::PixelBuffer>();
    // calloc: a large block comes zeroed from the system, with no pass over it.
    buf->storage.reset(static_cast<std::uint8_t*>(std::calloc(size > 0 ? size : 1, 1)));
    if (!buf->storage) throw std::bad_alloc();
    buf->data = buf->storage.get();
    buf->size = size;
    buf->owned = true;
    return buf;
}

bool RectInside(const GpImage& img, const GpRect& r) {
    return r.Width > 0 && r.Height > 0 && r.X >= 0 && r.Y >= 0 &&
           static_cast<std::int64_t>(r.X) + r.Width <= img.width &&
           static_cast<std::int64_t>(r.Y) + r.Height <= img.height;
}

// Minimum bytes of a row of `width` pixels.
std::int64_t RowBytes(INT width, PixelFormat format) {
    return (static_cast<std::int64_t>(width) * engine::FormatBits(format) + 7) / 8;
}

// The view of the image at the rectangle's top-left corner.
engine::PixelView ViewAt(const GpImage& img, INT x, INT y) {
    engine::PixelView v = engine::ViewOf(img);
    INT bits = engine::FormatBits(img.format);
    v.scan0 = img.Row(y);
    if (bits >= 8) {
        v.scan0 += static_cast<std::ptrdiff_t>(x) * (bits / 8);
    } else {
        v.x0 = x;
    }
    return v;
}

// The palette that a lock in `format` maps colours with.
std::vector<ARGB> LockPalette(const GpImage& img, PixelFormat format) {
    if (!IsIndexedPixelFormat(format)) return {};
    std::size_t cap = std::size_t(1) << engine::FormatBits(format);
    if (!img.palette.empty() && img.palette.size() <= cap) return img.palette;
    return engine::DefaultPalette(format);
}

bool PaletteIsGray(const std::vector<ARGB>& pal) {
    if (pal.empty()) return false;
    for (ARGB c : pal)
        if (((c >> 16) & 255) != ((c >> 8) & 255) || ((c >> 8) & 255) != (c & 255)) return false;
    return true;
}

GpStatus CopyIntoNewBitmap(const GpImage& src, const GpRect& r, PixelFormat format, GpImage** out) {
    std::unique_ptr<GpImage> dst(engine::NewBitmap(r.Width, r.Height, format));
    if (!dst) return OutOfMemory;
    if (format == src.format) {
        dst->palette = src.palette;
        dst->paletteFlags = src.paletteFlags;
    } else if (IsIndexedPixelFormat(format)) {
        dst->palette = LockPalette(src, format);
        dst->paletteFlags =
            src.palette == dst->palette ? src.paletteFlags : engine::DefaultPaletteFlags(format);
    }
    engine::PixelView sv = ViewAt(src, r.X, r.Y);
    engine::PixelView dv = engine::ViewOf(*dst);
    GpStatus st = engine::ConvertPixels(sv, dv, r.Width, r.Height);
    if (st != OK) return st;
    dst->dpiX = src.dpiX;
    dst->dpiY = src.dpiY;
    *out = dst.release();
    return OK;
}

} // namespace

// --- engine-internal entry points ---

namespace engine {

GpImage* NewBitmap(INT width, INT height, PixelFormat format) {
    INT stride = StrideFor(width, format);
    if (stride <= 0 || height <= 0) return nullptr;
    auto img = std::make_unique<GpImage>();
    img->width = width;
    img->height = height;
    img->format = format;
    img->stride = stride;
    img->pixels = NewBuffer(static_cast<std::size_t>(stride) * static_cast<std::size_t>(height));
    img->palette = DefaultPalette(format);
    img->paletteFlags = DefaultPaletteFlags(format);
    img->rawFormat = kMemoryBmpFormat;
    return img.release();
}

GpStatus EnsureWritable(GpImage& image) {
    if (!image.pixels) return InvalidParameter;
    if (!image.pixels->owned || image.pixels.use_count() == 1) return OK;
    return Trap([&] {
        auto copy = NewBuffer(image.pixels->size);
        std::memcpy(copy->data, image.pixels->data, image.pixels->size);
        image.pixels = std::move(copy);
        return OK;
    });
}

GpStatus AttachFrames(GpImage& image, std::shared_ptr<FrameSource> source) {
    if (!source || source->FrameCount() == 0) return InvalidParameter;
    GpImage* frame = nullptr;
    GpStatus st = source->DecodeFrame(0, &frame);
    if (st != OK) return st;
    if (!frame) return GenericError;
    MoveImageContent(image, frame);
    image.frames = std::move(source);
    image.activeFrame = 0;
    return OK;
}

void MoveImageContent(GpImage& into, GpImage* from) {
    if (!from || from == &into) return;
    into.width = from->width;
    into.height = from->height;
    into.format = from->format;
    into.stride = from->stride;
    into.pixels = std::move(from->pixels);
    into.palette = std::move(from->palette);
    into.paletteFlags = from->paletteFlags;
    into.dpiX = from->dpiX;
    into.dpiY = from->dpiY;
    into.properties = std::move(from->properties);
    into.flags = from->flags;
    if (into.rawFormat == GUID{}) into.rawFormat = from->rawFormat;
    into.locked = false;
    into.lockScratch.clear();
    delete from;
}

} // namespace engine

// --- start and stop, memory ---

GpStatus GdiplusStartup(std::uintptr_t* token, const GdiplusStartupInput* input,
                        GdiplusStartupOutput* output) {
    if (!token || !input) return InvalidParameter;
    if (input->GdiplusVersion != 1 && input->GdiplusVersion != 2) return UnsupportedGdiplusVersion;
    if (output) *output = GdiplusStartupOutput{};
    *token = g_nextToken.fetch_add(1);
    return OK;
}

void GdiplusShutdown(std::uintptr_t) {}

void* GdipAlloc(std::size_t size) {
    return std::malloc(size > 0 ? size : 1);
}

void GdipFree(void* ptr) {
    std::free(ptr);
}

const char* GdipGetEngineVersion() {
    return "6.2.0.1";
}

// --- bitmaps ---

GpStatus GdipCreateBitmapFromScan0(INT width, INT height, INT stride, PixelFormat format,
                                   std::uint8_t* scan0, GpBitmap** bitmap) {
    if (!bitmap || width <= 0 || height <= 0 || !engine::IsValidFormat(format))
        return InvalidParameter;
    return Trap([&]() -> GpStatus {
        std::int64_t rowBytes = RowBytes(width, format);
        if (!scan0) {
            INT rule = engine::StrideFor(width, format);
            if (rule <= 0) return InvalidParameter;
            if (stride != 0 && (stride < rowBytes)) return InvalidParameter;
            INT use = stride != 0 ? stride : rule;
            std::size_t size = static_cast<std::size_t>(use) * static_cast<std::size_t>(height);
            auto img = std::unique_ptr<GpImage>(engine::NewBitmap(width, height, format));
            if (!img) return OutOfMemory;
            if (use != rule) {
                img->stride = use;
                img->pixels = NewBuffer(size);
            }
            *bitmap = img.release();
            return OK;
        }
        if (stride == 0 || std::llabs(stride) < rowBytes) return InvalidParameter;
        auto img = std::make_unique<GpImage>();
        img->width = width;
        img->height = height;
        img->format = format;
        img->stride = stride;
        img->pixels = std::make_shared<engine::PixelBuffer>();
        img->pixels->data = scan0;
        img->pixels->size = static_cast<std::size_t>(std::llabs(stride)) * height;
        img->pixels->owned = false;
        img->palette = engine::DefaultPalette(format);
        img->paletteFlags = engine::DefaultPaletteFlags(format);
        img->rawFormat = engine::kMemoryBmpFormat;
        *bitmap = img.release();
        return OK;
    });
}

namespace codecs {
void FinishPendingSave(GpImage* image); // Encoders.cpp
}

GpStatus GdipDisposeImage(GpImage* image) {
    if (!image) return InvalidParameter;
    codecs::FinishPendingSave(image);
    delete image;
    return OK;
}

GpStatus GdipCloneImage(GpImage* image, GpImage** cloneImage) {
    if (!image || !cloneImage || !image->pixels) return InvalidParameter;
    return Trap([&]() -> GpStatus {
        auto c = std::make_unique<GpImage>();
        c->width = image->width;
        c->height = image->height;
        c->format = image->format;
        c->palette = image->palette;
        c->paletteFlags = image->paletteFlags;
        c->dpiX = image->dpiX;
        c->dpiY = image->dpiY;
        c->properties = image->properties;
        c->flags = image->flags;
        c->rawFormat = image->rawFormat;
        c->frames = image->frames;
        c->activeFrame = image->activeFrame;
        if (image->pixels->owned) {
            c->stride = image->stride;
            c->pixels = image->pixels;
        } else {
            // Caller memory is never shared: the clone gets its own copy.
            std::int64_t rowBytes = RowBytes(image->width, image->format);
            INT stride = static_cast<INT>(std::llabs(image->stride));
            c->stride = stride;
            c->pixels = NewBuffer(static_cast<std::size_t>(stride) * image->height);
            for (INT y = 0; y < image->height; ++y)
                std::memcpy(c->pixels->data + static_cast<std::ptrdiff_t>(y) * stride,
                            image->Row(y), static_cast<std::size_t>(rowBytes));
        }
        *cloneImage = c.release();
        return OK;
    });
}

GpStatus GdipCloneBitmapAreaI(INT x, INT y, INT width, INT height, PixelFormat format,
                              GpBitmap* srcBitmap, GpBitmap** dstBitmap) {
    if (!srcBitmap || !dstBitmap || !srcBitmap->pixels) return InvalidParameter;
    if (format == PixelFormatUndefined) format = srcBitmap->format;
    if (!engine::IsValidFormat(format)) return InvalidParameter;
    GpRect r{x, y, width, height};
    if (!RectInside(*srcBitmap, r)) return InvalidParameter;
    if (srcBitmap->locked) return WrongState;
    return Trap([&] { return CopyIntoNewBitmap(*srcBitmap, r, format, dstBitmap); });
}

GpStatus GdipBitmapLockBits(GpBitmap* bitmap, const GpRect* rect, UINT flags, PixelFormat format,
                            BitmapData* data) {
    if (!bitmap || !data || !bitmap->pixels) return InvalidParameter;
    if ((flags & ~UINT(7)) != 0 || (flags & 3) == 0 || !engine::IsValidFormat(format))
        return InvalidParameter;
    GpRect r = rect ? *rect : GpRect{0, 0, bitmap->width, bitmap->height};
    if (!RectInside(*bitmap, r)) return InvalidParameter;
    if (bitmap->locked) return WrongState;
    return Trap([&]() -> GpStatus {
        GpImage& img = *bitmap;
        bool write = (flags & ImageLockModeWrite) != 0;
        bool read = (flags & ImageLockModeRead) != 0;
        bool user = (flags & ImageLockModeUserInputBuf) != 0;
        INT bits = engine::FormatBits(format);
        std::vector<ARGB> pal = LockPalette(img, format);
        engine::PixelView lockView;
        lockView.format = format;
        lockView.palette = pal.empty() ? nullptr : pal.data();
        lockView.paletteCount = static_cast<UINT>(pal.size());

        if (write) {
            GpStatus st = engine::EnsureWritable(img);
            if (st != OK) return st;
        }
        BitmapData out;
        out.Width = static_cast<UINT>(r.Width);
        out.Height = static_cast<UINT>(r.Height);
        out.PixelFormat = format;
        if (user) {
            if (!data->Scan0) return InvalidParameter;
            INT stride = data->Stride != 0 ? data->Stride : engine::StrideFor(r.Width, format);
            if (std::llabs(stride) < RowBytes(r.Width, format)) return InvalidParameter;
            out.Stride = stride;
            out.Scan0 = data->Scan0;
            if (read) {
                lockView.scan0 = static_cast<std::uint8_t*>(out.Scan0);
                lockView.stride = stride;
                GpStatus st =
                    engine::ConvertPixels(ViewAt(img, r.X, r.Y), lockView, r.Width, r.Height);
                if (st != OK) return st;
            }
            img.lockScratch.clear();
        } else if (format == img.format && (static_cast<std::int64_t>(r.X) * bits) % 8 == 0) {
            out.Stride = img.stride;
            out.Scan0 = img.Row(r.Y) + (static_cast<std::int64_t>(r.X) * bits) / 8;
            img.lockScratch.clear();
        } else {
            INT stride = engine::StrideFor(r.Width, format);
            img.lockScratch.assign(static_cast<std::size_t>(stride) * r.Height, 0);
            out.Stride = stride;
            out.Scan0 = img.lockScratch.data();
            lockView.scan0 = img.lockScratch.data();
            lockView.stride = stride;
            GpStatus st = engine::ConvertPixels(ViewAt(img, r.X, r.Y), lockView, r.Width, r.Height);
            if (st != OK) return st;
        }
        out.Reserved = data->Reserved;
        img.locked = true;
        img.lockFlags = flags;
        img.lockRect = r;
        img.lockFormat = format;
        img.lockCallerData = out;
        *data = out;
        return OK;
    });
}

GpStatus GdipBitmapUnlockBits(GpBitmap* bitmap, BitmapData* data) {
    if (!bitmap || !data) return InvalidParameter;
    if (!bitmap->locked) return WrongState;
    GpImage& img = *bitmap;
    GpStatus st = Trap([&]() -> GpStatus {
        bool write = (img.lockFlags & ImageLockModeWrite) != 0;
        bool user = (img.lockFlags & ImageLockModeUserInputBuf) != 0;
        if (!write || (!user && img.lockScratch.empty()))
            return OK; // read lock, or a write straight into the pixels
        std::vector<ARGB> pal = LockPalette(img, img.lockFormat);
        engine::PixelView src;
        src.format = img.lockFormat;
        src.palette = pal.empty() ? nullptr : pal.data();
        src.paletteCount = static_cast<UINT>(pal.size());
        src.scan0 = static_cast<std::uint8_t*>(img.lockCallerData.Scan0);
        src.stride = img.lockCallerData.Stride;
        GpStatus w = engine::EnsureWritable(img);
        if (w != OK) return w;
        return engine::ConvertPixels(src, ViewAt(img, img.lockRect.X, img.lockRect.Y),
                                     img.lockRect.Width, img.lockRect.Height);
    });
    img.locked = false;
    img.lockFlags = 0;
    img.lockScratch.clear();
    img.lockScratch.shrink_to_fit();
    img.lockCallerData = BitmapData{};
    return st;
}

GpStatus GdipBitmapGetPixel(GpBitmap* bitmap, INT x, INT y, ARGB* color) {
    if (!bitmap || !color || !bitmap->pixels || x < 0 || y < 0 || x >= bitmap->width ||
        y >= bitmap->height)
        return InvalidParameter;
    if (bitmap->locked) return WrongState;
    *color = engine::ReadPixel(engine::ViewOf(*bitmap), x, y);
    return OK;
}

GpStatus GdipBitmapSetPixel(GpBitmap* bitmap, INT x, INT y, ARGB color) {
    if (!bitmap || !bitmap->pixels || x < 0 || y < 0 || x >= bitmap->width || y >= bitmap->height)
        return InvalidParameter;
    if (IsIndexedPixelFormat(bitmap->format)) return InvalidParameter;
    if (bitmap->locked) return WrongState;
    GpStatus st = engine::EnsureWritable(*bitmap);
    if (st != OK) return st;
    engine::WritePixel(engine::ViewOf(*bitmap), x, y, color);
    return OK;
}

GpStatus GdipImageRotateFlip(GpImage* image, RotateFlipType rfType) {
    if (!image || !image->pixels || rfType < 0 || rfType > 7) return InvalidParameter;
    if (image->locked) return WrongState;
    if (rfType == RotateNoneFlipNone) return OK;
    return Trap([&]() -> GpStatus {
        bool swap = (rfType & 1) != 0;
        INT nw = swap ? image->height : image->width;
        INT nh = swap ? image->width : image->height;
        INT stride = engine::StrideFor(nw, image->format);
        if (stride <= 0) return InvalidParameter;
        auto buf = NewBuffer(static_cast<std::size_t>(stride) * nh);
        engine::PixelView dst = engine::ViewOf(*image);
        dst.scan0 = buf->data;
        dst.stride = stride;
        engine::RotateFlipPixels(engine::ViewOf(*image), image->width, image->height, dst, rfType);
        image->pixels = std::move(buf);
        image->stride = stride;
        image->width = nw;
        image->height = nh;
        if (swap) std::swap(image->dpiX, image->dpiY);
        return OK;
    });
}

GpStatus GdipImageForceValidation(GpImage* image) {
    return image ? OK : InvalidParameter;
}

// --- facts ---

GpStatus GdipGetImageWidth(GpImage* image, UINT* width) {
    if (!image || !width) return InvalidParameter;
    *width = static_cast<UINT>(image->width);
    return OK;
}

GpStatus GdipGetImageHeight(GpImage* image, UINT* height) {
    if (!image || !height) return InvalidParameter;
    *height = static_cast<UINT>(image->height);
    return OK;
}

GpStatus GdipGetImagePixelFormat(GpImage* image, PixelFormat* format) {
    if (!image || !format) return InvalidParameter;
    *format = image->format;
    return OK;
}

GpStatus GdipGetImageFlags(GpImage* image, UINT* flags) {
    if (!image || !flags) return InvalidParameter;
    const UINT spaces = ImageFlagsColorSpaceRGB | ImageFlagsColorSpaceCMYK |
                        ImageFlagsColorSpaceGRAY | ImageFlagsColorSpaceYCBCR |
                        ImageFlagsColorSpaceYCCK;
    UINT f = image->flags;
    if ((f & spaces) == 0) {
        bool gray = image->format == PixelFormat16bppGrayScale ||
                    (IsIndexedPixelFormat(image->format) && PaletteIsGray(image->palette));
        f |= gray ? ImageFlagsColorSpaceGRAY : ImageFlagsColorSpaceRGB;
    }
    if (IsAlphaPixelFormat(image->format) ||
        (IsIndexedPixelFormat(image->format) && (image->paletteFlags & PaletteFlagsHasAlpha)))
        f |= ImageFlagsHasAlpha;
    *flags = f;
    return OK;
}

GpStatus GdipGetImageHorizontalResolution(GpImage* image, float* resolution) {
    if (!image || !resolution) return InvalidParameter;
    *resolution = image->dpiX;
    return OK;
}

GpStatus GdipGetImageVerticalResolution(GpImage* image, float* resolution) {
    if (!image || !resolution) return InvalidParameter;
    *resolution = image->dpiY;
    return OK;
}

GpStatus GdipBitmapSetResolution(GpBitmap* bitmap, float xdpi, float ydpi) {
    if (!bitmap || !(xdpi > 0) || !(ydpi > 0)) return InvalidParameter;
    bitmap->dpiX = xdpi;
    bitmap->dpiY = ydpi;
    return OK;
}

GpStatus GdipGetImageRawFormat(GpImage* image, GUID* format) {
    if (!image || !format) return InvalidParameter;
    *format = image->rawFormat;
    return OK;
}

// --- palettes ---

GpStatus GdipGetImagePaletteSize(GpImage* image, INT* size) {
    if (!image || !size) return InvalidParameter;
    *size = static_cast<INT>(8 + 4 * image->palette.size());
    return OK;
}

GpStatus GdipGetImagePalette(GpImage* image, ColorPalette* palette, INT size) {
    if (!image || !palette) return InvalidParameter;
    std::size_t need = 8 + 4 * image->palette.size();
    if (size < 0 || static_cast<std::size_t>(size) < need) return InvalidParameter;
    palette->Flags = image->paletteFlags;
    palette->Count = static_cast<UINT>(image->palette.size());
    if (!image->palette.empty())
        std::memcpy(palette->Entries, image->palette.data(), 4 * image->palette.size());
    return OK;
}

GpStatus GdipSetImagePalette(GpImage* image, const ColorPalette* palette) {
    if (!image || !palette || palette->Count > 256) return InvalidParameter;
    if (IsIndexedPixelFormat(image->format) &&
        (palette->Count == 0 || palette->Count > (1u << engine::FormatBits(image->format))))
        return InvalidParameter;
    return Trap([&] {
        image->palette.assign(palette->Entries, palette->Entries + palette->Count);
        image->paletteFlags = palette->Flags;
        return OK;
    });
}

// --- property items ---

namespace {
engine::PropertyRecord* FindProperty(GpImage* image, PROPID id) {
    for (auto& p : image->properties)
        if (p.id == id) return &p;
    return nullptr;
}
} // namespace

GpStatus GdipGetPropertyCount(GpImage* image, UINT* numOfProperty) {
    if (!image || !numOfProperty) return InvalidParameter;
    *numOfProperty = static_cast<UINT>(image->properties.size());
    return OK;
}

GpStatus GdipGetPropertyIdList(GpImage* image, UINT numOfProperty, PROPID* list) {
    if (!image || !list || numOfProperty != image->properties.size()) return InvalidParameter;
    for (std::size_t i = 0; i < image->properties.size(); ++i)
        list[i] = image->properties[i].id;
    return OK;
}

GpStatus GdipGetPropertyItemSize(GpImage* image, PROPID propId, UINT* size) {
    if (!image || !size) return InvalidParameter;
    const engine::PropertyRecord* p = FindProperty(image, propId);
    if (!p) return PropertyNotFound;
    *size = static_cast<UINT>(sizeof(PropertyItem) + p->value.size());
    return OK;
}

GpStatus GdipGetPropertyItem(GpImage* image, PROPID propId, UINT propSize, PropertyItem* buffer) {
    if (!image || !buffer) return InvalidParameter;
    const engine::PropertyRecord* p = FindProperty(image, propId);
    if (!p) return PropertyNotFound;
    if (propSize < sizeof(PropertyItem) + p->value.size()) return InvalidParameter;
    buffer->id = p->id;
    buffer->type = p->type;
    buffer->length = static_cast<std::uint32_t>(p->value.size());
    auto* bytes = reinterpret_cast<std::uint8_t*>(buffer) + sizeof(PropertyItem);
    if (!p->value.empty()) std::memcpy(bytes, p->value.data(), p->value.size());
    buffer->value = p->value.empty() ? nullptr : bytes;
    return OK;
}

GpStatus GdipGetPropertySize(GpImage* image, UINT* totalBufferSize, UINT* numProperties) {
    if (!image || !totalBufferSize || !numProperties) return InvalidParameter;
    std::size_t total = 0;
    for (const auto& p : image->properties)
        total += sizeof(PropertyItem) + p.value.size();
    *totalBufferSize = static_cast<UINT>(total);
    *numProperties = static_cast<UINT>(image->properties.size());
    return OK;
}

GpStatus GdipSetPropertyItem(GpImage* image, const PropertyItem* item) {
    if (!image || !item || (item->length > 0 && !item->value)) return InvalidParameter;
    return Trap([&] {
        const auto* v = static_cast<const std::uint8_t*>(item->value);
        std::vector<std::uint8_t> bytes(v, v + item->length);
        if (engine::PropertyRecord* p = FindProperty(image, item->id)) {
            p->type = item->type;
            p->value = std::move(bytes);
        } else {
            image->properties.push_back({item->id, item->type, std::move(bytes)});
        }
        return OK;
    });
}

GpStatus GdipRemovePropertyItem(GpImage* image, PROPID propId) {
    if (!image) return InvalidParameter;
    for (auto it = image->properties.begin(); it != image->properties.end(); ++it) {
        if (it->id == propId) {
            image->properties.erase(it);
            return OK;
        }
    }
    return PropertyNotFound;
}

// --- frames ---

GpStatus GdipImageGetFrameDimensionsCount(GpImage* image, UINT* count) {
    if (!image || !count) return InvalidParameter;
    *count = 1;
    return OK;
}

GpStatus GdipImageGetFrameDimensionsList(GpImage* image, GUID* dimensionIDs, UINT count) {
    if (!image || !dimensionIDs || count != 1) return InvalidParameter;
    dimensionIDs[0] = image->frames ? image->frames->Dimension() : engine::kFrameDimensionPage;
    return OK;
}

GpStatus GdipImageGetFrameCount(GpImage* image, const GUID* dimensionID, UINT* count) {
    if (!image || !dimensionID || !count) return InvalidParameter;
    GUID dim = image->frames ? image->frames->Dimension() : engine::kFrameDimensionPage;
    if (!(*dimensionID == dim)) return InvalidParameter;
    *count = image->frames ? image->frames->FrameCount() : 1;
    return OK;
}

GpStatus GdipImageSelectActiveFrame(GpImage* image, const GUID* dimensionID, UINT frameIndex) {
    if (!image || !dimensionID) return InvalidParameter;
    GUID dim = image->frames ? image->frames->Dimension() : engine::kFrameDimensionPage;
    if (!(*dimensionID == dim)) return InvalidParameter;
    if (!image->frames) return frameIndex == 0 ? OK : InvalidParameter;
    if (frameIndex >= image->frames->FrameCount()) return InvalidParameter;
    if (image->locked) return WrongState;
    return Trap([&]() -> GpStatus {
        GpImage* frame = nullptr;
        GpStatus st = image->frames->DecodeFrame(frameIndex, &frame);
        if (st != OK) return st;
        if (!frame) return GenericError;
        engine::MoveImageContent(*image, frame);
        image->activeFrame = frameIndex;
        return OK;
    });
}

} // namespace kestrelyn
