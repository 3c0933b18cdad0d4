// The host-services interface without a GUI adapter: message boxes go to
// standard error, the clipboard lives in the process, screen grabs go to the
// X11 display when one can be reached, and there is no dialog and no desktop
// window. An adapter (the Qt one, or a test's) can
// take over for the calling thread of the process.
#include <cstdio>
#include <mutex>

#include "platform/linux/host/x11grab.h"
#include "platform/modGdi32.h"
#include "platform/modWinapi.h"

namespace kestrelyn {

namespace {

class DefaultHostServices final : public HostServices {
  public:
    void MessageBox(const std::string& sText, const std::string& sTitle,
                    MessageBoxStyle eStyle) override {
        std::fprintf(stderr, "%s%s: %s\n", eStyle == MessageBoxCritical ? "[critical] " : "",
                     sTitle.c_str(), sText.c_str());
    }
    bool ClipboardClear() override {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_hBitmap) DeleteObject(m_hBitmap);
        m_hBitmap = 0;
        return true;
    }
    bool ClipboardSetBitmap(HBITMAP hBitmap) override {
        if (!HostGetBitmap(hBitmap)) return false;
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_hBitmap && m_hBitmap != hBitmap) DeleteObject(m_hBitmap);
        m_hBitmap = hBitmap;
        return true;
    }
    HBITMAP ClipboardGetBitmap() override {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_hBitmap;
    }
    HBITMAP GrabWindow(HWND hWnd) override { return GrabX11Window(hWnd); }
    bool OpenFileDialog(const std::string&, std::string& sChosen) override {
        sChosen.clear();
        return false;
    }

  private:
    std::mutex m_mutex;
    HBITMAP m_hBitmap = 0; // owned by the clipboard
};

std::mutex gServicesMutex;

std::shared_ptr<HostServices>& DefaultServices() {
    static std::shared_ptr<HostServices> services = std::make_shared<DefaultHostServices>();
    return services;
}

std::shared_ptr<HostServices>& CurrentServices() {
    static std::shared_ptr<HostServices> services;
    return services;
}

} // namespace

HostServices& GetHostServices() {
    std::lock_guard<std::mutex> lock(gServicesMutex);
    std::shared_ptr<HostServices>& current = CurrentServices();
    return current ? *current : *DefaultServices();
}

std::shared_ptr<HostServices> SetHostServices(std::shared_ptr<HostServices> pServices) {
    std::lock_guard<std::mutex> lock(gServicesMutex);
    std::shared_ptr<HostServices> old = CurrentServices();
    CurrentServices() = std::move(pServices);
    return old;
}

} // namespace kestrelyn
