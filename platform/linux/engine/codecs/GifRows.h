// Reads the records of a GIF row by row with giflib's line calls, in place of
// DGifSlurp: DGifSlurp allocates every frame's declared size before reading a
// byte of it and leaves the rows of a cut frame uninitialised. Here a frame
// keeps only the rows that arrived whole, clipped to the logical screen, so a
// file that ends early costs no more than the rows it holds. Header-only: the
// engine's decoder and the codec plug-in's reader share it.
#pragma once
#include <gif_lib.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace kestrelyn::gifrows {

// One frame's pixels on the screen: rows y0..y1-1, columns x0..x1-1.
struct FrameRows {
    int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
    std::vector<std::vector<std::uint8_t>> rows; // one per screen row; empty: not supplied
    bool complete = false;

    // Colour indices of screen row y from x0, or nullptr when the file did not
    // supply that row.
    const std::uint8_t* Row(int y) const {
        if (y < y0 || y >= y1) return nullptr;
        const auto& r = rows[static_cast<std::size_t>(y - y0)];
        return r.empty() ? nullptr : r.data();
    }
    bool AnyRow() const {
        return std::any_of(rows.begin(), rows.end(), [](const auto& r) { return !r.empty(); });
    }
};

namespace detail {

// Extensions read before a frame belong to it (as DGifSlurp files them).
inline bool ReadExtension(GifFileType* gif) {
    int fn = 0;
    GifByteType* data = nullptr;
    if (DGifGetExtension(gif, &fn, &data) == GIF_ERROR) return false;
    if (data && GifAddExtensionBlock(&gif->ExtensionBlockCount, &gif->ExtensionBlocks, fn, data[0],
                                     &data[1]) == GIF_ERROR)
        return false;
    for (;;) {
        if (DGifGetExtensionNext(gif, &data) == GIF_ERROR) return false;
        if (!data) return true;
        if (GifAddExtensionBlock(&gif->ExtensionBlockCount, &gif->ExtensionBlocks,
                                 CONTINUE_EXT_FUNC_CODE, data[0], &data[1]) == GIF_ERROR)
            return false;
    }
}

// Decodes the current frame's rows (interlaced ones pass by pass).
inline void ReadRows(GifFileType* gif, const GifImageDesc& d, FrameRows& f) {
    std::vector<GifPixelType> line(static_cast<std::size_t>(d.Width));
    auto take = [&](int j) {
        if (DGifGetLine(gif, line.data(), d.Width) == GIF_ERROR) return false;
        const int y = d.Top + j;
        if (y >= f.y0 && y < f.y1 && f.x1 > f.x0)
            f.rows[static_cast<std::size_t>(y - f.y0)].assign(line.begin() + (f.x0 - d.Left),
                                                              line.begin() + (f.x1 - d.Left));
        return true;
    };
    if (d.Interlace) {
        static constexpr int kStart[] = {0, 4, 2, 1};
        static constexpr int kStep[] = {8, 8, 4, 2};
        for (int pass = 0; pass < 4; ++pass)
            for (int j = kStart[pass]; j < d.Height; j += kStep[pass])
                if (!take(j)) return;
    } else {
        for (int j = 0; j < d.Height; ++j)
            if (!take(j)) return;
    }
    f.complete = true;
}

} // namespace detail

// Reads every record after DGifOpen. Frames are returned in file order, one
// per kept SavedImage; reading stops at the first damage. A damaged frame is
// kept when at least one of its rows arrived, and gif->ImageCount is cut to the
// frames kept (what the dropped records own is released here, since giflib
// frees only the first ImageCount of them).
inline std::vector<FrameRows> ReadFrames(GifFileType* gif) {
    std::vector<FrameRows> frames;
    for (;;) {
        GifRecordType type = UNDEFINED_RECORD_TYPE;
        if (DGifGetRecordType(gif, &type) == GIF_ERROR || type == TERMINATE_RECORD_TYPE) break;
        if (type == EXTENSION_RECORD_TYPE) {
            if (!detail::ReadExtension(gif)) break;
            continue;
        }
        if (type != IMAGE_DESC_RECORD_TYPE) continue;
        const int before = gif->ImageCount;
        if (DGifGetImageDesc(gif) == GIF_ERROR || gif->ImageCount != before + 1) break;
        SavedImage& s = gif->SavedImages[gif->ImageCount - 1];
        if (gif->ExtensionBlocks) {
            s.ExtensionBlocks = gif->ExtensionBlocks;
            s.ExtensionBlockCount = gif->ExtensionBlockCount;
            gif->ExtensionBlocks = nullptr;
            gif->ExtensionBlockCount = 0;
        }
        const GifImageDesc& d = s.ImageDesc;
        FrameRows f;
        frames.emplace_back();
        if (d.Width <= 0 || d.Height <= 0) break;
        f.x0 = std::clamp(d.Left, 0, gif->SWidth);
        f.y0 = std::clamp(d.Top, 0, gif->SHeight);
        f.x1 = std::clamp(d.Left + d.Width, f.x0, gif->SWidth);
        f.y1 = std::clamp(d.Top + d.Height, f.y0, gif->SHeight);
        f.rows.resize(static_cast<std::size_t>(f.y1 - f.y0));
        detail::ReadRows(gif, d, f);
        frames.back() = std::move(f);
        if (!frames.back().complete) break;
    }
    std::size_t kept = frames.size();
    if (kept > 0 && !frames.back().complete && !frames.back().AnyRow()) --kept;
    kept = std::min(kept, static_cast<std::size_t>(std::max(gif->ImageCount, 0)));
    frames.resize(kept);
    for (int i = static_cast<int>(kept); i < gif->ImageCount; ++i) {
        SavedImage& dropped = gif->SavedImages[i];
        GifFreeMapObject(dropped.ImageDesc.ColorMap);
        dropped.ImageDesc.ColorMap = nullptr;
        GifFreeExtensions(&dropped.ExtensionBlockCount, &dropped.ExtensionBlocks);
        std::free(dropped.RasterBits);
        dropped.RasterBits = nullptr;
    }
    gif->ImageCount = static_cast<int>(kept);
    return frames;
}

} // namespace kestrelyn::gifrows
