// GIF through giflib. Every frame is composed onto the logical screen
// (disposal methods 0-3, transparency) and given as a full page. A page whose
// colours all lie in the frame's colour table (global or local) is
// 8bppIndexed with that table, the transparent entry at alpha 0; other pages
// (colours from earlier frames with another table) are 32bppARGB. Uncovered
// screen areas are transparent. Every page carries the file's frame delays
// (20736, LONG per frame, 1/100 s), the loop count (20737) when the file has
// one, and the first comment (37510, ASCII). Files of several frames keep
// their bytes in a frame source (frame dimension "time").
#include <gif_lib.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

#include "platform/linux/engine/codecs/CodecCommon.h"
#include "platform/linux/engine/codecs/GifRows.h"

namespace kestrelyn::codecs {

namespace {

struct MemIn {
    const std::uint8_t* data;
    std::size_t size;
    std::size_t pos;
};

int ReadFn(GifFileType* gif, GifByteType* buf, int n) {
    auto* in = static_cast<MemIn*>(gif->UserData);
    std::size_t k = std::min(static_cast<std::size_t>(n), in->size - in->pos);
    std::memcpy(buf, in->data + in->pos, k);
    in->pos += k;
    return static_cast<int>(k);
}

struct GifDoc {
    SharedBytes bytes;
    MemIn in{};
    GifFileType* gif = nullptr;
    std::vector<gifrows::FrameRows> frames;
    std::vector<std::uint32_t> delays;
    std::vector<int> disposal;
    std::vector<int> transparent;
    bool hasLoop = false;
    std::uint16_t loop = 0;
    std::string comment;
    bool hasComment = false;

    ~GifDoc() {
        if (gif) {
            int err = 0;
            DGifCloseFile(gif, &err);
        }
    }

    GpStatus Open() {
        in = {bytes->data(), bytes->size(), 0};
        int err = 0;
        gif = DGifOpen(&in, ReadFn, &err);
        if (!gif) return UnknownImageFormat;
        if (gif->SWidth <= 0 || gif->SHeight <= 0) return UnknownImageFormat;
        if (!DecodeSizeAllowed(gif->SWidth, gif->SHeight)) return OutOfMemory;
        // A cut file keeps the frames that arrived, the last one with the
        // rows that arrived whole.
        frames = gifrows::ReadFrames(gif);
        const int count = gif->ImageCount;
        if (count <= 0) return UnknownImageFormat;
        for (int i = 0; i < count; ++i) {
            GraphicsControlBlock gcb{};
            gcb.TransparentColor = NO_TRANSPARENT_COLOR;
            DGifSavedExtensionToGCB(gif, i, &gcb);
            delays.push_back(static_cast<std::uint32_t>(gcb.DelayTime));
            disposal.push_back(gcb.DisposalMode);
            transparent.push_back(gcb.TransparentColor);
        }
        auto scan = [&](int n, ExtensionBlock* blocks) {
            for (int k = 0; k < n; ++k) {
                ExtensionBlock& b = blocks[k];
                if (b.Function == APPLICATION_EXT_FUNC_CODE && b.ByteCount == 11 &&
                    (std::memcmp(b.Bytes, "NETSCAPE2.0", 11) == 0 ||
                     std::memcmp(b.Bytes, "ANIMEXTS1.0", 11) == 0) &&
                    k + 1 < n && blocks[k + 1].ByteCount >= 3 && blocks[k + 1].Bytes[0] == 1) {
                    hasLoop = true;
                    loop = static_cast<std::uint16_t>(blocks[k + 1].Bytes[1] |
                                                      (blocks[k + 1].Bytes[2] << 8));
                }
                if (b.Function == COMMENT_EXT_FUNC_CODE && !hasComment) {
                    hasComment = true;
                    comment.assign(reinterpret_cast<const char*>(b.Bytes),
                                   static_cast<std::size_t>(b.ByteCount));
                    for (int j = k + 1; j < n && blocks[j].Function == CONTINUE_EXT_FUNC_CODE; ++j)
                        comment.append(reinterpret_cast<const char*>(blocks[j].Bytes),
                                       static_cast<std::size_t>(blocks[j].ByteCount));
                }
            }
        };
        scan(gif->ExtensionBlockCount, gif->ExtensionBlocks);
        for (int i = 0; i < count; ++i)
            scan(gif->SavedImages[i].ExtensionBlockCount, gif->SavedImages[i].ExtensionBlocks);
        return OK;
    }
};

// Composes frames onto the screen; keeps the state to go forward cheaply.
class GifFrames final : public engine::FrameSource {
  public:
    explicit GifFrames(std::shared_ptr<GifDoc> doc) : doc_(std::move(doc)) {}
    GUID Dimension() const override { return FrameDimensionTime; }
    UINT FrameCount() const override { return static_cast<UINT>(doc_->gif->ImageCount); }

