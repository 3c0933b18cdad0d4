// The C exports of the plug-in. Every entry point traps exceptions and checks
// its handles against the live set, so a stale or foreign handle fails
// cleanly instead of touching freed memory.
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>
#include <unordered_set>

#include <zlib.h>

#include "Codecs.h"

namespace kyplug {
namespace {

// An open file: the descriptor stays open until the handle is closed, and a
// multi-bitmap opened through the handle reads its pages through it (by the
// descriptor's /proc name), so the pages come from the very file that was
// opened even if its name is replaced or removed meanwhile.
struct FileHandle {
    std::string path;
    int fd = -1;
    FileHandle() = default;
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;
    ~FileHandle() {
        if (fd >= 0) ::close(fd);
    }
    std::string ReadPath() const { return fd >= 0 ? "/proc/self/fd/" + std::to_string(fd) : path; }
};

struct MultiBitmap {
    int fif = -1;
    std::string path;
    bool create = false;
    bool readOnly = true;
    int flags = 0;
    int pageCount = 0;
    bool modified = false;
    std::vector<BitmapPtr> replaced; // edited pages by index (null: from file)
    std::vector<BitmapPtr> appended;
    std::unordered_map<Bitmap*, int> locked; // page bitmap -> page index
};

struct MetaWalk {
    Bitmap* bm;
    int model;
    std::size_t next;
};

std::mutex g_lock;

// Live handles, one registry per kind: a handle is used only if it is found
// in the registry of the kind the call expects.
std::unordered_set<void*> g_bitmaps, g_multis, g_files, g_tags, g_walks;

template <class T> std::intptr_t AdoptAs(std::unique_ptr<T> p, std::unordered_set<void*>& kind) {
    if (!p) return 0;
    std::lock_guard<std::mutex> l(g_lock);
    kind.insert(p.get());
    return reinterpret_cast<std::intptr_t>(p.release());
}

template <class T> T* Get(std::intptr_t h, std::unordered_set<void*>& kind) {
    std::lock_guard<std::mutex> l(g_lock);
    return h && kind.count(reinterpret_cast<void*>(h)) ? reinterpret_cast<T*>(h) : nullptr;
}

template <class T> bool Free(std::intptr_t h, std::unordered_set<void*>& kind) {
    {
        std::lock_guard<std::mutex> l(g_lock);
        if (!h || !kind.erase(reinterpret_cast<void*>(h))) return false;
    }
    delete reinterpret_cast<T*>(h);
    return true;
}

Bitmap* BM(std::intptr_t h) {
    return Get<Bitmap>(h, g_bitmaps);
}
std::intptr_t NewHandle(BitmapPtr p) {
    return AdoptAs(std::move(p), g_bitmaps);
}

bool FileExists(const std::string& p) {
    struct stat st {};
    return ::stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

int ColorType(const Bitmap& bm) {
    switch (bm.type) {
    case kUInt16:
        return 1;
    case kRGB16:
    case kRGBF:
        return 2;
    case kRGBAF:
        return 4;
    default:
        break;
    }
    if (bm.bpp == 32) return bm.cmyk ? 5 : bm.alpha ? 4 : 2;
    if (bm.bpp > 8) return 2;
    int n = bm.colors();
    if (bm.isGreyRamp()) return 1;
    bool whiteFirst =
        n >= 2 && bm.palette[0] == 255 && bm.palette[1] == 255 && bm.palette[2] == 255;
    bool reversed = whiteFirst;
    for (int i = 0; i < n && reversed; ++i) {
        int v = 255 - i * 255 / (n - 1);
        reversed =
            bm.palette[i * 4] == v && bm.palette[i * 4 + 1] == v && bm.palette[i * 4 + 2] == v;
    }
    return reversed ? 0 : 3;
}

BitmapPtr LoadPage(MultiBitmap& m, int page) {
    struct stat st {};
    InputBudget budget(
        ::stat(m.path.c_str(), &st) == 0 && st.st_size > 0 ? std::uint64_t(st.st_size) : 1);
    if (page < int(m.replaced.size()) && m.replaced[std::size_t(page)])
        return CloneBitmap(*m.replaced[std::size_t(page)]);
    int filePages = m.pageCount - int(m.appended.size());
    if (page >= filePages) return CloneBitmap(*m.appended[std::size_t(page - filePages)]);
    if (m.fif == kTIFF) return DecodeTIFF(m.path, page, m.flags);
    return DecodeGIF(m.path, page, nullptr);
}

} // namespace
} // namespace kyplug

using namespace kyplug;

#define KYP_EXPORT extern "C" __attribute__((visibility("default")))
// The exports as the core's loader declares them: a definition below that
// differs from its line there does not compile.
#define KYP_FN(R, N, P, A, F) KYP_EXPORT R N P;
#include "platform/kyimgplug_exports.inc"
#undef KYP_FN
#define KYP_TRY try {
#define KYP_CATCH(v)                                                                               \
    }                                                                                              \
    catch (...) {                                                                                  \
        return v;                                                                                  \
    }

