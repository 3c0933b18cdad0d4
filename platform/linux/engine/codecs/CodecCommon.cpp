// Byte sources, bitmap construction and the EXIF/TIFF IFD reader.
#include "platform/linux/engine/codecs/CodecCommon.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

#include "platform/DecodeLimits.h"

namespace kestrelyn::codecs {

GpStatus ReadFileBytes(const std::string& path, Bytes& out) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return FileNotFound;
    out.clear();
    bool err = false;
    try {
        // A regular file is read in one go into a block of its size; whatever
        // else (or a file that grew meanwhile) continues in chunks.
        struct stat st {};
        std::size_t want = 65536;
        if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0)
            want = static_cast<std::size_t>(st.st_size) + 1;
        std::size_t used = 0;
        for (;;) {
            if (used == out.size()) out.resize(used + want);
            const ssize_t n = ::read(fd, out.data() + used, out.size() - used);
            if (n < 0) {
                if (errno == EINTR) continue;
                err = true;
                break;
            }
            if (n == 0) break;
            used += static_cast<std::size_t>(n);
            want = 65536;
        }
        out.resize(used);
    } catch (...) {
        ::close(fd);
        return OutOfMemory;
    }
    ::close(fd);
    return err ? Win32Error : OK;
}

GpStatus ReadStreamBytes(Stream& stream, Bytes& out) {
    out.clear();
    std::uint8_t buf[65536];
    try {
        for (;;) {
            std::size_t n = stream.Read(buf, sizeof buf);
            if (n == 0) break;
            out.insert(out.end(), buf, buf + n);
        }
    } catch (const std::bad_alloc&) {
        return OutOfMemory;
    }
    return OK;
}

GpStatus NewBitmap(std::int64_t width, std::int64_t height, PixelFormat format, GpImage** out) {
    *out = nullptr;
    if (width <= 0 || height <= 0) return InvalidParameter;
    if (width > kMaxSide || height > kMaxSide) return OutOfMemory;
    const std::int64_t rowBytes = (width * GetPixelFormatSize(format) + 31) / 32 * 4;
    if (!DecodeSizeAllowed(width, height) || rowBytes > INT32_MAX) return OutOfMemory;
    return GdipCreateBitmapFromScan0(static_cast<INT>(width), static_cast<INT>(height), 0, format,
                                     nullptr, out);
}

GpStatus SetPalette(GpImage* image, const std::vector<ARGB>& entries, UINT flags) {
    std::vector<std::uint8_t> buf(sizeof(ColorPalette) + entries.size() * sizeof(ARGB));
    auto* pal = reinterpret_cast<ColorPalette*>(buf.data());
    pal->Flags = flags;
    pal->Count = static_cast<UINT>(entries.size());
    if (!entries.empty()) std::memcpy(pal->Entries, entries.data(), entries.size() * sizeof(ARGB));
    return GdipSetImagePalette(image, pal);
}

std::vector<ARGB> GreyRamp(int count) {
    std::vector<ARGB> p(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        ARGB v = count > 1 ? static_cast<ARGB>(i * 255 / (count - 1)) : 0;
        p[static_cast<std::size_t>(i)] = 0xff000000u | (v << 16) | (v << 8) | v;
    }
    return p;
}

GpStatus AddProperty(GpImage* image, PROPID id, std::uint16_t type, const void* data,
                     std::size_t length) {
    PropertyItem item{id, static_cast<std::uint32_t>(length), type, const_cast<void*>(data)};
    return GdipSetPropertyItem(image, &item);
}

GpStatus AddPropertyLongs(GpImage* image, PROPID id, const std::vector<std::uint32_t>& values) {
    return AddProperty(image, id, PropertyTagTypeLong, values.data(), values.size() * 4);
}

GpStatus AddPropertyShort(GpImage* image, PROPID id, std::uint16_t value) {
    return AddProperty(image, id, PropertyTagTypeShort, &value, 2);
}

GpStatus AddPropertyAscii(GpImage* image, PROPID id, const std::string& text) {
    return AddProperty(image, id, PropertyTagTypeASCII, text.c_str(), text.size() + 1);
}

