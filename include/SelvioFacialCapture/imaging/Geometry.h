// Points, sizes and rectangles of double-precision values; the eight ways a picture may be turned.
#pragma once

namespace selvio {

struct Point {
    double x = 0.0;
    double y = 0.0;
    friend bool operator==(const Point&, const Point&) = default;
};

struct Size {
    double width = 0.0;
    double height = 0.0;
    friend bool operator==(const Size&, const Size&) = default;
};

struct Rect {
    double x = 0.0;
    double y = 0.0;
    double width = 0.0;
    double height = 0.0;
    friend bool operator==(const Rect&, const Rect&) = default;
};

/// How a stored picture is turned to be upright, numbered as EXIF orientations (1...8). Column c, row r of a picture w
/// wide and h high moves to:
///   1 (c, r)   2 (w-1-c, r)   3 (w-1-c, h-1-r)   4 (c, h-1-r)
///   5 (r, c)   6 (h-1-r, c)   7 (h-1-r, w-1-c)   8 (r, w-1-c)
/// So 6 turns clockwise, 8 counter-clockwise, 3 by half a turn, and 4 turns the picture upside down as in a mirror on
/// the floor.
struct Turn {
    bool swapsAxes = false;
    bool reversesX = false;  ///< in the turned picture
    bool reversesY = false;  ///< in the turned picture

    /// Any value outside 1...8 is 1.
    static constexpr Turn fromExif(int orientation) {
        const bool known = orientation >= 1 && orientation <= 8;
        const int o = known ? orientation : 1;
        return {o >= 5, o == 2 || o == 3 || o == 6 || o == 7, o == 3 || o == 4 || o == 7 || o == 8};
    }
    [[nodiscard]] constexpr int turnedWidth(int width, int height) const { return swapsAxes ? height : width; }
    [[nodiscard]] constexpr int turnedHeight(int width, int height) const { return swapsAxes ? width : height; }
    friend bool operator==(const Turn&, const Turn&) = default;
};

}  // namespace selvio
