// A Video4Linux camera without a driver. Preloaded, it answers the ioctls on a node named /dev/video0 (a plain file:
// umockdev makes it) and passes on all others. NV12 in 320x240 at 30 frames a second: a grey picture with a white bar
// that moves on with each frame. The settings of its focus controls ("ID=value" lines) are collected in the file
// `controls` of the directory SELVIO_EMULATED_CAMERA.
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kWidth = 320, kHeight = 240, kBytes = kWidth * kHeight * 3 / 2;

std::mutex mutex;
// All guarded by mutex.
std::uint32_t bufferCount = 0;
std::deque<std::uint32_t> queued;
std::uint32_t sequence = 0;
Clock::time_point started;
bool streaming = false;

bool isCamera(int file) {
    char path[512];
    const ssize_t length = ::readlink(("/proc/self/fd/" + std::to_string(file)).c_str(), path, sizeof path);
    return length > 0 && std::string(path, static_cast<std::size_t>(length)).ends_with("/dev/video0");
}

int fail(int error) {
    errno = error;
    return -1;
}

void describe(v4l2_buffer& buffer) {
    buffer.bytesused = kBytes;
    buffer.flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
    buffer.field = V4L2_FIELD_NONE;
    buffer.memory = V4L2_MEMORY_MMAP;
    buffer.m.offset = buffer.index * (1U << 20);
    buffer.length = kBytes;
}

int dequeue(int file, v4l2_buffer& buffer) {
    std::unique_lock lock(mutex);
    const auto due = started + std::chrono::microseconds(1'000'000LL * (sequence + 1) / 30);
    if (streaming && !queued.empty()) {
        lock.unlock();
        std::this_thread::sleep_until(due);  // a camera has its own pace
        lock.lock();
    }
    if (!streaming || queued.empty()) return fail(streaming ? EAGAIN : EINVAL);
    buffer.index = queued.front();
    queued.pop_front();
    describe(buffer);
    std::string picture(kBytes, '\x80');
    for (std::size_t row = 0; row < kHeight; ++row)
        picture.replace(row * kWidth + sequence * 16 % kWidth, 16, 16, '\xEB');
    if (::pwrite(file, picture.data(), kBytes, buffer.m.offset) != kBytes) return fail(EIO);
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(due.time_since_epoch()).count();
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
            std::string("Emulated Camera").copy(reinterpret_cast<char*>(capability.card), sizeof capability.card);
            capability.device_caps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
            capability.capabilities = capability.device_caps | V4L2_CAP_DEVICE_CAPS;
            return 0;
        }
        case VIDIOC_ENUM_FMT: {
            auto& format = *static_cast<v4l2_fmtdesc*>(argument);
            format.pixelformat = V4L2_PIX_FMT_NV12;
            return format.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || format.index > 0 ? fail(EINVAL) : 0;
        }
        case VIDIOC_ENUM_FRAMESIZES: {
            auto& size = *static_cast<v4l2_frmsizeenum*>(argument);
            size.type = V4L2_FRMSIZE_TYPE_DISCRETE;
            size.discrete = {kWidth, kHeight};
            return size.index > 0 ? fail(EINVAL) : 0;
        }
        case VIDIOC_ENUM_FRAMEINTERVALS: {
            auto& interval = *static_cast<v4l2_frmivalenum*>(argument);
            interval.type = V4L2_FRMIVAL_TYPE_DISCRETE;
            interval.discrete = {1, 30};
            return interval.index > 0 ? fail(EINVAL) : 0;
        }
        case VIDIOC_G_FMT:
        case VIDIOC_TRY_FMT:
        case VIDIOC_S_FMT: {
            auto& format = *static_cast<v4l2_format*>(argument);
            if (format.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return fail(EINVAL);
            format.fmt.pix = {};
            format.fmt.pix.width = format.fmt.pix.bytesperline = kWidth;
            format.fmt.pix.height = kHeight;
            format.fmt.pix.pixelformat = V4L2_PIX_FMT_NV12;
            format.fmt.pix.field = V4L2_FIELD_NONE;
            format.fmt.pix.sizeimage = kBytes;
            format.fmt.pix.colorspace = V4L2_COLORSPACE_SRGB;
            return 0;
        }
        case VIDIOC_QUERYCTRL:
        case VIDIOC_S_CTRL: {
            const auto& control = *static_cast<const v4l2_control*>(argument);  // both begin with the ID
            const bool automatic = control.id == V4L2_CID_FOCUS_AUTO;
            if (!automatic && control.id != V4L2_CID_AUTO_FOCUS_START) return fail(EINVAL);
            if (request == VIDIOC_QUERYCTRL) return 0;
            std::ofstream(std::string(std::getenv("SELVIO_EMULATED_CAMERA")) + "/controls", std::ios::app)
                << (automatic ? "FOCUS_AUTO=" : "AUTO_FOCUS_START=") << control.value << '\n';
            return 0;
        }
        case VIDIOC_REQBUFS: {
            auto& buffers = *static_cast<v4l2_requestbuffers*>(argument);
            if (buffers.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || buffers.memory != V4L2_MEMORY_MMAP) return fail(EINVAL);
            buffers.count = bufferCount = std::min(buffers.count, 8U);
            queued.clear();
            return ::ftruncate(file, off_t{bufferCount} << 20);
        }
        case VIDIOC_QUERYBUF:
        case VIDIOC_QBUF: {
            auto& buffer = *static_cast<v4l2_buffer*>(argument);
            if (buffer.index >= bufferCount) return fail(EINVAL);
            describe(buffer);
            if (request == VIDIOC_QBUF) queued.push_back(buffer.index);
            return 0;
        }
        case VIDIOC_STREAMON:
        case VIDIOC_STREAMOFF:
            streaming = request == VIDIOC_STREAMON;
            started = Clock::now();
            sequence = 0;
            if (!streaming) queued.clear();
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
