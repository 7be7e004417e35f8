#include "platform/Image.h"

#include <stb_image.h>

#include <climits>
#include <cstring>

namespace quorvia::platform {

std::shared_ptr<Image> imageWithData(const Bytes& data) {
  if (data.empty() || data.size() > static_cast<std::size_t>(INT_MAX)) return nullptr;
  int width = 0;
  int height = 0;
  int channels = 0;
  stbi_uc* pixels = stbi_load_from_memory(data.data(), static_cast<int>(data.size()), &width,
                                          &height, &channels, 4);
  if (!pixels) return nullptr;
  auto image = std::make_shared<Image>();
  image->width = width;
  image->height = height;
  const std::size_t size = static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4;
  image->rgba.resize(size);
  std::memcpy(image->rgba.data(), pixels, size);
  stbi_image_free(pixels);
  return image;
}

}  // namespace quorvia::platform
