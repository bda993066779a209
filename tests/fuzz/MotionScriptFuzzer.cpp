// The script of a simulated camera.
#include "FuzzSupport.h"

#include <SelvioFacialCapture/simulated/MotionScript.h>

#include <cmath>

void selvio::check(std::string_view input) {
    const auto script = MotionScript::parse(input, "script");
    if (!script) return requireReason(script.error().localizedDescription);
    const auto end = script.value().duration();
    require(end.count() >= 0, "a script has a duration");
    for (const auto time : {-end, end * 0, end / 3, end, end + std::chrono::hours(1)}) {
        const MotionState state = script.value().stateAt(time);
        require(std::isfinite(state.face.center.x + state.face.center.y + state.face.jawWidth + state.face.roll +
                              state.light + state.noise),
                "every moment has a state");
    }
}
