// The identifiers of the filter table, one name for each row that has one.
// 21, 22 and 23 are free; a number outside 1..70 runs no filter but still
// goes through the frame's writing back, so any value may be cast to this type.
#pragma once
#include <cstdint>

namespace kestrelyn {

enum class FilterId : std::int32_t {
    Sharpen = 1,
    Negative = 2,
    Blur = 3,
    Diffuse = 4,
    Smooth = 5,
    EdgeEnhance = 6,
    Contour = 7,
    Emboss = 8,
    EmbossMore = 9,
    Engrave = 10,
    EngraveMore = 11,
    Grayscale = 12,
    Relief = 13,
    Brightness = 14,
    Pixelize = 15,
    SwapChannels = 16,
    Contrast = 17,
    Threshold = 18,
    OrderedDither = 19,
    ErrorDiffusion = 20,
    Aqua = 24,
    Dilate = 25,
    Erode = 26,
    ConnectedContour = 27,
    StretchContrast = 28,
    AddNoise = 29,
    Saturation = 30,
    Gamma = 31,
    ScanLine = 32,
    Soften = 33,
    Colorize = 34,
    Transparency = 35,
    IsGrayscale = 36,
    HorizontalWaves = 37,
    VerticalWaves = 38,
    AdjustRGB = 39,
    RedEye = 40,
    KeepRed = 41,
    KeepGreen = 42,
    KeepBlue = 43,
    RemoveRed = 44,
    RemoveGreen = 45,
    RemoveBlue = 46,
    ScaleRed = 47,
    ScaleGreen = 48,
    ScaleBlue = 49,
    ColorKey = 50,
    ColorReplace = 51,
    PatternReplace = 52, // 3x3 pattern replacement (MatrixIn -> MatrixOut)
    IsBlank = 53,
    Fire = 54,
    Twirl = 55,
    MirrorRounded = 56,
    Swirl = 57,
    Equalize = 58,
    IsBitonal = 59,
    CountColor = 60,
    Despeckle = 61, // 3x3 median
    BitonalDilate = 62,
    DespeckleMore = 63, // 5x5 median
    Speck1 = 64,        // one-pixel speck, 4-neighbour rule
    BitonalErode = 65,
    FillHoles = 66,
    MarkTransparent = 67, // the animated GIF writer's transparent marks
    AverageColor = 68,
    RemoveLines = 69,
    Speck2x2 = 70,
};

// The number of the table row.
constexpr std::int32_t FilterNumber(FilterId nFilter) {
    return static_cast<std::int32_t>(nFilter);
}

} // namespace kestrelyn
