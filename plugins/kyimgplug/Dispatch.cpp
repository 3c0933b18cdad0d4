// Format detection by content and by name, and the decode/encode dispatch.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "Codecs.h"

namespace kyplug {

namespace {
const char* const kNames[kFifCount] = {
    "BMP",   "ICO",  "JPEG", "JNG",    "KOALA", "LBM", "MNG",    "PBM", "PBMRAW",
    "PCD",   "PCX",  "PGM",  "PGMRAW", "PNG",   "PPM", "PPMRAW", "RAS", "TARGA",
    "TIFF",  "WBMP", "PSD",  "CUT",    "XBM",   "XPM", "DDS",    "GIF", "HDR",
    "FAXG3", "SGI",  "EXR",  "J2K",    "JP2",   "PFM", "PICT",   "RAW", "JBIG"};
} // namespace

const char* FormatName(int fif) {
    return fif >= 0 && fif < kFifCount ? kNames[fif] : "";
}

bool ReadFile(const std::string& path, Bytes& out) {
    std::ifstream f(path, std::ios::binary);
    if (!f) return false;
    f.seekg(0, std::ios::end);
    std::streamoff n = f.tellg();
    if (n < 0 || n > (std::streamoff(1) << 31)) return false;
    f.seekg(0);
    out.resize(std::size_t(n));
    if (n > 0) f.read(reinterpret_cast<char*>(out.data()), n);
    return bool(f);
}

bool WriteFile(const std::string& path, const Bytes& data) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    if (!f) return false;
    f.write(reinterpret_cast<const char*>(data.data()), std::streamsize(data.size()));
    return bool(f);
}

int DetectByName(const std::string& path) {
    std::size_t slash = path.find_last_of("/\\");
    std::size_t dot = path.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return -1;
    std::string ext = path.substr(dot + 1);
    for (auto& c : ext)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    static const struct {
        const char* ext;
        int fif;
    } table[] = {
        {"bmp", kBMP},     {"dib", kBMP},   {"ico", kICO},   {"jpg", kJPEG},  {"jpeg", kJPEG},
        {"jpe", kJPEG},    {"jif", kJPEG},  {"jfif", kJPEG}, {"jng", kJNG},   {"koa", kKOALA},
        {"koala", kKOALA}, {"lbm", kLBM},   {"iff", kLBM},   {"ilbm", kLBM},  {"mng", kMNG},
        {"pbm", kPBM},     {"pcd", kPCD},   {"pcx", kPCX},   {"pgm", kPGM},   {"png", kPNG},
        {"ppm", kPPM},     {"ras", kRAS},   {"sun", kRAS},   {"tga", kTARGA}, {"targa", kTARGA},
        {"tif", kTIFF},    {"tiff", kTIFF}, {"wbmp", kWBMP}, {"wap", kWBMP},  {"wbm", kWBMP},
        {"psd", kPSD},     {"cut", kCUT},   {"xbm", kXBM},   {"xpm", kXPM},   {"dds", kDDS},
        {"gif", kGIF},     {"hdr", kHDR},   {"g3", kFAXG3},  {"fax", kFAXG3}, {"sgi", kSGI},
        {"rgb", kSGI},     {"rgba", kSGI},  {"bw", kSGI},    {"exr", kEXR},   {"j2k", kJ2K},
        {"j2c", kJ2K},     {"jpc", kJ2K},   {"jp2", kJP2},   {"pfm", kPFM},   {"pct", kPICT},
        {"pict", kPICT},   {"pic", kPICT},  {"jbg", kJBIG},  {"jbig", kJBIG}, {"bie", kJBIG},
        {"cr2", kRAW},     {"crw", kRAW},   {"nef", kRAW},   {"nrw", kRAW},   {"arw", kRAW},
        {"srf", kRAW},     {"sr2", kRAW},   {"dng", kRAW},   {"orf", kRAW},   {"rw2", kRAW},
        {"raf", kRAW},     {"pef", kRAW},   {"srw", kRAW},   {"3fr", kRAW},   {"erf", kRAW},
        {"kdc", kRAW},     {"mrw", kRAW},   {"raw", kRAW},   {"rwl", kRAW},   {"x3f", kRAW}};
    for (const auto& e : table)
        if (ext == e.ext) return e.fif;
    return -1;
}