KYP_EXPORT int KYIMGPLUG_GetVersion() {
    return 100;
}
KYP_EXPORT const char* KYIMGPLUG_GetVersionString() {
    return "1.0.0.0";
}

KYP_EXPORT void KYIMGPLUG_SetDecodePixelLimit(std::int64_t pixels) {
    SetPixelLimit(pixels);
}

KYP_EXPORT int KYIMGPLUG_GetFileTypeU(const char* path, int) {
    KYP_TRY return path ? DetectByContent(path) : -1;
    KYP_CATCH(-1)
}
KYP_EXPORT int KYIMGPLUG_GetFIFFromFilenameU(const char* path) {
    KYP_TRY return path ? DetectByName(path) : -1;
    KYP_CATCH(-1)
}
KYP_EXPORT const char* KYIMGPLUG_GetFormatName(int fif) {
    return FormatName(fif);
}

KYP_EXPORT std::intptr_t KYIMGPLUG_LoadU(int fif, const char* path, int flags) {
    KYP_TRY if (!path || !FileExists(path)) return 0;
    return NewHandle(Decode(fif, path, flags));
    KYP_CATCH(0)
}

KYP_EXPORT int KYIMGPLUG_SaveU(int fif, std::intptr_t h, const char* path, int flags) {
    KYP_TRY Bitmap* bm = BM(h);
    if (!bm || !path) return 0;
    return Encode(fif, *bm, path, flags) ? 1 : 0;
    KYP_CATCH(0)
}

KYP_EXPORT void KYIMGPLUG_Unload(std::intptr_t h) {
    Free<Bitmap>(h, g_bitmaps);
}

KYP_EXPORT std::intptr_t KYIMGPLUG_OpenFileU(const char* path) {
    KYP_TRY if (!path || !FileExists(path)) return 0;
    auto f = std::make_unique<FileHandle>();
    f->path = path;
    f->fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (f->fd < 0) return 0;
    return AdoptAs(std::move(f), g_files);
    KYP_CATCH(0)
}

KYP_EXPORT int KYIMGPLUG_CloseFileHandle(std::intptr_t h) {
    return Free<FileHandle>(h, g_files) ? 1 : 0;
}

KYP_EXPORT std::intptr_t KYIMGPLUG_OpenMultiBitmap(int fif, const char* path, int create,
                                                   int readOnly, int, int flags) {
    KYP_TRY if (!path || (fif != kTIFF && fif != kGIF)) return 0;
    auto m = std::make_unique<MultiBitmap>();
    m->fif = fif;
    m->path = path;
    m->flags = flags;
    m->create = create != 0;
    m->readOnly = readOnly != 0 && !create;
    if (!m->create) {
        if (!FileExists(path)) return 0;
        if (fif == kTIFF) {
            m->pageCount = TiffPageCount(path);
        } else {
            int n = 0;
            if (!DecodeGIF(path, 0, &n)) n = 0;
            m->pageCount = n;
        }
        if (m->pageCount <= 0) return 0;
    }
    return AdoptAs(std::move(m), g_multis);
    KYP_CATCH(0)
}

