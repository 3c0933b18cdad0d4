// The raster engine's flat calls, by their engine names. The system's own
// logic reaches bitmaps, locks, palettes, properties, codecs and graphics only
// through these. Status numbers are the engine's 0..21, identical to
// KestrelynStatus; handles are opaque.
#pragma once
#include <cstddef>
#include <cstdint>

#include "kestrelyn/KestrelynStatus.h"
#include "kestrelyn/Types.h"

namespace kestrelyn {

using GpStatus = KestrelynStatus;
using PixelFormat = std::int32_t;
using PROPID = std::uint32_t;
using UINT = std::uint32_t;
using INT = std::int32_t;

struct GpImage; // an engine image (always a bitmap here)
using GpBitmap = GpImage;
struct GpGraphics; // a drawing context on an image

struct GUID {
    std::uint32_t Data1;
    std::uint16_t Data2;
    std::uint16_t Data3;
    std::uint8_t Data4[8];
    friend bool operator==(const GUID&, const GUID&) = default;
};

struct GpRect {
    INT X, Y, Width, Height;
};

// A lock's description. For user-buffer locks (flag 4) the caller fills Width,
// Height, Stride, PixelFormat and Scan0 before the call.
struct BitmapData {
    UINT Width = 0;
    UINT Height = 0;
    INT Stride = 0;
    kestrelyn::PixelFormat PixelFormat = 0; // qualified: the member reuses the type name
    void* Scan0 = nullptr;
    std::uintptr_t Reserved = 0;
};

enum ImageLockMode : UINT {
    ImageLockModeRead = 1,
    ImageLockModeWrite = 2,
    ImageLockModeUserInputBuf = 4,
};

// Variable-length palette, laid out as the engine lays it out: Count entries
// follow the header. GdipGetImagePaletteSize gives the byte size of the whole.
struct ColorPalette {
    UINT Flags;
    UINT Count;
    ARGB Entries[1];
};
enum PaletteFlags : UINT {
    PaletteFlagsHasAlpha = 1,
    PaletteFlagsGrayScale = 2,
    PaletteFlagsHalftone = 4
};

// A property item; in a buffer filled by GdipGetPropertyItem the value bytes
// follow the record and `value` points at them.
struct PropertyItem {
    PROPID id;
    std::uint32_t length;
    std::uint16_t type;
    void* value;
};
enum PropertyTagTypes : std::uint16_t {
    PropertyTagTypeByte = 1,
    PropertyTagTypeASCII = 2,
    PropertyTagTypeShort = 3,
    PropertyTagTypeLong = 4,
    PropertyTagTypeRational = 5,
    PropertyTagTypeUndefined = 7,
    PropertyTagTypeSLONG = 9,
    PropertyTagTypeSRational = 10,
};

enum ImageFlags : UINT {
    ImageFlagsNone = 0,
    ImageFlagsScalable = 0x0001,
    ImageFlagsHasAlpha = 0x0002,
    ImageFlagsHasTranslucent = 0x0004,
    ImageFlagsPartiallyScalable = 0x0008,
    ImageFlagsColorSpaceRGB = 0x0010,
    ImageFlagsColorSpaceCMYK = 0x0020,
    ImageFlagsColorSpaceGRAY = 0x0040,
    ImageFlagsColorSpaceYCBCR = 0x0080,
    ImageFlagsColorSpaceYCCK = 0x0100,
    ImageFlagsHasRealDPI = 0x1000,
    ImageFlagsHasRealPixelSize = 0x2000,
    ImageFlagsReadOnly = 0x00010000,
    ImageFlagsCaching = 0x00020000,
};

enum RotateFlipType : INT {
    RotateNoneFlipNone = 0,
    Rotate90FlipNone = 1,
    Rotate180FlipNone = 2,
    Rotate270FlipNone = 3,
    RotateNoneFlipX = 4,
    Rotate90FlipX = 5,
    Rotate180FlipX = 6,
    Rotate270FlipX = 7,
    RotateNoneFlipY = Rotate180FlipX,
};

// Pixel format helpers, as the engine defines the bit fields of the codes.
constexpr bool IsIndexedPixelFormat(PixelFormat f) {
    return (f & 0x00010000) != 0;
}
constexpr bool IsAlphaPixelFormat(PixelFormat f) {
    return (f & 0x00040000) != 0;
}
constexpr bool IsCanonicalPixelFormat(PixelFormat f) {
    return (f & 0x00200000) != 0;
}
constexpr INT GetPixelFormatSize(PixelFormat f) {
    return (f >> 8) & 0xff;
}

struct GdiplusStartupInput {
    UINT GdiplusVersion = 1;
    void* DebugEventCallback = nullptr;
    bool SuppressBackgroundThread = false;
    bool SuppressExternalCodecs = false;
};
struct GdiplusStartupOutput {
    void* NotificationHook = nullptr;
    void* NotificationUnhook = nullptr;
};

// --- start and stop, memory ---
GpStatus GdiplusStartup(std::uintptr_t* token, const GdiplusStartupInput* input,
                        GdiplusStartupOutput* output);
void GdiplusShutdown(std::uintptr_t token);
void* GdipAlloc(std::size_t size);
void GdipFree(void* ptr);
// The engine's own version text (major.minor.build.revision), major 6.
const char* GdipGetEngineVersion();

// --- bitmaps ---
// scan0 null: the engine allocates and zeroes the pixels. Otherwise the bitmap
// wraps the caller's memory without copying; it must outlive the bitmap.
GpStatus GdipCreateBitmapFromScan0(INT width, INT height, INT stride, PixelFormat format,
                                   std::uint8_t* scan0, GpBitmap** bitmap);
GpStatus GdipDisposeImage(GpImage* image);
// Copy-on-write clone: shares pixels until either side writes.
GpStatus GdipCloneImage(GpImage* image, GpImage** cloneImage);
GpStatus GdipCloneBitmapAreaI(INT x, INT y, INT width, INT height, PixelFormat format,
                              GpBitmap* srcBitmap, GpBitmap** dstBitmap);
GpStatus GdipBitmapLockBits(GpBitmap* bitmap, const GpRect* rect, UINT flags, PixelFormat format,
                            BitmapData* lockedBitmapData);
GpStatus GdipBitmapUnlockBits(GpBitmap* bitmap, BitmapData* lockedBitmapData);
GpStatus GdipBitmapGetPixel(GpBitmap* bitmap, INT x, INT y, ARGB* color);
GpStatus GdipBitmapSetPixel(GpBitmap* bitmap, INT x, INT y, ARGB color);
GpStatus GdipImageRotateFlip(GpImage* image, RotateFlipType rfType);
GpStatus GdipImageForceValidation(GpImage* image);

// --- facts ---
GpStatus GdipGetImageWidth(GpImage* image, UINT* width);
GpStatus GdipGetImageHeight(GpImage* image, UINT* height);
GpStatus GdipGetImagePixelFormat(GpImage* image, PixelFormat* format);
GpStatus GdipGetImageFlags(GpImage* image, UINT* flags);
GpStatus GdipGetImageHorizontalResolution(GpImage* image, float* resolution);
GpStatus GdipGetImageVerticalResolution(GpImage* image, float* resolution);
GpStatus GdipBitmapSetResolution(GpBitmap* bitmap, float xdpi, float ydpi);
GpStatus GdipGetImageRawFormat(GpImage* image, GUID* format);

// --- palettes ---
GpStatus GdipGetImagePaletteSize(GpImage* image, INT* size);
GpStatus GdipGetImagePalette(GpImage* image, ColorPalette* palette, INT size);
GpStatus GdipSetImagePalette(GpImage* image, const ColorPalette* palette);

// --- property items (kept in insertion order) ---
GpStatus GdipGetPropertyCount(GpImage* image, UINT* numOfProperty);
GpStatus GdipGetPropertyIdList(GpImage* image, UINT numOfProperty, PROPID* list);
GpStatus GdipGetPropertyItemSize(GpImage* image, PROPID propId, UINT* size);
GpStatus GdipGetPropertyItem(GpImage* image, PROPID propId, UINT propSize, PropertyItem* buffer);
GpStatus GdipGetPropertySize(GpImage* image, UINT* totalBufferSize, UINT* numProperties);
GpStatus GdipSetPropertyItem(GpImage* image, const PropertyItem* item);
GpStatus GdipRemovePropertyItem(GpImage* image, PROPID propId);

// --- frames of a multi-page image ---
GpStatus GdipImageGetFrameDimensionsCount(GpImage* image, UINT* count);
GpStatus GdipImageGetFrameDimensionsList(GpImage* image, GUID* dimensionIDs, UINT count);
GpStatus GdipImageGetFrameCount(GpImage* image, const GUID* dimensionID, UINT* count);
GpStatus GdipImageSelectActiveFrame(GpImage* image, const GUID* dimensionID, UINT frameIndex);

// --- graphics (drawing on indexed or 16-bit images goes to a 32-bit scratch
// copy that is mapped back to the nearest palette entry when the context is
// deleted) ---
GpStatus GdipGetImageGraphicsContext(GpImage* image, GpGraphics** graphics);
GpStatus GdipDeleteGraphics(GpGraphics* graphics);
GpStatus GdipGraphicsClear(GpGraphics* graphics, ARGB color);
// Engine extension: fills a whole bitmap with one colour in its own pixel
// format, the pixels a graphics clear gives, without a graphics context's
// 32-bit copy. WrongState while the bitmap is locked.
GpStatus GdipBitmapFillColor(GpImage* image, ARGB color);
// A device context over the graphics' pixels (a cairo context on the image).
GpStatus GdipGetDC(GpGraphics* graphics, HDC* hdc);
GpStatus GdipReleaseDC(GpGraphics* graphics, HDC hdc);

// --- host handles ---
GpStatus GdipCreateHBITMAPFromBitmap(GpBitmap* bitmap, HBITMAP* hbmReturn, ARGB background);
GpStatus GdipCreateBitmapFromHBITMAP(HBITMAP hbm, HPALETTE hpal, GpBitmap** bitmap);
GpStatus GdipCreateHICONFromBitmap(GpBitmap* bitmap, HICON* hbmReturn);
GpStatus GdipCreateBitmapFromHICON(HICON hicon, GpBitmap** bitmap);
// `gdiBitmapInfo` is a BITMAPINFOHEADER followed by its colour table;
// `gdiBitmapData` the rows as the header describes them (bottom-up unless the
// height is negative).
GpStatus GdipCreateBitmapFromGdiDib(const void* gdiBitmapInfo, void* gdiBitmapData,
                                    GpBitmap** bitmap);

// ===================================================================== codecs
// Decoders (BMP, ICO, JPEG, PNG, GIF, TIFF; the content decides, not the name)
// and encoders (PNG, TIFF, BMP, JPEG).

// Raw formats, as GdipGetImageRawFormat reports them.
inline constexpr GUID ImageFormatUndefined{
    0xb96b3ca9, 0x0728, 0x11d3, {0x9d, 0x7b, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};
inline constexpr GUID ImageFormatMemoryBMP{
    0xb96b3caa, 0x0728, 0x11d3, {0x9d, 0x7b, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};
inline constexpr GUID ImageFormatBMP{
    0xb96b3cab, 0x0728, 0x11d3, {0x9d, 0x7b, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};
inline constexpr GUID ImageFormatEMF{
    0xb96b3cac, 0x0728, 0x11d3, {0x9d, 0x7b, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};
inline constexpr GUID ImageFormatWMF{
    0xb96b3cad, 0x0728, 0x11d3, {0x9d, 0x7b, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};
inline constexpr GUID ImageFormatJPEG{
    0xb96b3cae, 0x0728, 0x11d3, {0x9d, 0x7b, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};
inline constexpr GUID ImageFormatPNG{
    0xb96b3caf, 0x0728, 0x11d3, {0x9d, 0x7b, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};
inline constexpr GUID ImageFormatGIF{
    0xb96b3cb0, 0x0728, 0x11d3, {0x9d, 0x7b, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};
inline constexpr GUID ImageFormatTIFF{
    0xb96b3cb1, 0x0728, 0x11d3, {0x9d, 0x7b, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};
inline constexpr GUID ImageFormatEXIF{
    0xb96b3cb2, 0x0728, 0x11d3, {0x9d, 0x7b, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};
inline constexpr GUID ImageFormatIcon{
    0xb96b3cb5, 0x0728, 0x11d3, {0x9d, 0x7b, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};

// Frame dimensions.
inline constexpr GUID FrameDimensionPage{
    0x7462dc86, 0x6180, 0x4c7e, {0x8e, 0x3f, 0xee, 0x73, 0x33, 0xa7, 0xa4, 0x83}};
inline constexpr GUID FrameDimensionTime{
    0x6aedbd6d, 0x3fb5, 0x418a, {0x83, 0xa6, 0x7f, 0x45, 0x22, 0x9d, 0xc8, 0x72}};

// Encoder class ids.
inline constexpr GUID EncoderClsidBMP{
    0x557cf400, 0x1a04, 0x11d3, {0x9a, 0x73, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};
inline constexpr GUID EncoderClsidJPEG{
    0x557cf401, 0x1a04, 0x11d3, {0x9a, 0x73, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};
inline constexpr GUID EncoderClsidGIF{
    0x557cf402, 0x1a04, 0x11d3, {0x9a, 0x73, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};
inline constexpr GUID EncoderClsidTIFF{
    0x557cf405, 0x1a04, 0x11d3, {0x9a, 0x73, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};
inline constexpr GUID EncoderClsidPNG{
    0x557cf406, 0x1a04, 0x11d3, {0x9a, 0x73, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};
// Decoder-only class ids.
inline constexpr GUID DecoderClsidICO{
    0x557cf407, 0x1a04, 0x11d3, {0x9a, 0x73, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};

// Encoder parameter categories.
inline constexpr GUID EncoderCompression{
    0xe09d739d, 0xccd4, 0x44ee, {0x8e, 0xba, 0x3f, 0xbf, 0x8b, 0xe4, 0xfc, 0x58}};
inline constexpr GUID EncoderColorDepth{
    0x66087055, 0xad66, 0x4c7c, {0x9a, 0x18, 0x38, 0xa2, 0x31, 0x0b, 0x83, 0x37}};
inline constexpr GUID EncoderSaveFlag{
    0x292266fc, 0xac40, 0x47bf, {0x8c, 0xfc, 0xa8, 0x5b, 0x89, 0xa6, 0x55, 0xde}};
inline constexpr GUID EncoderQuality{
    0x1d5be4b5, 0xfa4a, 0x452d, {0x9c, 0xdd, 0x5d, 0xb3, 0x51, 0x05, 0xe7, 0xeb}};
inline constexpr GUID EncoderTransformation{
    0x8d0eb2d1, 0xa58e, 0x4ea8, {0xaa, 0x14, 0x10, 0x80, 0x74, 0xb7, 0xb6, 0xf9}};

enum EncoderParameterValueType : UINT {
    EncoderParameterValueTypeByte = 1,
    EncoderParameterValueTypeASCII = 2,
    EncoderParameterValueTypeShort = 3,
    EncoderParameterValueTypeLong = 4,
    EncoderParameterValueTypeRational = 5,
    EncoderParameterValueTypeLongRange = 6,
    EncoderParameterValueTypeUndefined = 7,
    EncoderParameterValueTypeRationalRange = 8,
};

enum EncoderValue : UINT {
    EncoderValueColorTypeCMYK = 0,
    EncoderValueColorTypeYCCK = 1,
    EncoderValueCompressionLZW = 2,
    EncoderValueCompressionCCITT3 = 3,
    EncoderValueCompressionCCITT4 = 4,
    EncoderValueCompressionRle = 5,
    EncoderValueCompressionNone = 6,
    EncoderValueScanMethodInterlaced = 7,
    EncoderValueScanMethodNonInterlaced = 8,
    EncoderValueVersionGif87 = 9,
    EncoderValueVersionGif89 = 10,
    EncoderValueRenderProgressive = 11,
    EncoderValueRenderNonProgressive = 12,
    EncoderValueTransformRotate90 = 13,
    EncoderValueTransformRotate180 = 14,
    EncoderValueTransformRotate270 = 15,
    EncoderValueTransformFlipHorizontal = 16,
    EncoderValueTransformFlipVertical = 17,
    EncoderValueMultiFrame = 18,
    EncoderValueLastFrame = 19,
    EncoderValueFlush = 20,
    EncoderValueFrameDimensionTime = 21,
    EncoderValueFrameDimensionResolution = 22,
    EncoderValueFrameDimensionPage = 23,
};

struct EncoderParameter {
    GUID Guid;
    UINT NumberOfValues;
    UINT Type;   // EncoderParameterValueType
    void* Value; // NumberOfValues values of Type
};

// Variable-length, laid out as the engine lays it out: Count parameters.
struct EncoderParameters {
    UINT Count;
    EncoderParameter Parameter[1];
};

enum ImageCodecFlags : UINT {
    ImageCodecFlagsEncoder = 0x00000001,
    ImageCodecFlagsDecoder = 0x00000002,
    ImageCodecFlagsSupportBitmap = 0x00000004,
    ImageCodecFlagsBuiltin = 0x00010000,
};

struct ImageCodecInfo {
    GUID Clsid;
    GUID FormatID;
    std::string CodecName;
    std::string DllName;
    std::string FormatDescription;
    std::string FilenameExtension; // patterns separated by ";", e.g. "*.TIF;*.TIFF"
    std::string MimeType;
    UINT Flags = 0;
    UINT Version = 1;
    std::vector<std::vector<std::uint8_t>> SigPatterns;
    std::vector<std::vector<std::uint8_t>> SigMasks;
};

GpStatus GdipCreateBitmapFromFile(const std::string& filename, GpBitmap** bitmap);
GpStatus GdipCreateBitmapFromFileICM(const std::string& filename, GpBitmap** bitmap);
GpStatus GdipLoadImageFromFile(const std::string& filename, GpImage** image);
GpStatus GdipLoadImageFromStream(StreamPtr stream, GpImage** image);
GpStatus GdipLoadImageFromStreamICM(StreamPtr stream, GpImage** image);
GpStatus GdipCreateBitmapFromStream(StreamPtr stream, GpBitmap** bitmap);

// size counts the codecs' records (numEncoders * sizeof(ImageCodecInfo)); the
// list is filled into a caller vector.
GpStatus GdipGetImageEncodersSize(UINT* numEncoders, UINT* size);
GpStatus GdipGetImageEncoders(UINT numEncoders, UINT size, ImageCodecInfo* encoders);
GpStatus GdipGetImageDecodersSize(UINT* numDecoders, UINT* size);
GpStatus GdipGetImageDecoders(UINT numDecoders, UINT size, ImageCodecInfo* decoders);
// The engine's self-test switch: while set on a thread, that thread's encoder
// list cannot be read (GenericError), as when a start of the engine fails.
void EngineFailEncoderListOnThread(bool bFail);

// Saving. A TIFF save with the SaveFlag MultiFrame starts a multi-frame file
// that GdipSaveAddImage (SaveFlag FrameDimensionPage) extends and GdipSaveAdd
// (SaveFlag Flush) completes.
GpStatus GdipSaveImageToFile(GpImage* image, const std::string& filename, const GUID* clsidEncoder,
                             const EncoderParameters* encoderParams);
GpStatus GdipSaveImageToStream(GpImage* image, StreamPtr stream, const GUID* clsidEncoder,
                               const EncoderParameters* encoderParams);
GpStatus GdipSaveAddImage(GpImage* image, GpImage* newImage,
                          const EncoderParameters* encoderParams);
GpStatus GdipSaveAdd(GpImage* image, const EncoderParameters* encoderParams);

// Lossless JPEG transformation: `image` is the decoded `sourceFile`, whose
// compressed blocks are rearranged (Transformation parameter 13..17) and
// written to `destFile` without recompression; markers are kept. The sides
// must be whole blocks of the transformation (InvalidParameter otherwise).
GpStatus GdipTransformJpegFile(GpImage* image, const std::string& sourceFile,
                               const std::string& destFile, const GUID* clsidEncoder,
                               const EncoderParameters* encoderParams);

} // namespace kestrelyn