namespace {
bool StartsWith(const Bytes& d, const char* s, std::size_t at = 0) {
    std::size_t n = std::strlen(s);
    return d.size() >= at + n && std::memcmp(d.data() + at, s, n) == 0;
}

bool LooksLikeTGA(const Bytes& d) {
    if (d.size() >= 26 && std::memcmp(d.data() + d.size() - 18, "TRUEVISION-XFILE.", 17) == 0)
        return true;
    if (d.size() < 18) return false;
    int cmt = d[1], type = d[2], bpp = d[16];
    if (cmt > 1) return false;
    if (type != 1 && type != 2 && type != 3 && type != 9 && type != 10 && type != 11) return false;
    if ((type & 7) == 1 && cmt != 1) return false;
    if (bpp != 8 && bpp != 15 && bpp != 16 && bpp != 24 && bpp != 32) return false;
    int w = d[12] | d[13] << 8, h = d[14] | d[15] << 8;
    return w > 0 && h > 0 && (d[17] & 0xc0) == 0;
}

bool LooksLikeWBMP(const Bytes& d) {
    if (d.size() < 4 || d[0] != 0 || d[1] != 0) return false;
    Reader r(d);
    r.pos = 2;
    try {
        auto mb = [&] {
            unsigned v = 0;
            for (int k = 0; k < 4; ++k) {
                std::uint8_t c = r.u8();
                v = (v << 7) | (c & 0x7f);
                if (!(c & 0x80)) return v;
            }
            throw DecodeError("mb");
        };
        unsigned w = mb(), h = mb();
        return w && h && r.left() == std::size_t((w + 7) / 8) * h;
    } catch (...) {
        return false;
    }
}

bool LooksLikeJBIG(const Bytes& d) {
    // Bi-level image header: one plane, sensible sizes, reserved bits clear.
    if (d.size() < 20 || d[0] != 0 || d[2] != 1 || d[3] != 0) return false;
    std::uint32_t xd = std::uint32_t(d[4]) << 24 | d[5] << 16 | d[6] << 8 | d[7];
    std::uint32_t yd = std::uint32_t(d[8]) << 24 | d[9] << 16 | d[10] << 8 | d[11];
    std::uint32_t l0 = std::uint32_t(d[12]) << 24 | d[13] << 16 | d[14] << 8 | d[15];
    return xd > 0 && xd <= 65535 && yd > 0 && l0 > 0 && (d[18] & 0xf0) == 0 &&
           (d[19] & 0x80) == 0 && d[16] <= 127;
}

bool LooksLikePICT(const Bytes& d) {
    // 512-byte application header, then size, frame and the version opcode.
    return d.size() > 528 &&
           ((d[522] == 0x11 && d[523] == 0x01) ||
            (d[522] == 0x00 && d[523] == 0x11 && d[524] == 0x02 && d[525] == 0xff));
}
} // namespace