KYP_EXPORT std::intptr_t KYIMGPLUG_OpenMultiBitmapU(int fif, int flags, std::intptr_t handle) {
    KYP_TRY FileHandle* f = Get<FileHandle>(handle, g_files);
    if (!f) return 0;
    const std::string source = f->ReadPath();
    return KYIMGPLUG_OpenMultiBitmap(fif, source.c_str(), 0, 1, 0, flags);
    KYP_CATCH(0)
}

KYP_EXPORT int KYIMGPLUG_CloseMultiBitmap(std::intptr_t h, int flags) {
    KYP_TRY MultiBitmap* m = Get<MultiBitmap>(h, g_multis);
    if (!m) return 0;
    bool ok = true;
    if (!m->readOnly && (m->create || m->modified) && m->pageCount > 0) {
        std::vector<BitmapPtr> pages;
        for (int i = 0; i < m->pageCount && ok; ++i) {
            pages.push_back(LoadPage(*m, i));
            ok = pages.back() != nullptr;
        }
        std::vector<const Bitmap*> raw;
        for (auto& p : pages)
            raw.push_back(p.get());
        // Everything is decoded first: the file may be the one being rewritten.
        if (ok) ok = m->fif == kTIFF ? EncodeTIFF(raw, flags, m->path) : EncodeGIF(raw, m->path);
    }
    for (auto& e : m->locked)
        Free<Bitmap>(reinterpret_cast<std::intptr_t>(e.first), g_bitmaps);
    Free<MultiBitmap>(h, g_multis);
    return ok ? 1 : 0;
    KYP_CATCH(0)
}

KYP_EXPORT int KYIMGPLUG_GetPageCount(std::intptr_t h) {
    MultiBitmap* m = Get<MultiBitmap>(h, g_multis);
    return m ? m->pageCount : 0;
}

KYP_EXPORT std::intptr_t KYIMGPLUG_LockPage(std::intptr_t h, int page) {
    KYP_TRY MultiBitmap* m = Get<MultiBitmap>(h, g_multis);
    if (!m || page < 0 || page >= m->pageCount) return 0;
    BitmapPtr bm = LoadPage(*m, page);
    if (!bm) return 0;
    Bitmap* raw = bm.get();
    std::intptr_t out = NewHandle(std::move(bm));
    m->locked[raw] = page;
    return out;
    KYP_CATCH(0)
}

KYP_EXPORT void KYIMGPLUG_UnlockPage(std::intptr_t h, std::intptr_t page, int changed) {
    try {
        MultiBitmap* m = Get<MultiBitmap>(h, g_multis);
        Bitmap* bm = BM(page);
        if (!m || !bm || !m->locked.count(bm)) return;
        int index = m->locked[bm];
        m->locked.erase(bm);
        if (changed && !m->readOnly) {
            // The edited page replaces the file's page when the document is
            // closed.
            if (m->replaced.size() < std::size_t(m->pageCount))
                m->replaced.resize(std::size_t(m->pageCount));
            m->replaced[std::size_t(index)] = CloneBitmap(*bm);
            m->modified = true;
        }
        Free<Bitmap>(page, g_bitmaps);
    } catch (...) {
    }
}

KYP_EXPORT void KYIMGPLUG_AppendPage(std::intptr_t h, std::intptr_t bitmap) {
    try {
        MultiBitmap* m = Get<MultiBitmap>(h, g_multis);
        Bitmap* bm = BM(bitmap);
        if (!m || !bm || m->readOnly) return;
        auto copy = CloneBitmap(*bm);
        if (!copy) return;
        m->appended.push_back(std::move(copy));
        ++m->pageCount;
        m->modified = true;
    } catch (...) {
    }
}

#define KYP_FACT(name, expr, fail)                                                                 \
    KYP_EXPORT int KYIMGPLUG_##name(std::intptr_t h) {                                             \
        Bitmap* bm = BM(h);                                                                        \
        return bm ? int(expr) : fail;                                                              \
    }
