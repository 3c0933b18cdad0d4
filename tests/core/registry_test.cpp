// The registry: slots, ids, release, replacement, multi-page heads, threads
// and temporary files.
#include <sys/stat.h>

#include <filesystem>
#include <latch>
#include <set>
#include <thread>

#include "support/ImagingTestUtil.h"

namespace kestrelyn::test {
namespace {

using RegistryTest = CoreFixture;

TEST_F(RegistryTest, MiddleReleaseLeavesFreeSlotThatIsReused) {
    const std::int32_t a = RegisterNewBitmap(4, 4);
    const std::int32_t b = RegisterNewBitmap(4, 4);
    const std::int32_t c = RegisterNewBitmap(4, 4);
    ImageRegistry& reg = ThreadRegistry();
    ASSERT_EQ(reg.nImageCount, 3);
    EXPECT_EQ(FindImageIndex(b), 1);

    EXPECT_EQ(ReleaseImage(b), OK);
    EXPECT_EQ(reg.nImageCount, 3); // middle slot stays, freed
    EXPECT_EQ(reg.arRecords[1].nImageID, 0);
    EXPECT_EQ(FindImageIndex(b), -1);
    EXPECT_EQ(FindImageIndex(0), -1); // a free slot is not id 0's

    const std::int32_t d = RegisterNewBitmap(2, 2);
    EXPECT_EQ(FindImageIndex(d), 1); // the free slot is reused
    EXPECT_EQ(reg.nImageCount, 3);
    EXPECT_EQ(FindImageIndex(a), 0);
    EXPECT_EQ(FindImageIndex(c), 2);
}

TEST_F(RegistryTest, ReleasingLastShrinksByOneEvenAfterFreeSlot) {
    const std::int32_t a = RegisterNewBitmap(1, 1);
    const std::int32_t b = RegisterNewBitmap(1, 1);
    const std::int32_t c = RegisterNewBitmap(1, 1);
    ImageRegistry& reg = ThreadRegistry();
    EXPECT_EQ(ReleaseImage(b), OK);
    EXPECT_EQ(ReleaseImage(c), OK);
    EXPECT_EQ(reg.nImageCount, 2); // only the last record goes; slot 1 stays free
    EXPECT_EQ(reg.arRecords.size(), 2u);
    EXPECT_EQ(ReleaseImage(a), OK);
    EXPECT_EQ(reg.nImageCount, 2); // not the last record: its slot is freed in place
    EXPECT_EQ(reg.arRecords[0].nImageID, 0);
    RemoveAllImages();
    EXPECT_EQ(reg.nImageCount, 0);
    EXPECT_TRUE(reg.arRecords.empty());
}

TEST_F(RegistryTest, ReleaseOfUnknownIdIsInvalidParameterAndChangesNothing) {
    const std::int32_t a = RegisterNewBitmap(1, 1);
    EXPECT_EQ(ReleaseImage(a == 1 ? 2 : 1), InvalidParameter);
    EXPECT_EQ(ReleaseImage(0), InvalidParameter);
    EXPECT_EQ(ThreadRegistry().nImageCount, 1);
    EXPECT_NE(ResolveGdiPlusImage(a), nullptr);
}

TEST_F(RegistryTest, IdsAreInRangeAndDistinct) {
    std::set<std::int32_t> ids;
    for (int i = 0; i < 50; ++i) {
        const std::int32_t id = RegisterNewBitmap(1, 1);
        EXPECT_GE(id, 1);
        EXPECT_LE(id, 100000000);
        ids.insert(id);
    }
    EXPECT_EQ(ids.size(), 50u);
}

TEST_F(RegistryTest, RegistrationRecordsFormatNameAndDepth) {
    const std::int32_t id = RegisterNewBitmap(3, 3, PixelFormat24bppRGB);
    const ImageRecord* rec = FindImageRecord(id);
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(rec->sFormatName, "Memory BMP");
    EXPECT_EQ(rec->nPixelDepth, 24);
    EXPECT_EQ(rec->nKind, KindRawBits);
    EXPECT_EQ(FormatNameFromRawFormat(ImageFormatJPEG), "JPEG");
    EXPECT_EQ(FormatNameFromRawFormat(ImageFormatWMF), "Undefined");
    EXPECT_EQ(FormatNameFromRawFormat(FrameDimensionPage), "Undefined");
}

TEST_F(RegistryTest, ReplaceKeepsOldIdWithNewPixelsAndForgetsNewId) {
    const std::int32_t oldId = RegisterNewBitmap(5, 5);
    const std::int32_t newId = RegisterNewBitmap(7, 3);
    ASSERT_EQ(GdipBitmapSetPixel(ResolveGdiPlusImage(newId), 1, 1, 0xFF123456u), OK);

    EXPECT_EQ(ReplaceImage(oldId, newId), oldId);
    EXPECT_EQ(FindImageIndex(newId), -1);
    UINT w = 0, h = 0;
    GdipGetImageWidth(ResolveGdiPlusImage(oldId), &w);
    GdipGetImageHeight(ResolveGdiPlusImage(oldId), &h);
    EXPECT_EQ(w, 7u);
    EXPECT_EQ(h, 3u);
    ARGB px = 0;
    GdipBitmapGetPixel(ResolveGdiPlusImage(oldId), 1, 1, &px);
    EXPECT_EQ(px, 0xFF123456u);
    EXPECT_EQ(FindImageIndex(oldId), 1); // the new record answers; the old slot is free
    EXPECT_EQ(ThreadRegistry().arRecords[0].nImageID, 0);
    EXPECT_EQ(ReplaceImage(0, oldId), 0);
}

TEST_F(RegistryTest, OwnedBitsAreFreedWithTheImage) {
    // Owned bits come from the engine allocator; releasing must not leak or
    // double free (the sanitizer build checks), and the record says so.
    void* bits = GdipAlloc(16 * 4);
    std::int32_t id = 0;
    ASSERT_EQ(CreateBitmap(4, 4, 16, PixelFormat32bppARGB, bits, id, true), OK);
    const ImageRecord* rec = FindImageRecord(id);
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(rec->nKind, KindOwnedBits);
    EXPECT_TRUE(rec->bOwnsBits);
    EXPECT_EQ(rec->nBits, bits);
    EXPECT_EQ(ReleaseImage(id), OK);
}

// An editable multi-page head: two page files, one page loaded.
struct FakeMultiPage {
    std::int32_t head = 0, page = 0;
    std::string file0, file1;
};

FakeMultiPage MakeFakeMultiPage() {
    FakeMultiPage m;
    m.file0 = MakeTempFileName();
    WriteFile(m.file0, "page 0");
    m.file1 = MakeTempFileName();
    WriteFile(m.file1, "page 1");
    m.page = RegisterNewBitmap(3, 3);
    RegisterImage(m.head, nullptr, "TIFF", "", KindEngine);
    ImageRecord* rec = FindImageRecord(m.head);
    rec->bMultiPageTiff = true;
    rec->nPageCount = 2;
    rec->arPageFiles = {m.file0, m.file1};
    rec->arPageImages = {m.page, 0};
    rec->arPageDepths = {32, 32};
    rec->nCurrentPage = 0;
    return m;
}

TEST_F(RegistryTest, MultiPageHeadResolvesToCurrentPageAndReleasesAll) {
    FakeMultiPage m = MakeFakeMultiPage();
    EXPECT_EQ(ResolvePageImage(m.head), m.page);
    EXPECT_EQ(ResolveGdiPlusImage(m.head), ResolveGdiPlusImage(m.page));
    FindImageRecord(m.head)->nCurrentPage = 1; // page not loaded
    EXPECT_EQ(ResolveGdiPlusImage(m.head), nullptr);
    EXPECT_EQ(ResolvePageImage(m.head), 0);
    FindImageRecord(m.head)->nCurrentPage = 0;

    MarkImageModified(m.head);
    EXPECT_TRUE(FindImageRecord(m.page)->bModified); // the page's record is marked
    EXPECT_FALSE(FindImageRecord(m.head)->bModified);

    EXPECT_EQ(core->CloseImage(m.head), OK);
    EXPECT_FALSE(FileExists(m.file0));
    EXPECT_FALSE(FileExists(m.file1));
    EXPECT_EQ(FindImageIndex(m.page), -1);
    EXPECT_EQ(ThreadRegistry().nImageCount, 1); // the page's slot below stays, free
    EXPECT_EQ(ThreadRegistry().arRecords[0].nImageID, 0);
}

TEST_F(RegistryTest, ReplaceOnEditableMultiPageReplacesCurrentPage) {
    FakeMultiPage m = MakeFakeMultiPage();
    const std::int32_t fresh = RegisterNewBitmap(2, 2, PixelFormat24bppRGB);
    EXPECT_EQ(ReplaceImage(m.head, fresh), m.head);
    const ImageRecord* rec = FindImageRecord(m.head);
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(rec->arPageImages[0], fresh);
    EXPECT_EQ(rec->arPageDepths[0], 24);
    EXPECT_NE(rec->arPageFiles[0], m.file0);
    EXPECT_TRUE(FileExists(rec->arPageFiles[0]));
    EXPECT_FALSE(FileExists(m.file0));     // the old page file went
    EXPECT_EQ(FindImageIndex(m.page), -1); // and the old page image
    EXPECT_FALSE(FindImageRecord(fresh)->bModified);
    const std::string stored = rec->arPageFiles[0];
    EXPECT_EQ(ReleaseImage(m.head), OK);
    EXPECT_FALSE(FileExists(stored));
}

TEST_F(RegistryTest, CloseOfNativeMultiPageHeadIsRefused) {
    const std::int32_t id = core->CreateNewImage(4, 4, 32, 0xFF000000u);
    core->nNativeMultiPage = id;
    EXPECT_EQ(core->CloseImage(id), Aborted);
    EXPECT_EQ(core->CloseNativeImage(), Aborted);
    EXPECT_NE(FindImageIndex(id), -1);
    core->nNativeMultiPage = 0;
    EXPECT_EQ(core->CloseNativeImage(), OK);
    EXPECT_EQ(core->GetNativeImage(), 0);
    EXPECT_EQ(FindImageIndex(id), -1);
}

TEST_F(RegistryTest, StrideRule) {
    EXPECT_EQ(ComputeStride(1, 1), 4);
    EXPECT_EQ(ComputeStride(32, 1), 4);
    EXPECT_EQ(ComputeStride(33, 1), 8);
    EXPECT_EQ(ComputeStride(1, 4), 16);
    EXPECT_EQ(ComputeStride(33, 4), 32);
    EXPECT_EQ(ComputeStride(5, 8), 8);
    EXPECT_EQ(ComputeStride(8, 8), 8);
    EXPECT_EQ(ComputeStride(2, 16), 4);
    EXPECT_EQ(ComputeStride(3, 16), 8);
    EXPECT_EQ(ComputeStride(1, 24), 4);
    EXPECT_EQ(ComputeStride(5, 24), 16);
    EXPECT_EQ(ComputeStride(3, 32), 12);
    EXPECT_EQ(ComputeStride(2, 48), 16); // the 48-bit mask: not 12
    EXPECT_EQ(ComputeStride(1, 48), 8);
    EXPECT_EQ(ComputeStride(3, 48), 24);
    EXPECT_EQ(ComputeStride(3, 64), 24);
    EXPECT_EQ(ComputeStride(0, 32), 0);
    EXPECT_EQ(ComputeStride(-4, 8), 0);
    EXPECT_EQ(ComputeStride(10, 12), 0);
}

TEST_F(RegistryTest, DepthOfEveryFormat) {
    EXPECT_EQ(PixelFormatDepth(PixelFormat1bppIndexed), 1);
    EXPECT_EQ(PixelFormatDepth(PixelFormat4bppIndexed), 4);
    EXPECT_EQ(PixelFormatDepth(PixelFormat8bppIndexed), 8);
    for (PixelFormat f : {PixelFormat16bppGrayScale, PixelFormat16bppRGB555, PixelFormat16bppRGB565,
                          PixelFormat16bppARGB1555})
        EXPECT_EQ(PixelFormatDepth(f), 16);
    EXPECT_EQ(PixelFormatDepth(PixelFormat24bppRGB), 24);
    for (PixelFormat f : {PixelFormat32bppRGB, PixelFormat32bppARGB, PixelFormat32bppPARGB})
        EXPECT_EQ(PixelFormatDepth(f), 32);
    EXPECT_EQ(PixelFormatDepth(PixelFormat48bppRGB), 48);
    EXPECT_EQ(PixelFormatDepth(PixelFormat64bppARGB), 64);
    EXPECT_EQ(PixelFormatDepth(PixelFormat64bpppARGB), 64);
    EXPECT_EQ(PixelFormatDepth(0), 0);
    EXPECT_EQ(PixelFormatDepth(12345), 0);
}

TEST(RegistryThreads, EachThreadHasItsOwnRegistry) {
    std::int32_t idA = 0;
    bool bOtherSeesA = true;
    std::int32_t otherCount = -1;
    {
        Imaging a;
        idA = a.CreateNewImage(8, 8);
        ASSERT_NE(idA, 0);
        std::thread other([&] {
            Imaging b;
            b.CreateNewImage(2, 2);
            bOtherSeesA = FindImageIndex(idA) >= 0;
            EXPECT_EQ(b.GetWidth(idA), 0);
            EXPECT_EQ(b.GetStat(), InvalidParameter);
            otherCount = ThreadRegistry().nImageCount;
        });
        other.join();
        EXPECT_EQ(a.GetWidth(idA), 8); // untouched by the other thread's end
    }
    EXPECT_FALSE(bOtherSeesA);
    EXPECT_EQ(otherCount, 1);
}

TEST(RegistryLifetime, TempFilesGoWhenTheLastObjectOfTheThreadEnds) {
    std::string sTemp;
    std::thread worker([&] {
        auto first = std::make_unique<Imaging>();
        auto second = std::make_unique<Imaging>();
        const std::int32_t id = first->CreateNewImage(3, 3);
        second->GetStat(); // creates the second inner object
        sTemp = MakeTempFileName();
        WriteFile(sTemp, "temporary");
        MarkTempFile(id, sTemp);
        first.reset();
        EXPECT_TRUE(FileExists(sTemp)); // an object of the thread still lives
        EXPECT_EQ(second->GetWidth(id), 3);
        second.reset();
        EXPECT_EQ(ThreadRegistry().nImageCount, 0);
    });
    worker.join();
    EXPECT_FALSE(sTemp.empty());
    EXPECT_FALSE(FileExists(sTemp));
}

// Points "tmp" at a folder of its own for the life of the object.
class TempDirectory {
  public:
    explicit TempDirectory(const std::string& sLeaf) : sDir(::testing::TempDir() + sLeaf) {
        std::filesystem::remove_all(sDir);
        std::filesystem::create_directories(sDir);
        const char* old = std::getenv("tmp");
        bHadOld = old != nullptr;
        if (old) sOld = old;
        ::setenv("tmp", (" " + sDir + " ").c_str(), 1);
    }
    ~TempDirectory() {
        if (bHadOld)
            ::setenv("tmp", sOld.c_str(), 1);
        else
            ::unsetenv("tmp");
        std::filesystem::remove_all(sDir);
    }
    const std::string& Dir() const { return sDir; }
    std::size_t Entries() const {
        std::size_t n = 0;
        for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(sDir))
            ++n;
        return n;
    }

