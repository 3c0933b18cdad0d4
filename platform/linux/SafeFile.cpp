// The safe write on Linux: mkstemp in the target's folder, fsync, rename.
#include "platform/SafeFile.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrelyn {

namespace {

// The process's umask, read without changing it (umask(2) would race with
// other threads creating files).
mode_t CurrentUmask() {
    mode_t mask = 022;
    if (std::FILE* f = std::fopen("/proc/self/status", "r")) {
        char line[256];
        while (std::fgets(line, sizeof line, f)) {
            if (std::strncmp(line, "Umask:", 6) == 0) {
                mask = static_cast<mode_t>(std::strtoul(line + 6, nullptr, 8));
                break;
            }
        }
        std::fclose(f);
    }
    return mask & 0777;
}

std::string FolderOf(const std::string& sPath) {
    const std::size_t slash = sPath.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return sPath.substr(0, slash);
}

std::string NameOf(const std::string& sPath) {
    const std::size_t slash = sPath.find_last_of('/');
    return slash == std::string::npos ? sPath : sPath.substr(slash + 1);
}

// fsync of a file or folder by path; true when it is on disk.
bool SyncPath(const std::string& sPath, bool bFolder) {
    const int fd = ::open(sPath.c_str(), (bFolder ? O_RDONLY | O_DIRECTORY : O_RDONLY) | O_CLOEXEC);
    if (fd < 0) return false;
    const bool ok = ::fsync(fd) == 0;
    ::close(fd);
    return ok;
}

} // namespace

SafeFile::~SafeFile() {
    Abandon();
}

bool SafeFile::Begin(const std::string& sNewTarget) {
    Abandon();
    eError = SafeWriteError::None;
    sTarget = sNewTarget;
    if (sTarget.empty()) {
        eError = SafeWriteError::NoTarget;
        return false;
    }
    // A link is followed, so that the file it points to is replaced and the
    // link stays.
    struct stat lst {};
    if (::lstat(sTarget.c_str(), &lst) == 0 && S_ISLNK(lst.st_mode)) {
        if (char* real = ::realpath(sTarget.c_str(), nullptr)) {
            sTarget = real;
            std::free(real);
        }
    }
    if (!sTarget.empty() && sTarget.back() == '/') {
        eError = SafeWriteError::TargetIsFolder;
        return false;
    }
    struct stat st {};
    const bool bExists = ::stat(sTarget.c_str(), &st) == 0;
    if (bExists) {
        // Only a regular file is ever replaced: never a folder, a device or a pipe.
        if (!S_ISREG(st.st_mode)) {
            eError = SafeWriteError::TargetIsFolder;
            return false;
        }
        // The mode bits count as well as access(): root passes access() on
        // any file, but a file nobody may write is still protected.
        if ((st.st_mode & 0222) == 0 || ::access(sTarget.c_str(), W_OK) != 0) {
            eError = SafeWriteError::WriteProtected;
            return false;
        }
    }
    const std::string sFolder = FolderOf(sTarget);
    struct stat fst {};
    if (::stat(sFolder.c_str(), &fst) != 0 || !S_ISDIR(fst.st_mode)) {
        eError = SafeWriteError::NoFolder;
        return false;
    }
    // The name keeps within NAME_MAX with the prefix and the random suffix.
    std::string sName = NameOf(sTarget);
    if (sName.size() > 200) sName.resize(200);
    std::string sTemplate = sFolder + "/" + kSafeWritePrefix + sName + ".XXXXXX";
    const int fd = ::mkostemp(sTemplate.data(), O_CLOEXEC);
    if (fd < 0) {
        eError = SafeWriteError::CannotCreate;
        return false;
    }
    nMode = bExists ? (st.st_mode & 07777) : (0666 & ~CurrentUmask());
    if (bExists) {
        // Keep the owner where we may (root replacing another user's file).
        if (::fchown(fd, st.st_uid, st.st_gid) != 0) {
        }
    }
    ::close(fd);
    sTemp = sTemplate;
    return true;
}

bool SafeFile::Commit() {
    if (sTemp.empty()) {
        if (eError == SafeWriteError::None) eError = SafeWriteError::WriteFailed;
        return false;
    }
    // The writer may have made the file anew under the same name; the mode
    // is set on whatever is there now.
    struct stat st {};
    bool ok = ::lstat(sTemp.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
              ::chmod(sTemp.c_str(), static_cast<mode_t>(nMode)) == 0 && SyncPath(sTemp, false) &&
              ::rename(sTemp.c_str(), sTarget.c_str()) == 0;
    if (!ok) {
        eError = SafeWriteError::WriteFailed;
        Abandon();
        return false;
    }
    sTemp.clear();
    // The rename itself reaches the disk with the folder.
    SyncPath(FolderOf(sTarget), true);
    return true;
}

void SafeFile::Abandon() {
    if (sTemp.empty()) return;
    ::unlink(sTemp.c_str());
    sTemp.clear();
}

bool WriteFileSafely(const std::string& sTarget,
                     const std::function<bool(const std::string& sTempPath)>& write,
                     SafeWriteError* pError) {
    SafeFile file;
    bool ok = file.Begin(sTarget);
    if (ok) {
        ok = write(file.TempPath());
        ok = ok ? file.Commit() : false;
    }
    if (pError)
        *pError = ok ? SafeWriteError::None
                     : (file.Error() != SafeWriteError::None ? file.Error()
                                                             : SafeWriteError::WriteFailed);
    return ok;
}

bool WriteBytesSafely(const std::string& sTarget, const void* pData, std::size_t nSize,
                      SafeWriteError* pError) {
    return WriteFileSafely(
        sTarget,
        [&](const std::string& sTemp) {
            std::FILE* f = std::fopen(sTemp.c_str(), "wb");
            if (!f) return false;
            bool ok = std::fwrite(pData, 1, nSize, f) == nSize;
            ok = (std::fclose(f) == 0) && ok;
            return ok;
        },
        pError);
}

} // namespace kestrelyn
