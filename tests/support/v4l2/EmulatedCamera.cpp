// A Video4Linux camera without a driver. Preloaded, it answers the ioctls on a node named /dev/video0 (a plain file:
// umockdev makes it) and passes on all others. YUYV in 1280x720 at 10 frames a second, which nobody is to choose,
// Motion JPEG in 1280x720 at 30, NV12 in 320x240 at 30; focus controls.
//
// The directory SELVIO_EMULATED_CAMERA steers it: `frame.jpg` is every Motion JPEG frame, `controls` collects the
// settings ("ID=value" lines).
#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Mode {
    std::uint32_t format, width, height, rate;
};
constexpr Mode kModes[] = {
    {V4L2_PIX_FMT_YUYV, 1280, 720, 10},
    {V4L2_PIX_FMT_MJPEG, 1280, 720, 30},
    {V4L2_PIX_FMT_NV12, 320, 240, 30},
};
constexpr std::uint32_t kBufferBytes = 1280 * 720 * 2;

std::mutex mutex;
// All guarded by mutex.
Mode mode = kModes[0];
std::uint32_t bufferCount = 0;
std::deque<std::uint32_t> queued;
std::uint32_t sequence = 0;
Clock::time_point started;
bool streaming = false;

std::string fileIn(const char* name) {
    const char* const directory = std::getenv("SELVIO_EMULATED_CAMERA");
    return std::string(directory != nullptr ? directory : "/nonexistent") + "/" + name;
}

bool isCamera(int file) {
    char path[512];
    const ssize_t length = ::readlink(("/proc/self/fd/" + std::to_string(file)).c_str(), path, sizeof path);
    return length > 0 && std::string_view(path, static_cast<std::size_t>(length)).ends_with("/dev/video0");
}

int fail(int error) {
    errno = error;
    return -1;
}

/// The mode of the format asked for: there is one of each.
const Mode& modeOf(std::uint32_t format) {
    const auto* const found = std::ranges::find(kModes, format, &Mode::format);
    return found == std::end(kModes) ? kModes[0] : *found;
}

void fill(v4l2_format& format, const Mode& chosen) {
    auto& pixels = format.fmt.pix;
    const bool planar = chosen.format == V4L2_PIX_FMT_NV12;
    pixels = {};
    pixels.width = chosen.width;
    pixels.height = chosen.height;
    pixels.pixelformat = chosen.format;
    pixels.field = V4L2_FIELD_NONE;
    pixels.bytesperline = chosen.format == V4L2_PIX_FMT_MJPEG ? 0 : chosen.width * (planar ? 1 : 2);
    pixels.sizeimage = planar ? chosen.width * chosen.height * 3 / 2 : kBufferBytes;
    pixels.colorspace = V4L2_COLORSPACE_SRGB;
}

