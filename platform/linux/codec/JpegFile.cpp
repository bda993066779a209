#include "platform/linux/codec/JpegFile.h"

#include "imaging/OrientedCopy.h"
#include "imaging/PixelConversion.h"
#include "platform/linux/codec/ExifSegment.h"
#include "platform/linux/codec/PictureLimits.h"

#include <jpeglib.h>

#include <jerror.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <csetjmp>
#include <cstring>
#include <new>

namespace selvio {
namespace {

constexpr int kExifMarker = JPEG_APP0 + 1;
constexpr int kMostScans = 200;  // a real progressive file has about ten; each costs a pass over the whole picture

/// Catches what libjpeg reports. libjpeg leaves a failed call by longjmp, so a call runs in `attempt`, whose function
/// must own nothing. What would make libjpeg fill in missing samples with grey counts as an error.
class ErrorTrap {
public:
    ErrorTrap() {
        jpeg_std_error(&manager_);
        manager_.error_exit = [](j_common_ptr codec) { of(codec).fail(codec); };
        manager_.emit_message = [](j_common_ptr codec, int level) {
            if (level < 0 && losesSamples(codec->err->msg_code)) of(codec).fail(codec);
        };
        manager_.output_message = [](j_common_ptr) {};
    }
    ErrorTrap(const ErrorTrap&) = delete;
    ErrorTrap& operator=(const ErrorTrap&) = delete;

    jpeg_error_mgr* manager() { return &manager_; }

    template <typename Calls>
    bool attempt(const Calls& calls) {
        if (setjmp(jump_) != 0) return false;
        calls();
        return true;
    }

    [[nodiscard]] int code() const { return manager_.msg_code; }
    [[nodiscard]] std::string reason() const {
        const bool endedEarly = code() == JWRN_JPEG_EOF || code() == JWRN_HIT_MARKER || code() == JERR_INPUT_EOF;
        return endedEarly ? "cut short" : std::string("not a sound JPEG: ") + text_.data();
    }

private:
    static ErrorTrap& of(j_common_ptr codec) { return *reinterpret_cast<ErrorTrap*>(codec->err); }

    static bool losesSamples(int code) {
        return code != JWRN_EXTRANEOUS_DATA && code != JWRN_ADOBE_XFORM && code != JWRN_JFIF_MAJOR &&
               code != JWRN_BOGUS_PROGRESSION && code != JWRN_NOT_SEQUENTIAL && code != JWRN_BOGUS_ICC;
    }

    [[noreturn]] void fail(j_common_ptr codec) {
        manager_.format_message(codec, text_.data());
        std::longjmp(jump_, 1);
    }

    jpeg_error_mgr manager_{};  // first: libjpeg hands back its address
    std::jmp_buf jump_{};
    std::array<char, JMSG_LENGTH_MAX> text_{};
};

struct Decompressor {
    explicit Decompressor(ErrorTrap& trap) { info.err = trap.manager(); }
    Decompressor(const Decompressor&) = delete;
    Decompressor& operator=(const Decompressor&) = delete;
    ~Decompressor() { jpeg_destroy_decompress(&info); }

    /// Inside an attempt. Afterwards a source is set and the header read by the caller.
    void create() {
        jpeg_create_decompress(&info);
        jpeg_save_markers(&info, kExifMarker, 0xFFFF);
        progress.progress_monitor = [](j_common_ptr codec) {
            auto* const decoder = reinterpret_cast<j_decompress_ptr>(codec);
            if (codec->is_decompressor && decoder->input_scan_number > kMostScans)
                ERREXIT(decoder, JERR_BAD_PROGRESSION);
        };
        info.progress = &progress;
    }

    jpeg_decompress_struct info{};
    jpeg_progress_mgr progress{};
};

/// Collects a file in chunks, so that the bytes are neither cleared first nor written one by one.
class Destination {
public:
    explicit Destination(Bytes& bytes) : bytes_(bytes) {
        manager_.init_destination = [](j_compress_ptr codec) { of(codec).rewind(); };
        manager_.empty_output_buffer = [](j_compress_ptr codec) -> boolean {
            of(codec).flush(codec, kChunk);
            return TRUE;
        };
        manager_.term_destination = [](j_compress_ptr codec) {
            of(codec).flush(codec, kChunk - of(codec).manager_.free_in_buffer);
        };
    }
    jpeg_destination_mgr* manager() { return &manager_; }

private:
    static constexpr std::size_t kChunk = 65536;
    static Destination& of(j_compress_ptr codec) { return *reinterpret_cast<Destination*>(codec->dest); }

