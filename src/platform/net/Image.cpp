#include "platform/Image.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <string_view>

// Network bytes reach this decoder, so only the three formats the SDK shows
// are compiled in, privately to this file: the system's libstb would bring
// every decoder it has (PSD, HDR, PIC, PNM, TGA...).
#define STBI_ONLY_PNG
#define STBI_ONLY_JPEG
#define STBI_ONLY_GIF
#define STBI_NO_STDIO
#define STBI_NO_LINEAR
#define STBI_NO_HDR
#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#include <stb_image.h>

namespace quorvia::platform {
namespace {

// Larger images are refused before any pixel is decoded: a few bytes of
// header may announce gigabytes of pixels.
constexpr long long kMaxImagePixels = 16LL * 1024 * 1024;

bool startsWith(const Bytes& data, std::string_view magic) {
  return data.size() >= magic.size() && std::memcmp(data.data(), magic.data(), magic.size()) == 0;
}

bool isAcceptedFormat(const Bytes& data) {
  using namespace std::string_view_literals;
  return startsWith(data, "\x89PNG\r\n\x1a\n"sv) || startsWith(data, "\xFF\xD8\xFF"sv) ||
         startsWith(data, "GIF87a"sv) || startsWith(data, "GIF89a"sv);
}

}  // namespace

std::shared_ptr<Image> imageWithData(const Bytes& data) {
  if (data.empty() || data.size() > static_cast<std::size_t>(INT_MAX)) return nullptr;
  if (!isAcceptedFormat(data)) return nullptr;
  const int length = static_cast<int>(data.size());
  int width = 0;
  int height = 0;
  int channels = 0;
  if (!stbi_info_from_memory(data.data(), length, &width, &height, &channels)) return nullptr;
  if (width <= 0 || height <= 0 || static_cast<long long>(width) * height > kMaxImagePixels) {
    return nullptr;
  }
  stbi_uc* pixels = stbi_load_from_memory(data.data(), length, &width, &height, &channels, 4);
  if (!pixels) return nullptr;
  auto image = std::make_shared<Image>();
  image->width = width;
  image->height = height;
  const std::size_t size = static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4;
  image->rgba.assign(pixels, pixels + size);
  stbi_image_free(pixels);
  return image;
}

}  // namespace quorvia::platform
