// Deflate through zlib.
#include "platform/Deflate.h"

#include <zlib.h>

namespace kestrelyn {

bool DeflateCompress2(const std::string& sSource, int nLevel, std::size_t nCapacity,
                      std::string& sDestination) {
    auto nSize = static_cast<uLongf>(nCapacity);
    sDestination.assign(nCapacity, '\0');
    const int nResult = compress2(reinterpret_cast<Bytef*>(sDestination.data()), &nSize,
                                  reinterpret_cast<const Bytef*>(sSource.data()),
                                  static_cast<uLong>(sSource.size()), nLevel);
    if (nResult != Z_OK) {
        sDestination.clear();
        return false;
    }
    sDestination.resize(nSize);
    return true;
}

} // namespace kestrelyn