    void rewind() {
        manager_.next_output_byte = chunk_.data();
        manager_.free_in_buffer = kChunk;
    }
    void flush(j_compress_ptr codec, std::size_t count) {
        if (!append(count)) ERREXIT1(codec, JERR_OUT_OF_MEMORY, 0);
        rewind();
    }
    bool append(std::size_t count) {
        try {
            bytes_.insert(bytes_.end(), chunk_.data(), chunk_.data() + count);
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }

    jpeg_destination_mgr manager_{};  // first: libjpeg hands back its address
    Bytes& bytes_;
    std::array<JOCTET, kChunk> chunk_;
};

struct Compressor {
    Compressor(ErrorTrap& trap, Bytes& bytes) : destination(bytes) { info.err = trap.manager(); }
    Compressor(const Compressor&) = delete;
    Compressor& operator=(const Compressor&) = delete;
    ~Compressor() { jpeg_destroy_compress(&info); }

    /// Inside an attempt. Sets everything but the sampling of raw data, which comes between `create` and `start`.
    void create(JDIMENSION width, JDIMENSION height, int components, J_COLOR_SPACE inputSpace, double quality) {
        jpeg_create_compress(&info);
        info.dest = destination.manager();
        info.image_width = width;
        info.image_height = height;
        info.input_components = components;
        info.in_color_space = inputSpace;
        jpeg_set_defaults(&info);
        const double percent = std::isnan(quality) ? 100.0 : std::clamp(quality * 100.0, 1.0, 100.0);
        jpeg_set_quality(&info, static_cast<int>(std::lround(percent)), TRUE);
    }
    void start(const JpegTarget& target) {
        if (target.jfif) {
            const auto density = [](int value) { return static_cast<UINT16>(std::clamp(value, 1, 65535)); };
            info.density_unit = static_cast<UINT8>(std::clamp(target.jfif->densityUnit, 0, 2));
            info.X_density = density(target.jfif->xDensity);
            info.Y_density = density(target.jfif->yDensity);
        }
        jpeg_start_compress(&info, TRUE);
        if (!target.exifSegment.empty()) {
            jpeg_write_marker(&info, kExifMarker, target.exifSegment.data(),
                              static_cast<unsigned>(target.exifSegment.size()));
        }
    }

