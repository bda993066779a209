// Where a face of a simulated frame truly is, as the face checks would read it.
#pragma once

#include <SelvioFacialCapture/simulated/SimulatedFrames.h>

#include <SelvioFacialCapture/rules/FaceChecks.h>

namespace selvio {

/// What a detector without error would make of the face. The screen shows the frame as a mirror does.
inline rules::FaceChecksInput trueChecksInput(const FrameFace& face, Size frame, Size screen) {
    const auto onScreen = [&](Point p) {
        return Point{(frame.width - p.x) * screen.width / frame.width, p.y * screen.height / frame.height};
    };
    const auto at = [&](const char* name) { return face.landmarks.at(name); };
    std::vector<Point> contour(17), nose(9);
    contour[16] = onScreen(face.jawRight);
    contour[0] = onScreen(face.jawLeft);
    contour[8] = onScreen(at("chin"));
    nose[2] = onScreen(at("noseRight"));
    nose[4] = onScreen({(at("noseTip").x + 2 * at("noseBase").x) / 3, at("noseBase").y});
    nose[6] = onScreen(at("noseLeft"));
    return {.points = {.contour = contour, .nose = nose, .outerLips = {}},
            .limits = {},
            .biggerScreenSide = screen.height,
            .smallerScreenSide = screen.width,
            .shouldHoldStill = false};
}

}  // namespace selvio