GpStatus AddPropertyRational(GpImage* image, PROPID id, std::uint32_t num, std::uint32_t den) {
    std::uint32_t v[2] = {num, den};
    return AddProperty(image, id, PropertyTagTypeRational, v, 8);
}

bool FindEncoderLong(const EncoderParameters* params, const GUID& category, UINT* value) {
    if (!params) return false;
    for (UINT i = 0; i < params->Count; ++i) {
        const EncoderParameter& p = params->Parameter[i];
        if (p.Guid == category && p.NumberOfValues >= 1 && p.Value &&
            p.Type == EncoderParameterValueTypeLong) {
            *value = *static_cast<const std::uint32_t*>(p.Value);
            return true;
        }
    }
    return false;
}

// ---------------------------------------------------------------- IFD reader
int TiffTypeSize(std::uint16_t type) {
    switch (type) {
    case 1:
    case 2:
    case 6:
    case 7:
        return 1;
    case 3:
    case 8:
        return 2;
    case 4:
    case 9:
    case 11:
        return 4;
    case 5:
    case 10:
    case 12:
        return 8;
    default:
        return 0;
    }
}

namespace {

// Thumbnail (IFD1) tags go to the engine's 0x5000 range.
PROPID ThumbnailId(std::uint16_t tag) {
    static const std::map<std::uint16_t, PROPID> m = {
        {256, 0x5020}, {257, 0x5021}, {258, 0x5022}, {259, 0x5023},  {262, 0x5024}, {270, 0x5025},
        {271, 0x5026}, {272, 0x5027}, {273, 0x5028}, {274, 0x5029},  {277, 0x502A}, {278, 0x502B},
        {279, 0x502C}, {282, 0x502D}, {283, 0x502E}, {284, 0x502F},  {296, 0x5030}, {301, 0x5031},
        {305, 0x5032}, {306, 0x5033}, {315, 0x5034}, {318, 0x5035},  {319, 0x5036}, {529, 0x5037},
        {530, 0x5038}, {531, 0x5039}, {532, 0x503A}, {33432, 0x503B}};
    auto it = m.find(tag);
    return it == m.end() ? tag : it->second;
}

struct IfdReader {
    const std::uint8_t* d;
    std::size_t n;
    bool le;
    std::uint16_t U16(std::size_t o) const { return le ? Le16(d + o) : Be16(d + o); }
    std::uint32_t U32(std::size_t o) const { return le ? Le32(d + o) : Be32(d + o); }

    // Copies an entry's value into host order. False when it lies outside.
    bool Value(std::size_t entry, std::uint16_t& type, std::vector<std::uint8_t>& out) const {
        type = U16(entry + 2);
        std::uint32_t count = U32(entry + 4);
        int ts = TiffTypeSize(type);
        if (ts == 0 || count > n) return false;
        std::size_t len = static_cast<std::size_t>(count) * static_cast<std::size_t>(ts);
        std::size_t off = entry + 8;
        if (len > 4) {
            off = U32(entry + 8);
            if (off > n || len > n - off) return false;
        }
        out.assign(d + off, d + off + len);
        if (!le) {
            int unit = (ts == 8) ? 4 : ts;
            if (unit > 1)
                for (std::size_t i = 0; i + static_cast<std::size_t>(unit) <= len;
                     i += static_cast<std::size_t>(unit))
                    std::reverse(out.begin() + static_cast<std::ptrdiff_t>(i),
                                 out.begin() + static_cast<std::ptrdiff_t>(i) + unit);
        }
        return true;
    }
};

} // namespace

