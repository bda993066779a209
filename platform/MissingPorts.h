// What a host misses without a port of the platform.
#pragma once

#include <SelvioFacialCapture/base/Log.h>

#include <initializer_list>
#include <string>

namespace selvio {

struct PortInUse {
    bool available;
    const char* name;
    const char* consequence;  ///< of its absence
};

/// Logs each missing port. Once, when an object is made: nothing else reports it.
inline void logMissingPorts(std::initializer_list<PortInUse> ports) {
    for (const auto& port : ports)
        if (!port.available) log(std::string("The platform has no ") + port.name + ": " + port.consequence);
}

}  // namespace selvio
