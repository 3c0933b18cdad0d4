// Multi-page TIFF and GIF files at load: plain single pages, burst editable
// documents, read-only documents, GIF timing.
#include "load_support.h"

#include "core/PageStore.h"

#include "support/Checkers.h"
#include <atomic>
#include <thread>

namespace kestrelyn::loadtest {
namespace {

const std::vector<ARGB> kThree = {0xFFFF0000u, 0xFF00FF00u, 0xFF0000FFu};

class LoadMultiPage : public LoadFixture,
                      public ::testing::WithParamInterface<bool /* plug-in disabled */> {};

TEST_P(LoadMultiPage, OnePageTiffIsAPlainImage) {
    const std::string tif = Path("one.tif");
    ASSERT_TRUE(WriteMultiPageTiff(tif, {0xFF112233u}));
    img->DisableKyimgplugCodecs(GetParam());
    const std::int32_t id = img->CreateImageFromFile(tif);
    ASSERT_NE(id, 0);
    EXPECT_FALSE(Record(id).bMultiPageTiff);
    EXPECT_EQ(Record(id).nCurrentPage, -1);
    EXPECT_EQ(Record(id).nPageCount, 0);
    EXPECT_EQ(TempFiles(), 0);
}

TEST_P(LoadMultiPage, EditableTiffIsBurstIntoPageFilesThatGoWithTheImage) {
    const std::string tif = Path("three.tif");
    ASSERT_TRUE(WriteMultiPageTiff(tif, kThree));
    img->DisableKyimgplugCodecs(GetParam());
    const int fds = OpenDescriptors();
    const std::int32_t id = img->CreateImageFromFile(tif);
    ASSERT_NE(id, 0) << img->GetStat();
    const ImageRecord head = Record(id);
    EXPECT_TRUE(head.bMultiPageTiff);
    EXPECT_FALSE(head.bReadOnly);
    EXPECT_EQ(head.nGdiPlusImage, nullptr); // the source is not held
    EXPECT_EQ(head.nPlugFile, 0u);
    EXPECT_EQ(head.nPageCount, 3);
    EXPECT_EQ(head.nCurrentPage, 0);
    ASSERT_EQ(head.arPageFiles.size(), 3u);
    for (const std::string& page : head.arPageFiles)
        EXPECT_TRUE(Exists(page)) << page;
    EXPECT_EQ(TempFiles(), 3);
    EXPECT_EQ(head.arPageDepths[0], 24);
    EXPECT_EQ(OpenDescriptors(), fds);

    // The source file is free: gone, and the document still works.
    ASSERT_EQ(::unlink(tif.c_str()), 0);
    EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(1, 1)), kThree[0]);
    ASSERT_EQ(ShowPage(id, 2), OK);
    EXPECT_EQ(Record(id).nCurrentPage, 2);
    EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(1, 1)), kThree[2]);
    EXPECT_EQ(img->GetWidth(), 6);
    ASSERT_EQ(ShowPage(id, 1), OK);
    EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(0, 0)), kThree[1]);
    EXPECT_EQ(ShowPage(id, 3), InvalidParameter);
    EXPECT_EQ(ShowPage(id, -1), InvalidParameter);

    // Only the current page is in memory.
    int pagesInMemory = 0;
    for (std::int32_t page : Record(id).arPageImages)
        pagesInMemory += page != 0;
    EXPECT_EQ(pagesInMemory, 1);

    EXPECT_EQ(img->CloseImage(id), OK);
    for (const std::string& page : head.arPageFiles)
        EXPECT_FALSE(Exists(page)) << page;
    EXPECT_EQ(TempFiles(), 0);
    EXPECT_EQ(OpenDescriptors(), fds);
}

TEST_P(LoadMultiPage, ReadOnlyTiffKeepsTheDocumentAndSelectsPageZero) {
    const std::string tif = Path("three.tif");
    ASSERT_TRUE(WriteMultiPageTiff(tif, kThree));
    img->DisableKyimgplugCodecs(GetParam());
    img->TiffOpenMultiPageAsReadOnly(true);
    const int fds = OpenDescriptors();
    const std::int32_t id = img->CreateImageFromFile(tif);
    ASSERT_NE(id, 0) << img->GetStat();
    const ImageRecord head = Record(id);
    EXPECT_TRUE(head.bMultiPageTiff);
    EXPECT_TRUE(head.bReadOnly);
    EXPECT_EQ(head.nPageCount, 3);
    EXPECT_EQ(head.nCurrentPage, 0);
    EXPECT_EQ(TempFiles(), 0);
    if (GetParam()) {
        // The engine's document is the store.
        EXPECT_EQ(head.nKind, KindEngineFile);
        EXPECT_NE(head.nGdiPlusImage, nullptr);
    } else {
        // The plug-in's multi-bitmap is the store; the page is locked.
        EXPECT_EQ(head.nKind, KindPlugin);
        EXPECT_NE(head.nPlugBitmap, 0u);
        EXPECT_NE(head.nPlugFile, 0u);
        const ImageRecord& page = Record(head.arPageImages[0]);
        EXPECT_EQ(page.nKind, KindPluginPage);
        EXPECT_EQ(page.nPlugBitmap, head.nPlugBitmap);
    }
    EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(2, 2)), kThree[0]);
    ASSERT_EQ(ShowPage(id, 2), OK);
    EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(2, 2)), kThree[2]);
    const int live = LiveImagesNow();
    ASSERT_EQ(ShowPage(id, 1), OK);
    EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(2, 2)), kThree[1]);
    EXPECT_EQ(LiveImagesNow(), live); // the page left is released
    EXPECT_EQ(img->CloseImage(id), OK);
    EXPECT_EQ(LiveImagesNow(), 0);
    EXPECT_EQ(OpenDescriptors(), fds);
}