// NV12: a grey picture with a white bar that moves on with each frame.
std::vector<char> draw() {
    if (mode.format == V4L2_PIX_FMT_MJPEG) {
        std::ifstream file(fileIn("frame.jpg"), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::vector<char> pixels(std::size_t{mode.width} * mode.height * 3 / 2, static_cast<char>(0x80));
    const std::size_t bar = sequence * 16 % mode.width;
    for (std::size_t row = 0; row < mode.height; ++row)
        std::fill_n(&pixels[row * mode.width + bar], 16, static_cast<char>(0xEB));
    return pixels;
}

void describe(v4l2_buffer& buffer) {
    buffer.bytesused = 0;
    buffer.flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
    buffer.field = V4L2_FIELD_NONE;
    buffer.memory = V4L2_MEMORY_MMAP;
    buffer.m.offset = buffer.index * kBufferBytes;
    buffer.length = kBufferBytes;
}

int dequeue(int file, v4l2_buffer& buffer) {
    std::unique_lock lock(mutex);
    if (!streaming || queued.empty()) return fail(streaming ? EAGAIN : EINVAL);
    const auto due = started + std::chrono::microseconds(1'000'000LL * (sequence + 1) / mode.rate);
    lock.unlock();
    std::this_thread::sleep_until(due);  // a camera has its own pace
    lock.lock();
    if (!streaming || queued.empty()) return fail(EINVAL);
    buffer.index = queued.front();
    queued.pop_front();
    describe(buffer);
    const std::vector<char> picture = draw();
    if (::pwrite(file, picture.data(), picture.size(), buffer.m.offset) != static_cast<ssize_t>(picture.size()))
        return fail(EIO);
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(due.time_since_epoch()).count();
    buffer.bytesused = static_cast<std::uint32_t>(picture.size());
    buffer.timestamp = {micros / 1'000'000, micros % 1'000'000};
    buffer.sequence = sequence++;
    return 0;
}

int answer(int file, unsigned long request, void* argument) {
    if (request == VIDIOC_DQBUF) return dequeue(file, *static_cast<v4l2_buffer*>(argument));
    const std::lock_guard lock(mutex);
    switch (request) {
        case VIDIOC_QUERYCAP: {
            auto& capability = *static_cast<v4l2_capability*>(argument);
            capability = {};
            std::strcpy(reinterpret_cast<char*>(capability.card), "Emulated Camera");
            capability.device_caps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
            capability.capabilities = capability.device_caps | V4L2_CAP_DEVICE_CAPS;
            return 0;
        }
        case VIDIOC_ENUM_FMT: {
            auto& format = *static_cast<v4l2_fmtdesc*>(argument);
            if (format.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || format.index >= std::size(kModes)) return fail(EINVAL);
            format.pixelformat = kModes[format.index].format;
            format.flags = format.pixelformat == V4L2_PIX_FMT_MJPEG ? V4L2_FMT_FLAG_COMPRESSED : 0;
            return 0;
        }
        case VIDIOC_ENUM_FRAMESIZES: {
            auto& size = *static_cast<v4l2_frmsizeenum*>(argument);
            if (size.index > 0) return fail(EINVAL);
            size.type = V4L2_FRMSIZE_TYPE_DISCRETE;
            size.discrete = {modeOf(size.pixel_format).width, modeOf(size.pixel_format).height};
            return 0;
        }
        case VIDIOC_ENUM_FRAMEINTERVALS: {
            auto& interval = *static_cast<v4l2_frmivalenum*>(argument);
            if (interval.index > 0) return fail(EINVAL);
            interval.type = V4L2_FRMIVAL_TYPE_DISCRETE;
            interval.discrete = {1, modeOf(interval.pixel_format).rate};
            return 0;
        }
        case VIDIOC_G_FMT:
        case VIDIOC_TRY_FMT:
        case VIDIOC_S_FMT: {
            auto& format = *static_cast<v4l2_format*>(argument);
            if (format.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return fail(EINVAL);
            if (request == VIDIOC_S_FMT && bufferCount > 0) return fail(EBUSY);
            const Mode chosen = request == VIDIOC_G_FMT ? mode : modeOf(format.fmt.pix.pixelformat);
            if (request == VIDIOC_S_FMT) mode = chosen;
            fill(format, chosen);
            return 0;
        }
        case VIDIOC_G_PARM:
        case VIDIOC_S_PARM: {
            auto& parameters = *static_cast<v4l2_streamparm*>(argument);
            if (parameters.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return fail(EINVAL);
            parameters.parm.capture = {};
            parameters.parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
            parameters.parm.capture.timeperframe = {1, mode.rate};
            return 0;
        }
        case VIDIOC_QUERYCTRL: {
            auto& control = *static_cast<v4l2_queryctrl*>(argument);
            const bool known = control.id == V4L2_CID_FOCUS_AUTO || control.id == V4L2_CID_AUTO_FOCUS_START;
            if (!known) return fail(EINVAL);
            const std::uint32_t id = control.id;
            control = {};
            control.id = id;
            control.type = id == V4L2_CID_FOCUS_AUTO ? V4L2_CTRL_TYPE_BOOLEAN : V4L2_CTRL_TYPE_BUTTON;
            control.maximum = 1;
            control.step = 1;
            return 0;
        }
        case VIDIOC_S_CTRL: {
            const auto& control = *static_cast<const v4l2_control*>(argument);
            const bool automatic = control.id == V4L2_CID_FOCUS_AUTO;
            if (!automatic && control.id != V4L2_CID_AUTO_FOCUS_START) return fail(EINVAL);
            std::ofstream(fileIn("controls"), std::ios::app)
                << (automatic ? "FOCUS_AUTO=" : "AUTO_FOCUS_START=") << control.value << '\n';
            return 0;
        }
        case VIDIOC_REQBUFS: {
            auto& buffers = *static_cast<v4l2_requestbuffers*>(argument);
            if (buffers.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || buffers.memory != V4L2_MEMORY_MMAP) return fail(EINVAL);
            buffers.count = std::min(buffers.count, 8U);
            bufferCount = buffers.count;
            queued.clear();
            return bufferCount == 0 || ::ftruncate(file, off_t{bufferCount} * kBufferBytes) == 0 ? 0 : -1;
        }
        case VIDIOC_QUERYBUF:
        case VIDIOC_QBUF: {
            auto& buffer = *static_cast<v4l2_buffer*>(argument);
            if (buffer.index >= bufferCount) return fail(EINVAL);
            describe(buffer);
            if (request == VIDIOC_QBUF) {
                queued.push_back(buffer.index);
                buffer.flags |= V4L2_BUF_FLAG_QUEUED;
            }
            return 0;
        }
        case VIDIOC_STREAMON:
            streaming = true;
            started = Clock::now();
            sequence = 0;
            return 0;
        case VIDIOC_STREAMOFF:
            streaming = false;
            queued.clear();
            return 0;
        default:
            return fail(ENOTTY);
    }
}

}  // namespace

extern "C" int ioctl(int file, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (_IOC_TYPE(request) == 'V' && isCamera(file)) return answer(file, request, argument);
    return static_cast<int>(::syscall(SYS_ioctl, file, request, argument));
}
