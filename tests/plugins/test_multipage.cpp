// Multi-bitmaps: TIFF and GIF documents opened page by page, TIFF documents
// made and edited.
#include "PluginTestUtil.h"

using namespace kytest;
using namespace kestrelyn;

namespace {

class MultiPage : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(MakeSourcePng(dir / "src.png", 31, 17));
        src = dir / "src.png";
    }
    Bytes Frame(const std::string& file, int i) {
        std::string out = dir / ("frame" + std::to_string(i) + ".rgba");
        Shell(std::string(kConvert) + " '" + file + "' -coalesce '" + out + ".%d.png'");
        return MagickRgba(out + "." + std::to_string(i) + ".png", out);
    }
    TempDir dir;
    std::string src;
};

TEST_F(MultiPage, TiffPagesThroughAFileHandle) {
    std::string tif = dir / "three.tif";
    ASSERT_EQ(Shell(std::string(kConvert) + " '" + src + "' \\( '" + src + "' -negate \\) \\( '" +
                    src + "' -monochrome \\) -compress lzw '" + tif + "'"),
              0);
    std::intptr_t fh = KYIMGPLUG_OpenFileU(tif.c_str());
    ASSERT_NE(fh, 0);
    std::intptr_t multi = KYIMGPLUG_OpenMultiBitmapU(18, 0, fh);
    ASSERT_NE(multi, 0);
    ASSERT_EQ(KYIMGPLUG_GetPageCount(multi), 3);
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        std::intptr_t page = KYIMGPLUG_LockPage(multi, i);
        ASSERT_NE(page, 0);
        Bytes ref = MagickRgba(tif + "[" + std::to_string(i) + "]", dir / "ref", false);
        EXPECT_EQ(MaxDiff(PluginRgba(page, false), ref), 0);
        KYIMGPLUG_UnlockPage(multi, page, 0);
    }
    EXPECT_EQ(KYIMGPLUG_LockPage(multi, 3), 0);
    EXPECT_EQ(KYIMGPLUG_LockPage(multi, -1), 0);
    EXPECT_EQ(KYIMGPLUG_CloseMultiBitmap(multi, 0), 1);
    EXPECT_EQ(KYIMGPLUG_CloseFileHandle(fh), 1);
    EXPECT_EQ(KYIMGPLUG_CloseFileHandle(fh), 0); // already closed
}

TEST_F(MultiPage, GifFramesBecomeFullPages) {
    std::string gif = dir / "anim.gif";
    // The second frame covers only part of the picture: a full page needs
    // the first frame under it.
    ASSERT_EQ(Shell(std::string(kConvert) + " -delay 20 '" + src + "' \\( '" + src +
                    "' -negate -crop 10x8+5+4 \\) -loop 3 '" + gif + "'"),
              0);
    std::intptr_t fh = KYIMGPLUG_OpenFileU(gif.c_str());
    std::intptr_t multi = KYIMGPLUG_OpenMultiBitmapU(25, 2, fh);
    ASSERT_NE(multi, 0);
    ASSERT_EQ(KYIMGPLUG_GetPageCount(multi), 2);
    for (int i = 0; i < 2; ++i) {
        std::intptr_t page = KYIMGPLUG_LockPage(multi, i);
        ASSERT_NE(page, 0);
        EXPECT_EQ(KYIMGPLUG_GetWidth(page), 31);
        EXPECT_EQ(KYIMGPLUG_GetHeight(page), 17);
        EXPECT_EQ(MaxDiff(PluginRgba(page, false), Frame(gif, i)), 0) << i;
        KYIMGPLUG_UnlockPage(multi, page, 0);
    }
    KYIMGPLUG_CloseMultiBitmap(multi, 0);
    KYIMGPLUG_CloseFileHandle(fh);
}

TEST_F(MultiPage, NewTiffDocumentFromAppendedPages) {
    std::intptr_t colour = KYIMGPLUG_LoadU(13, src.c_str(), 0);
    ASSERT_NE(colour, 0);
    std::intptr_t grey = KYIMGPLUG_ConvertToGreyscale(colour);
    std::string tif = dir / "new.tif";
    std::intptr_t multi = KYIMGPLUG_OpenMultiBitmap(18, tif.c_str(), 1, 0, 0, 0);
    ASSERT_NE(multi, 0);
    EXPECT_EQ(KYIMGPLUG_GetPageCount(multi), 0);
    KYIMGPLUG_AppendPage(multi, colour);
    KYIMGPLUG_AppendPage(multi, grey);
    KYIMGPLUG_AppendPage(multi, colour);
    EXPECT_EQ(KYIMGPLUG_GetPageCount(multi), 3);
    // Pages are copied: the caller's bitmaps may go at once.
    Bytes colourRgba = PluginRgba(colour, true), greyRgba = PluginRgba(grey, true);
    KYIMGPLUG_Unload(colour);
    KYIMGPLUG_Unload(grey);
    ASSERT_EQ(KYIMGPLUG_CloseMultiBitmap(multi, 0x4000), 1);
    EXPECT_EQ(MaxDiff(MagickRgba(tif + "[0]", dir / "r0", false), colourRgba), 0);
    EXPECT_EQ(MaxDiff(MagickRgba(tif + "[1]", dir / "r1", false), greyRgba), 0);
    EXPECT_EQ(MaxDiff(MagickRgba(tif + "[2]", dir / "r2", false), colourRgba), 0);
    EXPECT_EQ(PilField(tif, "im.n_frames"), "3");
}

