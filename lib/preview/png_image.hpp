#pragma once
// PNG encoding and decoding of preview images (libpng), in memory.

#include "preview/preview_render.hpp"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace preview
{

// The image as an 8-bit PNG with no time or text chunks, so the bytes depend only on the pixels
// (and the zlib in use): indexed when it has at most 256 colours (palette in order of first
// appearance), RGB otherwise. False with `error` set when libpng fails.
[[nodiscard]] bool encodePng(const Image& image, std::vector<uint8_t>& png, std::string& error);

// Reads an 8-bit RGB PNG (other colour types and depths are converted to it). False with `error`
// set when the bytes are not a PNG libpng can read, or the image is larger than 16384 × 16384.
[[nodiscard]] bool decodePng(std::span<const uint8_t> png, Image& image, std::string& error);

} // namespace preview
