// Saves and loads read a file name by the same rule: a name written with "\"
// or with blanks around it reaches the same file whichever way it is used.
#include <dirent.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "core/CodecPluginBridge.h"
#include "support/Checkers.h"
#include "support/ImagingTestUtil.h"

namespace kestrelyn::test {
namespace {

std::vector<std::string> Entries(const std::string& sDir) {
    std::vector<std::string> out;
    if (DIR* d = ::opendir(sDir.c_str())) {
        while (dirent* e = ::readdir(d)) {
            const std::string name = e->d_name;
            if (name != "." && name != "..") out.push_back(name);
        }
        ::closedir(d);
    }
    return out;
}

std::string ReadHead(const std::string& sPath, std::size_t n) {
    std::ifstream in(sPath, std::ios::binary);
    std::string s(n, '\0');
    in.read(s.data(), static_cast<std::streamsize>(n));
    s.resize(static_cast<std::size_t>(in.gcount()));
    return s;
}

// One save operation of the facade, by name and leaf name.
struct SaveCase {
    const char* sLeaf;
    bool bExact; // the format keeps the pixels exactly
    bool bLoads; // the library reads the format back
    std::function<bool(Imaging&, const std::string&)> save;
};

class SavePaths : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/ky_paths_XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        sDir = pattern;
        img.CreateNewImage(16, 16, 32, 0xFF204060u); // whole JPEG blocks
        img.PixelSetColor(3, 2, 0xFFFF0000u);
        nImage = img.GetNativeImage();
    }
    void TearDown() override {
        for (const std::string& s : arStray)
            std::remove(s.c_str());
        std::system(("rm -rf '" + sDir + "'").c_str());
    }

    // Saves under sName, which must land at sDir/sLeaf and nowhere else, and
    // loads the file back under sName.
    void SaveAndLoadBack(const SaveCase& c, const std::string& sName) {
        SCOPED_TRACE(c.sLeaf + std::string(" as \"") + sName + "\"");
        arStray.push_back(sName); // a literal file of that name, should one appear
        const std::string sFile = sDir + "/" + c.sLeaf;
        img.SetNativeImage(nImage);
        ASSERT_TRUE(c.save(img, sName)) << "status " << img.GetStat();
        EXPECT_TRUE(FileExists(sFile));
        EXPECT_FALSE(FileExists(sName)); // no file under the name as written
        EXPECT_EQ(Entries(sDir), std::vector<std::string>{c.sLeaf});
        if (c.bLoads) {
            const std::int32_t id = img.CreateImageFromFile(sName);
            ASSERT_NE(id, 0) << "status " << img.GetStat();
            EXPECT_EQ(img.GetWidth(id), 16);
            EXPECT_EQ(img.GetHeight(id), 16);
            if (c.bExact) {
                EXPECT_EQ(img.PixelGetColor(3, 2), 0xFFFF0000u);
                EXPECT_EQ(img.PixelGetColor(0, 0), 0xFF204060u);
            }
            EXPECT_EQ(img.CloseImage(id), OK);
        }
        std::remove(sFile.c_str());
    }

    void CheckBothNames(const SaveCase& c) {
        SaveAndLoadBack(c, sDir + "\\" + c.sLeaf);       // a pasted Windows separator
        SaveAndLoadBack(c, sDir + "/" + c.sLeaf + " ");  // a blank at the end
        SaveAndLoadBack(c, " " + sDir + "//" + c.sLeaf); // a blank before, a doubled separator
    }

    Imaging img;
    std::int32_t nImage = 0;
    std::string sDir;
    std::vector<std::string> arStray;
};

