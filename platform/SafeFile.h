// Writing a file without ever losing the one it replaces: the bytes go to a
// new temporary file beside the target, which is renamed over the target only
// once it is complete and on disk. A failed write removes the temporary file
// and leaves the target as it was.
#pragma once
#include <cstddef>
#include <functional>
#include <string>

namespace kestrelyn {

// Why a safe write was refused or failed.
enum class SafeWriteError {
    None,
    NoTarget,       // an empty path
    TargetIsFolder, // a folder (or anything but a regular file) is at the path
    NoFolder,       // the target's folder does not exist
    WriteProtected, // the target exists and may not be written
    CannotCreate,   // the temporary file could not be made
    WriteFailed,    // the writer, the flush or the rename failed
};

class SafeFile {
  public:
    SafeFile() = default;
    // A write neither committed nor abandoned is abandoned.
    ~SafeFile();
    SafeFile(const SafeFile&) = delete;
    SafeFile& operator=(const SafeFile&) = delete;

    // Checks the target and creates the temporary file beside it (exclusively,
    // named ".kestrelyn-<target's name>.XXXXXX"). False, with nothing touched
    // on disk, when the target is a folder, its folder is missing, the target
    // is write-protected or the temporary file cannot be made.
    bool Begin(const std::string& sTarget);
    // The file the writer writes to; empty before Begin.
    const std::string& TempPath() const { return sTemp; }
    // Flushes the temporary file to disk, gives it the target's permissions
    // and renames it over the target. False (temporary file removed) on any
    // failure.
    bool Commit();
    // Removes the temporary file; the target stays as it was.
    void Abandon();
    bool Active() const { return !sTemp.empty(); }
    SafeWriteError Error() const { return eError; }

  private:
    std::string sTarget;
    std::string sTemp;
    unsigned nMode = 0;
    SafeWriteError eError = SafeWriteError::None;
};

// Writes a file through `write`, which is given the temporary path and
// returns false on failure. True only when the target holds the new bytes.
bool WriteFileSafely(const std::string& sTarget,
                     const std::function<bool(const std::string& sTempPath)>& write,
                     SafeWriteError* pError = nullptr);

// Writes bytes to a file safely.
bool WriteBytesSafely(const std::string& sTarget, const void* pData, std::size_t nSize,
                      SafeWriteError* pError = nullptr);

// The prefix of every temporary file made by a safe write.
inline constexpr char kSafeWritePrefix[] = ".kestrelyn-";

} // namespace kestrelyn
