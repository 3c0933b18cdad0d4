// The plug-in loader: its search order, each search route on disk (stand-in
// plug-ins built by tests/CMakeLists.txt), folder overrides, exports and the
// version reads, and the library versions built on it.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/PluginLoader.h"
#include "platform/modWinapi.h"

namespace kestrelyn {
namespace {

namespace fs = std::filesystem;

const std::string kOwn = std::string(KY_BINARY_DIR) + "/lib";
const std::string kSub = kOwn + "/kestrelyn";
const std::string kEnv = KY_LOADER_ENV_DIR;

using CombineFn = int (*)(int, int);

// Sets or clears $KESTRELYN_PLUGIN_PATH for one scope.
class PluginPath {
  public:
    explicit PluginPath(const char* szValue) {
        if (const char* old = std::getenv("KESTRELYN_PLUGIN_PATH")) m_old = old;
        if (szValue)
            ::setenv("KESTRELYN_PLUGIN_PATH", szValue, 1);
        else
            ::unsetenv("KESTRELYN_PLUGIN_PATH");
    }
    ~PluginPath() {
        if (m_old)
            ::setenv("KESTRELYN_PLUGIN_PATH", m_old->c_str(), 1);
        else
            ::unsetenv("KESTRELYN_PLUGIN_PATH");
    }
    PluginPath(const PluginPath&) = delete;
    PluginPath& operator=(const PluginPath&) = delete;

