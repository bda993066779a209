#include "codec/PictureFiles.h"

#include <gtest/gtest.h>
#include <jpeglib.h>
#include <png.h>
#include <stdlib.h>

#include <algorithm>

namespace selvio::test {

Colour colourAt(const PixelBuffer& bgra, int x, int y) {
    const std::uint8_t* const p = sampleAt(bgra, x, y);
    return {p[0], p[1], p[2]};
}

namespace {

Colour quarterAt(int x, int y, int width, int height) {
    return y < height / 2 ? (x < width / 2 ? kRed : kGreen) : (x < width / 2 ? kBlue : kWhite);
}

std::uint8_t byteOf(int value) {
    return static_cast<std::uint8_t>(value);
}

}  // namespace

std::shared_ptr<PixelBuffer> quarters(int width, int height) {
    return painted(width, height, kPixelFormat32BGRA, [&](std::uint8_t* pixel, int x, int y, int) {
        const auto [b, g, r] = quarterAt(x, y, width, height);
        for (const int value : {b, g, r, 255}) *pixel++ = byteOf(value);
    });
}

std::array<Colour, 4> quartersTurned(int orientation) {
    const Colour r = kRed, g = kGreen, b = kBlue, w = kWhite;
    const std::array<Colour, 4> turned[] = {{r, g, b, w}, {g, r, w, b}, {w, b, g, r}, {b, w, r, g},
                                            {r, b, g, w}, {b, r, w, g}, {w, g, b, r}, {g, w, r, b}};
    return turned[orientation - 1];
}

void expectQuarters(const PixelBuffer& bgra, const std::array<Colour, 4>& expected) {
    EXPECT_EQ(bgra.format(), kPixelFormat32BGRA);
    for (int i = 0; i < 4; ++i) {
        const Colour got = colourAt(bgra, bgra.width() * (1 + i % 2 * 2) / 4, bgra.height() * (1 + i / 2 * 2) / 4);
        for (std::size_t k = 0; k < 3; ++k)
            EXPECT_NEAR(got[k], expected[static_cast<std::size_t>(i)][k], 3) << "quarter " << i << " channel " << k;
    }
}

Bytes jpegFile(JpegKind kind, int width, int height) {
    jpeg_error_mgr errors{};
    jpeg_compress_struct info{};
    info.err = jpeg_std_error(&errors);
    jpeg_create_compress(&info);
    unsigned char* data = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&info, &data, &size);
    info.image_width = static_cast<JDIMENSION>(width);
    info.image_height = static_cast<JDIMENSION>(height);
    info.input_components = 4;
    info.in_color_space = kind == JpegKind::Cmyk ? JCS_CMYK : JCS_EXT_BGRX;
    jpeg_set_defaults(&info);
    if (kind == JpegKind::Grey) jpeg_set_colorspace(&info, JCS_GRAYSCALE);
    if (kind == JpegKind::Cmyk) jpeg_set_colorspace(&info, JCS_YCCK);  // with the Adobe marker, inks inverted
    if (kind == JpegKind::Progressive) jpeg_simple_progression(&info);
    info.arith_code = kind == JpegKind::Arithmetic;
    jpeg_set_quality(&info, 95, TRUE);
    jpeg_start_compress(&info, TRUE);
    const auto picture = quarters(width, height);
    for (int y = 0; y < height; ++y) {
        JSAMPROW row = sampleAt(*picture, 0, y);
        if (kind == JpegKind::Cmyk) {
            for (int x = 0; x < width; ++x)
                std::swap(row[4 * x], row[4 * x + 2]);  // inverted C, M, Y are R, G, B; inverted K is full light
        }
        jpeg_write_scanlines(&info, &row, 1);
    }
    jpeg_finish_compress(&info);
    jpeg_destroy_compress(&info);
    Bytes file(data, data + size);
    free(data);
    return file;
}

Bytes claimingJpegSize(Bytes file, int width, int height) {
    const auto frame = std::adjacent_find(
        file.begin(), file.end(), [](std::uint8_t a, std::uint8_t b) { return a == 0xFF && (b == 0xC0 || b == 0xC2); });
    const std::array<std::uint8_t, 4> size{byteOf(height >> 8), byteOf(height & 255), byteOf(width >> 8),
                                           byteOf(width & 255)};
    std::copy(size.begin(), size.end(), frame + 5);
    return file;
}

Bytes pngFile(const PngKind& kind, int width, int height) {
    Bytes file;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_set_write_fn(
        png, &file,
        [](png_structp p, png_bytep bytes, png_size_t count) {
            auto& out = *static_cast<Bytes*>(png_get_io_ptr(p));
            out.insert(out.end(), bytes, bytes + count);
        },
        nullptr);
    png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), kind.bitDepth,
                 kind.colourType, kind.interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    const std::array<png_color, 4> palette{{{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 255}}};
    if (kind.colourType == PNG_COLOR_TYPE_PALETTE) png_set_PLTE(png, info, palette.data(), 4);
    std::array<png_byte, 26> exif{
        'M', 'M', 0, 42, 0, 0, 0, 8, 0, 1, 0x01, 0x12, 0, 3, 0, 0, 0, 1, 0, byteOf(kind.orientation), 0, 0, 0, 0, 0, 0};
    if (kind.orientation != 0) png_set_eXIf_1(png, info, static_cast<png_uint_32>(exif.size()), exif.data());
    png_write_info(png, info);
    const int passes = png_set_interlace_handling(png);
    for (int pass = 0; pass < passes; ++pass) {
        for (int y = 0; y < height; ++y) {
            Bytes row;
            for (int x = 0; x < width; ++x) {
                const Colour c = quarterAt(x, y, width, height);
                Bytes pixel{byteOf(c[2]), byteOf(c[1]), byteOf(c[0])};
                if ((kind.colourType & PNG_COLOR_MASK_COLOR) == 0) pixel = {c[1] == 255 ? byteOf(255) : byteOf(0)};
                if (kind.colourType == PNG_COLOR_TYPE_PALETTE)
                    pixel = {byteOf((y < height / 2 ? 0 : 2) + (x < width / 2 ? 0 : 1))};
                if ((kind.colourType & PNG_COLOR_MASK_ALPHA) != 0) pixel.push_back(y < height / 2 ? 255 : 128);
                for (const std::uint8_t sample : pixel) row.insert(row.end(), kind.bitDepth == 16 ? 2 : 1, sample);
            }
            png_write_row(png, row.data());
        }
    }
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return file;
}

Bytes claimingPngSize(Bytes file, std::uint32_t width, std::uint32_t height) {
    const auto put = [&](std::size_t at, std::uint32_t value) {
        for (std::size_t i = 0; i < 4; ++i) file[at + i] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
    };
    put(16, width);
    put(20, height);
    std::uint32_t crc = ~0u;
    for (std::size_t i = 12; i < 29; ++i) {
        crc ^= file[i];
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (crc & 1 ? 0xEDB88320u : 0u);
    }
    put(29, ~crc);
    return file;
}

}  // namespace selvio::test
