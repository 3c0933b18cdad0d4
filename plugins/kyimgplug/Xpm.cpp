// Readers of the X Window pictures: X pixmaps (XPM) and X bitmaps (XBM).
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "Codecs.h"
#include "DecodePixels.h"

namespace kyplug {

namespace {
bool ParseColor(const std::string& s, std::uint8_t rgb[3], bool& none) {
    none = false;
    std::string l;
    for (char c : s)
        l += char(std::tolower(static_cast<unsigned char>(c)));
    if (l == "none" || l == "transparent") {
        none = true;
        rgb[0] = rgb[1] = rgb[2] = 0;
        return true;
    }
    if (!l.empty() && l[0] == '#') {
        std::string hx = l.substr(1);
        std::size_t n = hx.size() / 3;
        if (n == 0 || n > 4 || hx.size() % 3) return false;
        for (int k = 0; k < 3; ++k) {
            unsigned v = unsigned(std::strtoul(hx.substr(k * n, n).c_str(), nullptr, 16));
            rgb[k] = std::uint8_t(n == 1 ? v * 17 : n == 2 ? v : v >> (4 * (n - 2)));
        }
        return true;
    }
    static const std::map<std::string, unsigned> named = {
        {"black", 0x000000}, {"white", 0xffffff},  {"red", 0xff0000},   {"green", 0x00ff00},
        {"blue", 0x0000ff},  {"yellow", 0xffff00}, {"cyan", 0x00ffff},  {"magenta", 0xff00ff},
        {"gray", 0xbebebe},  {"grey", 0xbebebe},   {"orange", 0xffa500}};
    auto it = named.find(l);
    if (it == named.end()) return false;
    rgb[0] = std::uint8_t(it->second >> 16);
    rgb[1] = std::uint8_t(it->second >> 8);
    rgb[2] = std::uint8_t(it->second);
    return true;
}
} // namespace

BitmapPtr DecodeXPM(const Bytes& d) {
    std::string text(d.begin(), d.end());
    if (text.find("XPM") == std::string::npos) throw DecodeError("not xpm");
    std::vector<std::string> strs;
    for (std::size_t i = text.find('{'); i != std::string::npos && i < text.size(); ++i) {
        if (text[i] == '/' && i + 1 < text.size() && text[i + 1] == '*') {
            std::size_t e = text.find("*/", i + 2);
            if (e == std::string::npos) break;
            i = e + 1;
        } else if (text[i] == '"') {
            std::size_t e = text.find('"', i + 1);
            if (e == std::string::npos) throw DecodeError("string");
            strs.push_back(text.substr(i + 1, e - i - 1));
            i = e;
        }
    }
    if (strs.empty()) throw DecodeError("no header");
    int w = 0, h = 0, nc = 0, cpp = 0;
    if (std::sscanf(strs[0].c_str(), "%d %d %d %d", &w, &h, &nc, &cpp) != 4 || nc <= 0 ||
        cpp <= 0 || cpp > 8 || nc > (1 << 24))
        throw DecodeError("xpm header");
    if (strs.size() < std::size_t(1) + nc + std::max(h, 0)) throw DecodeError("short");
    std::map<std::string, int> keys;
    std::vector<std::uint8_t> cols;
    int transparentIndex = -1;
    for (int i = 0; i < nc; ++i) {
        const std::string& s = strs[1 + std::size_t(i)];
        if (int(s.size()) < cpp) throw DecodeError("color");
        std::string key = s.substr(0, std::size_t(cpp));
        // Find the "c" visual among the keys that follow.
        std::vector<std::string> words;
        std::size_t p = std::size_t(cpp);
        while (p < s.size()) {
            while (p < s.size() && std::isspace(static_cast<unsigned char>(s[p])))
                ++p;
            std::size_t q = p;
            while (q < s.size() && !std::isspace(static_cast<unsigned char>(s[q])))
                ++q;
            if (q > p) words.push_back(s.substr(p, q - p));
            p = q;
        }
        std::string value;
        for (std::size_t k = 0; k + 1 < words.size(); ++k)
            if (words[k] == "c") {
                value = words[k + 1];
                for (std::size_t m = k + 2; m < words.size() && words[m].size() > 1; ++m)
                    value += " " + words[m];
                break;
            }
        if (value.empty() && words.size() >= 2) value = words[1];
        std::uint8_t rgb[3];
        bool none = false;
        if (!ParseColor(value, rgb, none)) rgb[0] = rgb[1] = rgb[2] = 0;
        if (none) transparentIndex = i;
        keys[key] = i;
        cols.insert(cols.end(), rgb, rgb + 3);
    }
    bool indexed = nc <= 256;
    auto bm = NewBitmap(kStandard, w, h, indexed ? 8 : (transparentIndex >= 0 ? 32 : 24));
    if (indexed) {
        bm->palette.assign(std::size_t(nc) * 4, 0);
        for (int i = 0; i < nc; ++i)
            bm->setColor(i, cols[i * 3], cols[i * 3 + 1], cols[i * 3 + 2]);
        if (transparentIndex >= 0) {
            bm->transparency.assign(std::size_t(nc), 255);
            bm->transparency[std::size_t(transparentIndex)] = 0;
        }
    }
    bm->alpha = !indexed && transparentIndex >= 0;
    for (int y = 0; y < h; ++y) {
        const std::string& s = strs[1 + std::size_t(nc) + y];
        if (s.size() < std::size_t(w) * cpp) throw DecodeError("row");
        for (int x = 0; x < w; ++x) {
            auto it = keys.find(s.substr(std::size_t(x) * cpp, std::size_t(cpp)));
            if (it == keys.end()) throw DecodeError("key");
            int i = it->second;
            if (indexed) {
                bm->row(y)[x] = std::uint8_t(i);
            } else {
                std::uint8_t c[4] = {cols[i * 3], cols[i * 3 + 1], cols[i * 3 + 2],
                                     std::uint8_t(i == transparentIndex ? 0 : 255)};
                SetPixelRGBA(*bm, x, y, c);
            }
        }
    }
    return bm;
}

BitmapPtr DecodeXBM(const Bytes& d) {
    std::string t(d.begin(), d.end());
    auto define = [&](const char* suffix) {
        std::size_t p = 0;
        while ((p = t.find("#define", p)) != std::string::npos) {
            std::size_t e = t.find('\n', p);
            std::string line = t.substr(p, e == std::string::npos ? std::string::npos : e - p);
            char name[256];
            int v;
            if (std::sscanf(line.c_str(), "#define %255s %d", name, &v) == 2) {
                std::string n(name);
                if (n.size() >= std::strlen(suffix) &&
                    n.compare(n.size() - std::strlen(suffix), std::string::npos, suffix) == 0)
                    return v;
            }
            p += 7;
        }
        return -1;
    };
    int w = define("_width"), h = define("_height");
    std::size_t p = t.find('{');
    if (w <= 0 || h <= 0 || p == std::string::npos) throw DecodeError("not xbm");
    auto bm = NewBitmap(kStandard, w, h, 1);
    SetBW(*bm);
    int bpr = (w + 7) / 8;
    for (int y = 0; y < h; ++y)
        for (int i = 0; i < bpr; ++i) {
            p = t.find("0x", p);
            if (p == std::string::npos) p = t.find("0X", p);
            if (p == std::string::npos) throw DecodeError("short");
            unsigned v = unsigned(std::strtoul(t.c_str() + p, nullptr, 16));
            p += 2;
            for (int b = 0; b < 8 && i * 8 + b < w; ++b)
                PutBit(*bm, i * 8 + b, y, !((v >> b) & 1));
        }
    return bm;
}

} // namespace kyplug
