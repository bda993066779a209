// PNG files by libpng.
#pragma once

#include <SelvioFacialCapture/base/Error.h>
#include <SelvioFacialCapture/imaging/PixelBuffer.h>

#include <cstdio>

namespace selvio {

/// The whole picture, upright, as premultiplied BGRA. `file` stands at its beginning and is `fileBytes` long. The error
/// gives the reason only.
[[nodiscard]] Expected<std::shared_ptr<PixelBuffer>> readPngFile(std::FILE* file, std::size_t fileBytes);

}  // namespace selvio