  private:
    std::optional<std::string> m_old;
};

bool SameFile(const std::string& a, const std::string& b) {
    std::error_code ec;
    return fs::equivalent(a, b, ec);
}

TEST(PluginSearchOrder, CoreFolderItsSubfolderConfiguredFolderThenThePathVariable) {
    const std::vector<std::string> expected = {"/opt/ky/lib", "/opt/ky/lib/kestrelyn",
                                               "/usr/local/lib/kestrelyn", "/a", "/b"};
    EXPECT_EQ(PluginSearchFolders("/opt/ky/lib", "/usr/local/lib/kestrelyn", "/a::/b:"), expected);
    // Empty parts drop out; a folder named twice is searched once, first.
    EXPECT_EQ(PluginSearchFolders("", "/conf", "/conf:/x"),
              (std::vector<std::string>{"/conf", "/x"}));
    EXPECT_EQ(PluginSearchFolders("/p/lib", "/p/lib/kestrelyn", "/p/lib"),
              (std::vector<std::string>{"/p/lib", "/p/lib/kestrelyn"}));
    EXPECT_EQ(PluginSearchFolders("", "", nullptr), std::vector<std::string>{});
    EXPECT_EQ(PluginSearchFolders("", "", ":::"), std::vector<std::string>{});
}

TEST(PluginSearchOrder, ThisProcessStartsAtTheCoreLibrarysOwnFolder) {
    PluginPath path("/e1:/e2");
    const std::vector<std::string> folders = DefaultPluginFolders();
    ASSERT_EQ(folders.size(), 5u);
    EXPECT_TRUE(SameFile(CoreLibraryFolder(), kOwn)) << CoreLibraryFolder();
    EXPECT_EQ(folders[0], CoreLibraryFolder());
    EXPECT_EQ(folders[1], folders[0] + "/kestrelyn");
    EXPECT_EQ(folders[2], KY_INSTALL_PLUGIN_DIR);
    EXPECT_EQ(folders[3], "/e1");
    EXPECT_EQ(folders[4], "/e2");
}

TEST(PluginNames, FileNamesAndExportPrefix) {
    EXPECT_EQ(PluginFileNames("kyimgplug"),
              (std::vector<std::string>{"libkyimgplug.so", "kyimgplug.so"}));
    EXPECT_EQ(PluginFileNames("libm.so.6"), std::vector<std::string>{"libm.so.6"});
    EXPECT_EQ(PluginFileNames("/x/y"), std::vector<std::string>{"/x/y"});
    EXPECT_EQ(PluginExportPrefix("kyimgplug"), "KYIMGPLUG");
    EXPECT_EQ(PluginExportPrefix(" kytwain "), "KYTWAIN");
    EXPECT_EQ(PluginExportPrefix("libkybarcode.1dreader.so"), "KYBARCODE_1DREADER");
    EXPECT_EQ(PluginExportPrefix("/usr/lib/libm.so.6"), "M");
    // "lib" is part of the name unless the name is a file name.
    EXPECT_EQ(PluginExportPrefix("lib-x"), "LIB_X");
}

TEST(PluginRoutes, EachRouteOnDisk) {
    PluginPath path(nullptr);
    {
        // Beside the core library: that copy wins over those further down.
        PluginLoader own({.sName = "kyldrown"});
        ASSERT_TRUE(own.IsLoaded());
        EXPECT_TRUE(SameFile(own.LibraryPath(), kOwn + "/libkyldrown.so")) << own.LibraryPath();
        EXPECT_EQ(own.Version(), 11);
    }
    {
        PluginLoader sub({.sName = "kyldrsub"});
        ASSERT_TRUE(sub.IsLoaded());
        EXPECT_TRUE(SameFile(sub.LibraryPath(), kSub + "/libkyldrsub.so")) << sub.LibraryPath();
        EXPECT_EQ(sub.Version(), 12);
    }
    {
        PluginLoader env({.sName = "kyldrenv"});
        EXPECT_FALSE(env.IsLoaded());
        EXPECT_EQ(env.LibraryPath(), "");
        EXPECT_EQ(env.Version(), 0);
    }
    {
        PluginPath list(("/nonexistent::" + kEnv).c_str());
        PluginLoader env({.sName = "kyldrenv"});
        ASSERT_TRUE(env.IsLoaded());
        EXPECT_EQ(env.LibraryPath(), kEnv + "/libkyldrenv.so");
        EXPECT_EQ(env.Version(), 13);
        // The path variable comes last: the copy beside the core still wins.
        PluginLoader own({.sName = "kyldrown"});
        EXPECT_EQ(own.Version(), 11);
    }
}

TEST(PluginRoutes, AFileWithoutTheVersionExportIsRefusedAndTheSearchGoesOn) {
    PluginPath path(kEnv.c_str());
    // kyldrmix beside the core has no version export; the subfolder's has.
    PluginLoader mix({.sName = "kyldrmix"});
    ASSERT_TRUE(mix.IsLoaded());
    EXPECT_TRUE(SameFile(mix.LibraryPath(), kSub + "/libkyldrmix.so")) << mix.LibraryPath();
    EXPECT_EQ(mix.Version(), 14);

    PluginLoader bare({.sName = "kyldrbare"});
    EXPECT_FALSE(bare.IsLoaded());
    EXPECT_EQ(bare.LibraryPath(), "");
    EXPECT_EQ(bare.Symbol("KYLDRBARE_Combine"), nullptr);
    EXPECT_EQ(bare.VersionString(), "Unknown");

    // Any export can be the mark; one the file lacks refuses every copy.
    PluginLoader byCombine({.sName = "kyldrbare", .sVersionExport = "KYLDRBARE_Combine"});
    EXPECT_TRUE(byCombine.IsLoaded());
    PluginLoader byNothing({.sName = "kyldrown", .sVersionExport = "KYLDROWN_Nothing"});
    EXPECT_FALSE(byNothing.IsLoaded());
}

TEST(PluginRoutes, TheDynamicLinkersSearchOnlyWhenAskedAndNeverUnderAnOverride) {
    PluginPath path(nullptr);
    PluginLoader plain({.sName = "libm.so.6", .sVersionExport = "cos"});
    EXPECT_FALSE(plain.IsLoaded());
    PluginLoader linker({.sName = "libm.so.6", .sVersionExport = "cos", .bLinkerSearchLast = true});
    ASSERT_TRUE(linker.IsLoaded());
    EXPECT_NE(linker.LibraryPath().find("libm.so.6"), std::string::npos);
    EXPECT_EQ(linker.LibraryPath().front(), '/') << "the full path, not the bare name";
    const std::vector<std::string> none;
    linker.Reload(&none);
    EXPECT_FALSE(linker.IsLoaded());
}

TEST(PluginOverride, FolderListReplacesTheSearchUntilReloadedWithout) {
    PluginPath path(nullptr);
    PluginLoader own({.sName = "kyldrown"});
    EXPECT_EQ(own.Version(), 11);
    const std::vector<std::string> env = {kEnv};
    own.Reload(&env);
    EXPECT_EQ(own.Version(), 31);
    EXPECT_EQ(own.LibraryPath(), kEnv + "/libkyldrown.so");
    const std::vector<std::string> subThenEnv = {"/nonexistent", kSub, kEnv};
    own.Reload(&subThenEnv);
    EXPECT_EQ(own.Version(), 21);
    const std::vector<std::string> none;
    own.Reload(&none);
    EXPECT_FALSE(own.IsLoaded());
    EXPECT_EQ(own.Version(), 0);
    own.Reload();
    EXPECT_EQ(own.Version(), 11);
}

TEST(PluginExports, CachedLookupsMissingSymbolsAndReloads) {
    PluginPath path(nullptr);
    PluginLoader own({.sName = "kyldrown"});
    auto combine = own.Function<CombineFn>("KYLDROWN_Combine");
    ASSERT_NE(combine, nullptr);
    EXPECT_EQ(combine(3, 4), 304);
    EXPECT_EQ(own.Symbol("KYLDROWN_Combine"), reinterpret_cast<void*>(combine));
    // A missing export is missing every time and does not unload anything.
    EXPECT_EQ(own.Symbol("KYLDROWN_Missing"), nullptr);
    EXPECT_EQ(own.Symbol("KYLDROWN_Missing"), nullptr);
    EXPECT_TRUE(own.IsLoaded());
    // After a reload that finds nothing, exports taken before still work:
    // the library stays mapped.
    const std::vector<std::string> none;
    own.Reload(&none);
    EXPECT_EQ(own.Symbol("KYLDROWN_Combine"), nullptr);
    EXPECT_EQ(combine(1, 2), 102);
    // Another copy after a reload answers with its own exports.
    const std::vector<std::string> sub = {kSub};
    own.Reload(&sub);
    EXPECT_EQ(own.Version(), 21);
    EXPECT_NE(own.Symbol("KYLDROWN_Combine"), reinterpret_cast<void*>(combine));
}

TEST(PluginExports, OneSearchWhenManyThreadsAskAtOnce) {
    PluginPath path(nullptr);
    PluginLoader own({.sName = "kyldrown"});
    std::vector<void*> seen(8, nullptr);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back([&, i] { seen[i] = own.Symbol("KYLDROWN_Combine"); });
    for (auto& t : threads)
        t.join();
    ASSERT_NE(seen[0], nullptr);
    for (void* p : seen)
        EXPECT_EQ(p, seen[0]);
}

TEST(PluginVersions, TextIsTrimmedAndTheLibraryVersionReadsThroughTheLoader) {
    PluginPath path(nullptr);
    PluginLoader own({.sName = "kyldrown"});
    EXPECT_EQ(own.VersionString(), "11.0.0.1");
    EXPECT_EQ(GetLibraryFileVersion("kyldrown"), "11.0.0.1");
    EXPECT_EQ(GetLibraryFileVersion(" kyldrsub "), "12.0.0.1");
    EXPECT_EQ(GetLibraryFileVersion("kyldrmix"), "14.0.0.1");
    EXPECT_EQ(GetLibraryFileVersion("kyldrnowhere"), "Unknown");
    // A file name with a folder is taken as it is.
    EXPECT_EQ(GetLibraryFileVersion(kEnv + "/libkyldrenv.so"), "13.0.0.1");
    PluginPath list(kEnv.c_str());
    EXPECT_EQ(GetLibraryFileVersion("kyldrenv"), "13.0.0.1");
    EXPECT_EQ(GetLibraryFileVersion("kyldrbare"), "Unknown");
}

} // namespace
} // namespace kestrelyn
