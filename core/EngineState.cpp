// Engine start and stop, once per thread: the first user of a thread starts
// the raster engine and reads the encoder table and the version texts; the last
// one releases every image of the thread and shuts the engine down.
#include "core/EngineState.h"

#include <exception>
#include <string>

#include "core/CodecPluginBridge.h"
#include "core/ImageSaver.h"
#include "core/modMain.h"
#include "platform/modGdiPlus.h"
#include "platform/modWinapi.h"

namespace kestrelyn {

// ---------------------------------------------------------------------------
// Engine start and stop, once per thread.

namespace {

thread_local EngineState tlEngine;

const char* const kMessageTitle = "Kestrelyn";

std::string EngineFailureText(const char* sPrefix, int nErr, const std::string& sDescription) {
    return std::string(sPrefix) + std::to_string(nErr) + ". Error: " + sDescription;
}

} // namespace

EngineState& ThreadEngineState() {
    return tlEngine;
}

double VersionValue(const std::string& sVersion) {
    // Leading blanks, an optional sign, digits, at most one decimal point.
    std::size_t i = 0;
    while (i < sVersion.size() && (sVersion[i] == ' ' || sVersion[i] == '\t'))
        ++i;
    double sign = 1;
    if (i < sVersion.size() && (sVersion[i] == '-' || sVersion[i] == '+')) {
        if (sVersion[i] == '-') sign = -1;
        ++i;
    }
    double value = 0, scale = 0;
    for (; i < sVersion.size(); ++i) {
        const char c = sVersion[i];
        if (c >= '0' && c <= '9') {
            if (scale == 0)
                value = value * 10 + (c - '0');
            else {
                value += (c - '0') * scale;
                scale /= 10;
            }
        } else if (c == '.' && scale == 0) {
            scale = 0.1;
        } else {
            break;
        }
    }
    return sign * value;
}

bool StartEngine() {
    EngineState& st = tlEngine;
    int nErr = 0;
    std::string sDescription;
    bool bFailed = false;
    try {
        st.nEngineUsers += 1;
        if (!st.bEngineStarted) {
            st.bEngineStarted = true;
            // Does the engine answer already? A 1 by 1 bitmap tells.
            GpBitmap* probe = nullptr;
            KestrelynStatus status =
                GdipCreateBitmapFromScan0(1, 1, 0, PixelFormat24bppRGB, nullptr, &probe);
            bool bRunning = status == OK;
            if (bRunning) {
                GdipDisposeImage(probe);
            } else {
                GdiplusStartupInput input;
                input.GdiplusVersion = 1;
                GdiplusStartupOutput output;
                std::uintptr_t token = 0;
                status = GdiplusStartup(&token, &input, &output);
                if (status == OK) {
                    st.nEngineToken = token;
                    bRunning = true;
                }
            }
            if (bRunning) {
                BuildEncoderTable();
                const char* sVersion = GdipGetEngineVersion();
                st.sGdiplusVersion = sVersion ? sVersion : "";
            } else {
                st.bEngineStarted = false;
                bFailed = true;
                nErr = status;
                sDescription = "the raster engine did not start";
            }
        }
        if (VersionValue(st.sKyimgplugVersion) == 0)
            st.sKyimgplugVersion = GetLibraryFileVersion("kyimgplug");
    } catch (const std::exception& e) {
        bFailed = true;
        nErr = nErr ? nErr : GenericError;
        sDescription = e.what();
    } catch (...) {
        bFailed = true;
        nErr = nErr ? nErr : GenericError;
        sDescription = "unknown failure";
    }
    if (bFailed) {
        st.bEngineStarted = false;
        try {
            GetHostServices().MessageBox(
                EngineFailureText("Error starting GDI+. Err no: ", nErr, sDescription),
                kMessageTitle, MessageBoxCritical);
        } catch (...) {
        }
    }
    return st.bEngineStarted;
}

void StopEngine() {
    EngineState& st = tlEngine;
    try {
        st.nEngineUsers -= 1;
        if (st.bEngineStarted && st.nEngineUsers <= 0) {
            st.bEngineStarted = false;
            RemoveAllImages();
            if (st.nEngineToken != 0) {
                GdiplusShutdown(st.nEngineToken);
                st.nEngineToken = 0;
            }
        }
    } catch (const std::exception& e) {
        try {
            GetHostServices().MessageBox(
                EngineFailureText("Error shutting down GDI+. Err no: ", GenericError, e.what()),
                kMessageTitle, MessageBoxCritical);
        } catch (...) {
        }
    } catch (...) {
        try {
            GetHostServices().MessageBox(EngineFailureText("Error shutting down GDI+. Err no: ",
                                                           GenericError, "unknown failure"),
                                         kMessageTitle, MessageBoxCritical);
        } catch (...) {
        }
    }
}

} // namespace kestrelyn
