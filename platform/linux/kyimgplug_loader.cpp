// The codec plug-in libkyimgplug, bound through the plug-in loader. Each
// KYIMGPLUG_* call forwards to the library's export of that name, or returns
// its "unavailable" value when the library or the export is missing.
#include "platform/PluginLoader.h"
#include "platform/modkyimgplug.h"

namespace kestrelyn {
namespace {

// Never destroyed: bitmaps released at process exit still reach the plug-in.
PluginLoader& Kyimgplug() {
    static PluginLoader* loader = new PluginLoader(PluginLibrary{.sName = "kyimgplug"});
    return *loader;
}

} // namespace

bool IsKyimgplugLoaded() {
    return Kyimgplug().IsLoaded();
}

std::string KyimgplugLibraryPath() {
    return Kyimgplug().LibraryPath();
}

void ReloadKyimgplug(const std::vector<std::string>* folders) {
    Kyimgplug().Reload(folders);
}

#define KYP_FN(R, N, P, A, F)                                                                      \
    R N P {                                                                                        \
        using Fn = R(*) P;                                                                         \
        auto fn = Kyimgplug().Function<Fn>(#N);                                                    \
        if (!fn) return F;                                                                         \
        return fn A;                                                                               \
    }
#include "platform/kyimgplug_exports.inc"
#undef KYP_FN

} // namespace kestrelyn