KYP_FACT(GetWidth, bm->width, 0)
KYP_FACT(GetHeight, bm->height, 0)
KYP_FACT(GetPitch, bm->pitch, 0)
KYP_FACT(GetBPP, bm->bpp, 0)
KYP_FACT(GetColorType, ColorType(*bm), 0)
KYP_FACT(GetImageType, bm->type, 0)
KYP_FACT(GetPhotoMetric, ColorType(*bm) == 0 ? 0 : 1, 1)
KYP_FACT(GetColorsUsed, bm->colors(), 0)
KYP_FACT(GetTransparencyCount, bm->transparency.size(), 0)
KYP_FACT(IsTransparent, HasTransparency(*bm) ? 1 : 0, 0)
KYP_FACT(GetDotsPerMeterX, bm->dpmX, 0)
KYP_FACT(GetDotsPerMeterY, bm->dpmY, 0)

KYP_EXPORT std::uint8_t* KYIMGPLUG_GetBits(std::intptr_t h) {
    Bitmap* bm = BM(h);
    return bm ? bm->bits.data() : nullptr;
}
KYP_EXPORT std::uint8_t* KYIMGPLUG_GetPalette(std::intptr_t h) {
    Bitmap* bm = BM(h);
    return bm && !bm->palette.empty() ? bm->palette.data() : nullptr;
}
KYP_EXPORT std::uint8_t* KYIMGPLUG_GetTransparencyTable(std::intptr_t h) {
    Bitmap* bm = BM(h);
    return bm && !bm->transparency.empty() ? bm->transparency.data() : nullptr;
}
KYP_EXPORT const void* KYIMGPLUG_GetInfo(std::intptr_t h) {
    KYP_TRY Bitmap* bm = BM(h);
    return bm ? BuildInfo(*bm).data() : nullptr;
    KYP_CATCH(nullptr)
}
KYP_EXPORT int KYIMGPLUG_SetTransparentIndex(std::intptr_t h, int index) {
    KYP_TRY Bitmap* bm = BM(h);
    if (!bm || bm->type != kStandard || bm->bpp > 8 || index < 0 || index >= bm->colors()) return 0;
    if (bm->transparency.size() < std::size_t(bm->colors()))
        bm->transparency.resize(std::size_t(bm->colors()), 255);
    bm->transparency[std::size_t(index)] = 0;
    return 1;
    KYP_CATCH(0)
}
KYP_EXPORT void KYIMGPLUG_SetDotsPerMeterX(std::intptr_t h, int v) {
    if (Bitmap* bm = BM(h)) bm->dpmX = v;
}
KYP_EXPORT void KYIMGPLUG_SetDotsPerMeterY(std::intptr_t h, int v) {
    if (Bitmap* bm = BM(h)) bm->dpmY = v;
}

#define KYP_CONVERT(name, call)                                                                    \
    KYP_EXPORT std::intptr_t KYIMGPLUG_##name(std::intptr_t h) {                                   \
        KYP_TRY Bitmap* bm = BM(h);                                                                \
        if (!bm) return 0;                                                                         \
        return NewHandle(call(*bm));                                                               \
        KYP_CATCH(0)                                                                               \
    }
KYP_CONVERT(ConvertToGreyscale, ConvertToGrey8)
KYP_CONVERT(ConvertTo24Bits, ConvertTo24)
KYP_CONVERT(ConvertTo32Bits, ConvertTo32)
KYP_CONVERT(ConvertToRGBF, ConvertToRGBF)

KYP_EXPORT std::intptr_t KYIMGPLUG_ConvertToType(std::intptr_t h, int type, int) {
    KYP_TRY Bitmap* bm = BM(h);
    if (!bm) return 0;
    switch (type) {
    case kStandard:
        return NewHandle(ConvertToStandard(*bm));
    case kRGBF:
        return NewHandle(ConvertToRGBF(*bm));
    default:
        return 0;
    }
    KYP_CATCH(0)
}

