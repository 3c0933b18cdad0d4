// The editable multi-page store: page edits, saves checked by tiffinfo and
// PIL, the native multi-page writer and merges.
#include <sys/stat.h>

#include "multipage/MultiPageDocuments.h"
#include "tests/core/save_support.h"

namespace kestrelyn::savetest {
namespace {

class MultiPage : public SaveFixture {
  protected:
    // A TIFF of n pages of 24 bits written by the native writer, each page
    // with its own pattern; the pages' pixels are kept in `pages`.
    std::string MakeTiff(const std::string& name, int n, int w = 30, int h = 20) {
        std::vector<std::int32_t> ids;
        for (int i = 0; i < n; ++i) {
            ids.push_back(NewNative(w, h, 24, 10 + i));
            pages.push_back(ImageRgb(ids.back()));
        }
        img->SetNativeImage(ids[0]);
        EXPECT_EQ(img->TiffSaveAsNativeMultiPage(W(name), CompressionLZW), OK);
        for (int i = 1; i < n; ++i)
            EXPECT_EQ(img->TiffAddToNativeMultiPage(ids[static_cast<std::size_t>(i)]), OK);
        EXPECT_EQ(img->TiffCloseNativeMultiPage(), OK);
        for (int i = 1; i < n; ++i)
            img->CloseImage(ids[static_cast<std::size_t>(i)]);
        return W(name);
    }
    const ImageRecord& Head(std::int32_t id) { return *FindImageRecord(id); }
    std::vector<std::vector<std::uint8_t>> pages;
};

TEST_F(MultiPage, NativeWriterMakesAFileThatTiffinfoAndPilRead) {
    const std::string f = MakeTiff("three.tif", 3);
    EXPECT_EQ(TiffCompressions(f).size(), 3u);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(PilRgb(f, i), pages[static_cast<std::size_t>(i)]) << "page " << i;
    // A second close finds the image gone.
    EXPECT_EQ(img->TiffCloseNativeMultiPage(), InvalidParameter);
}

TEST_F(MultiPage, AddBeforeStartIsRefused) {
    const std::int32_t id = NewNative(8, 8, 24);
    EXPECT_EQ(img->TiffAddToNativeMultiPage(id), GenericError);
}

TEST_F(MultiPage, OpenEditableBurstsPagesAndCloseRemovesThem) {
    const std::string f = MakeTiff("four.tif", 4);
    const std::int32_t doc = img->TiffCreateMultiPageFromFile(f);
    ASSERT_NE(doc, 0);
    EXPECT_TRUE(img->TiffIsMultiPage(doc));
    EXPECT_TRUE(img->TiffIsEditableMultiPage(doc));
    EXPECT_EQ(img->TiffGetPageCount(doc), 4);
    EXPECT_EQ(img->TiffGetCurrentPage(doc), 1);
    EXPECT_EQ(CountEntries(tmp), 4) << "one file per page";
    for (int p = 1; p <= 4; ++p) {
        ASSERT_EQ(img->TiffSelectPage(doc, p), OK);
        EXPECT_EQ(ImageRgb(doc), pages[static_cast<std::size_t>(p - 1)]);
    }
    EXPECT_EQ(img->TiffSelectPage(doc, 5), InvalidParameter);
    EXPECT_EQ(img->TiffSelectPage(doc, 0), InvalidParameter);
    // At most the current page is decoded.
    int loaded = 0;
    for (std::int32_t p : Head(doc).arPageImages)
        loaded += p != 0;
    EXPECT_EQ(loaded, 1);
    ASSERT_EQ(img->CloseImage(doc), OK);
    EXPECT_EQ(CountEntries(tmp), 0);
}

TEST_F(MultiPage, PlainImagesAreNotDocuments) {
    const std::int32_t id = NewNative(8, 8, 24);
    EXPECT_FALSE(img->TiffIsMultiPage(id));
    EXPECT_EQ(img->TiffGetPageCount(id), 0);
    EXPECT_EQ(img->GetStat(), UnsupportedImageFormat);
    EXPECT_EQ(img->TiffGetCurrentPage(id), 0);
    EXPECT_EQ(img->TiffSelectPage(id, 1), UnsupportedImageFormat);
    EXPECT_EQ(img->TiffDeletePage(id, 1), UnsupportedImageFormat);
    EXPECT_EQ(img->TiffSwapPages(id, 1, 1), UnsupportedImageFormat);
    EXPECT_EQ(img->TiffSaveMultiPageToFile(id, W("x.tif")), UnsupportedImageFormat);
    EXPECT_FALSE(img->TiffIsMultiPage(123456789));
}

TEST_F(MultiPage, OnePageFileBecomesAnEditableOnePageDocument) {
    NewNative(12, 9, 24, 4);
    ASSERT_EQ(img->SaveAsTIFF(W("one.tif")), OK);
    const std::int32_t doc = img->TiffCreateMultiPageFromFile(W("one.tif"));
    ASSERT_NE(doc, 0);
    EXPECT_TRUE(img->TiffIsEditableMultiPage(doc));
    EXPECT_EQ(img->TiffGetPageCount(doc), 1);
    EXPECT_EQ(img->GetNativeImage(), doc);
}

TEST_F(MultiPage, InsertClampsAndKeepsTheCurrentPixelsCurrent) {
    const std::string f = MakeTiff("three.tif", 3);
    const std::int32_t extra = NewNative(30, 20, 24, 99);
    const std::vector<std::uint8_t> extraPixels = ImageRgb(extra);
    const std::int32_t doc = img->TiffCreateMultiPageFromFile(f);
    ASSERT_EQ(img->TiffSelectPage(doc, 2), OK);
    ASSERT_EQ(img->TiffInsertPageFromKestrelynImage(doc, 0, extra), OK); // becomes page 1
    EXPECT_EQ(img->TiffGetPageCount(doc), 4);
    EXPECT_EQ(img->TiffGetCurrentPage(doc), 3);
    EXPECT_EQ(ImageRgb(doc), pages[1]) << "the same pixels stay current";
    ASSERT_EQ(img->TiffInsertPageFromKestrelynImage(doc, 99, extra), OK); // appends
    EXPECT_EQ(img->TiffGetPageCount(doc), 5);
    ASSERT_EQ(img->TiffSelectPage(doc, 1), OK);
    EXPECT_EQ(ImageRgb(doc), extraPixels);
    ASSERT_EQ(img->TiffSelectPage(doc, 5), OK);
    EXPECT_EQ(ImageRgb(doc), extraPixels);
    EXPECT_NE(FindImageRecord(extra), nullptr) << "the added image stays with the caller";
    ASSERT_EQ(img->SaveAsPNG(W("page.png")), OK);
    ASSERT_EQ(img->TiffAppendPageFromFile(doc, W("page.png")), OK);
    EXPECT_EQ(img->TiffGetPageCount(doc), 6);
    ASSERT_EQ(img->TiffSaveMultiPageToFile(doc, W("out.tif")), OK);
    const std::vector<std::vector<std::uint8_t>> expect{extraPixels, pages[0],    pages[1],
                                                        pages[2],    extraPixels, extraPixels};
    ASSERT_EQ(TiffCompressions(W("out.tif")).size(), 6u);
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(PilRgb(W("out.tif"), i), expect[static_cast<std::size_t>(i)]) << i;
}

TEST_F(MultiPage, DeleteAndSwapFollowTheCurrentPage) {
    const std::string f = MakeTiff("four.tif", 4);
    const std::int32_t doc = img->TiffCreateMultiPageFromFile(f);
    ASSERT_EQ(img->TiffSelectPage(doc, 2), OK);
    ASSERT_EQ(img->TiffSwapPages(doc, 2, 4), OK);
    EXPECT_EQ(img->TiffGetCurrentPage(doc), 4);
    EXPECT_EQ(ImageRgb(doc), pages[1]);
    EXPECT_EQ(img->TiffSwapPages(doc, 1, 5), InvalidParameter);
    // Deleting the current last page selects the new last page.
    ASSERT_EQ(img->TiffDeletePage(doc, 4), OK);
    EXPECT_EQ(img->TiffGetPageCount(doc), 3);
    EXPECT_EQ(img->TiffGetCurrentPage(doc), 3);
    EXPECT_EQ(ImageRgb(doc), pages[2]);
    // Deleting an earlier page moves the number, not the pixels.
    ASSERT_EQ(img->TiffDeletePage(doc, 1), OK);
    EXPECT_EQ(img->TiffGetCurrentPage(doc), 2);
    EXPECT_EQ(ImageRgb(doc), pages[2]);
    EXPECT_EQ(img->TiffDeletePage(doc, 9), InvalidParameter);
    EXPECT_EQ(CountEntries(tmp), 2);
    ASSERT_EQ(img->TiffDeletePage(doc, 1), OK);
    ASSERT_EQ(img->TiffDeletePage(doc, 1), OK);
    EXPECT_EQ(img->TiffGetPageCount(doc), 0);
    EXPECT_EQ(img->TiffGetCurrentPage(doc), 0);
    EXPECT_EQ(CountEntries(tmp), 0);
}

TEST_F(MultiPage, EditsTouchOnlyTheEditedPageFile) {
    const std::string f = MakeTiff("three.tif", 3);
    const std::int32_t doc = img->TiffCreateMultiPageFromFile(f);
    const std::vector<std::string> before = Head(doc).arPageFiles;
    std::vector<std::vector<std::uint8_t>> bytes;
    for (const auto& p : before)
        bytes.push_back(ReadBytes(p));
    // A walk through unedited pages writes nothing.
    for (int p : {2, 3, 1, 1})
        ASSERT_EQ(img->TiffSelectPage(doc, p), OK);
    EXPECT_EQ(Head(doc).arPageFiles, before);
    // An in-place edit of page 2 reaches its file when the page is left.
    ASSERT_EQ(img->TiffSelectPage(doc, 2), OK);
    PaintPattern(ResolvePageImage(doc), 77);
    MarkImageModified(doc);
    const std::vector<std::uint8_t> edited = ImageRgb(doc);
    ASSERT_EQ(img->TiffSelectPage(doc, 3), OK);
    const std::vector<std::string> after = Head(doc).arPageFiles;
    EXPECT_EQ(after[0], before[0]);
    EXPECT_EQ(after[2], before[2]);
    EXPECT_NE(after[1], before[1]);
    EXPECT_FALSE(Exists(before[1]));
    EXPECT_EQ(ReadBytes(after[0]), bytes[0]);
    EXPECT_EQ(ReadBytes(after[2]), bytes[2]);
    ASSERT_EQ(img->TiffSelectPage(doc, 2), OK);
    EXPECT_EQ(ImageRgb(doc), edited);
    // A replacement through the registry stores the page at once.
    const std::int32_t repl = NewNative(30, 20, 24, 55);
    const std::vector<std::uint8_t> replPixels = ImageRgb(repl);
    const std::vector<std::string> beforeReplace = Head(doc).arPageFiles;
    ReplaceImage(doc, repl);
    EXPECT_EQ(Head(doc).arPageFiles[0], beforeReplace[0]);
    EXPECT_NE(Head(doc).arPageFiles[1], beforeReplace[1]);
    EXPECT_EQ(PilRgb(Head(doc).arPageFiles[1]), replPixels);
    EXPECT_EQ(TiffCompressions(Head(doc).arPageFiles[1]), std::vector<std::string>{"LZW"});
}

TEST_F(MultiPage, SaveSeesTheCurrentEditAndKeepsItCurrent) {
    const std::string f = MakeTiff("two.tif", 2);
    const std::int32_t doc = img->TiffCreateMultiPageFromFile(f);
    ASSERT_EQ(img->TiffSelectPage(doc, 2), OK);
    PaintPattern(ResolvePageImage(doc), 41);
    MarkImageModified(doc);
    const std::vector<std::uint8_t> edited = ImageRgb(doc);
    ASSERT_EQ(img->TiffSaveMultiPageToFile(doc, W("saved.tif")), OK);
    EXPECT_EQ(img->TiffGetCurrentPage(doc), 2);
    EXPECT_TRUE(img->TiffIsEditableMultiPage(doc));
    EXPECT_EQ(PilRgb(W("saved.tif"), 0), pages[0]);
    EXPECT_EQ(PilRgb(W("saved.tif"), 1), edited);
}

TEST_F(MultiPage, OneCompressionForTheWholeFileFixedByTheDeepestPage) {
    const std::int32_t bw = NewNative(40, 30, 1);
    PaintBits(bw, [](UINT x, UINT y) { return (x + y) % 3 == 0; });
    const std::int32_t doc = img->TiffCreateMultiPageFromKestrelynImage(bw);
    ASSERT_NE(doc, 0);
    EXPECT_EQ(img->GetNativeImage(), doc);
    ASSERT_EQ(img->TiffSaveMultiPageToFile(doc, W("g4.tif"), CompressionCCITT4), OK);
    EXPECT_EQ(TiffCompressions(W("g4.tif")), std::vector<std::string>{"CCITT Group 4"});
    const std::int32_t grey = img->CreateNewImage(40, 30, 8, 0xFF808080u);
    ASSERT_EQ(img->TiffAppendPageFromKestrelynImage(doc, grey), OK);
    ASSERT_EQ(img->TiffSaveMultiPageToFile(doc, W("mixed.tif"), CompressionCCITT4), OK);
    EXPECT_EQ(TiffCompressions(W("mixed.tif")), (std::vector<std::string>{"LZW", "LZW"}));
}

TEST_F(MultiPage, ReadOnlyDocumentsMoveBetweenFramesAndRefuseEdits) {
    const std::string f = MakeTiff("three.tif", 3);
    img->TiffOpenMultiPageAsReadOnly(true);
    const std::int32_t doc = img->CreateImageFromFile(f);
    ASSERT_NE(doc, 0);
    EXPECT_TRUE(img->TiffIsMultiPage(doc));
    EXPECT_FALSE(img->TiffIsEditableMultiPage(doc));
    EXPECT_EQ(img->TiffGetPageCount(doc), 3);
    EXPECT_EQ(CountEntries(tmp), 0) << "read-only mode writes nothing";
    ASSERT_EQ(img->TiffSelectPage(doc, 3), OK);
    EXPECT_EQ(ImageRgb(doc), pages[2]);
    EXPECT_EQ(img->TiffSaveMultiPageToFile(doc, W("ro.tif")), UnsupportedImageFormat);
    EXPECT_EQ(img->TiffDeletePage(doc, 1), UnsupportedImageFormat);
    EXPECT_EQ(img->TiffInsertPageFromFile(doc, 1, f), UnsupportedImageFormat);
    EXPECT_EQ(CountEntries(tmp), 0);
}

TEST_F(MultiPage, BurstPagesAreLzwTiffsAtTheirOwnDepthOnBothRoutes) {
    // A file of a 1-bit, an 8-bit and a 24-bit page, stored uncompressed.
    const std::int32_t bw = NewNative(40, 30, 1);
    PaintBits(bw, [](UINT x, UINT y) { return (x * y) % 5 == 0; });
    const std::int32_t grey = img->CreateNewImage(40, 30, 8, 0xFF000000u);
    const std::int32_t colour = NewNative(40, 30, 24, 12);
    img->SetNativeImage(bw);
    ASSERT_EQ(img->TiffSaveAsNativeMultiPage(W("mixed.tif"), CompressionNone), OK);
    ASSERT_EQ(img->TiffAddToNativeMultiPage(grey), OK);
    ASSERT_EQ(img->TiffAddToNativeMultiPage(colour), OK);
    ASSERT_EQ(img->TiffCloseNativeMultiPage(), OK);
    ASSERT_EQ(TiffCompressions(W("mixed.tif")), (std::vector<std::string>{"None", "None", "None"}));
    for (bool bEngine : {true, false}) {
        img->DisableKyimgplugCodecs(bEngine);
        const std::int32_t doc = img->CreateImageFromFile(W("mixed.tif"));
        ASSERT_NE(doc, 0) << bEngine;
        const ImageRecord& head = Head(doc);
        EXPECT_EQ(head.arPageDepths, (std::vector<std::int32_t>{1, 8, 24})) << bEngine;
        ASSERT_EQ(head.arPageFiles.size(), 3u);
        for (int i = 0; i < 3; ++i) {
            const std::string& page = head.arPageFiles[static_cast<std::size_t>(i)];
            EXPECT_EQ(TiffCompressions(page), std::vector<std::string>{"LZW"}) << bEngine << i;
            EXPECT_EQ(PilRgb(page), PilRgb(W("mixed.tif"), i)) << bEngine << i;
        }
        EXPECT_EQ(PilInfo(head.arPageFiles[0]), "40 30 1");
        EXPECT_EQ(PilInfo(head.arPageFiles[2]), "40 30 RGB");
        ASSERT_EQ(img->CloseImage(doc), OK);
    }
}

TEST_F(MultiPage, GifDocumentsKeepTheirPagesAsPng) {
    const std::int32_t first = NewNative(20, 10, 24, 5);
    const std::int32_t second = NewNative(20, 10, 24, 6);
    const std::vector<std::uint8_t> secondPixels = ImageRgb(second);
    std::int32_t doc = 0;
    ASSERT_EQ(MakeDocumentFromImage(first, doc, DocumentFormat::Gif), OK);
    EXPECT_EQ(img->GetImageFormat(doc), "GIF");
    EXPECT_FALSE(img->TiffIsMultiPage(doc));
    ASSERT_EQ(InsertPage(doc, 2, second, DocumentFormat::Gif), OK);
    EXPECT_EQ(InsertPage(doc, 1, second, DocumentFormat::Tiff), GenericError);
    EXPECT_EQ(SwitchPage(doc, 1, DocumentFormat::Tiff), UnsupportedImageFormat);
    ASSERT_EQ(SwitchPage(doc, 1, DocumentFormat::Gif), OK);
    EXPECT_EQ(ImageRgb(doc), secondPixels);
    // A replacement through the registry is stored at once, by the GIF rule.
    const std::int32_t third = NewNative(20, 10, 24, 7);
    const std::vector<std::uint8_t> thirdPixels = ImageRgb(third);
    EXPECT_EQ(ReplaceImage(doc, third), doc);
    EXPECT_EQ(ImageRgb(doc), thirdPixels);
    for (const std::string& page : Head(doc).arPageFiles) {
        const std::vector<std::uint8_t> bytes = ReadBytes(page);
        ASSERT_GE(bytes.size(), 4u);
        EXPECT_EQ(std::string(bytes.begin() + 1, bytes.begin() + 4), "PNG") << page;
    }
    EXPECT_EQ(PilRgb(Head(doc).arPageFiles[1]), thirdPixels);
    EXPECT_FALSE(FindImageRecord(third)->bModified);
    ASSERT_EQ(img->CloseImage(doc), OK);
}

TEST_F(MultiPage, MergeKeepsTheArgumentOrderAndLeavesNoTemporaryFile) {
    const std::string f = MakeTiff("two.tif", 2);
    const std::int32_t j = NewNative(30, 20, 24, 3);
    ASSERT_EQ(img->SaveAsPNG(W("third.png")), OK);
    const std::vector<std::uint8_t> third = ImageRgb(j);
    ASSERT_EQ(img->TiffMerge2Files(f, W("third.png"), W("merged.tif")), OK);
    ASSERT_EQ(TiffCompressions(W("merged.tif")).size(), 3u);
    EXPECT_EQ(PilRgb(W("merged.tif"), 0), pages[0]);
    EXPECT_EQ(PilRgb(W("merged.tif"), 1), pages[1]);
    EXPECT_EQ(PilRgb(W("merged.tif"), 2), third);
    EXPECT_EQ(CountEntries(tmp), 0);
    ASSERT_EQ(img->TiffMergeFileList(W("third.png") + "," + f, W("list.tif")), OK);
    EXPECT_EQ(PilRgb(W("list.tif"), 0), third);
    EXPECT_EQ(PilRgb(W("list.tif"), 2), pages[1]);
    EXPECT_EQ(img->TiffMergeFiles({}, W("none.tif")), FileNotFound);
    EXPECT_EQ(img->TiffMerge2Files(f, W("missing.png"), W("none.tif")), FileNotFound);
    EXPECT_FALSE(Exists(W("none.tif")));
}

} // namespace
} // namespace kestrelyn::savetest