    GpStatus DecodeFrame(UINT index, GpImage** frame) override {
        *frame = nullptr;
        if (index >= FrameCount()) return InvalidParameter;
        try {
            if (static_cast<int>(index) <= drawn_) {
                canvas_.clear();
                drawn_ = -1;
            }
            const int w = doc_->gif->SWidth, h = doc_->gif->SHeight;
            if (canvas_.empty())
                canvas_.assign(static_cast<std::size_t>(w) * static_cast<std::size_t>(h), 0);
            while (drawn_ < static_cast<int>(index)) {
                if (drawn_ >= 0) Dispose(drawn_);
                Draw(drawn_ + 1);
                ++drawn_;
            }
            return MakePage(index, frame);
        } catch (const std::bad_alloc&) {
            canvas_.clear();
            drawn_ = -1;
            return OutOfMemory;
        }
    }

  private:
    struct Rect {
        int x0, y0, x1, y1;
    };
    Rect Clip(int i) const {
        const GifImageDesc& d = doc_->gif->SavedImages[i].ImageDesc;
        Rect r{d.Left, d.Top, d.Left + d.Width, d.Top + d.Height};
        r.x0 = std::max(0, r.x0);
        r.y0 = std::max(0, r.y0);
        r.x1 = std::min(r.x1, doc_->gif->SWidth);
        r.y1 = std::min(r.y1, doc_->gif->SHeight);
        return r;
    }
    const ColorMapObject* Map(int i) const {
        const ColorMapObject* m = doc_->gif->SavedImages[i].ImageDesc.ColorMap;
        return m ? m : doc_->gif->SColorMap;
    }
    void Dispose(int i) {
        int mode = doc_->disposal[static_cast<std::size_t>(i)];
        if (mode == DISPOSE_BACKGROUND) {
            Rect r = Clip(i);
            for (int y = r.y0; y < r.y1; ++y)
                for (int x = r.x0; x < r.x1; ++x)
                    canvas_[Idx(x, y)] = 0;
        } else if (mode == DISPOSE_PREVIOUS && !previous_.empty()) {
            canvas_ = previous_;
        }
    }
    std::size_t Idx(int x, int y) const {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(doc_->gif->SWidth) +
               static_cast<std::size_t>(x);
    }
    // Rows the file did not supply leave the screen as it was.
    void Draw(int i) {
        if (doc_->disposal[static_cast<std::size_t>(i)] == DISPOSE_PREVIOUS)
            previous_ = canvas_;
        else
            previous_.clear();
        const gifrows::FrameRows& f = doc_->frames[static_cast<std::size_t>(i)];
        const ColorMapObject* map = Map(i);
        int trans = doc_->transparent[static_cast<std::size_t>(i)];
        for (int y = f.y0; y < f.y1; ++y) {
            const std::uint8_t* src = f.Row(y);
            if (!src) continue;
            for (int x = f.x0; x < f.x1; ++x) {
                int v = src[x - f.x0];
                if (v == trans) continue;
                ARGB c = 0xff000000u;
                if (map && v < map->ColorCount)
                    c |= (static_cast<ARGB>(map->Colors[v].Red) << 16) |
                         (static_cast<ARGB>(map->Colors[v].Green) << 8) | map->Colors[v].Blue;
                canvas_[Idx(x, y)] = c;
            }
        }
    }
    GpStatus MakePage(UINT index, GpImage** frame) {
        const int w = doc_->gif->SWidth, h = doc_->gif->SHeight;
        const ColorMapObject* map = Map(static_cast<int>(index));
        int trans = doc_->transparent[index];
        // Try the frame's own table.
        std::vector<ARGB> pal;
        std::unordered_map<ARGB, std::uint8_t> lookup;
        bool indexed = map != nullptr;
        if (map) {
            for (int k = 0; k < map->ColorCount && k < 256; ++k) {
                ARGB rgb = (static_cast<ARGB>(map->Colors[k].Red) << 16) |
                           (static_cast<ARGB>(map->Colors[k].Green) << 8) | map->Colors[k].Blue;
                ARGB c = k == trans ? rgb : (0xff000000u | rgb);
                pal.push_back(c);
                ARGB key = k == trans ? 0u : c;
                lookup.emplace(key, static_cast<std::uint8_t>(k));
            }
            for (ARGB c : canvas_)
                if (!lookup.count(c & 0xff000000u ? c : 0u)) {
                    indexed = false;
                    break;
                }
        }
        GpImage* raw = nullptr;
        GpStatus st = NewBitmap(
            w, h, static_cast<PixelFormat>(indexed ? PixelFormat8bppIndexed : PixelFormat32bppARGB),
            &raw);
        if (st != OK) return st;
        BitmapHolder img(raw);
        for (int y = 0; y < h; ++y) {
            std::uint8_t* row = img->Row(y);
            const ARGB* src = canvas_.data() + Idx(0, y);
            if (indexed) {
                for (int x = 0; x < w; ++x)
                    row[x] = lookup[src[x] & 0xff000000u ? src[x] : 0u];
            } else {
                std::memcpy(row, src, static_cast<std::size_t>(w) * 4);
            }
        }
        bool alpha = false;
        for (ARGB c : canvas_)
            if ((c >> 24) != 255) {
                alpha = true;
                break;
            }
        if (indexed && (st = SetPalette(img.get(), pal,
                                        trans >= 0 ? UINT{PaletteFlagsHasAlpha} : UINT{0})) != OK)
            return st;
        AddPropertyLongs(img.get(), 20736, doc_->delays);
        if (doc_->hasLoop) AddPropertyShort(img.get(), 20737, doc_->loop);
        if (doc_->hasComment) AddPropertyAscii(img.get(), 37510, doc_->comment);
        img->flags = ImageFlagsColorSpaceRGB | ImageFlagsHasRealPixelSize |
                     (alpha ? UINT{ImageFlagsHasAlpha} : UINT{0});
        img->rawFormat = ImageFormatGIF;
        *frame = img.release();
        return OK;
    }

    std::shared_ptr<GifDoc> doc_;
    std::vector<ARGB> canvas_;
    std::vector<ARGB> previous_;
    int drawn_ = -1;
};

} // namespace

GpStatus DecodeGif(SharedBytes data, GpImage** out) {
    *out = nullptr;
    auto doc = std::make_shared<GifDoc>();
    doc->bytes = std::move(data);
    GpStatus st = doc->Open();
    if (st != OK) return st;
    auto frames = std::make_shared<GifFrames>(doc);
    if (frames->FrameCount() == 1) return frames->DecodeFrame(0, out);
    GpImage* raw = nullptr;
    if ((st = NewBitmap(1, 1, PixelFormat32bppARGB, &raw)) != OK) return st;
    BitmapHolder img(raw);
    img->rawFormat = ImageFormatGIF;
    if ((st = engine::AttachFrames(*img.get(), frames)) != OK) return st;
    *out = img.release();
    return OK;
}

} // namespace kestrelyn::codecs
