// Helpers of the codec tests: a scratch directory, independent decoders (PIL,
// djpeg) run as child processes, and our pixels read through a 32bppARGB lock.
#pragma once
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/linux/engine/EngineImage.h"
#include "platform/modGdiPlus.h"

namespace kestrelyn::codectest {

struct Image {
    GpImage* p = nullptr;
    Image() = default;
    explicit Image(GpImage* i) : p(i) {}
    ~Image() {
        if (p) GdipDisposeImage(p);
    }
    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;
    GpImage** out() { return &p; }
    operator GpImage*() const { return p; }
};

struct Pixels {
    int width = 0, height = 0;
    std::vector<std::uint32_t> argb; // 0xAARRGGBB
};

// The scratch directory of the test program, made when first asked for.
inline std::string& ScratchDirName() {
    static std::string dir;
    return dir;
}
inline const std::string& ScratchDir() {
    std::string& dir = ScratchDirName();
    if (dir.empty()) {
        char tmpl[] = "/tmp/ky_codec_XXXXXX";
        const char* d = mkdtemp(tmpl);
        dir = d ? d : "";
        EXPECT_FALSE(dir.empty()) << "no scratch directory";
    }
    return dir;
}

// Removes the scratch directory and what is in it (one level: the tests
// make no subdirectories).
inline void RemoveScratchDir() {
    std::string& dir = ScratchDirName();
    if (dir.empty()) return;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
                std::remove((dir + "/" + e->d_name).c_str());
        }
        closedir(d);
    }
    rmdir(dir.c_str());
    dir.clear();
}

// Every test of the program leaves no scratch directory behind: the
// directory goes when the test program's tests are over.
class ScratchCleanup : public ::testing::Environment {
  public:
    void TearDown() override { RemoveScratchDir(); }
};
inline ::testing::Environment* const kScratchCleanup =
    ::testing::AddGlobalTestEnvironment(new ScratchCleanup);
inline std::string Scratch(const std::string& name) {
    return ScratchDir() + "/" + name;
}

inline bool Shell(const std::string& cmd) {
    return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0;
}

inline std::vector<std::uint8_t> ReadAll(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(f), {});
}
inline void WriteAll(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    std::ofstream f(path, std::ios::binary);
    f.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

// Runs a Python snippet with Debian's PIL; `code` sees `sys.argv[1:]`.
inline bool Py(const std::string& code, const std::string& args = "") {
    std::string script = Scratch("snippet.py");
    std::ofstream(script) << "import sys\nfrom PIL import Image\n" << code << "\n";
    return Shell("/usr/bin/python3 " + script + " " + args);
}

// Decodes `path` (frame `frame`) with PIL to 8-bit RGBA; 16-bit grey is
// reduced by its high byte.
inline bool PilRgba(const std::string& path, Pixels& px, int frame = 0) {
    std::string raw = Scratch("pil.raw");
    const char* code = R"(
import struct
im = Image.open(sys.argv[1])
im.seek(int(sys.argv[3]))
if im.mode in ('I', 'I;16', 'I;16B', 'I;16L'):
    im = Image.frombytes('L', im.size, bytes((v >> 8) & 255 for v in im.getdata()))
im = im.convert('RGBA')
with open(sys.argv[2], 'wb') as f:
    f.write(struct.pack('<ii', im.size[0], im.size[1]))
    f.write(im.tobytes())
)";
    if (!Py(code, "'" + path + "' " + raw + " " + std::to_string(frame))) return false;
    auto b = ReadAll(raw);
    if (b.size() < 8) return false;
    std::memcpy(&px.width, b.data(), 4);
    std::memcpy(&px.height, b.data() + 4, 4);
    std::size_t n = static_cast<std::size_t>(px.width) * static_cast<std::size_t>(px.height);
    if (b.size() != 8 + 4 * n) return false;
    px.argb.resize(n);
    for (std::size_t i = 0; i < n; ++i) {
        const std::uint8_t* q = b.data() + 8 + 4 * i;
        px.argb[i] = (std::uint32_t{q[3]} << 24) | (std::uint32_t{q[0]} << 16) |
                     (std::uint32_t{q[1]} << 8) | q[2];
    }
    return true;
}

// Our decode through a read lock in 32bppARGB.
inline Pixels Ours(GpImage* img) {
    Pixels px;
    UINT w = 0, h = 0;
    EXPECT_EQ(GdipGetImageWidth(img, &w), OK);
    EXPECT_EQ(GdipGetImageHeight(img, &h), OK);
    px.width = static_cast<int>(w);
    px.height = static_cast<int>(h);
    GpRect r{0, 0, px.width, px.height};
    BitmapData d;
    if (GdipBitmapLockBits(img, &r, ImageLockModeRead, PixelFormat32bppARGB, &d) != OK) {
        ADD_FAILURE() << "lock failed";
        return px;
    }
    px.argb.resize(static_cast<std::size_t>(w) * h);
    for (UINT y = 0; y < h; ++y)
        std::memcpy(px.argb.data() + static_cast<std::size_t>(y) * w,
                    static_cast<const std::uint8_t*>(d.Scan0) +
                        static_cast<std::ptrdiff_t>(y) * d.Stride,
                    w * 4);
    GdipBitmapUnlockBits(img, &d);
    return px;
}

// Largest channel difference; pixels transparent in both are equal; RGB only
// when `ignoreAlpha`. Returns -1 when the sizes differ.
inline int MaxDiff(const Pixels& a, const Pixels& b, bool ignoreAlpha = false,
                   int* where = nullptr) {
    if (a.width != b.width || a.height != b.height || a.argb.size() != b.argb.size()) return -1;
    int worst = 0;
    for (std::size_t i = 0; i < a.argb.size(); ++i) {
        std::uint32_t x = a.argb[i], y = b.argb[i];
        if (!ignoreAlpha && (x >> 24) == 0 && (y >> 24) == 0) continue;
        for (int s = 0; s < 32; s += 8) {
            if (ignoreAlpha && s == 24) continue;
            int d = std::abs(static_cast<int>((x >> s) & 255) - static_cast<int>((y >> s) & 255));
            if (d > worst) {
                worst = d;
                if (where) *where = static_cast<int>(i);
            }
        }
    }
    return worst;
}

inline std::vector<std::string> ListDir(const std::string& dir, const std::string& suffix) {
    std::vector<std::string> out;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            std::string n = e->d_name;
            if (n.size() > suffix.size() &&
                n.compare(n.size() - suffix.size(), suffix.size(), suffix) == 0)
                out.push_back(n);
        }
        closedir(d);
    }
    std::sort(out.begin(), out.end());
    return out;
}

inline int OpenFdCount() {
    return static_cast<int>(ListDir("/proc/self/fd", "").size());
}

inline GpStatus Load(const std::string& path, Image& img) {
    return GdipCreateBitmapFromFile(path, img.out());
}

} // namespace kestrelyn::codectest
