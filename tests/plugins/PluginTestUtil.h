// Helpers for the codec plug-in tests: scratch folders, independent tools
// (ImageMagick, Python PIL) and reading a plug-in bitmap back as RGBA.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/modkyimgplug.h"

namespace kytest {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;
using kestrelyn::KYIMGPLUG_GetBits;
using kestrelyn::KYIMGPLUG_GetBPP;
using kestrelyn::KYIMGPLUG_GetHeight;
using kestrelyn::KYIMGPLUG_GetImageType;
using kestrelyn::KYIMGPLUG_GetPalette;
using kestrelyn::KYIMGPLUG_GetPitch;
using kestrelyn::KYIMGPLUG_GetTransparencyCount;
using kestrelyn::KYIMGPLUG_GetTransparencyTable;
using kestrelyn::KYIMGPLUG_GetWidth;

constexpr const char* kConvert = "/usr/bin/convert";
constexpr const char* kPython = "/usr/bin/python3";

class TempDir {
  public:
    TempDir() {
        char tmpl[] = "/tmp/kyplugtestXXXXXX";
        char* p = mkdtemp(tmpl);
        path_ = p ? p : "/tmp";
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

inline int Shell(const std::string& cmd) {
    return std::system((cmd + " >/dev/null 2>&1").c_str());
}

inline bool HaveTool(const char* path) {
    return fs::exists(path);
}

inline Bytes ReadAll(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

inline void WriteAll(const std::string& path, const Bytes& b) {
    std::ofstream f(path, std::ios::binary);
    f.write(reinterpret_cast<const char*>(b.data()), std::streamsize(b.size()));
}

// A colourful w x h picture written by PIL, so the pixels come from outside
// our code: red follows x, green follows y, blue mixes both.
inline bool MakeSourcePng(const std::string& path, int w, int h) {
    std::string py = std::string(kPython) + " -c \"from PIL import Image; im=Image.new('RGB',(" +
                     std::to_string(w) + "," + std::to_string(h) +
                     ")); im.putdata([((x*37)%256,(y*53)%256,((x+y)*29)%256) for y in range(" +
                     std::to_string(h) + ") for x in range(" + std::to_string(w) +
                     ")]); im.save('" + path + "')\"";
    return Shell(py) == 0;
}

// ImageMagick's decode of a file as 8-bit RGBA, top row first.
inline Bytes MagickRgba(const std::string& file, const std::string& scratch,
                        bool firstFrame = true) {
    std::string out = scratch + ".rgba";
    std::string frame = firstFrame ? "[0]" : "";
    if (Shell(std::string(kConvert) + " '" + file + frame + "' -depth 8 rgba:'" + out + "'") != 0)
        return {};
    return ReadAll(out);
}

// PIL's decode of a file as 8-bit RGBA, top row first.
inline Bytes PilRgba(const std::string& file, const std::string& scratch) {
    std::string out = scratch + ".pil";
    std::string py = std::string(kPython) + " -c \"from PIL import Image; im=Image.open('" + file +
                     "'); open('" + out + "','wb').write(im.convert('RGBA').tobytes())\"";
    if (Shell(py) != 0) return {};
    return ReadAll(out);
}

// The plug-in bitmap as 8-bit RGBA, top row first. `topDown` says how the
// rows lie in memory (JPEG, PNG, J2K and JP2 keep them top-down).
inline Bytes PluginRgba(std::intptr_t bm, bool topDown) {
    int w = KYIMGPLUG_GetWidth(bm), h = KYIMGPLUG_GetHeight(bm), bpp = KYIMGPLUG_GetBPP(bm);
    int pitch = KYIMGPLUG_GetPitch(bm);
    const std::uint8_t* bits = KYIMGPLUG_GetBits(bm);
    const std::uint8_t* pal = KYIMGPLUG_GetPalette(bm);
    const std::uint8_t* trns = KYIMGPLUG_GetTransparencyTable(bm);
    int ntrns = KYIMGPLUG_GetTransparencyCount(bm);
    Bytes out;
    if (!bits || w <= 0 || h <= 0 || KYIMGPLUG_GetImageType(bm) != 1) return out;
    out.reserve(std::size_t(w) * h * 4);
    for (int y = 0; y < h; ++y) {
        const std::uint8_t* r = bits + std::size_t(topDown ? y : h - 1 - y) * pitch;
        for (int x = 0; x < w; ++x) {
            int idx = -1;
            if (bpp == 1) idx = (r[x >> 3] >> (7 - (x & 7))) & 1;
            if (bpp == 4) idx = (r[x >> 1] >> ((x & 1) ? 0 : 4)) & 15;
            if (bpp == 8) idx = r[x];
            if (idx >= 0) {
                out.push_back(pal[idx * 4 + 2]);
                out.push_back(pal[idx * 4 + 1]);
                out.push_back(pal[idx * 4]);
                out.push_back(trns && idx < ntrns ? trns[idx] : 255);
            } else {
                int n = bpp / 8;
                out.push_back(r[x * n + 2]);
                out.push_back(r[x * n + 1]);
                out.push_back(r[x * n]);
                out.push_back(n == 4 ? r[x * n + 3] : 255);
            }
        }
    }
    return out;
}

// Largest difference of the colour channels (and alpha when asked).
inline int MaxDiff(const Bytes& a, const Bytes& b, bool alpha = false) {
    if (a.size() != b.size() || a.empty()) return 1000;
    int m = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (!alpha && i % 4 == 3) continue;
        m = std::max(m, std::abs(int(a[i]) - int(b[i])));
    }
    return m;
}

// Mean difference of the colour channels, for lossy codecs.
inline double MeanDiff(const Bytes& a, const Bytes& b) {
    if (a.size() != b.size() || a.empty()) return 1000;
    double sum = 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (i % 4 != 3) sum += std::abs(int(a[i]) - int(b[i]));
    return sum / double(a.size() / 4 * 3);
}

// A Python expression over PIL's view of a file (`im`), as text.
inline std::string PilField(const std::string& file, const std::string& expr) {
    TempDir d;
    std::string out = d / "field.txt";
    Shell(std::string(kPython) + " -c \"from PIL import Image; im=Image.open('" + file +
          "'); open('" + out + "','w').write(str(" + expr + "))\"");
    Bytes b = ReadAll(out);
    return std::string(b.begin(), b.end());
}

} // namespace kytest