KYP_EXPORT std::intptr_t KYIMGPLUG_TmoReinhard05(std::intptr_t h, double intensity, double contrast,
                                                 double, double) {
    KYP_TRY Bitmap* bm = BM(h);
    if (!bm) return 0;
    return NewHandle(ToneMapReinhard(*bm, intensity, contrast));
    KYP_CATCH(0)
}

KYP_EXPORT int KYIMGPLUG_Invert(std::intptr_t h) {
    Bitmap* bm = BM(h);
    return bm && InvertBitmap(*bm) ? 1 : 0;
}
KYP_EXPORT int KYIMGPLUG_FlipVertical(std::intptr_t h) {
    Bitmap* bm = BM(h);
    return bm && FlipBitmap(*bm) ? 1 : 0;
}

KYP_EXPORT std::intptr_t KYIMGPLUG_ConvertFromRawBits(const std::uint8_t* bits, int width,
                                                      int height, int pitch, int bpp, unsigned,
                                                      unsigned, unsigned, int topDown) {
    KYP_TRY if (!bits || pitch <= 0) return 0;
    auto bm = NewBitmap(kStandard, width, height, bpp);
    std::size_t n = std::min<std::size_t>(std::size_t(pitch), bm->pitch);
    for (int y = 0; y < height; ++y) {
        const std::uint8_t* src = bits + std::size_t(y) * std::size_t(pitch);
        std::memcpy(bm->row(topDown ? y : height - 1 - y), src, n);
    }
    if (bpp == 32)
        for (std::size_t i = 3; i < bm->bits.size() && !bm->alpha; i += 4)
            if (bm->bits[i] != 255) bm->alpha = true;
    return NewHandle(std::move(bm));
    KYP_CATCH(0)
}

// ---------------------------------------------------------------- metadata
KYP_EXPORT int KYIMGPLUG_GetMetadataCount(int model, std::intptr_t h) {
    Bitmap* bm = BM(h);
    if (!bm) return 0;
    int n = 0;
    for (auto& e : bm->metadata)
        n += e.first == model;
    return n;
}

KYP_EXPORT int KYIMGPLUG_FindNextMetadata(std::intptr_t find, std::intptr_t* tag) {
    MetaWalk* w = Get<MetaWalk>(find, g_walks);
    if (!w || !tag || !Get<Bitmap>(reinterpret_cast<std::intptr_t>(w->bm), g_bitmaps)) return 0;
    for (; w->next < w->bm->metadata.size(); ++w->next)
        if (w->bm->metadata[w->next].first == w->model) {
            *tag = reinterpret_cast<std::intptr_t>(w->bm->metadata[w->next++].second.get());
            return 1;
        }
    return 0;
}

KYP_EXPORT std::intptr_t KYIMGPLUG_FindFirstMetadata(int model, std::intptr_t h,
                                                     std::intptr_t* tag) {
    KYP_TRY Bitmap* bm = BM(h);
    if (!bm || !tag) return 0;
    auto w = std::make_unique<MetaWalk>(MetaWalk{bm, model, 0});
    std::intptr_t hw = AdoptAs(std::move(w), g_walks);
    if (!KYIMGPLUG_FindNextMetadata(hw, tag)) {
        Free<MetaWalk>(hw, g_walks);
        return 0;
    }
    return hw;
    KYP_CATCH(0)
}

KYP_EXPORT void KYIMGPLUG_FindCloseMetadata(std::intptr_t find) {
    Free<MetaWalk>(find, g_walks);
}

// Tags made by CreateTag are owned by the caller until DeleteTag; tags found
// by a walk belong to their bitmap. Both are read through the same calls.
namespace {
Tag* TagOf(std::intptr_t h) {
    if (Tag* t = Get<Tag>(h, g_tags)) return t;
    return nullptr;
}
} // namespace