  private:
    std::string sDir, sOld;
    bool bHadOld = false;
};

bool IsEmptyFile(const std::string& sPath) {
    std::error_code ec;
    return std::filesystem::is_regular_file(sPath, ec) &&
           std::filesystem::file_size(sPath, ec) == 0;
}

TEST(TempNames, UseEnvironmentDirectoryPrefixAndDecimalNames) {
    TempDirectory tmp("kytmp_env");
    const std::string name = MakeTempFileName();
    ASSERT_EQ(name.rfind(tmp.Dir() + "/", 0), 0u) << name;
    const std::string leaf = name.substr(tmp.Dir().size() + 1);
    ASSERT_EQ(leaf.rfind(kTempFilePrefix, 0), 0u) << leaf;
    const std::string digits = leaf.substr(std::string(kTempFilePrefix).size());
    ASSERT_FALSE(digits.empty());
    EXPECT_EQ(digits.find_first_not_of("0123456789"), std::string::npos) << leaf;
    // The name is taken by making the file, empty and private to the user.
    EXPECT_TRUE(IsEmptyFile(name));
    struct stat st {};
    ASSERT_EQ(::stat(name.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(tmp.Entries(), 1u);
}

TEST(TempNames, ANameIsNeverGivenTwiceEvenToTwoThreadsAtOnce) {
    TempDirectory tmp("kytmp_threads");
    constexpr int kPerThread = 3000;
    std::vector<std::string> a, b;
    std::latch start(2);
    auto work = [&](std::vector<std::string>& out) {
        start.arrive_and_wait();
        for (int i = 0; i < kPerThread; ++i) {
            std::string name = MakeTempFileName();
            // Checked at once: the other thread is still making names.
            if (!IsEmptyFile(name)) name = "not made: " + name;
            out.push_back(std::move(name));
        }
    };
    std::thread t1(work, std::ref(a)), t2(work, std::ref(b));
    t1.join();
    t2.join();
    std::set<std::string> all(a.begin(), a.end());
    all.insert(b.begin(), b.end());
    EXPECT_EQ(all.size(), 2u * kPerThread); // no name twice
    for (const std::string& name : all)
        EXPECT_EQ(name.rfind(tmp.Dir() + "/" + kTempFilePrefix, 0), 0u) << name;
    EXPECT_EQ(tmp.Entries(), 2u * kPerThread); // every name is a file of its own
}

TEST(TempNames, NoFolderGivesNoName) {
    TempDirectory tmp("kytmp_gone");
    std::filesystem::remove_all(tmp.Dir());
    EXPECT_EQ(MakeTempFileName(), "");
    EXPECT_FALSE(std::filesystem::exists(tmp.Dir()));
}

} // namespace
} // namespace kestrelyn::test
