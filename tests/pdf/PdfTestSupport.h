// Helpers of the PDF writer tests: scratch files, external checkers, PGM
// rendering and a little parsing of the files written.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "support/Checkers.h"
#include <zlib.h>

namespace kestrelyn::pdftest {

inline std::string ScratchDir() {
    const auto oDir = std::filesystem::temp_directory_path() /
                      ("kestrelyn-pdf-tests-" + std::to_string(::getpid()));
    std::filesystem::create_directories(oDir);
    return oDir.string();
}

inline std::string ScratchPath(const std::string& sName) {
    return ScratchDir() + "/" + sName;
}

inline std::string ReadFileBytes(const std::string& sPath) {
    std::ifstream oIn(sPath, std::ios::binary);
    std::ostringstream oOut;
    oOut << oIn.rdbuf();
    return oOut.str();
}

inline void WriteFileBytes(const std::string& sPath, const std::string& sBytes) {
    std::ofstream oOut(sPath, std::ios::binary);
    oOut.write(sBytes.data(), static_cast<std::streamsize>(sBytes.size()));
}

struct CommandResult {
    int nExit = -1;
    std::string sOutput;
};

// Runs a shell command and captures stdout and stderr together.
inline CommandResult RunCommand(const std::string& sCommand) {
    CommandResult oResult;
    std::FILE* pPipe = ::popen((sCommand + " 2>&1").c_str(), "r");
    if (!pPipe) return oResult;
    char arBuffer[4096];
    std::size_t n = 0;
    while ((n = std::fread(arBuffer, 1, sizeof(arBuffer), pPipe)) > 0)
        oResult.sOutput.append(arBuffer, n);
    const int nStatus = ::pclose(pPipe);
    oResult.nExit = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
    return oResult;
}

inline std::string Quote(const std::string& s) {
    std::string sOut = "'";
    for (char c : s) {
        if (c == '\'')
            sOut += "'\\''";
        else
            sOut += c;
    }
    return sOut + "'";
}

// Whether a checker tool is installed. A check guarded by it is passed over on
// a machine without the tool, except when checkers are required (CI): then a
// missing tool fails the test that asked.
inline bool HaveTool(const std::string& sTool) {
    const bool bHave = RunCommand("command -v " + sTool).nExit == 0;
    if (!bHave && ::kestrelyn::test::CheckersRequired())
        ADD_FAILURE() << sTool << " is not installed and KY_REQUIRE_CHECKERS is set";
    return bHave;
}

#define KY_REQUIRE_TOOL(tool)                                                                      \
    KY_REQUIRE_CHECKER(::kestrelyn::pdftest::HaveTool(tool),                                       \
                       std::string(tool) + " is not installed")

// qpdf --check must pass with exit 0 (no errors, no warnings).
inline void ExpectQpdfCheck(const std::string& sPath, const std::string& sPassword = "") {
    const CommandResult oResult = RunCommand(
        "qpdf --check " + (sPassword.empty() ? "" : "--password=" + Quote(sPassword) + " ") +
        Quote(sPath));
    EXPECT_EQ(oResult.nExit, 0) << sPath << "\n" << oResult.sOutput;
}

// pdfinfo's "Key: value" lines.
inline std::map<std::string, std::string> PdfInfo(const std::string& sPath,
                                                  const std::string& sOptions = "") {
    std::map<std::string, std::string> oInfo;
    const CommandResult oResult = RunCommand("pdfinfo " + sOptions + " " + Quote(sPath));
    std::istringstream oLines(oResult.sOutput);
    std::string sLine;
    while (std::getline(oLines, sLine)) {
        const auto nColon = sLine.find(':');
        if (nColon == std::string::npos) continue;
        std::string sValue = sLine.substr(nColon + 1);
        const auto nFirst = sValue.find_first_not_of(' ');
        sValue = nFirst == std::string::npos ? "" : sValue.substr(nFirst);
        oInfo[sLine.substr(0, nColon)] = sValue;
    }
    return oInfo;
}

// A gray rendering of one page at 72 dpi, read from pdftoppm's PGM output.
struct GrayPage {
    int nWidth = 0;
    int nHeight = 0;
    std::vector<std::uint8_t> arPixels;
    // Pixel at PDF coordinates (origin bottom left, one pixel per point).
    int AtPdf(int x, int y) const {
        const int nRow = nHeight - 1 - y;
        if (x < 0 || x >= nWidth || nRow < 0 || nRow >= nHeight) return -1;
        return arPixels[static_cast<std::size_t>(nRow) * nWidth + x];
    }
};

inline GrayPage RenderGray(const std::string& sPdf, int nPage = 1) {
    GrayPage oPage;
    const std::string sPrefix = sPdf + ".p" + std::to_string(nPage);
    const CommandResult oResult =
        RunCommand("pdftoppm -r 72 -gray -singlefile -f " + std::to_string(nPage) + " -l " +
                   std::to_string(nPage) + " " + Quote(sPdf) + " " + Quote(sPrefix));
    if (oResult.nExit != 0) return oPage;
    const std::string sPgm = ReadFileBytes(sPrefix + ".pgm");
    // "P5" width height maxval, then one byte per pixel.
    std::istringstream oHeader(sPgm);
    std::string sMagic;
    int nMax = 0;
    oHeader >> sMagic >> oPage.nWidth >> oPage.nHeight >> nMax;
    if (sMagic != "P5" || nMax != 255) return GrayPage{};
    const auto nStart = static_cast<std::size_t>(oHeader.tellg()) + 1;
    const auto nCount = static_cast<std::size_t>(oPage.nWidth) * oPage.nHeight;
    if (sPgm.size() < nStart + nCount) return GrayPage{};
    oPage.arPixels.assign(sPgm.begin() + static_cast<std::ptrdiff_t>(nStart),
                          sPgm.begin() + static_cast<std::ptrdiff_t>(nStart + nCount));
    return oPage;
}

inline std::string Inflate(const std::string& sDeflated) {
    z_stream oStream{};
    if (inflateInit(&oStream) != Z_OK) return {};
    oStream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(sDeflated.data()));
    oStream.avail_in = static_cast<uInt>(sDeflated.size());
    std::string sOut;
    char arBuffer[16384];
    int nResult = Z_OK;
    do {
        oStream.next_out = reinterpret_cast<Bytef*>(arBuffer);
        oStream.avail_out = sizeof(arBuffer);
        nResult = inflate(&oStream, Z_NO_FLUSH);
        sOut.append(arBuffer, sizeof(arBuffer) - oStream.avail_out);
    } while (nResult == Z_OK);
    inflateEnd(&oStream);
    return nResult == Z_STREAM_END ? sOut : std::string();
}

