// Fuzz target for one format reader of the codec plug-in (format code
// KY_FUZZ_FIF). The plug-in reads files, so the bytes are written to a
// private temporary file which KYIMGPLUG_LoadU decodes. A decoded bitmap is
// converted to 32 bits when at most 4 Mpx (which walks every pixel and the
// palette); TIFF and GIF also open as multi-page documents whose pages (at
// most 8) are locked.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#define KYP_FN(result, name, params, args, unavailable) extern "C" result name params;
#include "platform/kyimgplug_exports.inc"
#undef KYP_FN

#ifndef KY_FUZZ_FIF
#error "KY_FUZZ_FIF (the format code) is not defined"
#endif

namespace {

std::string g_path;

void RemoveScratch() {
    if (!g_path.empty()) std::remove(g_path.c_str());
}

bool WriteScratch(const std::uint8_t* data, std::size_t size) {
    std::FILE* f = std::fopen(g_path.c_str(), "wb");
    if (!f) return false;
    bool ok = size == 0 || std::fwrite(data, 1, size, f) == size;
    return std::fclose(f) == 0 && ok;
}

void Exercise(std::intptr_t bm) {
    int w = KYIMGPLUG_GetWidth(bm), h = KYIMGPLUG_GetHeight(bm);
    int pitch = KYIMGPLUG_GetPitch(bm);
    const volatile std::uint8_t* bits = KYIMGPLUG_GetBits(bm);
    if (bits && w > 0 && h > 0 && pitch > 0) {
        (void)bits[0];
        (void)bits[std::size_t(h) * std::size_t(pitch) - 1];
    }
    KYIMGPLUG_GetInfo(bm);
    // The conversion goes pixel by pixel; past 4 Mpx (a few bytes of JBIG or
    // fax can describe a whole page) it costs seconds under the sanitizers
    // and tells nothing new about the reader.
    if (std::int64_t(w) * h <= (std::int64_t(1) << 22)) {
        if (std::intptr_t c = KYIMGPLUG_ConvertTo32Bits(bm)) KYIMGPLUG_Unload(c);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const char* dir = std::getenv("TMPDIR");
    g_path = std::string(dir && *dir ? dir : "/tmp") + "/kyfuzz_" KY_FUZZ_NAME "_" +
             std::to_string(::getpid()) + ".bin";
    std::atexit(RemoveScratch);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (!WriteScratch(data, size)) return 0;
    if (std::intptr_t bm = KYIMGPLUG_LoadU(KY_FUZZ_FIF, g_path.c_str(), 0)) {
        Exercise(bm);
        KYIMGPLUG_Unload(bm);
    }
#if KY_FUZZ_FIF == 18 || KY_FUZZ_FIF == 25
    if (std::intptr_t multi = KYIMGPLUG_OpenMultiBitmap(KY_FUZZ_FIF, g_path.c_str(), 0, 1, 0, 0)) {
        int pages = KYIMGPLUG_GetPageCount(multi);
        for (int p = 0; p < pages && p < 8; ++p) {
            if (std::intptr_t page = KYIMGPLUG_LockPage(multi, p)) {
                Exercise(page);
                KYIMGPLUG_UnlockPage(multi, page, 0);
            }
        }
        KYIMGPLUG_CloseMultiBitmap(multi, 0);
    }
#endif
    return 0;
}