int DetectByContent(const std::string& path) {
    Bytes d;
    std::ifstream f(path, std::ios::binary);
    if (!f) return -1;
    f.seekg(0, std::ios::end);
    std::streamoff size = f.tellg();
    f.seekg(0);
    d.resize(std::size_t(std::min<std::streamoff>(std::max<std::streamoff>(size, 0), 4096)));
    if (!d.empty()) f.read(reinterpret_cast<char*>(d.data()), std::streamsize(d.size()));
    if (d.size() < 2) return -1;
    const std::uint8_t* p = d.data();
    if (StartsWith(d, "BM") && d.size() >= 18) return kBMP;
    if (d.size() >= 6 && p[0] == 0 && p[1] == 0 && p[2] == 1 && p[3] == 0 && (p[4] | p[5]))
        return kICO;
    if (d.size() >= 3 && p[0] == 0xff && p[1] == 0xd8 && p[2] == 0xff) return kJPEG;
    if (StartsWith(d, "\x8bJNG\r\n\x1a\n")) return kJNG;
    if (StartsWith(d, "\x8aMNG\r\n\x1a\n")) return kMNG;
    if (StartsWith(d, "\x89PNG\r\n\x1a\n")) return kPNG;
    if (StartsWith(d, "FORM") && (StartsWith(d, "ILBM", 8) || StartsWith(d, "PBM ", 8)))
        return kLBM;
    if (d.size() >= 3 && p[0] == 'P' && p[1] >= '1' && p[1] <= '6' && std::isspace(p[2])) {
        static const int pnm[6] = {kPBM, kPGM, kPPM, kPBMRAW, kPGMRAW, kPPMRAW};
        return pnm[p[1] - '1'];
    }
    if (d.size() >= 3 && p[0] == 'P' && (p[1] == 'F' || p[1] == 'f') && std::isspace(p[2]))
        return kPFM;
    if (d.size() >= 4 && p[0] == 0x59 && p[1] == 0xa6 && p[2] == 0x6a && p[3] == 0x95) return kRAS;
    if (StartsWith(d, "II*\0") || StartsWith(d, std::string("MM\0*", 4).c_str()) ||
        (d.size() >= 4 && std::memcmp(p, "MM\0*", 4) == 0) ||
        (d.size() >= 4 && std::memcmp(p, "II*\0", 4) == 0))
        return kTIFF;
    if (StartsWith(d, "8BPS")) return kPSD;
    if (StartsWith(d, "DDS ")) return kDDS;
    if (StartsWith(d, "GIF87a") || StartsWith(d, "GIF89a")) return kGIF;
    if (StartsWith(d, "#?RADIANCE") || StartsWith(d, "#?RGBE")) return kHDR;
    if (d.size() >= 2 && p[0] == 0x01 && p[1] == 0xda) return kSGI;
    if (d.size() >= 4 && p[0] == 0x76 && p[1] == 0x2f && p[2] == 0x31 && p[3] == 0x01) return kEXR;
    if (d.size() >= 4 && p[0] == 0xff && p[1] == 0x4f && p[2] == 0xff && p[3] == 0x51) return kJ2K;
    if (d.size() >= 12 && std::memcmp(p, "\0\0\0\x0cjP  \r\n\x87\n", 12) == 0) return kJP2;
    std::string head(d.begin(), d.begin() + std::ptrdiff_t(std::min<std::size_t>(d.size(), 512)));
    if (head.find("/* XPM */") != std::string::npos) return kXPM;
    if (head.find("#define") != std::string::npos && head.find("_width") != std::string::npos)
        return kXBM;
    if (size >= 8 && d.size() > 0x800 + 7 && std::memcmp(p + 0x800, "PCD_IPI", 7) == 0) return kPCD;
    if (d[0] == 10 && d.size() >= 128 && d[1] <= 5 && d[2] <= 1 &&
        (d[3] == 1 || d[3] == 2 || d[3] == 4 || d[3] == 8))
        return kPCX;
    if (size == 10003 && p[0] == 0x00 && p[1] == 0x60) return kKOALA;
    if (LooksLikeJBIG(d)) return kJBIG;
    if (LooksLikePICT(d)) return kPICT;
    if (LooksLikeWBMP(d)) return kWBMP;
    if (LooksLikeTGA(d)) return kTARGA;
    return -1;
}

