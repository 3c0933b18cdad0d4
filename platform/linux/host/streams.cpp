// The memory and file streams that come with the library.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <unistd.h>

#include "kestrelyn/Types.h"

namespace kestrelyn {

namespace {

class MemoryStream final : public Stream {
  public:
    explicit MemoryStream(std::vector<std::uint8_t> data) : m_data(std::move(data)) {}
    std::size_t Read(void* pBuffer, std::size_t nCount) override {
        if (m_pos >= m_data.size()) return 0;
        const std::size_t n = std::min(nCount, m_data.size() - m_pos);
        std::memcpy(pBuffer, m_data.data() + m_pos, n);
        m_pos += n;
        return n;
    }
    std::size_t Write(const void* pBuffer, std::size_t nCount) override {
        if (nCount == 0) return 0;
        if (m_pos + nCount > m_data.size()) m_data.resize(m_pos + nCount);
        std::memcpy(m_data.data() + m_pos, pBuffer, nCount);
        m_pos += nCount;
        return nCount;
    }
    std::int64_t Seek(std::int64_t nOffset, SeekOrigin eOrigin) override {
        std::int64_t base = 0;
        if (eOrigin == Current)
            base = static_cast<std::int64_t>(m_pos);
        else if (eOrigin == End)
            base = static_cast<std::int64_t>(m_data.size());
        const std::int64_t target = base + nOffset;
        if (target < 0) return -1;
        m_pos = static_cast<std::size_t>(target);
        return target;
    }
    std::int64_t Stat() override { return static_cast<std::int64_t>(m_data.size()); }
    bool SetSize(std::int64_t nSize) override {
        if (nSize < 0) return false;
        m_data.resize(static_cast<std::size_t>(nSize));
        return true;
    }

  private:
    std::vector<std::uint8_t> m_data;
    std::size_t m_pos = 0; // may lie beyond the end; a write there fills with zeros
};

class FileStream final : public Stream {
  public:
    explicit FileStream(std::FILE* f) : m_file(f) {}
    ~FileStream() override { std::fclose(m_file); }
    std::size_t Read(void* pBuffer, std::size_t nCount) override {
        return std::fread(pBuffer, 1, nCount, m_file);
    }
    std::size_t Write(const void* pBuffer, std::size_t nCount) override {
        return std::fwrite(pBuffer, 1, nCount, m_file);
    }
    std::int64_t Seek(std::int64_t nOffset, SeekOrigin eOrigin) override {
        const int whence = eOrigin == Begin ? SEEK_SET : eOrigin == Current ? SEEK_CUR : SEEK_END;
        if (fseeko(m_file, static_cast<off_t>(nOffset), whence) != 0) return -1;
        return static_cast<std::int64_t>(ftello(m_file));
    }
    std::int64_t Stat() override {
        std::fflush(m_file);
        const off_t here = ftello(m_file);
        if (fseeko(m_file, 0, SEEK_END) != 0) return -1;
        const off_t size = ftello(m_file);
        fseeko(m_file, here, SEEK_SET);
        return static_cast<std::int64_t>(size);
    }
    bool SetSize(std::int64_t nSize) override {
        std::fflush(m_file);
        return nSize >= 0 && ftruncate(fileno(m_file), static_cast<off_t>(nSize)) == 0;
    }

  private:
    std::FILE* m_file;
};

} // namespace

StreamPtr CreateMemoryStream(std::vector<std::uint8_t> arInitial) {
    return std::make_shared<MemoryStream>(std::move(arInitial));
}

StreamPtr CreateFileStream(const std::string& sFilePath, bool bWrite) {
    // Writing creates or empties the file; reading needs it to exist.
    std::FILE* f = std::fopen(sFilePath.c_str(), bWrite ? "w+b" : "rb");
    if (!f) return nullptr;
    return std::make_shared<FileStream>(f);
}

} // namespace kestrelyn
