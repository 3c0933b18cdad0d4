// A hand-built document never damages the file it replaces: the writer works
// beside the target and puts the document in place only when every write
// succeeded.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>

#include "PdfTestSupport.h"
#include "pdf/cPDF.h"

namespace kestrelyn {
namespace {

using namespace pdftest;

const std::string kGood = std::string(3000, 'g') + "the good file";

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

// A fresh folder of its own for each case.
std::string CaseFolder(const std::string& sName) {
    const std::string sFolder = ScratchPath("safe-" + sName);
    std::error_code oError;
    std::filesystem::remove_all(sFolder, oError);
    EXPECT_EQ(::mkdir(sFolder.c_str(), 0755), 0);
    return sFolder;
}

void WriteGood(const std::string& sPath) {
    std::ofstream(sPath, std::ios::binary) << kGood;
}

// A page of 400 x 400 noise, uncompressed: far more than the limit.
bool WriteNoiseDocument(cPDF& oPdf, const std::string& sPath) {
    if (!oPdf.NewPdf(sPath, {})) return false;
    oPdf.CompressData(false);
    oPdf.BeginPage();
    std::mt19937 oRandom(5);
    for (int i = 0; i < 4000; ++i)
        oPdf.Rectangle(static_cast<float>(oRandom() % 500), static_cast<float>(oRandom() % 700),
                       static_cast<float>(oRandom() % 90), static_cast<float>(oRandom() % 90), 1);
    oPdf.ClosePdfFile();
    return true;
}

TEST(PdfSafeWrite, AFailedWriteLeavesTheGoodFileAndNoTemporaryFile) {
    const std::string sFolder = CaseFolder("limit");
    const std::string sPath = sFolder + "/out.pdf";
    WriteGood(sPath);
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit oLimit{16 * 1024, 16 * 1024};
        ::setrlimit(RLIMIT_FSIZE, &oLimit);
        cPDF oPdf;
        const bool bOpened = WriteNoiseDocument(oPdf, sPath);
        ::_exit(bOpened && oPdf.WriteFailed() ? 0 : 1);
    }
    int rc = 0;
    ASSERT_EQ(::waitpid(pid, &rc, 0), pid);
    ASSERT_TRUE(WIFEXITED(rc));
    EXPECT_EQ(WEXITSTATUS(rc), 0) << "the failed write was not noticed";
    EXPECT_TRUE(ReadFileBytes(sPath) == kGood) << "the good file was damaged";
    EXPECT_EQ(Entries(sFolder), std::vector<std::string>{"out.pdf"});

    // Without the limit the same document replaces the file.
    cPDF oPdf;
    ASSERT_TRUE(WriteNoiseDocument(oPdf, sPath));
    EXPECT_FALSE(oPdf.WriteFailed());
    EXPECT_EQ(ReadFileBytes(sPath).substr(0, 5), "%PDF-");
    EXPECT_EQ(Entries(sFolder), std::vector<std::string>{"out.pdf"});
}

TEST(PdfSafeWrite, AProtectedFileAFolderAndAMissingFolderAreRefused) {
    const std::string sFolder = CaseFolder("refused");
    const std::string sProtected = sFolder + "/ro.pdf";
    WriteGood(sProtected);
    ASSERT_EQ(::chmod(sProtected.c_str(), 0444), 0);
    const std::string sSubFolder = sFolder + "/out";
    ASSERT_EQ(::mkdir(sSubFolder.c_str(), 0755), 0);
    for (const std::string& sPath : {sProtected, sSubFolder, sFolder + "/none/out.pdf"}) {
        SCOPED_TRACE(sPath);
        cPDF oPdf;
        EXPECT_FALSE(oPdf.NewPdf(sPath, {}));
        EXPECT_EQ(oPdf.PdfGetNativePdf(), 0);
    }
    EXPECT_TRUE(ReadFileBytes(sProtected) == kGood) << "the protected file was damaged";
    struct stat st {};
    ASSERT_EQ(::stat(sSubFolder.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(Entries(sFolder), (std::vector<std::string>{"out", "ro.pdf"}));
}

TEST(PdfSafeWrite, ADocumentDroppedUnfinishedIsNotPutInPlace) {
    const std::string sFolder = CaseFolder("dropped");
    const std::string sPath = sFolder + "/out.pdf";
    WriteGood(sPath);
    {
        cPDF oPdf;
        ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
        oPdf.BeginPage();
        oPdf.Rectangle(10, 10, 100, 100, 1);
    }
    EXPECT_TRUE(ReadFileBytes(sPath) == kGood) << "the good file was damaged";
    EXPECT_EQ(Entries(sFolder), std::vector<std::string>{"out.pdf"});
}

} // namespace
} // namespace kestrelyn