TEST_P(LoadMultiPage, ReadOnlyDocumentHoldsItsSourceOnlyWhileItLives) {
    const bool bEngine = GetParam();
    const std::string tif = Path("three.tif");
    ASSERT_TRUE(WriteMultiPageTiff(tif, kThree));
    img->DisableKyimgplugCodecs(bEngine);
    img->TiffOpenMultiPageAsReadOnly(true);
    const int fds = OpenDescriptors();
    const std::int32_t id = img->CreateImageFromFile(tif);
    ASSERT_NE(id, 0) << img->GetStat();
    // Both routes keep the file open and read each page from it: the engine
    // through its own descriptor, the codec plug-in through its file handle.
    const int whileOpen = 1;
    EXPECT_EQ(DescriptorsOn(tif), whileOpen);
    for (std::int32_t page : {2, 0, 1, 1}) {
        ASSERT_EQ(img->TiffSelectPage(id, page + 1), OK) << page;
        EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(3, 2)),
                  kThree[static_cast<std::size_t>(page)]);
        EXPECT_EQ(DescriptorsOn(tif), whileOpen) << "page " << page;
    }
    EXPECT_EQ(OpenDescriptors(), fds + whileOpen);
    EXPECT_EQ(img->CloseImage(id), OK);
    EXPECT_EQ(DescriptorsOn(tif), 0);
    EXPECT_EQ(OpenDescriptors(), fds);
}

TEST_P(LoadMultiPage, EditableDocumentLeavesItsSourceClosedAfterLoading) {
    const std::string tif = Path("three.tif");
    ASSERT_TRUE(WriteMultiPageTiff(tif, kThree));
    img->DisableKyimgplugCodecs(GetParam());
    const std::int32_t id = img->CreateImageFromFile(tif);
    ASSERT_NE(id, 0) << img->GetStat();
    EXPECT_TRUE(img->TiffIsEditableMultiPage(id));
    EXPECT_EQ(DescriptorsOn(tif), 0);
    ASSERT_EQ(img->TiffSelectPage(id, 3), OK);
    EXPECT_EQ(DescriptorsOn(tif), 0);
    // The page files are the document: the source may change under it.
    WriteBytes(tif, {'n', 'o', 'n', 'e'});
    ASSERT_EQ(img->TiffSelectPage(id, 2), OK);
    EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(0, 0)), kThree[1]);
    EXPECT_EQ(img->CloseImage(id), OK);
}

INSTANTIATE_TEST_SUITE_P(ByPluginAndByEngine, LoadMultiPage, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? std::string("Engine") : std::string("Plugin");
                         });

// The engine's own decode of a multi-page TIFF file: the document keeps the
// file open and reads each page from it when the page is selected.
class EngineTiffFile : public LoadFixture {
  protected:
    const std::vector<std::string> kDescriptions = {"page one", "page two", "page three"};
    std::string MakeTiff() {
        const std::string tif = Path("described.tif");
        EXPECT_TRUE(WriteMultiPageTiff(tif, kThree, kDescriptions));
        return tif;
    }
    static std::string Description(GpImage* img) {
        for (const PropertyValue& p : Properties(img))
            if (p.id == 270) return std::string(p.bytes.begin(), p.bytes.end()).c_str();
        return "";
    }
    static ARGB PixelAt(GpImage* img, INT x, INT y) {
        ARGB c = 0;
        GdipBitmapGetPixel(img, x, y, &c);
        return c;
    }
};

