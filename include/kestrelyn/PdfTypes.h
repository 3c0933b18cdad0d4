// Enumerations of the PDF operations: encryption strength and the rights
// that an encrypted document grants.
#pragma once
#include <cstdint>

namespace kestrelyn {

enum PdfEncryption : std::int32_t {
    PdfEncryptionNone = 0,
    PdfEncryption40BitRC4 = 1,
    PdfEncryption128BitRC4 = 2,
};

// A set of bits; PdfRightUndefined is what a document without encryption gets.
enum PdfRight : std::int32_t {
    PdfRightUndefined = -1,
    PdfRightCanView = 0,
    PdfRightCanPrint = 1,
    PdfRightCanCopy = 2,
    PdfRightCanModify = 4,
    PdfRightCanAddNotes = 8,
    PdfRightCanFillFields = 16,
    PdfRightCanCopyAccess = 32,
    PdfRightCanAssemble = 64,
    PdfRightCanPrintFull = 128,
};

} // namespace kestrelyn
