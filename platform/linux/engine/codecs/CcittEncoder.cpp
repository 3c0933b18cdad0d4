// Group 4 coding through libtiff on a memory file: one strip holding every
// row is coded, and its bytes are taken out of the file before the directory
// is written. Nothing touches the disk.
#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <tiffio.h>

#include "platform/Ccitt.h"

namespace kestrelyn {

namespace {

// A growable memory file for TIFFClientOpenExt.
struct MemoryFile {
    std::vector<std::uint8_t> arBytes;
    std::uint64_t nPos = 0;
};

tmsize_t MemRead(thandle_t h, void* pBuf, tmsize_t nSize) {
    auto* f = static_cast<MemoryFile*>(h);
    if (nSize <= 0 || f->nPos >= f->arBytes.size()) return 0;
    const auto n =
        std::min<std::uint64_t>(static_cast<std::uint64_t>(nSize), f->arBytes.size() - f->nPos);
    std::memcpy(pBuf, f->arBytes.data() + f->nPos, static_cast<std::size_t>(n));
    f->nPos += n;
    return static_cast<tmsize_t>(n);
}

tmsize_t MemWrite(thandle_t h, void* pBuf, tmsize_t nSize) {
    auto* f = static_cast<MemoryFile*>(h);
    if (nSize <= 0) return 0;
    const std::uint64_t nEnd = f->nPos + static_cast<std::uint64_t>(nSize);
    try {
        if (nEnd > f->arBytes.size()) {
            if (nEnd > f->arBytes.capacity())
                f->arBytes.reserve(std::max<std::uint64_t>(nEnd, f->arBytes.capacity() * 2));
            f->arBytes.resize(static_cast<std::size_t>(nEnd));
        }
    } catch (...) {
        return -1;
    }
    std::memcpy(f->arBytes.data() + f->nPos, pBuf, static_cast<std::size_t>(nSize));
    f->nPos = nEnd;
    return nSize;
}

toff_t MemSeek(thandle_t h, toff_t nOffset, int nWhence) {
    auto* f = static_cast<MemoryFile*>(h);
    std::int64_t nBase = 0;
    if (nWhence == SEEK_CUR)
        nBase = static_cast<std::int64_t>(f->nPos);
    else if (nWhence == SEEK_END)
        nBase = static_cast<std::int64_t>(f->arBytes.size());
    const std::int64_t nNew = nBase + static_cast<std::int64_t>(nOffset);
    if (nNew < 0) return static_cast<toff_t>(-1);
    f->nPos = static_cast<std::uint64_t>(nNew);
    return f->nPos;
}

int MemClose(thandle_t) {
    return 0;
}

toff_t MemSize(thandle_t h) {
    return static_cast<MemoryFile*>(h)->arBytes.size();
}

int MemMap(thandle_t, void**, toff_t*) {
    return 0;
}

void MemUnmap(thandle_t, void*, toff_t) {}

// A failed coding is told by the result; libtiff's messages for this handle
// are dropped.
int Quiet(TIFF*, void*, const char*, const char*, va_list) {
    return 1;
}

TIFF* OpenMemoryFile(MemoryFile& oFile) {
    TIFFOpenOptions* pOptions = TIFFOpenOptionsAlloc();
    if (!pOptions) return nullptr;
    TIFFOpenOptionsSetErrorHandlerExtR(pOptions, Quiet, nullptr);
    TIFFOpenOptionsSetWarningHandlerExtR(pOptions, Quiet, nullptr);
    TIFF* t = TIFFClientOpenExt("ccitt", "w", &oFile, MemRead, MemWrite, MemSeek, MemClose, MemSize,
                                MemMap, MemUnmap, pOptions);
    TIFFOpenOptionsFree(pOptions);
    return t;
}

} // namespace

bool GdipEncodeCcittG4(const std::uint8_t* pBits, int nWidth, int nHeight, int nStride,
                       bool bBlackIsZero, std::vector<std::uint8_t>& arOut) {
    arOut.clear();
    const std::size_t nRowBytes = (static_cast<std::size_t>(nWidth) + 7) / 8;
    if (!pBits || nWidth <= 0 || nHeight <= 0 || nStride < 0 ||
        static_cast<std::size_t>(nStride) < nRowBytes)
        return false;
    try {
        // The rows, packed and in the polarity of the coder (1 = black).
        std::vector<std::uint8_t> arRows(nRowBytes * static_cast<std::size_t>(nHeight));
        for (int y = 0; y < nHeight; ++y) {
            const std::uint8_t* pSrc = pBits + static_cast<std::size_t>(y) * nStride;
            std::uint8_t* pDst = arRows.data() + static_cast<std::size_t>(y) * nRowBytes;
            if (bBlackIsZero) {
                for (std::size_t i = 0; i < nRowBytes; ++i)
                    pDst[i] = static_cast<std::uint8_t>(~pSrc[i]);
            } else {
                std::memcpy(pDst, pSrc, nRowBytes);
            }
        }

        MemoryFile oFile;
        oFile.arBytes.reserve(arRows.size() / 8 + 1024);
        TIFF* t = OpenMemoryFile(oFile);
        bool bOk = t != nullptr;
        std::uint64_t nOffset = 0, nCount = 0;
        if (bOk) {
            TIFFSetField(t, TIFFTAG_IMAGEWIDTH, static_cast<std::uint32_t>(nWidth));
            TIFFSetField(t, TIFFTAG_IMAGELENGTH, static_cast<std::uint32_t>(nHeight));
            TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 1);
            TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 1);
            TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
            TIFFSetField(t, TIFFTAG_FILLORDER, FILLORDER_MSB2LSB);
            TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
            TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_CCITTFAX4);
            TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, static_cast<std::uint32_t>(nHeight));
            bOk = TIFFWriteEncodedStrip(t, 0, arRows.data(),
                                        static_cast<tmsize_t>(arRows.size())) >= 0;
            // Where the strip landed in the memory file, read before the
            // directory is written and the tags are let go.
            std::uint64_t* pOffsets = nullptr;
            std::uint64_t* pCounts = nullptr;
            bOk = bOk && TIFFGetField(t, TIFFTAG_STRIPOFFSETS, &pOffsets) && pOffsets &&
                  TIFFGetField(t, TIFFTAG_STRIPBYTECOUNTS, &pCounts) && pCounts;
            if (bOk) {
                nOffset = pOffsets[0];
                nCount = pCounts[0];
            }
            TIFFClose(t);
        }
        if (!bOk || nCount == 0 || nOffset + nCount > oFile.arBytes.size()) return false;
        arOut.assign(oFile.arBytes.begin() + static_cast<std::ptrdiff_t>(nOffset),
                     oFile.arBytes.begin() + static_cast<std::ptrdiff_t>(nOffset + nCount));
        return true;
    } catch (...) {
        arOut.clear();
        return false;
    }
}

} // namespace kestrelyn