KYP_EXPORT std::intptr_t KYIMGPLUG_CreateTag() {
    KYP_TRY return AdoptAs(std::make_unique<Tag>(), g_tags);
    KYP_CATCH(0)
}
KYP_EXPORT void KYIMGPLUG_DeleteTag(std::intptr_t h) {
    Free<Tag>(h, g_tags);
}
KYP_EXPORT int KYIMGPLUG_SetTagID(std::intptr_t h, int id) {
    Tag* t = TagOf(h);
    return t ? (t->id = id, 1) : 0;
}
KYP_EXPORT int KYIMGPLUG_SetTagKey(std::intptr_t h, const char* key) {
    Tag* t = TagOf(h);
    return t && key ? (t->key = key, 1) : 0;
}
KYP_EXPORT int KYIMGPLUG_SetTagLength(std::intptr_t h, unsigned n) {
    Tag* t = TagOf(h);
    return t && n < (1u << 28) ? (t->length = n, 1) : 0;
}
KYP_EXPORT int KYIMGPLUG_SetTagCount(std::intptr_t h, unsigned n) {
    Tag* t = TagOf(h);
    return t ? (t->count = n, 1) : 0;
}
KYP_EXPORT int KYIMGPLUG_SetTagType(std::intptr_t h, int type) {
    Tag* t = TagOf(h);
    return t ? (t->type = type, 1) : 0;
}
KYP_EXPORT int KYIMGPLUG_SetTagValue(std::intptr_t h, const void* v) {
    KYP_TRY Tag* t = TagOf(h);
    if (!t || !v) return 0;
    auto* b = static_cast<const std::uint8_t*>(v);
    t->value.assign(b, b + t->length);
    return 1;
    KYP_CATCH(0)
}

namespace {
// A tag handle from CreateTag, or one found through a metadata walk.
const Tag* AnyTag(std::intptr_t h) {
    if (Tag* t = TagOf(h)) return t;
    std::lock_guard<std::mutex> l(g_lock);
    for (void* p : g_bitmaps)
        for (auto& e : static_cast<Bitmap*>(p)->metadata)
            if (reinterpret_cast<std::intptr_t>(e.second.get()) == h) return e.second.get();
    return nullptr;
}
} // namespace

KYP_EXPORT int KYIMGPLUG_GetTagID(std::intptr_t h) {
    const Tag* t = AnyTag(h);
    return t ? t->id : 0;
}
KYP_EXPORT const char* KYIMGPLUG_GetTagKey(std::intptr_t h) {
    const Tag* t = AnyTag(h);
    return t ? t->key.c_str() : "";
}
KYP_EXPORT int KYIMGPLUG_GetTagType(std::intptr_t h) {
    const Tag* t = AnyTag(h);
    return t ? t->type : 0;
}
KYP_EXPORT unsigned KYIMGPLUG_GetTagCount(std::intptr_t h) {
    const Tag* t = AnyTag(h);
    return t ? t->count : 0;
}
KYP_EXPORT unsigned KYIMGPLUG_GetTagLength(std::intptr_t h) {
    const Tag* t = AnyTag(h);
    return t ? t->length : 0;
}
KYP_EXPORT const void* KYIMGPLUG_GetTagValue(std::intptr_t h) {
    const Tag* t = AnyTag(h);
    return t && !t->value.empty() ? t->value.data() : nullptr;
}

KYP_EXPORT int KYIMGPLUG_SetMetadata(int model, std::intptr_t h, const char* key,
                                     std::intptr_t tag) {
    KYP_TRY Bitmap* bm = BM(h);
    if (!bm) return 0;
    std::string k = key ? key : "";
    auto& md = bm->metadata;
    const Tag* src = tag ? AnyTag(tag) : nullptr;
    for (auto it = md.begin(); it != md.end(); ++it)
        if (it->first == model && it->second->key == k) {
            md.erase(it);
            break;
        }
    if (!src) return 1; // no tag: the key is removed
    auto copy = std::make_shared<Tag>(*src);
    copy->key = k;
    md.emplace_back(model, copy);
    return 1;
    KYP_CATCH(0)
}