TEST_F(MultiPage, EditedPageIsWrittenBackOnlyWhenEditable) {
    std::string tif = dir / "two.tif";
    ASSERT_EQ(
        Shell(std::string(kConvert) + " '" + src + "' '" + src + "' -compress lzw '" + tif + "'"),
        0);
    Bytes before = ReadAll(tif);
    Bytes original = MagickRgba(tif + "[1]", dir / "orig", false);

    // Read-only: a changed page does not touch the file.
    std::intptr_t ro = KYIMGPLUG_OpenMultiBitmap(18, tif.c_str(), 0, 1, 0, 0);
    std::intptr_t page = KYIMGPLUG_LockPage(ro, 1);
    ASSERT_EQ(KYIMGPLUG_Invert(page), 1);
    KYIMGPLUG_UnlockPage(ro, page, 1);
    KYIMGPLUG_CloseMultiBitmap(ro, 0x4000);
    EXPECT_EQ(ReadAll(tif), before);

    std::intptr_t rw = KYIMGPLUG_OpenMultiBitmap(18, tif.c_str(), 0, 0, 0, 0);
    page = KYIMGPLUG_LockPage(rw, 1);
    ASSERT_EQ(KYIMGPLUG_Invert(page), 1);
    KYIMGPLUG_UnlockPage(rw, page, 1);
    ASSERT_EQ(KYIMGPLUG_CloseMultiBitmap(rw, 0x4000), 1);
    Bytes inverted = MagickRgba(tif + "[1]", dir / "after", false);
    ASSERT_EQ(inverted.size(), original.size());
    for (std::size_t i = 0; i < original.size(); ++i)
        if (i % 4 != 3) {
            ASSERT_EQ(inverted[i], 255 - original[i]) << i;
        }
    EXPECT_EQ(MaxDiff(MagickRgba(tif + "[0]", dir / "p0", false), original), 0);
}

TEST_F(MultiPage, NewAnimatedGifKeepsDelaysDisposalAndLoops) {
    std::intptr_t colour = KYIMGPLUG_LoadU(13, src.c_str(), 0);
    ASSERT_NE(colour, 0);
    // A second page of few colours keeps its palette exactly.
    std::intptr_t few = KYIMGPLUG_ConvertToGreyscale(colour);
    ASSERT_NE(few, 0);
    std::string gif = dir / "anim.gif";
    std::intptr_t multi = KYIMGPLUG_OpenMultiBitmap(25, gif.c_str(), 1, 0, 0, 0);
    ASSERT_NE(multi, 0);
    KYIMGPLUG_WriteFrameDelay(colour, 200);
    KYIMGPLUG_WriteFrameDisposal(colour, 2);
    KYIMGPLUG_WriteLoopCount(colour, 3);
    KYIMGPLUG_AppendPage(multi, colour);
    KYIMGPLUG_WriteFrameDelay(few, 500);
    KYIMGPLUG_AppendPage(multi, few);
    Bytes greyRgba = PluginRgba(few, true), colourRgba = PluginRgba(colour, true);
    KYIMGPLUG_Unload(colour);
    KYIMGPLUG_Unload(few);
    ASSERT_EQ(KYIMGPLUG_CloseMultiBitmap(multi, 0), 1);
    EXPECT_EQ(
        PilField(gif,
                 "(im.n_frames, im.info.get('loop'), im.info.get('duration'), im.disposal_method)"),
        "(2, 3, 200, 2)");
    EXPECT_EQ(PilField(gif, "(im.seek(1), im.info.get('duration'))[1]"), "500");
    EXPECT_EQ(MaxDiff(Frame(gif, 1), greyRgba), 0);
    // The colour page went through a 256-colour quantiser: close, not exact.
    EXPECT_LT(MeanDiff(Frame(gif, 0), colourRgba), 12.0);
}

TEST_F(MultiPage, RefusesWhatIsNotAMultiPageFormat) {
    EXPECT_EQ(KYIMGPLUG_OpenMultiBitmap(13, src.c_str(), 0, 1, 0, 0), 0);
    EXPECT_EQ(KYIMGPLUG_OpenMultiBitmap(18, (dir / "absent.tif").c_str(), 0, 1, 0, 0), 0);
    EXPECT_EQ(KYIMGPLUG_OpenMultiBitmap(18, src.c_str(), 0, 1, 0, 0), 0); // a PNG named by code 18
    EXPECT_EQ(KYIMGPLUG_OpenFileU((dir / "absent.tif").c_str()), 0);
    EXPECT_EQ(KYIMGPLUG_OpenMultiBitmapU(18, 0, 0), 0);
    EXPECT_EQ(KYIMGPLUG_GetPageCount(0), 0);
    EXPECT_EQ(KYIMGPLUG_CloseMultiBitmap(0, 0), 0);
}

} // namespace
