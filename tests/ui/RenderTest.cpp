// What the renderer draws of the banner over a host screen, and how labels
// lay out their text.

#include "platform/Renderer.h"
#include "platform/ui/TextLayout.h"
#include "support/PlatformTest.h"
#include "ui/BannerScene.h"

namespace quorvia {
namespace {

using platform::RenderedImage;

// The pixel at a point of the window (scale 2).
RenderedImage::Pixel at(const RenderedImage& image, double x, double y) {
  return image.pixel(static_cast<int>(x * 2), static_cast<int>(y * 2));
}
int luminance(RenderedImage::Pixel p) { return (p.r * 3 + p.g * 6 + p.b) / 10; }
bool isWhite(RenderedImage::Pixel p) { return p.r > 250 && p.g > 250 && p.b > 250 && p.a == 255; }

class RenderTest : public testing::PlatformTest {};

// Outside the card's rounded corners the host shows through, just inside them
// the card is white; expanded, the backdrop dims the host but not the options.
TEST_F(RenderTest, CardHasRoundedCornersOverTheHostAndTheBackdropDimsIt) {
  auto view = testing::makeBannerScene(*loop_, false);
  ASSERT_TRUE(view);
  auto window = platform::keyWindow();
  const RenderedImage image = platform::Renderer::render(*window);
  ASSERT_EQ(image.width, 750);
  ASSERT_EQ(image.height, 1334);
  auto question = testing::cellAt<QVNotificationTextCell>(*view, 0, 1);
  ASSERT_TRUE(question);
  const double left = 10, right = 365, top = 20 + 8;
  const double bottom = 20 + question->frame().maxY();
  for (auto [x, y] : {std::pair{left + 0.5, top + 0.5},
                      {right - 0.5, top + 0.5},
                      {left + 0.5, bottom - 0.5},
                      {right - 0.5, bottom - 0.5}}) {
    SCOPED_TRACE(::testing::Message() << x << "," << y);
    EXPECT_FALSE(isWhite(at(image, x, y)));
  }
  EXPECT_TRUE(isWhite(at(image, left + 10, top + 10)));
  EXPECT_TRUE(isWhite(at(image, right - 10, bottom - 10)));
  EXPECT_TRUE(isWhite(at(image, 187, top + 45)));  // between header and question: one card
  const auto host = at(image, 187, 655);           // far below the banner: the host, as it is
  EXPECT_NEAR(host.r, 238, 2);

  sdk::SDKState::shared().banner->notificationViewDidPressExpand(view);
  advance(0.2);
  window->layoutIfNeeded();
  drain();
  const RenderedImage expanded = platform::Renderer::render(*window);
  const auto dimmed = at(expanded, 187, 655);
  EXPECT_LT(luminance(dimmed), luminance(host) * 6 / 10);
  EXPECT_GT(luminance(dimmed), 20);  // dimmed, not black
  auto option = testing::cellAt<QVNotificationActionCell>(*view, 1, 0);
  ASSERT_TRUE(option);
  EXPECT_TRUE(isWhite(at(expanded, 30, 20 + option->frame().y() + option->frame().height() / 2)));
}

// A question of one long word once took Pango time quadratic in its length
// (26 s for 100,000 letters). At most 2000 characters are laid out, and a
// long unbroken run gets a break between its characters.
TEST_F(RenderTest, LabelTextIsBoundedAndLongWordsWrapByCharacter) {
  const std::string zwsp = "\u200B";
  const auto broken = [&](const std::string& run) {
    std::string out;
    for (char c : run) out += (out.empty() ? "" : zwsp) + std::string(1, c);
    return out;
  };
  const std::string thirtyTwo(32, 'a');
  const std::string accented = "e\u0301";  // a letter and its combining accent
  std::string accentedRun, accentedBroken;
  for (int i = 0; i < 40; ++i) {
    accentedRun += accented;
    accentedBroken += (i ? zwsp : "") + accented;
  }
  struct Case {
    const char* name;
    std::string text;
    std::string laidOut;
  };
  const Case cases[] = {
      {"words are left alone", "Do you like polls? Yes", "Do you like polls? Yes"},
      {"a run of 32 is a word", thirtyTwo + " b", thirtyTwo + " b"},
      {"a run of 33 breaks everywhere", thirtyTwo + "a b", broken(thirtyTwo + "a") + " b"},
      {"never inside a character", accentedRun, accentedBroken},
      {"cut at 2000 characters", std::string(1500, 'x').append(" ").append(600, 'y'),
       broken(std::string(1500, 'x'))
           .append(" ")
           .append(broken(std::string(499, 'y')))
           .append("\u2026")},
      {"bytes that are not UTF-8", "a\xff b", "a\uFFFD b"},
  };
  for (const auto& c : cases) EXPECT_EQ(platform::detail::layoutText(c.text), c.laidOut) << c.name;

  const auto height = [](std::size_t letters) {
    return platform::measureTextHeight(std::string(letters, 'w'), "DejaVu Sans 17", 300);
  };
  const double line = height(1);
  EXPECT_NEAR(height(100), 6 * line, line) << "wrapped by character into full lines";
  EXPECT_EQ(height(100000), height(2000)) << "only what can be shown is laid out";
}

}  // namespace
}  // namespace quorvia