TEST_F(SavePaths, EngineSavesReachTheFileThatLoadsRead) {
    const std::vector<SaveCase> cases = {
        {"a.png", true, true,
         [](Imaging& i, const std::string& s) { return i.SaveAsPNG(s) == OK; }},
        {"a.bmp", true, true,
         [](Imaging& i, const std::string& s) { return i.SaveAsBmp(s) == OK; }},
        {"a.tif", true, true,
         [](Imaging& i, const std::string& s) { return i.SaveAsTIFF(s, CompressionLZW) == OK; }},
        {"a.gif", false, true,
         [](Imaging& i, const std::string& s) { return i.SaveAsGIF(s) == OK; }},
        {"a.jpg", false, true,
         [](Imaging& i, const std::string& s) { return i.SaveAsJPEG(s, 90) == OK; }},
    };
    for (const SaveCase& c : cases)
        CheckBothNames(c);
}

TEST_F(SavePaths, PluginSavesReachTheFileThatLoadsRead) {
    KY_REQUIRE_CHECKER(IsKyimgplugAvailable(), "the codec plug-in is not built");
    const std::vector<SaveCase> cases = {
        {"a.tga", true, true,
         [](Imaging& i, const std::string& s) { return i.SaveAsTGA(s) == OK; }},
        {"a.jp2", false, true,
         [](Imaging& i, const std::string& s) { return i.SaveAsJP2(s, 16) == OK; }},
        {"a.ico", false, false,
         [](Imaging& i, const std::string& s) { return i.SaveAsICO(s) == OK; }},
    };
    for (const SaveCase& c : cases)
        CheckBothNames(c);
}

TEST_F(SavePaths, DocumentSavesReachTheNormalisedFile) {
    const std::vector<SaveCase> cases = {
        {"doc.tif", true, true,
         [](Imaging& i, const std::string& s) {
             // Closing the file releases the image that began it: a copy does.
             const std::int32_t keep = i.GetNativeImage();
             i.SetNativeImage(i.CreateClonedImageI(keep));
             const bool ok = i.TiffSaveAsNativeMultiPage(s, CompressionLZW) == OK &&
                             i.TiffCloseNativeMultiPage() == OK;
             i.SetNativeImage(keep);
             return ok;
         }},
        {"a.pdf", false, false, [](Imaging& i, const std::string& s) { return i.SaveAsPDF(s); }},
    };
    for (const SaveCase& c : cases)
        CheckBothNames(c);
    // The PDF written under a blank-ended name is a whole document.
    ASSERT_TRUE(img.SaveAsPDF(sDir + "/b.pdf  "));
    EXPECT_EQ(ReadHead(sDir + "/b.pdf", 5), "%PDF-");
}

TEST_F(SavePaths, MergedDocumentsAndTransformedJpegsUseTheRuleForEveryName) {
    ASSERT_EQ(img.SaveAsPNG(sDir + "/one.png"), OK);
    ASSERT_EQ(img.SaveAsJPEG(sDir + "/in.jpg", 90), OK);
    // Sources and destination written Windows-style.
    EXPECT_EQ(img.TiffMergeFiles({sDir + "\\one.png", sDir + "\\one.png "}, sDir + "\\merged.tif "),
              OK);
    const std::int32_t merged = img.TiffCreateMultiPageFromFile(sDir + "/merged.tif");
    ASSERT_NE(merged, 0) << img.GetStat();
    EXPECT_EQ(img.TiffGetPageCount(merged), 2);
    img.CloseImage(merged);

    std::string sOut = sDir + "\\turned.jpg ";
    EXPECT_EQ(img.TransformJPEG(" " + sDir + "\\in.jpg", sOut, JPEGTransformRotate180), OK);
    EXPECT_TRUE(FileExists(sDir + "/turned.jpg"));
    EXPECT_EQ(sOut, sDir + "\\turned.jpg "); // the caller's string is left as it was
    arStray.push_back(sDir + "\\merged.tif ");
    arStray.push_back(sDir + "\\turned.jpg ");
    EXPECT_FALSE(FileExists(sDir + "\\merged.tif "));
    EXPECT_FALSE(FileExists(sDir + "\\turned.jpg "));
}

} // namespace
} // namespace kestrelyn::test
