// What a host misses without a port of the platform.
#pragma once

#include <SelvioFacialCapture/base/Log.h>

#include <initializer_list>
#include <string>

namespace selvio {

struct PortInUse {
    bool there;
    const char* name;
    const char* consequence;  ///< of its absence
};

/// A line in the log for each port that is not there. Said once, when an object is made, because nothing else tells.
inline void logMissingPorts(std::initializer_list<PortInUse> ports) {
    for (const auto& port : ports)
        if (!port.there) log(std::string("The platform has no ") + port.name + ": " + port.consequence);
}

}  // namespace selvio
