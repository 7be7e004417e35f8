#pragma once
/// \file
/// Decoded images (UIImage imageWithData:).

#include <memory>

#include "quorvia/export.h"
#include "quorvia/platform/Value.h"

namespace quorvia::platform {

/// An image decoded to 8-bit RGBA pixels, rows top to bottom. Immutable once
/// made; shared by reference.
struct QUORVIA_EXPORT Image {
  int width = 0;
  int height = 0;
  Bytes rgba;  ///< width * height * 4 bytes
};

/// The image encoded in `data` (PNG, JPEG or GIF, recognised by their magic
/// bytes), or nullptr (nil) when the bytes do not decode or the image has
/// more than 16 megapixels (2^24). Thread-safe.
QUORVIA_EXPORT std::shared_ptr<Image> imageWithData(const Bytes& data);

}  // namespace quorvia::platform
