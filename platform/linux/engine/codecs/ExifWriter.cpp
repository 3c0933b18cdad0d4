// The EXIF writer: an image's property items as a TIFF structure for an APP1
// "Exif" segment, and the sorting of property ids into the IFDs they belong
// to, shared with the TIFF encoder.
//
// Where an id goes (the decoders' reading of IFDs, turned round):
//   0x0000..0x001F            GPS IFD, through 0x8825. The decoders keep GPS
//                             tags under their own numbers, and no TIFF or
//                             EXIF tag of IFD0 or the EXIF IFD lies below 0x00FE,
//                             so this range is GPS alone.
//   0x829A..0x829D, 0x8822..0x8832, 0x9000..0x9FFF, 0xA000..0xAFFF
//                             EXIF IFD, through 0x8769; except the Windows
//                             tags 0x9C9B..0x9C9F, which are IFD0's.
//   0x5020..0x503B, 0x501B    the thumbnail: IFD1 under its TIFF numbers with
//                             the thumbnail bytes, written only when the
//                             thumbnail bytes (0x501B) are there.
//   0x00FE..0x02FF, 0x4746, 0x4749, 0x8000..0xFFFF otherwise
//                             IFD0.
//   everything else           dropped: the engine's own ids (0x0301 gamma,
//                             0x5xxx frame, palette and table facts, ...).
// Pointers to IFDs (0x8769, 0x8825, 0xA005, 330) and the tags that describe
// the stored pixels (size, samples, compression, strips, tiles, colour map,
// ...) are never copied: the writer of the pixels makes its own. The ICC
// profile (34675) travels in its own segment. PixelXDimension and
// PixelYDimension are set to the picture's size.
#include <algorithm>
#include <cstring>
#include <map>

#include "platform/linux/engine/codecs/CodecCommon.h"

