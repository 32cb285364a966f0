// Which libavcodec the movie sources decode with.
#pragma once

#include <string>

#include "le/le.h"

namespace le {

// "libavcodec " + the libavcodec version the engine was built against (major.minor.micro)
// + " / " + the configuration text the loaded libavcodec reports. For the host; thread-safe.
LE_API std::string movieDecoderBuild();

namespace driver {
// The build-time libavcodec version as major.minor.micro.
std::string libavcodecBuildVersion();
}  // namespace driver

}  // namespace le
