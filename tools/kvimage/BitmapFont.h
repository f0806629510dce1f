// A built-in 5x7 bitmap font for labels: capitals, digits and common
// punctuation (lower case draws as capitals; unknown characters as '?').
#ifndef KVIMAGE_TOOLS_BITMAPFONT_H
#define KVIMAGE_TOOLS_BITMAPFONT_H

#include <string>

#include "ImageFiles.h"

namespace kvimage_cli {

const int kGlyphWidth = 5;
const int kGlyphHeight = 7;
const int kGlyphAdvance = 6;  // one blank column between characters

// Draws text with its top-left corner at (x, y), each font pixel a scale x
// scale square of the colour (blue, green, red), clipped to the image.
void DrawText(Image& image, int x, int y, const std::string& text, int scale, const unsigned char bgr[3]);

// The width in pixels DrawText uses for text.
int TextWidth(const std::string& text, int scale);

}  // namespace kvimage_cli

#endif
