// A Video4Linux camera without a driver. Preloaded, it answers the ioctls on a node named /dev/video0 (a plain file:
// umockdev makes it) and passes on all others. NV12 in 320x240 at 30 frames a second, but there is no memory for any.
// The settings of its focus controls ("ID=value" lines) are collected in the file `controls` of the directory
// SELVIO_EMULATED_CAMERA.
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

constexpr std::uint32_t kWidth = 320, kHeight = 240;

bool isCamera(int file) {
    std::error_code none;
    const auto path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file), none);
    return path.native().ends_with("/dev/video0");
}

/// The error, or 0.
int answer(unsigned long request, void* argument) {
    // All lists have one entry, and their questions begin with its index.
    const auto endOfList = [&] { return *static_cast<const std::uint32_t*>(argument) > 0 ? EINVAL : 0; };
    switch (request) {
        case VIDIOC_QUERYCAP: {
            auto& camera = *static_cast<v4l2_capability*>(argument) = {};
            std::string("Emulated Camera").copy(reinterpret_cast<char*>(camera.card), sizeof camera.card);
            camera.device_caps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
            camera.capabilities = camera.device_caps | V4L2_CAP_DEVICE_CAPS;
            return 0;
        }
        case VIDIOC_ENUM_FMT:
            static_cast<v4l2_fmtdesc*>(argument)->pixelformat = V4L2_PIX_FMT_NV12;
            return endOfList();
        case VIDIOC_ENUM_FRAMESIZES:
            static_cast<v4l2_frmsizeenum*>(argument)->type = V4L2_FRMSIZE_TYPE_DISCRETE;
            static_cast<v4l2_frmsizeenum*>(argument)->discrete = {kWidth, kHeight};
            return endOfList();
        case VIDIOC_ENUM_FRAMEINTERVALS:
            static_cast<v4l2_frmivalenum*>(argument)->type = V4L2_FRMIVAL_TYPE_DISCRETE;
            static_cast<v4l2_frmivalenum*>(argument)->discrete = {1, 30};
            return endOfList();
        case VIDIOC_G_FMT:
        case VIDIOC_TRY_FMT:
        case VIDIOC_S_FMT: {
            auto& picture = static_cast<v4l2_format*>(argument)->fmt.pix = {};
            picture.width = picture.bytesperline = kWidth;
            picture.height = kHeight;
            picture.pixelformat = V4L2_PIX_FMT_NV12;
            picture.field = V4L2_FIELD_NONE;
            picture.sizeimage = kWidth * kHeight * 3 / 2;
            picture.colorspace = V4L2_COLORSPACE_SRGB;
            return 0;
        }
        case VIDIOC_REQBUFS:
            return ENOMEM;
        case VIDIOC_QUERYCTRL:
        case VIDIOC_S_CTRL: {
            const auto& control = *static_cast<const v4l2_control*>(argument);  // both begin with the ID
            const bool automatic = control.id == V4L2_CID_FOCUS_AUTO;
            if (!automatic && control.id != V4L2_CID_AUTO_FOCUS_START) return EINVAL;
            if (request == VIDIOC_QUERYCTRL) return 0;
            std::ofstream(std::string(std::getenv("SELVIO_EMULATED_CAMERA")) + "/controls", std::ios::app)
                << (automatic ? "FOCUS_AUTO=" : "AUTO_FOCUS_START=") << control.value << '\n';
            return 0;
        }
        default:
            return ENOTTY;
    }
}

}  // namespace

extern "C" int ioctl(int file, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (_IOC_TYPE(request) != 'V' || !isCamera(file))
        return static_cast<int>(::syscall(SYS_ioctl, file, request, argument));
    errno = answer(request, argument);
    return errno == 0 ? 0 : -1;
}