namespace kestrelyn::codecs {

namespace {

// IFD1's TIFF tag of an engine thumbnail id (0 if none).
std::uint16_t ThumbnailTag(PROPID id) {
    static const std::map<PROPID, std::uint16_t> m = {
        {0x5020, 256}, {0x5021, 257}, {0x5022, 258}, {0x5023, 259},  {0x5024, 262}, {0x5025, 270},
        {0x5026, 271}, {0x5027, 272}, {0x5028, 273}, {0x5029, 274},  {0x502A, 277}, {0x502B, 278},
        {0x502C, 279}, {0x502D, 282}, {0x502E, 283}, {0x502F, 284},  {0x5030, 296}, {0x5031, 301},
        {0x5032, 305}, {0x5033, 306}, {0x5034, 315}, {0x5035, 318},  {0x5036, 319}, {0x5037, 529},
        {0x5038, 530}, {0x5039, 531}, {0x503A, 532}, {0x503B, 33432}};
    auto it = m.find(id);
    return it == m.end() ? 0 : it->second;
}

struct Entry {
    std::uint16_t tag;
    std::uint16_t type;
    std::uint32_t count;
    Bytes value; // little-endian
};

struct Ifd {
    std::vector<Entry> entries;
    std::uint32_t offset = 0;
    std::uint32_t Size() const {
        std::uint32_t size = 2 + 12 * static_cast<std::uint32_t>(entries.size()) + 4;
        for (const Entry& e : entries)
            if (e.value.size() > 4) size += static_cast<std::uint32_t>((e.value.size() + 1) & ~1u);
        return size;
    }
    void Sort() {
        std::stable_sort(entries.begin(), entries.end(),
                         [](const Entry& a, const Entry& b) { return a.tag < b.tag; });
    }
};

Entry LongEntry(std::uint16_t tag, std::uint32_t v) {
    Entry e{tag, 4, 1, Bytes(4)};
    for (int i = 0; i < 4; ++i)
        e.value[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(v >> (8 * i));
    return e;
}

void Put16(Bytes& out, std::size_t at, std::uint32_t v) {
    out[at] = static_cast<std::uint8_t>(v);
    out[at + 1] = static_cast<std::uint8_t>(v >> 8);
}
void Put32(Bytes& out, std::size_t at, std::uint32_t v) {
    Put16(out, at, v & 0xffff);
    Put16(out, at + 2, v >> 16);
}

// Writes an IFD at its offset; values longer than four bytes follow it.
void WriteIfd(Bytes& out, const Ifd& ifd, std::uint32_t next) {
    std::size_t at = ifd.offset;
    Put16(out, at, static_cast<std::uint32_t>(ifd.entries.size()));
    std::size_t data = at + 2 + 12 * ifd.entries.size() + 4;
    at += 2;
    for (const Entry& e : ifd.entries) {
        Put16(out, at, e.tag);
        Put16(out, at + 2, e.type);
        Put32(out, at + 4, e.count);
        if (e.value.size() <= 4) {
            std::memcpy(out.data() + at + 8, e.value.data(), e.value.size());
        } else {
            Put32(out, at + 8, static_cast<std::uint32_t>(data));
            std::memcpy(out.data() + data, e.value.data(), e.value.size());
            data += (e.value.size() + 1) & ~std::size_t{1};
        }
        at += 12;
    }
    Put32(out, at, next);
}

} // namespace

TagPlace PlaceOfProperty(PROPID id) {
    if (id <= 0x001F) return TagPlace::Gps;
    if (id == 0x8769 || id == 0x8825 || id == 0xA005 || id == 330 || id == 34675)
        return TagPlace::Dropped;
    if (id == 0x501B || ThumbnailTag(id) != 0) return TagPlace::Thumbnail;
    if ((id >= 0x829A && id <= 0x829D) || (id >= 0x8822 && id <= 0x8832)) return TagPlace::Exif;
    if (id >= 0x9C9B && id <= 0x9C9F) return TagPlace::Ifd0;
    if (id >= 0x9000 && id <= 0xAFFF) return TagPlace::Exif;
    if ((id >= 0x00FE && id <= 0x02FF) || id == 0x4746 || id == 0x4749 ||
        (id >= 0x8000 && id <= 0xFFFF))
        return TagPlace::Ifd0;
    return TagPlace::Dropped;
}

bool IsPixelLayoutTag(PROPID id) {
    switch (id) {
    case 254: // NewSubfileType
    case 255: // SubfileType
    case 256: // ImageWidth
    case 257: // ImageLength
    case 258: // BitsPerSample
    case 259: // Compression
    case 262: // PhotometricInterpretation
    case 263: // Threshholding
    case 266: // FillOrder
    case 273: // StripOffsets
    case 277: // SamplesPerPixel
    case 278: // RowsPerStrip
    case 279: // StripByteCounts
    case 280: // MinSampleValue
    case 281: // MaxSampleValue
    case 282: // XResolution
    case 283: // YResolution
    case 284: // PlanarConfiguration
    case 288: // FreeOffsets
    case 289: // FreeByteCounts
    case 292: // T4Options
    case 293: // T6Options
    case 296: // ResolutionUnit
    case 317: // Predictor
    case 320: // ColorMap
    case 322: // TileWidth
    case 323: // TileLength
    case 324: // TileOffsets
    case 325: // TileByteCounts
    case 338: // ExtraSamples
    case 339: // SampleFormat
    case 340: // SMinSampleValue
    case 341: // SMaxSampleValue
    case 347: // JPEGTables
    case 513: // JPEGInterchangeFormat
    case 514: // JPEGInterchangeFormatLength
    case 530: // YCbCrSubSampling
        return true;
    default:
        return false;
    }
}

Bytes BuildExifBlock(const GpImage* image, bool withThumbnail) {
    Ifd ifd0, exif, gps, ifd1;
    const Bytes* thumbnail = nullptr;
    for (const engine::PropertyRecord& p : image->properties) {
        const TagPlace place = PlaceOfProperty(p.id);
        const int size = TiffTypeSize(p.type);
        if (place == TagPlace::Dropped || size == 0 || p.value.empty() ||
            p.value.size() % static_cast<std::size_t>(size) != 0)
            continue;
        // The resolution stays: a JPEG's EXIF carries its own.
        if (place != TagPlace::Thumbnail && IsPixelLayoutTag(p.id) && p.id != 282 && p.id != 283 &&
            p.id != 296)
            continue;
        Entry e{static_cast<std::uint16_t>(p.id), p.type,
                static_cast<std::uint32_t>(p.value.size() / static_cast<std::size_t>(size)),
                p.value};
        switch (place) {
        case TagPlace::Ifd0:
            ifd0.entries.push_back(std::move(e));
            break;
        case TagPlace::Exif:
            if (p.id == 0xA002) e = LongEntry(0xA002, static_cast<std::uint32_t>(image->width));
            if (p.id == 0xA003) e = LongEntry(0xA003, static_cast<std::uint32_t>(image->height));
            exif.entries.push_back(std::move(e));
            break;
        case TagPlace::Gps:
            gps.entries.push_back(std::move(e));
            break;
        case TagPlace::Thumbnail:
            if (p.id == 0x501B) {
                thumbnail = &p.value;
            } else {
                const std::uint16_t tag = ThumbnailTag(p.id);
                if (tag != 273 && tag != 279) { // strips: the thumbnail goes as JPEG bytes
                    e.tag = tag;
                    ifd1.entries.push_back(std::move(e));
                }
            }
            break;
        case TagPlace::Dropped:
            break;
        }
    }
    if (!withThumbnail || !thumbnail) ifd1.entries.clear();
    if (ifd1.entries.empty()) thumbnail = nullptr;
    if (thumbnail) {
        // The thumbnail is written as JPEG bytes: compression 6 with the
        // interchange format's offset and length.
        std::erase_if(ifd1.entries, [](const Entry& e) { return e.tag == 259; });
        Entry comp{259, 3, 1, Bytes{6, 0}};
        ifd1.entries.push_back(comp);
        ifd1.entries.push_back(LongEntry(513, 0));
        ifd1.entries.push_back(LongEntry(514, static_cast<std::uint32_t>(thumbnail->size())));
    }
    if (ifd0.entries.empty() && exif.entries.empty() && gps.entries.empty()) return {};
    if (!exif.entries.empty()) ifd0.entries.push_back(LongEntry(0x8769, 0));
    if (!gps.entries.empty()) ifd0.entries.push_back(LongEntry(0x8825, 0));
    for (Ifd* d : {&ifd0, &exif, &gps, &ifd1})
        d->Sort();

    // Layout: header, IFD0, EXIF IFD, GPS IFD, IFD1, thumbnail bytes.
    std::uint32_t at = 8;
    for (Ifd* d : {&ifd0, &exif, &gps, &ifd1}) {
        if (d->entries.empty()) continue;
        d->offset = at;
        at += d->Size();
    }
    const std::uint32_t thumbAt = at;
    if (thumbnail) at += static_cast<std::uint32_t>(thumbnail->size());
    auto setLong = [](Ifd& d, std::uint16_t tag, std::uint32_t v) {
        for (Entry& e : d.entries)
            if (e.tag == tag) e = LongEntry(tag, v);
    };
    setLong(ifd0, 0x8769, exif.offset);
    setLong(ifd0, 0x8825, gps.offset);
    setLong(ifd1, 513, thumbAt);

    Bytes out(at, 0);
    out[0] = 'I', out[1] = 'I';
    Put16(out, 2, 42);
    Put32(out, 4, 8);
    WriteIfd(out, ifd0, thumbnail ? ifd1.offset : 0);
    if (!exif.entries.empty()) WriteIfd(out, exif, 0);
    if (!gps.entries.empty()) WriteIfd(out, gps, 0);
    if (thumbnail) {
        WriteIfd(out, ifd1, 0);
        std::memcpy(out.data() + thumbAt, thumbnail->data(), thumbnail->size());
    }
    return out;
}

} // namespace kestrelyn::codecs