// Where object N begins ("N 0 obj"), or npos.
inline std::size_t ObjectStart(const std::string& sFile, int nObject) {
    // An object starts a line; after a content stream the line ends in a bare CR.
    const std::string sHead = std::to_string(nObject) + " 0 obj\r\n";
    for (auto nStart = sFile.find(sHead); nStart != std::string::npos;
         nStart = sFile.find(sHead, nStart + 1))
        if (nStart == 0 || sFile[nStart - 1] == '\n' || sFile[nStart - 1] == '\r') return nStart;
    return std::string::npos;
}

// The text of object N, from "N 0 obj" up to and including its first "endobj".
inline std::string ObjectText(const std::string& sFile, int nObject) {
    const auto nStart = ObjectStart(sFile, nObject);
    if (nStart == std::string::npos) return {};
    const auto nEnd = sFile.find("endobj", nStart);
    if (nEnd == std::string::npos) return {};
    return sFile.substr(nStart, nEnd + 6 - nStart);
}

// The stream data of object N, cut by its /Length.
inline std::string StreamOfObject(const std::string& sFile, int nObject) {
    const auto nStart = ObjectStart(sFile, nObject);
    if (nStart == std::string::npos) return {};
    const auto nData = sFile.find("stream\r\n", nStart);
    const auto nLengthKey = sFile.find("/Length ", nStart);
    if (nLengthKey == std::string::npos || nData == std::string::npos || nLengthKey > nData)
        return {};
    const long nLength = std::stol(sFile.substr(nLengthKey + 8, 12));
    return sFile.substr(nData + 8, static_cast<std::size_t>(nLength));
}

} // namespace kestrelyn::pdftest
