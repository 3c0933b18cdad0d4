// A failed save never destroys a good file: every writer of the library, under
// a file-size limit (a disk filling during the save), over a write-protected
// file, over a folder and into a missing folder. Each case checks that the old
// bytes are still there, that no temporary file is left beside the target and
// that the failure is reported.
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <functional>
#include <random>

#include "core/CodecPluginBridge.h"
#include "platform/SafeFile.h"
#include "save_support.h"
#include "support/Checkers.h"

namespace kestrelyn::savetest {
namespace {

// The file-size limit of the "disk full" cases: far below what any writer
// produces for the noise image, far above the good file.
constexpr rlim_t kSizeLimit = 32 * 1024;

// The bytes of the good file that must survive.
std::vector<std::uint8_t> GoodBytes() {
    std::vector<std::uint8_t> bytes(4096);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(i * 131 + 7);
    return bytes;
}

void WriteFile(const std::string& sPath, const std::vector<std::uint8_t>& bytes) {
    std::ofstream f(sPath, std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

std::vector<std::string> Entries(const std::string& sFolder) {
    std::vector<std::string> names;
    if (DIR* d = ::opendir(sFolder.c_str())) {
        while (const dirent* e = ::readdir(d)) {
            const std::string n = e->d_name;
            if (n != "." && n != "..") names.push_back(n);
        }
        ::closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Noise compresses badly: every writer's output passes the size limit.
void PaintNoise(std::int32_t nImageID, unsigned nSeed) {
    std::mt19937 rng(nSeed);
    PaintPixels(nImageID, [&rng](UINT, UINT) { return 0xFF000000u | (rng() & 0xFFFFFFu); });
}

enum class Fault { SizeLimit, WriteProtected, Folder, MissingFolder };

const char* FaultName(Fault f) {
    switch (f) {
    case Fault::SizeLimit:
        return "size limit";
    case Fault::WriteProtected:
        return "0444 target";
    case Fault::Folder:
        return "folder target";
    case Fault::MissingFolder:
        return "missing folder";
    }
    return "";
}

// One writer: prepares what it needs (images, source files) on the object,
// then saves to the path and answers whether the operation reported success.
struct Writer {
    const char* name;
    const char* ext;
    std::function<void(Imaging&)> prepare;
    std::function<bool(Imaging&, const std::string&)> save;
};

class SafeWriteTest : public SaveFixture {
  protected:
    // Runs one writer under one fault and checks what is left on disk.
    void Check(const Writer& w, Fault fault) {
        SCOPED_TRACE(std::string(w.name) + " / " + FaultName(fault));
        const std::string folder =
            W(std::string("case-") + w.name + "-" + std::to_string(static_cast<int>(fault)));
        ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
        std::string target = folder + "/out." + w.ext;
        const std::vector<std::uint8_t> good = GoodBytes();
        switch (fault) {
        case Fault::SizeLimit:
            WriteFile(target, good);
            break;
        case Fault::WriteProtected:
            WriteFile(target, good);
            ASSERT_EQ(::chmod(target.c_str(), 0444), 0);
            break;
        case Fault::Folder:
            ASSERT_EQ(::mkdir(target.c_str(), 0755), 0);
            break;
        case Fault::MissingFolder:
            target = folder + "/missing/out." + w.ext;
            break;
        }
        const std::vector<std::string> before = Entries(folder);
        struct stat old {};
        ::stat(target.c_str(), &old);

        Imaging im;
        im.GetStat();
        w.prepare(im);
        bool reported = false;
        if (fault == Fault::SizeLimit) {
            std::fflush(nullptr);
            const pid_t pid = ::fork();
            ASSERT_GE(pid, 0);
            if (pid == 0) {
                rlimit lim{kSizeLimit, kSizeLimit};
                ::setrlimit(RLIMIT_FSIZE, &lim);
                std::signal(SIGXFSZ, SIG_IGN);
                const bool ok = w.save(im, target);
                ::_exit(ok ? 0 : 1);
            }
            int rc = 0;
            ASSERT_EQ(::waitpid(pid, &rc, 0), pid);
            ASSERT_TRUE(WIFEXITED(rc)) << "the save crashed";
            reported = WEXITSTATUS(rc) == 1;
        } else {
            reported = !w.save(im, target);
        }
        const std::string left = Describe(folder, target, before, good, fault, old);
        if (std::getenv("KY_SAFE_WRITE_TABLE"))
            std::printf("| %s | %s | %s | %s |\n", w.name, FaultName(fault),
                        reported ? "failure" : "success", left.c_str());
        EXPECT_TRUE(reported) << "the failure was not reported";
        EXPECT_EQ(left, "as before");
    }

    // What a save left on disk: "as before" or what changed.
    static std::string Describe(const std::string& folder, const std::string& target,
                                const std::vector<std::string>& before,
                                const std::vector<std::uint8_t>& good, Fault fault,
                                const struct stat& old) {
        std::string what;
        auto add = [&what](const std::string& s) { what += (what.empty() ? "" : ", ") + s; };
        struct stat st {};
        const bool present = ::stat(target.c_str(), &st) == 0;
        switch (fault) {
        case Fault::SizeLimit:
        case Fault::WriteProtected:
            if (!present) {
                add("good file deleted");
            } else {
                const std::vector<std::uint8_t> now = ReadBytes(target);
                if (now != good)
                    add("good file " +
                        std::string(now.size() < good.size() ? "truncated" : "overwritten") + " (" +
                        std::to_string(now.size()) + " bytes)");
                else if (st.st_ino != old.st_ino)
                    add("good file replaced by a copy");
                if ((st.st_mode & 07777) != (old.st_mode & 07777)) add("mode changed");
            }
            break;
        case Fault::Folder:
            if (!present)
                add("folder removed");
            else if (!S_ISDIR(st.st_mode))
                add("folder replaced by a file");
            else if (!Entries(target).empty())
                add("files written into the folder");
            break;
        case Fault::MissingFolder:
            if (Exists(folder + "/missing")) add("missing folder created");
            break;
        }
        std::vector<std::string> now = Entries(folder);
        for (const std::string& n : now)
            if (std::find(before.begin(), before.end(), n) == before.end()) add("left " + n);
        return what.empty() ? "as before" : what;
    }

    // Without a fault the writer replaces a good file, keeping its mode, and
    // leaves nothing else: the faults below are the only reason for failing.
    void CheckWithoutFault(const Writer& w) {
        SCOPED_TRACE(std::string(w.name) + " / no fault");
        const std::string folder = W(std::string("case-") + w.name + "-ok");
        ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
        const std::string name = std::string("out.") + w.ext;
        const std::string target = folder + "/" + name;
        WriteFile(target, GoodBytes());
        ASSERT_EQ(::chmod(target.c_str(), 0640), 0);
        Imaging im;
        im.GetStat();
        w.prepare(im);
        EXPECT_TRUE(w.save(im, target));
        const std::vector<std::uint8_t> now = ReadBytes(target);
        EXPECT_GT(now.size(), static_cast<std::size_t>(kSizeLimit));
        EXPECT_NE(now, GoodBytes());
        struct stat st {};
        ASSERT_EQ(::stat(target.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0640u);
        EXPECT_EQ(Entries(folder), std::vector<std::string>{name});
    }

    void CheckAllFaults(const Writer& w) {
        CheckWithoutFault(w);
        for (Fault f :
             {Fault::SizeLimit, Fault::WriteProtected, Fault::Folder, Fault::MissingFolder})
            Check(w, f);
    }
};

// Prepares the native image.
void NativeNoiseOf(Imaging& im, int nDepth) {
    const std::int32_t id = im.CreateNewImage(512, 512, nDepth, -1);
    ASSERT_NE(id, 0);
    PaintNoise(id, 7);
    im.SetNativeImage(id);
}
void NativeNoise(Imaging& im) {
    NativeNoiseOf(im, 24);
}

bool Ok(KestrelynStatus st) {
    return st == OK;
}

TEST_F(SafeWriteTest, EngineEncoders) {
    const Writer writers[] = {
        {"png", "png", NativeNoise,
         [](Imaging& im, const std::string& p) { return Ok(im.SaveAsPNG(p)); }},
        {"jpeg", "jpg", NativeNoise,
         [](Imaging& im, const std::string& p) { return Ok(im.SaveAsJPEG(p, 95)); }},
        {"bmp", "bmp", NativeNoise,
         [](Imaging& im, const std::string& p) { return Ok(im.SaveAsBmp(p)); }},
        {"tiff", "tif", NativeNoise,
         [](Imaging& im, const std::string& p) { return Ok(im.SaveAsTIFF(p, CompressionLZW)); }},
        {"gif", "gif", NativeNoise,
         [](Imaging& im, const std::string& p) { return Ok(im.SaveAsGIF(p)); }},
    };
    for (const Writer& w : writers)
        CheckAllFaults(w);
}

TEST_F(SafeWriteTest, PluginEncoders) {
    KY_REQUIRE_CHECKER(IsKyimgplugAvailable(), "the codec plug-in is built with the library");
    const Writer writers[] = {
        {"jp2", "jp2", NativeNoise,
         [](Imaging& im, const std::string& p) { return Ok(im.SaveAsJP2(p, 4)); }},
        {"tga", "tga", [](Imaging& im) { NativeNoiseOf(im, 32); },
         [](Imaging& im, const std::string& p) { return Ok(im.SaveAsTGA(p)); }},
        {"xpm", "xpm", NativeNoise,
         [](Imaging& im, const std::string& p) { return Ok(im.SaveAsXPM(p)); }},
        {"tiffjpg", "tif", NativeNoise,
         [](Imaging& im, const std::string& p) { return Ok(im.SaveAsTIFFjpgEx(p, 95)); }},
    };
    for (const Writer& w : writers)
        CheckAllFaults(w);
}

TEST_F(SafeWriteTest, MultiPageWriters) {
    // A two-page document made from two noise images: its id is kept on the
    // object as the native image.
    auto document = [](Imaging& im) {
        const std::int32_t a = im.CreateNewImage(512, 512, 24, -1);
        const std::int32_t b = im.CreateNewImage(512, 512, 24, -1);
        ASSERT_TRUE(a != 0 && b != 0);
        PaintNoise(a, 1);
        PaintNoise(b, 2);
        const std::int32_t doc = im.TiffCreateMultiPageFromKestrelynImage(a);
        ASSERT_NE(doc, 0);
        ASSERT_EQ(im.TiffAppendPageFromKestrelynImage(doc, b), OK);
        im.SetNativeImage(doc);
    };
    const Writer multi{"tiffmulti", "tif", document, [](Imaging& im, const std::string& p) {
                           return Ok(
                               im.TiffSaveMultiPageToFile(im.GetNativeImage(), p, CompressionLZW));
                       }};
    CheckAllFaults(multi);

    const Writer native{"tiffnative", "tif", NativeNoise, [](Imaging& im, const std::string& p) {
                            const std::int32_t second = im.CreateNewImage(512, 512, 24, -1);
                            PaintNoise(second, 9);
                            const KestrelynStatus a =
                                im.TiffSaveAsNativeMultiPage(p, CompressionLZW);
                            const KestrelynStatus b = im.TiffAddToNativeMultiPage(second);
                            const KestrelynStatus c = im.TiffCloseNativeMultiPage();
                            return a == OK && b == OK && c == OK;
                        }};
    CheckAllFaults(native);

    // Two flat source files written before the fault: their page files stay
    // small under the limit, the uncompressed result does not.
    const Writer merge{
        "tiffmerge", "tif",
        [this](Imaging& im) {
            for (int i = 0; i < 2; ++i) {
                const std::int32_t id = im.CreateNewImage(512, 512, 24, i == 0 ? -1 : 0xFF336699);
                ASSERT_NE(id, 0);
                im.SetNativeImage(id);
                ASSERT_EQ(im.SaveAsPNG(W("src" + std::to_string(i) + ".png")), OK);
            }
        },
        [this](Imaging& im, const std::string& p) {
            return Ok(im.TiffMergeFiles({W("src0.png"), W("src1.png")}, p, CompressionNone));
        }};
    CheckAllFaults(merge);
}

TEST_F(SafeWriteTest, TransformJpeg) {
    const Writer transform{"transformjpeg", "jpg",
                           [this](Imaging& im) {
                               NativeNoise(im);
                               ASSERT_EQ(im.SaveAsJPEG(W("src.jpg"), 95), OK);
                           },
                           [this](Imaging& im, const std::string& p) {
                               std::string out = p;
                               return Ok(
                                   im.TransformJPEG(W("src.jpg"), out, JPEGTransformRotate90));
                           }};
    CheckAllFaults(transform);
}

TEST_F(SafeWriteTest, PdfWriters) {
    const Writer writers[] = {
        {"pdf", "pdf", NativeNoise,
         [](Imaging& im, const std::string& p) { return im.SaveAsPDF(p) && im.GetStat() == OK; }},
        {"pdfa", "pdf", NativeNoise,
         [](Imaging& im, const std::string& p) { return im.SaveAsPDFA(p) && im.GetStat() == OK; }},
        {"pdfmulti", "pdf",
         [](Imaging& im) {
             const std::int32_t a = im.CreateNewImage(512, 512, 24, -1);
             ASSERT_NE(a, 0);
             PaintNoise(a, 3);
             const std::int32_t doc = im.TiffCreateMultiPageFromKestrelynImage(a);
             ASSERT_NE(doc, 0);
             im.SetNativeImage(doc);
         },
         [](Imaging& im, const std::string& p) {
             return Ok(im.PdfCreateFromMultipageTIFF(im.GetNativeImage(), p));
         }},
        // An application-built document: the save answers true whenever a
        // document was open, so the status tells the failure.
        {"pdfbuilt", "pdf", NativeNoise,
         [](Imaging& im, const std::string& p) {
             if (!im.PdfNewPdf(p)) return false;
             const std::int32_t n = im.PdfAddImageFromKestrelynImage(im.GetNativeImage());
             im.PdfDrawImage(n, 0, 0, 300, 300);
             return im.PdfSavePdf() && im.GetStat() == OK;
         }},
    };
    for (const Writer& w : writers)
        CheckAllFaults(w);
}

// The mechanism itself: what it keeps of the target, what it leaves behind.
class SafeFileTest : public SaveFixture {};

TEST_F(SafeFileTest, CommitKeepsTheTargetsModeAndAbandonKeepsTheTarget) {
    const std::string target = W("keep.bin");
    WriteFile(target, GoodBytes());
    ASSERT_EQ(::chmod(target.c_str(), 0640), 0);
    {
        SafeFile f;
        ASSERT_TRUE(f.Begin(target));
        EXPECT_EQ(f.TempPath().rfind(work + "/" + kSafeWritePrefix + "keep.bin.", 0), 0u);
        WriteFile(f.TempPath(), {1, 2, 3});
        f.Abandon();
    }
    EXPECT_EQ(ReadBytes(target), GoodBytes());
    EXPECT_EQ(Entries(work), std::vector<std::string>{"keep.bin"});
    {
        SafeFile f;
        ASSERT_TRUE(f.Begin(target));
        WriteFile(f.TempPath(), {1, 2, 3});
        // Dropped without a commit: nothing changes.
    }
    EXPECT_EQ(ReadBytes(target), GoodBytes());
    EXPECT_TRUE(WriteBytesSafely(target, "abc", 3));
    EXPECT_EQ(ReadBytes(target), (std::vector<std::uint8_t>{'a', 'b', 'c'}));
    struct stat st {};
    ASSERT_EQ(::stat(target.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(Entries(work), std::vector<std::string>{"keep.bin"});
}

TEST_F(SafeFileTest, NewFileTakesTheUmaskAndLinksAreFollowed) {
    const mode_t old = ::umask(027);
    EXPECT_TRUE(WriteBytesSafely(W("new.bin"), "x", 1));
    ::umask(old);
    struct stat st {};
    ASSERT_EQ(::stat(W("new.bin").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);

    ASSERT_EQ(::symlink("new.bin", W("link.bin").c_str()), 0);
    EXPECT_TRUE(WriteBytesSafely(W("link.bin"), "yz", 2));
    struct stat lst {};
    ASSERT_EQ(::lstat(W("link.bin").c_str(), &lst), 0);
    EXPECT_TRUE(S_ISLNK(lst.st_mode)) << "the link was replaced by a file";
    EXPECT_EQ(ReadBytes(W("new.bin")), (std::vector<std::uint8_t>{'y', 'z'}));
}

TEST_F(SafeFileTest, RefusalsTouchNothing) {
    SafeWriteError e = SafeWriteError::None;
    auto never = [](const std::string&) {
        ADD_FAILURE() << "the writer ran";
        return true;
    };
    EXPECT_FALSE(WriteFileSafely(work, never, &e));
    EXPECT_EQ(e, SafeWriteError::TargetIsFolder);
    EXPECT_FALSE(WriteFileSafely(W("none/x.bin"), never, &e));
    EXPECT_EQ(e, SafeWriteError::NoFolder);
    WriteFile(W("ro.bin"), GoodBytes());
    ::chmod(W("ro.bin").c_str(), 0444);
    EXPECT_FALSE(WriteFileSafely(W("ro.bin"), never, &e));
    EXPECT_EQ(e, SafeWriteError::WriteProtected);
    EXPECT_FALSE(WriteFileSafely("", never, &e));
    EXPECT_EQ(e, SafeWriteError::NoTarget);
    // A writer that fails leaves nothing.
    EXPECT_FALSE(WriteFileSafely(
        W("w.bin"), [](const std::string&) { return false; }, &e));
    EXPECT_EQ(e, SafeWriteError::WriteFailed);
    EXPECT_EQ(Entries(work), std::vector<std::string>{"ro.bin"});
}

} // namespace
} // namespace kestrelyn::savetest
