#pragma once
/// \file
/// The software renderer: draws a window's view tree with Cairo and Pango,
/// as it is presented at this moment of its animations. Main thread.

#include <cstdint>
#include <filesystem>
#include <vector>

#include "quorvia/export.h"
#include "quorvia/platform/HostWindow.h"
#include "platform/Window.h"

namespace quorvia::platform {

/// Pixels in RGBA order, not premultiplied, row by row from the top.
struct RenderedImage {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> rgba;

  struct Pixel {
    std::uint8_t r, g, b, a;
  };
  /// The pixel at (x, y) in pixels; x and y must be inside the image.
  Pixel pixel(int x, int y) const {
    const auto* p = &rgba[(static_cast<std::size_t>(y) * width + x) * 4];
    return Pixel{p[0], p[1], p[2], p[3]};
  }
};

class QUORVIA_EXPORT Renderer final {
 public:
  /// Lays out pending views, then draws `window` at its scale: backgrounds,
  /// alpha, masks, labels (colour emoji included) and blurred backdrops.
  static RenderedImage render(Window& window);
  /// Renders and writes a PNG; false when the file cannot be written.
  static bool writePNG(Window& window, const std::filesystem::path& path);
  /// Draws `window` into a host's buffer (HostWindow.h gives its format),
  /// only inside `damage` (pixels): those pixels are cleared and redrawn,
  /// every other one is left as it is. The buffer must be valid.
  static void paint(Window& window, const PixelBuffer& buffer, const std::vector<PixelRect>& damage);
};

}  // namespace quorvia::platform
