#include "preview/png_image.hpp"

#include <png.h>

#include <csetjmp>
#include <cstring>
#include <unordered_map>

namespace preview
{
namespace
{

constexpr uint32_t kMaxDimension = 16384;

// libpng reports errors through a callback that must not return; it long-jumps back to the
// setjmp in the caller after keeping the message.
struct ErrorState
{
  std::string message;
};

void onError(png_structp png, png_const_charp message)
{
  auto* state = static_cast<ErrorState*>(png_get_error_ptr(png));
  state->message = message != nullptr ? message : "libpng error";
  png_longjmp(png, 1);
}

void onWarning(png_structp, png_const_charp) {}

void appendBytes(png_structp png, png_bytep data, png_size_t length)
{
  auto* out = static_cast<std::vector<uint8_t>*>(png_get_io_ptr(png));
  out->insert(out->end(), data, data + length);
}

void flushNothing(png_structp) {}

struct Reader
{
  std::span<const uint8_t> bytes;
  size_t offset = 0;
};

void readBytes(png_structp png, png_bytep data, png_size_t length)
{
  auto* reader = static_cast<Reader*>(png_get_io_ptr(png));
  if (length > reader->bytes.size() - reader->offset)
    png_error(png, "the PNG data is truncated");
  std::memcpy(data, reader->bytes.data() + reader->offset, length);
  reader->offset += length;
}

} // namespace

bool encodePng(const Image& image, std::vector<uint8_t>& out, std::string& error)
{
  out.clear();
  if (image.width == 0 || image.height == 0 || image.rgb.size() != size_t(image.width) * image.height * 3)
  {
    error = "the image is empty";
    return false;
  }
  ErrorState state;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &state, onError, onWarning);
  png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
  if (png == nullptr || info == nullptr)
  {
    png_destroy_write_struct(&png, &info);
    error = "libpng cannot start";
    return false;
  }
  // Few colours (flat previews): a palette and one byte per pixel.
  std::vector<png_color> palette;
  std::vector<uint8_t> indexed;
  {
    std::unordered_map<uint32_t, uint8_t> seen;
    indexed.resize(size_t(image.width) * image.height);
    for (size_t i = 0; i < indexed.size() && palette.size() <= 256; ++i)
    {
      const uint8_t* p = &image.rgb[i * 3];
      const uint32_t key = (uint32_t(p[0]) << 16) | (uint32_t(p[1]) << 8) | p[2];
      const auto [entry, added] = seen.emplace(key, uint8_t(palette.size() & 0xFF));
      if (added)
        palette.push_back({p[0], p[1], p[2]});
      indexed[i] = entry->second;
    }
  }
  const bool usePalette = palette.size() <= 256;
  std::vector<png_bytep> rows(image.height);
  if (setjmp(png_jmpbuf(png)))
  {
    png_destroy_write_struct(&png, &info);
    out.clear();
    error = state.message;
    return false;
  }
  png_set_write_fn(png, &out, appendBytes, flushNothing);
  png_set_IHDR(png, info, image.width, image.height, 8, usePalette ? PNG_COLOR_TYPE_PALETTE : PNG_COLOR_TYPE_RGB,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_set_compression_level(png, 9);
  if (usePalette)
  {
    png_set_PLTE(png, info, palette.data(), int(palette.size()));
    for (uint32_t y = 0; y < image.height; ++y)
      rows[y] = indexed.data() + size_t(y) * image.width;
  }
  else
  {
    for (uint32_t y = 0; y < image.height; ++y)
      rows[y] = const_cast<png_bytep>(image.rgb.data() + size_t(y) * image.width * 3);
  }
  png_set_rows(png, info, rows.data());
  png_write_png(png, info, PNG_TRANSFORM_IDENTITY, nullptr);
  png_destroy_write_struct(&png, &info);
  return true;
}

bool decodePng(std::span<const uint8_t> bytes, Image& image, std::string& error)
{
  image = {};
  if (bytes.size() < 8 || png_sig_cmp(bytes.data(), 0, 8) != 0)
  {
    error = "not a PNG file";
    return false;
  }
  ErrorState state;
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &state, onError, onWarning);
  png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
  if (png == nullptr || info == nullptr)
  {
    png_destroy_read_struct(&png, &info, nullptr);
    error = "libpng cannot start";
    return false;
  }
  Reader reader{bytes, 0};
  std::vector<png_bytep> rows;
  if (setjmp(png_jmpbuf(png)))
  {
    png_destroy_read_struct(&png, &info, nullptr);
    image = {};
    error = state.message;
    return false;
  }
  png_set_read_fn(png, &reader, readBytes);
  png_set_user_limits(png, kMaxDimension, kMaxDimension);
  png_read_info(png, info);
  png_set_expand(png);
  png_set_strip_16(png);
  png_set_strip_alpha(png);
  png_set_gray_to_rgb(png);
  png_read_update_info(png, info);
  image.width = png_get_image_width(png, info);
  image.height = png_get_image_height(png, info);
  if (png_get_rowbytes(png, info) != size_t(image.width) * 3)
    png_error(png, "unexpected row size");
  image.rgb.resize(size_t(image.width) * image.height * 3);
  rows.resize(image.height);
  for (uint32_t y = 0; y < image.height; ++y)
    rows[y] = image.rgb.data() + size_t(y) * image.width * 3;
  png_read_image(png, rows.data());
  png_read_end(png, nullptr);
  png_destroy_read_struct(&png, &info, nullptr);
  return true;
}

} // namespace preview