TEST_F(EngineTiffFile, PagesComeFromTheOpenFileWithTheTagsOfAMemoryDecode) {
    const std::string tif = MakeTiff();
    GpBitmap* fromFile = nullptr;
    ASSERT_EQ(GdipCreateBitmapFromFile(tif, &fromFile), OK);
    GpImage* fromMemory = nullptr;
    ASSERT_EQ(GdipLoadImageFromStream(CreateMemoryStream(ReadBytes(tif)), &fromMemory), OK);
    EXPECT_EQ(DescriptorsOn(tif), 1);
    const int fds = OpenDescriptors();

    // Gone from its folder, the file still serves every page.
    ASSERT_EQ(::unlink(tif.c_str()), 0);
    for (UINT frame : {2u, 0u, 1u}) {
        ASSERT_EQ(GdipImageSelectActiveFrame(fromFile, &FrameDimensionPage, frame), OK) << frame;
        ASSERT_EQ(GdipImageSelectActiveFrame(fromMemory, &FrameDimensionPage, frame), OK);
        EXPECT_EQ(PixelAt(fromFile, 5, 3), kThree[frame]);
        EXPECT_EQ(Description(fromFile), kDescriptions[frame]);
        EXPECT_EQ(Properties(fromFile), Properties(fromMemory)) << "frame " << frame;
    }

    // A clone shares the pages, and the file with them.
    GpImage* clone = nullptr;
    ASSERT_EQ(GdipCloneImage(fromFile, &clone), OK);
    EXPECT_EQ(GdipDisposeImage(fromFile), OK);
    EXPECT_EQ(OpenDescriptors(), fds);
    ASSERT_EQ(GdipImageSelectActiveFrame(clone, &FrameDimensionPage, 2), OK);
    EXPECT_EQ(PixelAt(clone, 0, 0), kThree[2]);
    EXPECT_EQ(GdipDisposeImage(clone), OK);
    EXPECT_EQ(OpenDescriptors(), fds - 1);
    GdipDisposeImage(fromMemory);
}

TEST_F(EngineTiffFile, AFileCutShortUnderTheDocumentGivesAStatusNotACrash) {
    const std::string tif = MakeTiff();
    GpBitmap* doc = nullptr;
    ASSERT_EQ(GdipCreateBitmapFromFile(tif, &doc), OK);
    ASSERT_EQ(::truncate(tif.c_str(), 16), 0);
    EXPECT_NE(GdipImageSelectActiveFrame(doc, &FrameDimensionPage, 2), OK);
    // The page shown before stays.
    EXPECT_EQ(PixelAt(doc, 1, 1), kThree[0]);
    EXPECT_EQ(GdipDisposeImage(doc), OK);
    EXPECT_EQ(DescriptorsOn(tif), 0);
}

TEST_F(EngineTiffFile, OnePageFileIsDecodedWholeAndKeepsNoFileOpen) {
    const std::string one = Path("one.tif");
    ASSERT_TRUE(WriteMultiPageTiff(one, {kThree[1]}));
    GpBitmap* page = nullptr;
    ASSERT_EQ(GdipCreateBitmapFromFile(one, &page), OK);
    EXPECT_EQ(DescriptorsOn(one), 0);
    EXPECT_EQ(PixelAt(page, 2, 2), kThree[1]);
    GdipDisposeImage(page);
}

class LoadGif : public LoadFixture {
  protected:
    // Three frames, delays 0, 7 and 40 hundredths, looping twice, with a comment.
    std::string MakeGif() {
        const std::string gif = Path("anim.gif");
        const std::string script =
            "from PIL import Image\n"
            "frames=[Image.new('RGB',(5,4),c) for c in [(255,0,0),(0,255,0),(0,0,255)]]\n"
            "frames[0].save('" +
            gif +
            "',save_all=True,append_images=frames[1:],duration=[0,70,400],loop=2,"
            "comment=b'hello gif',optimize=False,disposal=1)\n";
        const std::string py = Path("make_gif.py");
        std::ofstream(py) << script;
        if (!Shell("/usr/bin/python3 '" + py + "' 2>/dev/null")) return "";
        return gif;
    }
};

TEST_F(LoadGif, EditableGifIsBurstIntoPngPagesWithItsTiming) {
    const std::string gif = MakeGif();
    KY_REQUIRE_CHECKER(!(gif.empty()), "Python PIL is not installed");
    const std::int32_t id = img->CreateImageFromFile(gif);
    ASSERT_NE(id, 0) << img->GetStat();
    const ImageRecord head = Record(id);
    EXPECT_TRUE(head.bMultiPageGif);
    EXPECT_FALSE(head.bMultiPageTiff);
    EXPECT_EQ(head.nPageCount, 3);
    ASSERT_EQ(head.arPageDelays.size(), 3u);
    EXPECT_EQ(head.arPageDelays[0], 25); // 0 in the file
    EXPECT_EQ(head.arPageDelays[1], 7);
    EXPECT_EQ(head.arPageDelays[2], 40);
    EXPECT_EQ(head.arPageDisposals, (std::vector<std::int32_t>{-1, -1, -1}));
    EXPECT_EQ(head.nLoopCount, 2);
    EXPECT_EQ(head.sGifComment, "hello gif");
    EXPECT_EQ(TempFiles(), 3);
    for (const std::string& page : head.arPageFiles) {
        const std::vector<std::uint8_t> bytes = ReadBytes(page);
        ASSERT_GE(bytes.size(), 8u);
        EXPECT_EQ(bytes[1], 'P');
        EXPECT_EQ(bytes[2], 'N');
        EXPECT_EQ(bytes[3], 'G');
    }
    EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(0, 0)), 0xFFFF0000u);
    ASSERT_EQ(ShowPage(id, 2), OK);
    EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(0, 0)), 0xFF0000FFu);
    img->CloseImage(id);
    EXPECT_EQ(TempFiles(), 0);
}

