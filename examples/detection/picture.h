// A picture of boxes, and its PPM file.
#ifndef OPKIT_EXAMPLES_DETECTION_PICTURE_H
#define OPKIT_EXAMPLES_DETECTION_PICTURE_H

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

using Colour = std::array<uint8_t, 3>;

// Boxes are x1, y1, x2, y2 in image pixels, each drawn `scale` picture pixels wide. What leaves the image is cut.
class Picture {
public:
    Picture(int width, int height, int scale)
        : width_(width * scale), height_(height * scale), scale_(scale), pixels_(size_t(width_) * size_t(height_))
    {
        std::fill(pixels_.begin(), pixels_.end(), Colour{30, 30, 30});
    }

    void Fill(const float* box, Colour colour) { Paint(At(box[0]), At(box[1]), At(box[2]), At(box[3]), colour); }

    void Frame(const float* box, int thickness, Colour colour)
    {
        const int x1 = At(box[0]), y1 = At(box[1]), x2 = At(box[2]), y2 = At(box[3]);
        Paint(x1, y1, x2, y1 + thickness - 1, colour);
        Paint(x1, y2 - thickness + 1, x2, y2, colour);
        Paint(x1, y1, x1 + thickness - 1, y2, colour);
        Paint(x2 - thickness + 1, y1, x2, y2, colour);
    }

    std::string Ppm() const
    {
        std::string text = "P6\n" + std::to_string(width_) + " " + std::to_string(height_) + "\n255\n";
        for (const Colour& pixel : pixels_) {
            text.append(pixel.begin(), pixel.end());
        }
        return text;
    }

private:
    int At(float coordinate) const { return static_cast<int>(std::lround(coordinate * static_cast<float>(scale_))); }

    void Paint(int x1, int y1, int x2, int y2, Colour colour)
    {
        for (int y = std::max(y1, 0); y <= std::min(y2, height_ - 1); ++y) {
            for (int x = std::max(x1, 0); x <= std::min(x2, width_ - 1); ++x) {
                pixels_[size_t(y) * size_t(width_) + size_t(x)] = colour;
            }
        }
    }

    int width_, height_, scale_;
    std::vector<Colour> pixels_;
};

#endif  // OPKIT_EXAMPLES_DETECTION_PICTURE_H
