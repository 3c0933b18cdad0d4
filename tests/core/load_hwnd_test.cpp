// Screen grabs: with an X11 display the screen's pixels become an image; with
// none the grab fails with a clear status and the native image stays.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <thread>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kestrelyn/Imaging.h"
#include "support/Checkers.h"

extern char** environ;

namespace kestrelyn {
namespace {

class ScopedDisplayVariable {
  public:
    explicit ScopedDisplayVariable(const char* value) {
        if (const char* old = std::getenv("DISPLAY")) m_old = old, m_had = true;
        if (value)
            setenv("DISPLAY", value, 1);
        else
            unsetenv("DISPLAY");
    }
    ~ScopedDisplayVariable() {
        if (m_had)
            setenv("DISPLAY", m_old.c_str(), 1);
        else
            unsetenv("DISPLAY");
    }

  private:
    std::string m_old;
    bool m_had = false;
};

// A virtual X server of 64x48 pixels whose root window is painted orange.
class VirtualDisplay {
  public:
    VirtualDisplay() {
        if (std::system("command -v Xvfb >/dev/null && command -v xsetroot >/dev/null") != 0)
            return;
        m_name = ":" + std::to_string(90 + getpid() % 100);
        const char* argv[] = {"Xvfb",     m_name.c_str(), "-screen", "0",    "64x48x24",
                              "-noreset", "-nolisten",    "tcp",     nullptr};
        if (posix_spawnp(&m_pid, "Xvfb", nullptr, nullptr, const_cast<char**>(argv), environ) != 0)
            return;
        const std::string paint = "xsetroot -display " + m_name + " -solid '#ff8000' 2>/dev/null";
        for (int i = 0; i < 100 && !m_ready; ++i) {
            if (std::system(paint.c_str()) == 0)
                m_ready = true;
            else
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
    ~VirtualDisplay() {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            waitpid(m_pid, nullptr, 0);
        }
    }
    bool Ready() const { return m_ready; }
    const std::string& Name() const { return m_name; }

  private:
    pid_t m_pid = -1;
    std::string m_name;
    bool m_ready = false;
};

TEST(LoadHwnd, TheScreenOfAnX11DisplayBecomesTheNativeImage) {
    VirtualDisplay display;
    KY_REQUIRE_CHECKER(!(!display.Ready()), "no virtual X server");
    ScopedDisplayVariable variable(display.Name().c_str());
    Imaging img;
    const std::int32_t id = img.CreateImageFromHwnd(0);
    ASSERT_NE(id, 0);
    EXPECT_EQ(img.GetStat(), OK);
    EXPECT_EQ(img.GetNativeImage(), id);
    EXPECT_EQ(img.GetWidth(id), 64);
    EXPECT_EQ(img.GetHeight(id), 48);
    EXPECT_EQ(img.PixelGetColor(0, 0), 0xFFFF8000u);
    EXPECT_EQ(img.PixelGetColor(63, 47), 0xFFFF8000u);
    // An unknown window fails cleanly instead of ending the process.
    EXPECT_EQ(img.CreateImageFromHwnd(0x7fffff0), 0);
    EXPECT_EQ(img.GetStat(), Win32Error);
    EXPECT_EQ(img.GetNativeImage(), id);
}

TEST(LoadHwnd, WithoutADisplayTheGrabFailsAndTheNativeImageStays) {
    ScopedDisplayVariable variable(nullptr);
    Imaging img;
    const std::int32_t before = img.CreateNewImage(4, 4, 24);
    ASSERT_NE(before, 0);
    EXPECT_EQ(img.CreateImageFromHwnd(0), 0);
    EXPECT_EQ(img.GetStat(), Win32Error);
    EXPECT_EQ(img.GetNativeImage(), before);
}

} // namespace
} // namespace kestrelyn