KYP_EXPORT const char* KYIMGPLUG_TagToString(int, std::intptr_t h, const char*) {
    KYP_TRY Tag* t = const_cast<Tag*>(AnyTag(h));
    if (!t) return "";
    t->text.clear();
    const auto& v = t->value;
    if (t->type == 2 || t->type == 7) { // ASCII, undefined
        for (auto c : v)
            if (c) t->text += char(c);
        return t->text.c_str();
    }
    int size = t->type == 3 || t->type == 8    ? 2
               : t->type == 4 || t->type == 9  ? 4
               : t->type == 5 || t->type == 10 ? 8
                                               : 1;
    for (std::size_t i = 0; i + std::size_t(size) <= v.size(); i += std::size_t(size)) {
        if (!t->text.empty()) t->text += " ";
        std::uint32_t a = 0, b = 0;
        for (int k = 0; k < std::min(size, 4); ++k)
            a |= std::uint32_t(v[i + std::size_t(k)]) << (8 * k);
        if (size == 8) {
            for (int k = 0; k < 4; ++k)
                b |= std::uint32_t(v[i + 4 + std::size_t(k)]) << (8 * k);
            t->text += t->type == 10
                           ? std::to_string(std::int32_t(a)) + "/" + std::to_string(std::int32_t(b))
                           : std::to_string(a) + "/" + std::to_string(b);
        } else {
            t->text += std::to_string(a);
        }
    }
    return t->text.c_str();
    KYP_CATCH("")
}

// ---------------------------------------------------------------- ICC
KYP_EXPORT std::intptr_t KYIMGPLUG_GetICCProfile(std::intptr_t h) {
    Bitmap* bm = BM(h);
    if (!bm || bm->icc.empty()) return 0;
    bm->iccView.size = std::uint32_t(bm->icc.size());
    bm->iccView.data = bm->icc.data();
    return reinterpret_cast<std::intptr_t>(&bm->iccView);
}
KYP_EXPORT void KYIMGPLUG_DestroyICCProfile(std::intptr_t h) {
    if (Bitmap* bm = BM(h)) {
        bm->icc.clear();
        bm->iccView = IccProfile{};
    }
}
KYP_EXPORT std::intptr_t KYIMGPLUG_CreateICCProfileFromFile(std::intptr_t h, const char* path) {
    KYP_TRY Bitmap* bm = BM(h);
    Bytes d;
    if (!bm || !path || !ReadFile(path, d) || d.size() < 128) return 0;
    bm->icc = d;
    return KYIMGPLUG_GetICCProfile(h);
    KYP_CATCH(0)
}

// ---------------------------------------------------------------- services
KYP_EXPORT int KYIMGPLUG_SetTiffJpegCompression(int quality) {
    SetTiffJpegQuality(quality);
    return 1;
}
KYP_EXPORT int KYIMGPLUG_WriteFrameDelay(std::intptr_t h, int ms) {
    Bitmap* bm = BM(h);
    return bm ? (bm->delayMs = ms, 1) : 0;
}
KYP_EXPORT int KYIMGPLUG_WriteFrameDisposal(std::intptr_t h, int d) {
    Bitmap* bm = BM(h);
    return bm ? (bm->disposal = d & 0xff, 1) : 0;
}
KYP_EXPORT int KYIMGPLUG_WriteLoopCount(std::intptr_t h, int n) {
    Bitmap* bm = BM(h);
    return bm ? (bm->loopCount = n, 1) : 0;
}

KYP_EXPORT long KYIMGPLUG_ZLibCompress2(std::uint8_t* dest, long destSize, const std::uint8_t* src,
                                        long srcSize) {
    if (!dest || !src || destSize <= 0 || srcSize < 0) return 0;
    uLongf n = uLongf(destSize);
    if (compress2(dest, &n, src, uLong(srcSize), Z_DEFAULT_COMPRESSION) != Z_OK) return 0;
    return long(n);
}

KYP_EXPORT long KYIMGPLUG_VB_CompressCCITT4(const std::uint8_t* src, int width, int height,
                                            int stride, std::uint8_t* dest, long capacity) {
    KYP_TRY return CompressCCITT4(src, width, height, stride, dest, capacity);
    KYP_CATCH(0)
}