    jpeg_compress_struct info{};
    Destination destination;
};

/// Room for a file of the usual quality; more grows as it comes.
bool reserveFor(Bytes& bytes, std::size_t pixels) {
    try {
        bytes.reserve(std::min<std::size_t>(pixels / 2 + 65536, std::size_t{4} << 20));
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

/// One strip of raw samples a component: as many rows as libjpeg takes or gives at once.
class RawStrip {
public:
    /// `components` points at `count` entries whose sizes in blocks are known.
    RawStrip(const jpeg_component_info* components, int count) {
        for (int i = 0; i < count; ++i) {
            const jpeg_component_info& component = components[i];
            const auto blocksAcross =
                static_cast<std::size_t>(component.width_in_blocks) + static_cast<std::size_t>(component.h_samp_factor);
            const std::size_t bytesPerRow = blocksAcross * DCTSIZE;
            auto& plane = planes_[static_cast<std::size_t>(i)];
            const auto rows = static_cast<std::size_t>(component.v_samp_factor) * DCTSIZE;
            plane.samples.resize(bytesPerRow * rows);
            for (std::size_t r = 0; r < rows; ++r) plane.rows[r] = plane.samples.data() + r * bytesPerRow;
            pointers_[static_cast<std::size_t>(i)] = plane.rows.data();
        }
    }
    JSAMPIMAGE image() { return pointers_.data(); }
    JSAMPROW row(std::size_t component, std::size_t r) { return planes_[component].rows[r]; }

private:
    struct Plane {
        std::vector<JSAMPLE> samples;
        std::array<JSAMPROW, std::size_t{DCTSIZE} * MAX_SAMP_FACTOR> rows{};
    };
    std::array<Plane, 3> planes_;
    std::array<JSAMPARRAY, 3> pointers_{};
};

/// n / divisor for n up to 9000, as a multiplication that the compiler turns into one vector instruction; `kFactor` is
/// 2^23 / divisor, rounded up.
template <std::uint32_t kFactor>
constexpr std::uint16_t quotient(std::uint16_t n) {
    return static_cast<std::uint16_t>(static_cast<std::uint16_t>((n * kFactor) >> 16) >> 7);
}

/// Video-range luma (16...235) to 0...255, rounded: v * 255 / 219 is v and v * 36 / 219 more.
constexpr JSAMPLE fullRangeLuma(std::uint8_t y) {
    const auto v = static_cast<std::uint16_t>(std::max<std::uint8_t>(y, 16) - 16);
    const auto n = static_cast<std::uint16_t>(v * 36 + 109);
    return static_cast<JSAMPLE>(std::min<std::uint16_t>(static_cast<std::uint16_t>(v + quotient<38305>(n)), 255));
}

/// Video-range chroma (16...240 about 128) to the full range about 128, rounded: v * 255 / 224 is v and v * 31 / 224
/// more.
constexpr JSAMPLE fullRangeChroma(std::uint8_t c) {
    const auto v = static_cast<std::uint16_t>(std::clamp<std::uint8_t>(c, 16, 240) - 16);
    const auto n = static_cast<std::uint16_t>(v * 31);
    return static_cast<JSAMPLE>(std::min<std::uint16_t>(static_cast<std::uint16_t>(v + 1 + quotient<37450>(n)), 255));
}

/// One row of video-range luma to full range, its last sample repeated up to `paddedWidth`.
void expandLuma(const std::uint8_t* in, std::size_t width, std::size_t paddedWidth, JSAMPROW out) {
    for (std::size_t x = 0; x < width; ++x) out[x] = fullRangeLuma(in[x]);
    std::memset(out + width, out[width - 1], paddedWidth - width);
}

void expandChroma(const std::uint8_t* in, std::size_t width, std::size_t paddedWidth, JSAMPROW cb, JSAMPROW cr) {
    for (std::size_t x = 0; x < width; ++x) {
        cb[x] = fullRangeChroma(in[2 * x]);
        cr[x] = fullRangeChroma(in[2 * x + 1]);
    }
    std::memset(cb + width, cb[width - 1], paddedWidth - width);
    std::memset(cr + width, cr[width - 1], paddedWidth - width);
}

std::optional<Bytes> encode420v(const PixelBuffer& picture, const JpegTarget& target) {
    const PlaneLayout& luma = picture.layout().planes[0];
    const PlaneLayout& chroma = picture.layout().planes[1];
    Bytes bytes;
    if (!reserveFor(bytes, static_cast<std::size_t>(picture.width()) * static_cast<std::size_t>(picture.height())))
        return std::nullopt;
    ErrorTrap trap;
    Compressor out(trap, bytes);
    const bool started = trap.attempt([&] {
        out.create(static_cast<JDIMENSION>(picture.width()), static_cast<JDIMENSION>(picture.height()), 3, JCS_YCbCr,
                   target.quality);
        out.info.raw_data_in = TRUE;  // 4:2:0 by default, as the buffer is
        out.start(target);
    });
    if (!started) return std::nullopt;
    RawStrip strip(out.info.comp_info, 3);
    const std::size_t lumaWidth = static_cast<std::size_t>(out.info.comp_info[0].width_in_blocks) * DCTSIZE;
    const std::size_t chromaWidth = static_cast<std::size_t>(out.info.comp_info[1].width_in_blocks) * DCTSIZE;
    constexpr int kRows = 2 * DCTSIZE;
    const bool done = trap.attempt([&] {
        for (int top = 0; top < picture.height(); top += kRows) {
            for (int r = 0; r < kRows; ++r) {  // below the picture its last row goes on
                const auto y = static_cast<std::size_t>(std::min(top + r, luma.height - 1));
                expandLuma(picture.data(0) + y * luma.bytesPerRow, static_cast<std::size_t>(luma.width), lumaWidth,
                           strip.row(0, static_cast<std::size_t>(r)));
            }
            for (int r = 0; r < DCTSIZE; ++r) {
                const auto y = static_cast<std::size_t>(std::min(top / 2 + r, chroma.height - 1));
                const auto row = static_cast<std::size_t>(r);
                expandChroma(picture.data(1) + y * chroma.bytesPerRow, static_cast<std::size_t>(chroma.width),
                             chromaWidth, strip.row(1, row), strip.row(2, row));
            }
            jpeg_write_raw_data(&out.info, strip.image(), kRows);
        }
        jpeg_finish_compress(&out.info);
    });
    return done ? std::optional(std::move(bytes)) : std::nullopt;
}

std::optional<Bytes> encode32(const PixelBuffer& picture, const JpegTarget& target) {
    Bytes bytes;
    if (!reserveFor(bytes, static_cast<std::size_t>(picture.width()) * static_cast<std::size_t>(picture.height())))
        return std::nullopt;
    ErrorTrap trap;
    Compressor out(trap, bytes);
    const bool done = trap.attempt([&] {
        const J_COLOR_SPACE space = picture.format() == kPixelFormat32ARGB ? JCS_EXT_XRGB : JCS_EXT_BGRX;
        out.create(static_cast<JDIMENSION>(picture.width()), static_cast<JDIMENSION>(picture.height()), 4, space,
                   target.quality);
        out.start(target);
        std::array<JSAMPROW, 2 * DCTSIZE> rows{};
        while (out.info.next_scanline < out.info.image_height) {
            const JDIMENSION count = std::min<JDIMENSION>(rows.size(), out.info.image_height - out.info.next_scanline);
            for (JDIMENSION i = 0; i < count; ++i) {
                rows[i] = const_cast<JSAMPROW>(picture.data()) +
                          picture.bytesPerRow() * (out.info.next_scanline + i);  // read only
            }
            jpeg_write_scanlines(&out.info, rows.data(), count);
        }
        jpeg_finish_compress(&out.info);
    });
    return done ? std::optional(std::move(bytes)) : std::nullopt;
}

/// Whether the samples can go from file to file as they are: the same colours, and a sampling that one interleaved scan
/// can hold.
bool keepsItsSamples(const jpeg_decompress_struct& in) {
    const bool grey = in.jpeg_color_space == JCS_GRAYSCALE && in.num_components == 1;
    const bool colour = in.jpeg_color_space == JCS_YCbCr && in.num_components == 3;
    int blocks = 0;
    for (int i = 0; i < in.num_components; ++i) blocks += in.comp_info[i].h_samp_factor * in.comp_info[i].v_samp_factor;
    return grey || (colour && blocks <= C_MAX_BLOCKS_IN_MCU);
}

/// CMYK (inverted, as all who write an Adobe marker have it) to BGRA, in place.
void bgraFromCmyk(std::uint8_t* pixels, std::size_t count, bool inverted) {
    for (std::size_t i = 0; i < count; ++i) {
        std::uint8_t* const p = pixels + 4 * i;
        const auto light = [&](std::uint8_t ink) { return inverted ? ink : 255 - ink; };
        const auto mixed = [&](std::uint8_t ink) {
            return static_cast<std::uint8_t>((light(ink) * light(p[3]) + 127) / 255);
        };
        const std::array<std::uint8_t, 4> bgra{mixed(p[2]), mixed(p[1]), mixed(p[0]), 255};
        std::memcpy(p, bgra.data(), 4);
    }
}

/// Starts a decoder that gives 32-bit pixels. Inside an attempt.
void startReadingPixels(jpeg_decompress_struct& in) {
    const bool cmyk = in.jpeg_color_space == JCS_CMYK || in.jpeg_color_space == JCS_YCCK;
    in.out_color_space = cmyk ? JCS_CMYK : JCS_EXT_BGRA;
    jpeg_start_decompress(&in);
}

/// Reads `count` rows from the decoder's next one on, as BGRA. Inside an attempt.
void readPixelRows(jpeg_decompress_struct& in, std::uint8_t* pixels, std::size_t bytesPerRow, JDIMENSION count) {
    for (JDIMENSION done = 0; done < count;) {
        std::array<JSAMPROW, 2 * DCTSIZE> rows{};
        const JDIMENSION wanted = std::min<JDIMENSION>(rows.size(), count - done);
        for (JDIMENSION i = 0; i < wanted; ++i) rows[i] = pixels + bytesPerRow * (done + i);
        const JDIMENSION got = jpeg_read_scanlines(&in, rows.data(), wanted);
        if (in.out_color_space == JCS_CMYK) {
            for (JDIMENSION i = 0; i < got; ++i) bgraFromCmyk(rows[i], in.output_width, in.saw_Adobe_marker);
        }
        done += got;
    }
}

/// Inside an attempt, the header being read; `out` is created here.
void reencodeSamples(Decompressor& in, Compressor& out, const JpegTarget& target, RawStrip& strip) {
    in.info.raw_data_out = TRUE;
    jpeg_start_decompress(&in.info);
    out.create(in.info.image_width, in.info.image_height, in.info.num_components, in.info.jpeg_color_space,
               target.quality);
    for (int i = 0; i < in.info.num_components; ++i) {
        out.info.comp_info[i].h_samp_factor = in.info.comp_info[i].h_samp_factor;
        out.info.comp_info[i].v_samp_factor = in.info.comp_info[i].v_samp_factor;
    }
    out.info.raw_data_in = TRUE;
    out.start(target);
    const auto rows = static_cast<JDIMENSION>(in.info.max_v_samp_factor * DCTSIZE);
    while (in.info.output_scanline < in.info.output_height) {
        jpeg_read_raw_data(&in.info, strip.image(), rows);
        jpeg_write_raw_data(&out.info, strip.image(), rows);
    }
}

/// Inside an attempt, the header being read; `out` is created here. `pixels` holds one row.
void reencodePixels(Decompressor& in, Compressor& out, const JpegTarget& target, Bytes& pixels) {
    startReadingPixels(in.info);
    out.create(in.info.image_width, in.info.image_height, 4, JCS_EXT_BGRX, target.quality);
    out.start(target);
    JSAMPROW row = pixels.data();
    while (in.info.output_scanline < in.info.output_height) {
        readPixelRows(in.info, row, pixels.size(), 1);
        jpeg_write_scanlines(&out.info, &row, 1);
    }
}

std::optional<ExifProperties> exifOf(const jpeg_decompress_struct& info) {
    for (jpeg_saved_marker_ptr marker = info.marker_list; marker != nullptr; marker = marker->next) {
        if (marker->marker != kExifMarker) continue;
        if (auto exif = readExifSegment({marker->data, marker->data_length})) return exif;
    }
    return std::nullopt;
}

/// The least bytes that the file's blocks can take: a bit for each block's first coefficient, and in a sequential file
/// one more for its end.
std::uint64_t leastBytesOf(const jpeg_decompress_struct& info) {
    std::uint64_t blocks = 0;
    for (int i = 0; i < info.num_components; ++i) {
        blocks += static_cast<std::uint64_t>(info.comp_info[i].width_in_blocks) * info.comp_info[i].height_in_blocks;
    }
    return blocks * (info.progressive_mode ? 1 : 2) / 8;
}

/// Why the file's picture is not taken on, the header being read; nothing if it is.
std::optional<std::string> problemWith(const jpeg_decompress_struct& info, std::size_t fileBytes) {
    if (auto problem = sizeProblem(info.image_width, info.image_height)) return problem;
    if (info.arith_code) return "arithmetic-coded JPEG is not supported";  // it cannot tell a missing end
    return lengthProblem(fileBytes, leastBytesOf(info), info.image_width, info.image_height);
}

/// Reads as far as the picture. `setSource` tells libjpeg where the file is.
template <typename SetSource>
bool readHeader(ErrorTrap& trap, Decompressor& in, const SetSource& setSource) {
    return trap.attempt([&] {
        in.create();
        setSource();
        jpeg_read_header(&in.info, TRUE);
    });
}

}  // namespace

std::optional<JpegHeader> readJpegHeader(std::span<const std::uint8_t> file) {
    ErrorTrap trap;
    Decompressor in(trap);
    if (!readHeader(trap, in, [&] { jpeg_mem_src(&in.info, file.data(), file.size()); })) return std::nullopt;
    JpegHeader header;
    if (in.info.saw_JFIF_marker)
        header.jfif = JfifProperties{in.info.X_density, in.info.Y_density, in.info.density_unit};
    header.exif = exifOf(in.info);
    return header;
}

std::optional<Bytes> encodeJpegPixels(const PixelBuffer& picture, const JpegTarget& target) {
    if (!isReadable(&picture)) return std::nullopt;
    return picture.format() == kPixelFormat420v ? encode420v(picture, target) : encode32(picture, target);
}

std::optional<Bytes> reencodeJpeg(std::span<const std::uint8_t> file, const JpegTarget& target) {
    ErrorTrap trap;
    Decompressor in(trap);
    const bool read = readHeader(trap, in, [&] { jpeg_mem_src(&in.info, file.data(), file.size()); });
    if (!read || problemWith(in.info, file.size())) return std::nullopt;
    Bytes bytes;
    if (!reserveFor(bytes, static_cast<std::size_t>(in.info.image_width) * in.info.image_height)) return std::nullopt;
    const bool raw = keepsItsSamples(in.info);
    RawStrip strip(in.info.comp_info, raw ? in.info.num_components : 0);
    Bytes pixels(raw ? 0 : std::size_t{4} * in.info.image_width);
    Compressor out(trap, bytes);
    const bool done = trap.attempt([&] {
        if (raw) {
            reencodeSamples(in, out, target, strip);
        } else {
            reencodePixels(in, out, target, pixels);
        }
        jpeg_finish_decompress(&in.info);
        jpeg_finish_compress(&out.info);
    });
    return done ? std::optional(std::move(bytes)) : std::nullopt;
}

Expected<std::shared_ptr<PixelBuffer>> readJpegFile(std::FILE* file, std::size_t fileBytes) {
    ErrorTrap trap;
    Decompressor in(trap);
    const bool read = readHeader(trap, in, [&] { jpeg_stdio_src(&in.info, file); });
    if (!read && trap.code() == JERR_IMAGE_TOO_BIG)
        return Error{sizeProblem(in.info.image_width, in.info.image_height).value_or(trap.reason())};
    if (!read) return Error{trap.reason()};
    if (auto problem = problemWith(in.info, fileBytes)) return Error{std::move(*problem)};

    const int width = static_cast<int>(in.info.image_width);
    const int height = static_cast<int>(in.info.image_height);
    const Turn turn = Turn::fromExif(exifOf(in.info).value_or(ExifProperties{}).orientation.value_or(1));
    auto result =
        PixelBuffer::create(turn.turnedWidth(width, height), turn.turnedHeight(width, height), kPixelFormat32BGRA);
    if (!result)
        return Error{"not enough memory for " + std::to_string(width) + " x " + std::to_string(height) + " pixels"};
    const auto target = TurnedPlane::make(turn, width, height, 4, result->data(), result->bytesPerRow());
    constexpr int kBand = 2 * DCTSIZE;  // rows decoded at once, then put in their places
    const std::size_t bandRow = static_cast<std::size_t>(width) * 4;
    Bytes band(bandRow * kBand);
    const bool done = trap.attempt([&] {
        startReadingPixels(in.info);
        for (int top = 0; top < height; top += kBand) {
            const int rows = std::min(kBand, height - top);
            readPixelRows(in.info, band.data(), bandRow, static_cast<JDIMENSION>(rows));
            copyTurned<4>(band.data(), bandRow, width, top, rows, target);
        }
        jpeg_finish_decompress(&in.info);
    });
    if (!done) return Error{trap.reason()};
    return result;
}

}  // namespace selvio