BitmapPtr Decode(int fif, const std::string& path, int flags) {
    try {
        std::error_code ec;
        auto size = std::filesystem::file_size(path, ec);
        InputBudget budget(ec ? 1 : std::max<std::uint64_t>(size, 1));
        BitmapPtr bm;
        Bytes d;
        auto load = [&] {
            if (!ReadFile(path, d)) throw DecodeError("read");
        };
        switch (fif) {
        case kBMP:
            load();
            bm = DecodeBMP(d);
            break;
        case kICO:
            load();
            bm = DecodeICO(d);
            break;
        case kJPEG:
            load();
            bm = DecodeJPEG(d.data(), d.size());
            break;
        case kJNG:
            load();
            bm = DecodeJNG(d);
            break;
        case kKOALA:
            load();
            bm = DecodeKOALA(d);
            break;
        case kLBM:
            load();
            bm = DecodeLBM(d);
            break;
        case kMNG:
            load();
            bm = DecodeMNG(d);
            break;
        case kPBM:
        case kPBMRAW:
        case kPGM:
        case kPGMRAW:
        case kPPM:
        case kPPMRAW:
            load();
            bm = DecodePNM(d);
            break;
        case kPCD:
            load();
            bm = DecodePCD(d);
            break;
        case kPCX:
            load();
            bm = DecodePCX(d);
            break;
        case kPNG:
            load();
            bm = DecodePNG(d.data(), d.size());
            break;
        case kRAS:
            load();
            bm = DecodeRAS(d);
            break;
        case kTARGA:
            load();
            bm = DecodeTGA(d);
            break;
        case kTIFF:
            bm = DecodeTIFF(path, 0, flags);
            break;
        case kWBMP:
            load();
            bm = DecodeWBMP(d);
            break;
        case kPSD:
            load();
            bm = DecodePSD(d);
            break;
        case kCUT:
            load();
            bm = DecodeCUT(d);
            break;
        case kXBM:
            load();
            bm = DecodeXBM(d);
            break;
        case kXPM:
            load();
            bm = DecodeXPM(d);
            break;
        case kDDS:
            load();
            bm = DecodeDDS(d);
            break;
        case kGIF:
            bm = DecodeGIF(path, 0, nullptr);
            break;
        case kHDR:
            load();
            bm = DecodeHDR(d);
            break;
        case kFAXG3:
            load();
            bm = DecodeFAXG3(d);
            break;
        case kSGI:
            load();
            bm = DecodeSGI(d);
            break;
        case kEXR:
            bm = DecodeEXR(path);
            break;
        case kJ2K:
            load();
            bm = DecodeJ2K(d, false);
            break;
        case kJP2:
            load();
            bm = DecodeJ2K(d, true);
            break;
        case kPFM:
            load();
            bm = DecodePFM(d);
            break;
        case kPICT:
            load();
            bm = DecodePICT(d);
            break;
        case kRAW:
            bm = DecodeRAW(path);
            break;
        case kJBIG:
            load();
            bm = DecodeJBIG(d);
            break;
        default:
            return nullptr;
        }
        if (!bm) return nullptr;
        // JPEG, PNG and JPEG 2000 pictures keep their rows top-down, every
        // other format bottom-up; the host relies on this.
        bool wantTop = fif == kJPEG || fif == kPNG || fif == kJ2K || fif == kJP2;
        if (bm->topDown != wantTop) FlipBitmap(*bm);
        return bm;
    } catch (...) {
        return nullptr;
    }
}

bool Encode(int fif, Bitmap& bm, const std::string& path, int flags) {
    try {
        Bytes out;
        bool ok = false;
        switch (fif) {
        case kBMP:
            ok = EncodeBMP(bm, out);
            break;
        case kICO:
            ok = EncodeICO(bm, out);
            break;
        case kJPEG:
            ok = EncodeJPEG(bm, flags, out); // flags: quality, 0 or less for the default
            break;
        case kPBM:
        case kPGM:
        case kPPM:
            ok = EncodePNM(bm, false, out);
            break;
        case kPBMRAW:
        case kPGMRAW:
        case kPPMRAW:
            ok = EncodePNM(bm, true, out);
            break;
        case kPNG:
            ok = EncodePNG(bm, out);
            break;
        case kTARGA:
            ok = EncodeTGA(bm, out);
            break;
        case kWBMP:
            ok = EncodeWBMP(bm, out);
            break;
        case kXPM:
            ok = EncodeXPM(bm, out);
            break;
        case kPFM:
            ok = EncodePFM(bm, out);
            break;
        case kJBIG:
            ok = EncodeJBIG(bm, out);
            break;
        case kTIFF:
            return EncodeTIFF({&bm}, flags, path);
        case kJ2K:
            return EncodeJ2K(bm, false, flags, path);
        case kJP2:
            return EncodeJ2K(bm, true, flags, path);
        case kEXR:
            return EncodeEXR(bm, flags, path);
        default:
            return false;
        }
        return ok && WriteFile(path, out);
    } catch (...) {
        return false;
    }
}

} // namespace kyplug