TEST_F(LoadGif, ReadOnlyGifStaysInTheEngine) {
    const std::string gif = MakeGif();
    KY_REQUIRE_CHECKER(!(gif.empty()), "Python PIL is not installed");
    img->GifOpenMultiPageAsReadOnly(true);
    const std::int32_t id = img->CreateImageFromFile(gif);
    ASSERT_NE(id, 0);
    const ImageRecord head = Record(id);
    EXPECT_TRUE(head.bReadOnly);
    EXPECT_EQ(head.nKind, KindEngineFile);
    EXPECT_EQ(head.arPageDelays[0], 25);
    EXPECT_EQ(TempFiles(), 0);
    ASSERT_EQ(ShowPage(id, 1), OK);
    EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(0, 0)), 0xFF00FF00u);
}

TEST_F(LoadGif, ReadOnlyGifHoldsItsFileUntilClosedAndEditableDoesNot) {
    const std::string gif = MakeGif();
    KY_REQUIRE_CHECKER(!(gif.empty()), "Python PIL is not installed");
    const std::int32_t editable = img->CreateImageFromFile(gif);
    ASSERT_NE(editable, 0);
    EXPECT_EQ(DescriptorsOn(gif), 0);
    img->GifOpenMultiPageAsReadOnly(true);
    const std::int32_t id = img->CreateImageFromFile(gif);
    ASSERT_NE(id, 0);
    EXPECT_EQ(DescriptorsOn(gif), 1);
    ASSERT_EQ(ShowPage(id, 2), OK);
    EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(0, 0)), 0xFF0000FFu);
    EXPECT_EQ(DescriptorsOn(gif), 1);
    EXPECT_EQ(img->CloseImage(id), OK);
    EXPECT_EQ(DescriptorsOn(gif), 0);
    EXPECT_EQ(img->CloseImage(editable), OK);
}

TEST_F(LoadGif, StreamsOfSeveralPagesAreBurstToo) {
    const std::string tif = Path("three.tif");
    ASSERT_TRUE(WriteMultiPageTiff(tif, kThree));
    const std::int32_t id = img->CreateImageFromStream(CreateMemoryStream(ReadBytes(tif)));
    ASSERT_NE(id, 0);
    EXPECT_TRUE(Record(id).bMultiPageTiff);
    EXPECT_EQ(Record(id).nKind, KindEngine);
    EXPECT_EQ(TempFiles(), 3);
    img->CloseImage(id);
    EXPECT_EQ(TempFiles(), 0);
}

TEST_F(LoadGif, ThreadsLoadSideBySideWithRegistriesOfTheirOwn) {
    const std::string tif = Path("three.tif");
    ASSERT_TRUE(WriteMultiPageTiff(tif, kThree));
    const std::string tga = Path("small.tga");
    WriteBytes(tga, SmallTarga());
    std::atomic<int> good{0};
    auto work = [&] {
        Imaging local;
        for (int round = 0; round < 5; ++round) {
            const std::int32_t doc = local.CreateImageFromFile(tif);
            const ImageRecord* head = FindImageRecord(doc);
            const bool docOk = head && head->nPageCount == 3 && head->arPageFiles.size() == 3 &&
                               ShowPage(doc, 2) == OK &&
                               static_cast<ARGB>(local.PixelGetColor(1, 1)) == kThree[2];
            const std::int32_t pic = local.CreateImageFromFile(tga);
            const bool picOk = pic != 0 && local.GetImageFormat(pic) == "TARGA" &&
                               FindImageRecord(pic)->nKind == KindPlugin;
            local.CloseImage(doc);
            local.CloseImage(pic);
            if (docOk && picOk && LiveImagesNow() == 0) ++good;
        }
    };
    std::thread a(work), b(work);
    a.join();
    b.join();
    EXPECT_EQ(good.load(), 10);
    EXPECT_EQ(TempFiles(), 0);
}

} // namespace
} // namespace kestrelyn::loadtest
