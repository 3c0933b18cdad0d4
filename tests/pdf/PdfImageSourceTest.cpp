// PdfAddImage over an image source that is not the registry: the filter and
// row layout chosen per depth, what is asked of the source, and the release
// of images loaded for the occasion.
#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "PdfTestSupport.h"
#include "pdf/cPDF.h"

namespace kestrelyn {
namespace {

using namespace pdftest;

// An image source of made-up images that notes every request.
class FakeImageSource final : public PdfImageSource {
  public:
    struct Image {
        PdfImageFacts oFacts;
        std::string sPalette;
    };
    struct RowRequest {
        std::int32_t nDepth = 0;
        std::int32_t nStride = 0;
    };

    std::int32_t LoadFile(const std::string& sFilePath) override {
        ++nLoads;
        const auto it = oFiles.find(sFilePath);
        return it == oFiles.end() ? 0 : it->second;
    }
    void Release(std::int32_t nImage) override { arReleased.push_back(nImage); }
    bool Facts(std::int32_t nImage, PdfImageFacts& oFacts) override {
        const auto it = oImages.find(nImage);
        if (it == oImages.end()) return false;
        oFacts = it->second.oFacts;
        return true;
    }
    bool GreyJpegAvailable() override { return bGreyJpeg; }
    bool EncodeJpeg(std::int32_t /*nImage*/, std::int32_t nQuality, std::string& sJpeg) override {
        arJpegQualities.push_back(nQuality);
        sJpeg = "JPEGBYTES";
        return bJpegWorks;
    }
    bool ReadRows(std::int32_t nImage, std::int32_t nDepth, std::int32_t nStride,
                  std::string& sRows) override {
        arRowRequests.push_back({nDepth, nStride});
        const std::int32_t nHeight = oImages.at(nImage).oFacts.nHeight;
        // Every byte tells its row, so a wrong layout shows in the stream.
        sRows.clear();
        for (std::int32_t y = 0; y < nHeight; ++y)
            sRows += std::string(static_cast<std::size_t>(nStride), static_cast<char>('a' + y));
        return true;
    }
    std::string Palette(std::int32_t nImage) override { return oImages.at(nImage).sPalette; }

    std::map<std::int32_t, Image> oImages;
    std::map<std::string, std::int32_t> oFiles;
    bool bGreyJpeg = false;
    bool bJpegWorks = true;
    int nLoads = 0;
    std::vector<std::int32_t> arReleased;
    std::vector<std::int32_t> arJpegQualities;
    std::vector<RowRequest> arRowRequests;
};

std::string GreyRamp() {
    std::string s;
    for (int i = 0; i < 256; ++i)
        s += std::string(3, static_cast<char>(i));
    return s;
}

class PdfImageSourceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sPath = ScratchPath(
            std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + ".pdf");
        oPdf.ImageSource(&oSource);
        ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    }
    void Add(std::int32_t nId, std::int32_t nWidth, std::int32_t nHeight, std::int32_t nDepth,
             std::string sPalette = {}, bool bGreyRamp = false) {
        FakeImageSource::Image oImage;
        oImage.oFacts.nWidth = nWidth;
        oImage.oFacts.nHeight = nHeight;
        oImage.oFacts.nDepth = nDepth;
        oImage.oFacts.nResX = 95.6f;
        oImage.oFacts.nResY = 300.2f;
        oImage.oFacts.bGreyRamp = bGreyRamp;
        oImage.sPalette = std::move(sPalette);
        oSource.oImages[nId] = oImage;
    }
    // The dictionary line of image object 5 (the first object after the header).
    std::string FirstImageDictionary() {
        oPdf.ClosePdfFile();
        sFile = ReadFileBytes(sPath);
        const std::string sObject = ObjectText(sFile, 5);
        return sObject.substr(0, sObject.find(">>stream"));
    }
    FakeImageSource oSource;
    cPDF oPdf;
    std::string sPath, sFile;
};

TEST_F(PdfImageSourceTest, FilterAndRowsFollowTheDepth) {
    Add(1, 9, 2, 1, std::string("\0\0\0\xFF\xFF\xFF", 6));
    ASSERT_EQ(oPdf.PdfAddImage(1), 1);
    Add(2, 5, 3, 4, std::string(48, '\x11'));
    ASSERT_EQ(oPdf.PdfAddImage(2), 2);
    Add(3, 7, 2, 8, std::string(600, '\x22'));
    ASSERT_EQ(oPdf.PdfAddImage(3), 3);
    Add(4, 6, 4, 32);
    oPdf.JpegQuality(42);
    ASSERT_EQ(oPdf.PdfAddImage(4), 4);

    // Rows without padding: ceil(9/8), ceil(5/2), the width; the deep image is coded as JPEG.
    ASSERT_EQ(oSource.arRowRequests.size(), 3u);
    EXPECT_EQ(oSource.arRowRequests[0].nDepth, 1);
    EXPECT_EQ(oSource.arRowRequests[0].nStride, 2);
    EXPECT_EQ(oSource.arRowRequests[1].nDepth, 4);
    EXPECT_EQ(oSource.arRowRequests[1].nStride, 3);
    EXPECT_EQ(oSource.arRowRequests[2].nDepth, 8);
    EXPECT_EQ(oSource.arRowRequests[2].nStride, 7);
    EXPECT_EQ(oSource.arJpegQualities, std::vector<std::int32_t>{42});
    EXPECT_EQ(oPdf.ImageResX(4), 96);
    EXPECT_EQ(oPdf.ImageResY(4), 300);

    oPdf.ClosePdfFile();
    sFile = ReadFileBytes(sPath);
    EXPECT_NE(ObjectText(sFile, 5).find("/Filter/CCITTFaxDecode/DecodeParms<</K -1/Columns 9>>"),
              std::string::npos);
    EXPECT_NE(ObjectText(sFile, 6).find("/Filter/FlateDecode/Name/Img2/BitsPerComponent 4"),
              std::string::npos);
    // 4 bits: a palette object of 16 entries follows the image.
    EXPECT_EQ(StreamOfObject(sFile, 7), std::string(48, '\x11'));
    EXPECT_NE(ObjectText(sFile, 8).find("/Filter/FlateDecode/Name/Img3/BitsPerComponent 8"),
              std::string::npos);
    EXPECT_EQ(ObjectText(sFile, 10),
              "10 0 obj\r\n<</Subtype/Image/Length 9/Filter/DCTDecode/Name/Img4/BitsPerComponent 8"
              "/ColorSpace/DeviceRGB/Width 6/Height 4/Type/XObject>>stream\r\nJPEGBYTES\r\n"
              "endstream\r\nendobj");
}

