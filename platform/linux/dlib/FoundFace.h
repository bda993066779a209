// A face as the vision step found it.
#pragma once

#include "LandmarkModel.h"

namespace selvio::hog {

/// In pixels of the full-size view, the origin at its top left corner. The box may reach beyond the view.
struct FoundFace {
    Rect box;
    LandmarkPoints points{};
};

}  // namespace selvio::hog