namespace {

// Adds one IFD's entries; returns the offset of the next IFD (0 if none).
std::uint32_t AddIfd(GpImage* image, const IfdReader& r, std::uint32_t off, bool thumbnail,
                     std::uint32_t* exifIfd, std::uint32_t* gpsIfd, std::uint32_t* thumbOff,
                     std::uint32_t* thumbLen, float* rx, float* ry, int* unit) {
    if (off < 8 || off > r.n || r.n - off < 2) return 0;
    std::uint16_t count = r.U16(off);
    if (static_cast<std::size_t>(count) * 12 > r.n - off - 2) return 0;
    for (std::uint16_t i = 0; i < count; ++i) {
        std::size_t e = off + 2 + static_cast<std::size_t>(i) * 12;
        std::uint16_t tag = r.U16(e);
        std::uint16_t type = 0;
        std::vector<std::uint8_t> v;
        if (!r.Value(e, type, v)) continue;
        if (type > 10) continue; // types the property model does not carry
        std::uint32_t first = 0;
        if (type == 3 && v.size() >= 2) first = static_cast<std::uint32_t>(v[0] | (v[1] << 8));
        if (type == 4 && v.size() >= 4) first = Le32(v.data());
        float rational = 0;
        if (type == 5 && v.size() >= 8 && Le32(v.data() + 4) != 0)
            rational = static_cast<float>(Le32(v.data())) / static_cast<float>(Le32(v.data() + 4));
        if (!thumbnail) {
            if (tag == 0x8769 && exifIfd) *exifIfd = first;
            if (tag == 0x8825 && gpsIfd) *gpsIfd = first;
            if (tag == 282 && rx) *rx = rational;
            if (tag == 283 && ry) *ry = rational;
            if (tag == 296 && unit) *unit = static_cast<int>(first);
            AddProperty(image, tag, type, v.data(), v.size());
        } else {
            if (tag == 513 && thumbOff) *thumbOff = first;
            if (tag == 514 && thumbLen) *thumbLen = first;
            AddProperty(image, ThumbnailId(tag), type, v.data(), v.size());
        }
    }
    std::size_t nextPos = off + 2 + static_cast<std::size_t>(count) * 12;
    if (nextPos + 4 > r.n) return 0;
    return r.U32(nextPos);
}

} // namespace

void ReadIfdProperties(GpImage* image, const std::uint8_t* data, std::size_t size,
                       std::uint32_t offset) {
    if (size < 8) return;
    IfdReader r{data, size, data[0] == 'I'};
    std::uint32_t exifIfd = 0, gpsIfd = 0;
    AddIfd(image, r, offset, false, &exifIfd, &gpsIfd, nullptr, nullptr, nullptr, nullptr, nullptr);
    if (exifIfd)
        AddIfd(image, r, exifIfd, false, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
               nullptr);
    if (gpsIfd)
        AddIfd(image, r, gpsIfd, false, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
               nullptr);
}

void ReadExifProperties(GpImage* image, const std::uint8_t* data, std::size_t size,
                        bool* gotResolution, float* dpiX, float* dpiY) {
    if (gotResolution) *gotResolution = false;
    if (size < 8) return;
    IfdReader r{data, size, true};
    if (data[0] == 'I' && data[1] == 'I')
        r.le = true;
    else if (data[0] == 'M' && data[1] == 'M')
        r.le = false;
    else
        return;
    if (r.U16(2) != 42) return;
    std::uint32_t exifIfd = 0, gpsIfd = 0, thumbOff = 0, thumbLen = 0;
    float rx = 0, ry = 0;
    int unit = 2;
    std::uint32_t ifd1 =
        AddIfd(image, r, r.U32(4), false, &exifIfd, &gpsIfd, nullptr, nullptr, &rx, &ry, &unit);
    if (exifIfd)
        AddIfd(image, r, exifIfd, false, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
               nullptr);
    if (gpsIfd)
        AddIfd(image, r, gpsIfd, false, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
               nullptr);
    if (ifd1 && ifd1 != r.U32(4)) {
        AddIfd(image, r, ifd1, true, nullptr, nullptr, &thumbOff, &thumbLen, nullptr, nullptr,
               nullptr);
        if (thumbOff && thumbLen && thumbOff < size && thumbLen <= size - thumbOff)
            AddProperty(image, 0x501B, PropertyTagTypeByte, data + thumbOff, thumbLen);
    }
    if (rx > 0 && ry > 0 && (unit == 2 || unit == 3)) {
        float k = unit == 3 ? 2.54f : 1.0f;
        if (dpiX) *dpiX = rx * k;
        if (dpiY) *dpiY = ry * k;
        if (gotResolution) *gotResolution = true;
    }
}

} // namespace kestrelyn::codecs