TEST_F(PdfImageSourceTest, WithoutCompressionDeepImagesAreReadAsRgbRows) {
    oPdf.CompressData(false);
    Add(1, 2, 3, 32);
    ASSERT_EQ(oPdf.PdfAddImage(1), 1);
    ASSERT_EQ(oSource.arRowRequests.size(), 1u);
    EXPECT_EQ(oSource.arRowRequests[0].nDepth, 24);
    EXPECT_EQ(oSource.arRowRequests[0].nStride, 6);
    EXPECT_TRUE(oSource.arJpegQualities.empty());
    EXPECT_EQ(FirstImageDictionary(),
              "5 0 obj\r\n<</Subtype/Image/Length 18/Name/Img1/BitsPerComponent 8"
              "/ColorSpace/DeviceRGB/Width 2/Height 3/Type/XObject");
    EXPECT_EQ(StreamOfObject(sFile, 5), "aaaaaabbbbbbcccccc");
}

TEST_F(PdfImageSourceTest, GreyRampIsJpegOnlyWhereTheSourceCanCodeIt) {
    Add(1, 4, 2, 8, GreyRamp(), true);
    ASSERT_EQ(oPdf.PdfAddImage(1), 1);
    oSource.bGreyJpeg = true;
    ASSERT_EQ(oPdf.PdfAddImage(1), 2);
    // The same palette without the ramp flag is an ordinary palette image.
    Add(2, 4, 2, 8, GreyRamp(), false);
    ASSERT_EQ(oPdf.PdfAddImage(2), 3);
    oPdf.ClosePdfFile();
    sFile = ReadFileBytes(sPath);
    // Unfiltered, with its palette object; then JPEG, still indexed with a palette.
    EXPECT_EQ(ObjectText(sFile, 5).find("/Filter"), std::string::npos);
    EXPECT_EQ(StreamOfObject(sFile, 5), "aaaabbbb");
    EXPECT_NE(ObjectText(sFile, 7).find("/Filter/DCTDecode/Name/Img2/BitsPerComponent 8"
                                        "/ColorSpace [/Indexed/DeviceRGB 255 8 0 R]"),
              std::string::npos);
    EXPECT_EQ(StreamOfObject(sFile, 8), GreyRamp());
    EXPECT_NE(ObjectText(sFile, 9).find("/Filter/FlateDecode/Name/Img3"), std::string::npos);
    EXPECT_EQ(oSource.arJpegQualities.size(), 1u);
}

TEST_F(PdfImageSourceTest, RefusalsWriteNothing) {
    Add(1, 0, 3, 24);
    Add(2, 3, 3, 0);
    Add(3, 3, 3, 24);
    oSource.bJpegWorks = false;
    EXPECT_EQ(oPdf.PdfAddImage(1), 0);  // no width
    EXPECT_EQ(oPdf.PdfAddImage(2), 0);  // no depth
    EXPECT_EQ(oPdf.PdfAddImage(3), 0);  // coding failed
    EXPECT_EQ(oPdf.PdfAddImage(99), 0); // unknown
    EXPECT_EQ(oPdf.ImageCount(), 0);
    oPdf.ClosePdfFile();
    EXPECT_EQ(ReadFileBytes(sPath).find("/Subtype/Image"), std::string::npos);

    // Without a source, and without an open file, nothing is asked of anyone.
    cPDF oBare;
    ASSERT_TRUE(oBare.NewPdf(ScratchPath("no-source.pdf"), {}));
    EXPECT_EQ(oBare.PdfAddImage(3), 0);
    EXPECT_EQ(oBare.PdfAddImage("file.png"), 0);
    oBare.ClosePdfFile();
    cPDF oClosed;
    oClosed.ImageSource(&oSource);
    EXPECT_EQ(oClosed.PdfAddImage("file.png"), 0);
    EXPECT_EQ(oSource.nLoads, 0);
}

TEST_F(PdfImageSourceTest, FilesAreReleasedWhetherOrNotTheyWereAdded) {
    Add(7, 2, 2, 24);
    Add(8, 0, 2, 24);
    oSource.oFiles["good.png"] = 7;
    oSource.oFiles["empty.png"] = 8;
    EXPECT_EQ(oPdf.PdfAddImage("good.png"), 1);
    EXPECT_EQ(oPdf.PdfAddImage("empty.png"), 0);
    EXPECT_EQ(oPdf.PdfAddImage("missing.png"), 0);
    EXPECT_EQ(oSource.nLoads, 3);
    // A file that did not load has nothing to release.
    EXPECT_EQ(oSource.arReleased, (std::vector<std::int32_t>{7, 8}));
    EXPECT_EQ(oPdf.ImageWidth(1), 2);
}

} // namespace
} // namespace kestrelyn
