// The raster engine's state per host thread: how many objects use it, whether
// it runs, and the version texts read when it started.
#pragma once
#include <cstdint>
#include <string>

namespace kestrelyn {

struct EngineState {
    std::int32_t nEngineUsers = 0;
    bool bEngineStarted = false;
    std::uintptr_t nEngineToken = 0;
    std::string sGdiplusVersion;
    std::string sKyimgplugVersion;
};
EngineState& ThreadEngineState();
// The first user of a thread starts the engine, builds the encoder table and
// reads the versions; a failure shows a critical message and gives false.
bool StartEngine();
// The last user of a thread releases every image and stops the engine.
void StopEngine();
// The leading number of a version text ("1.0.0.0" gives 1, "Unknown" 0).
double VersionValue(const std::string& sVersion);

} // namespace kestrelyn
