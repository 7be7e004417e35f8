// The SDK as a transparent layer in a host's own window: what it paints into
// the host's buffer, when it asks for a repaint, which pointer events it takes,
// and what the window's focus does.

#include <cmath>
#include <cstdint>
#include <limits>

#include "quorvia/platform/HostWindow.h"
#include "quorvia/platform/NotificationCenter.h"
#include "support/PlatformTest.h"
#include "ui/BannerScene.h"

namespace quorvia {
namespace {

using platform::HostWindow;
using platform::PixelRect;
using platform::Point;
using platform::PointerAnswer;
using platform::Rect;

constexpr PointerAnswer kTaken = PointerAnswer::kTaken;
constexpr PointerAnswer kPassed = PointerAnswer::kPassed;

class HostWindowTest : public testing::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    host_ = std::make_unique<HostWindow>(platform::Size{375, 667}, 2);
    pixels_.assign(std::size_t{750} * 1334 * 4, 0);
  }
  void TearDown() override {
    host_.reset();
    PlatformTest::TearDown();
  }
  std::vector<PixelRect> paint() { return host_->paint({pixels_.data(), 750, 1334, 750 * 4}); }
  // B, G, R, A of the pixel under a point.
  std::array<int, 4> at(double x, double y) const {
    const auto* p =
        &pixels_[(static_cast<std::size_t>(y * 2) * 750 + static_cast<std::size_t>(x * 2)) * 4];
    return {p[0], p[1], p[2], p[3]};
  }
  std::shared_ptr<QVNotificationView> present() {
    const auto poll = testing::pollDict("Coffee?", {{"Yes", ""}, {"No", ""}});
    return sdk::SDKState::shared().banner->presentPollWithPollDict(&poll);
  }
  // The centre of the question row, on screen once the slide is over.
  Point card(QVNotificationView& view) {
    return testing::centerInWindow(*testing::cellAt<QVNotificationTextCell>(view, 0, 1));
  }
  void hide(const std::shared_ptr<QVNotificationView>& view) {
    sdk::SDKState::shared().banner->hideNotificationView(view);
    advance(0.3);
  }

  std::unique_ptr<HostWindow> host_;
  std::vector<std::uint8_t> pixels_;
};

TEST_F(HostWindowTest, PaintsOnlyWhatChanged) {
  const PixelRect whole{0, 0, 750, 1334};
  const PixelRect spot{200, 400, 20, 20};  // a 10 x 10 point view at 100, 200
  struct Case {
    const char* name;
    std::function<void(platform::View& spot, HostWindow& host)> change;
    std::vector<PixelRect> damage;
  };
  const std::vector<Case> cases = {
      {"nothing changed", [](auto&, auto&) {}, {}},
      {"a colour",
       [](auto& v, auto&) { v.setBackgroundColor(platform::Color::blackColor()); },
       {spot}},
      {"a move: the new place and the old",
       [](auto& v, auto&) { v.setFrame(Rect::make(110, 200, 10, 10)); },
       {{220, 400, 20, 20}, spot}},
      {"a removal", [](auto& v, auto&) { v.removeFromSuperview(); }, {spot}},
      {"a fade", [](auto& v, auto&) { v.setAlpha(0.5); }, {spot}},
      {"a resize repaints all", [](auto&, HostWindow& h) { h.setSize(h.size(), 2); }, {whole}},
      {"invalidate repaints all", [](auto&, auto& h) { h.invalidate(); }, {whole}},
  };
  // First a view with a subview, as a hidden banner before the next: later views stay in place.
  auto earlier = platform::View::make(Rect::make(300, 600, 20, 20));
  earlier->addSubview(platform::View::make(Rect::make(5, 5, 5, 5)));
  host_->window()->addSubview(earlier);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto view = platform::View::make(Rect::make(100, 200, 10, 10));
    view->setBackgroundColor(platform::Color::whiteColor());
    host_->window()->addSubview(view);
    paint();
    EXPECT_TRUE(paint().empty());
    c.change(*view, *host_);
    drain();
    std::fill(pixels_.begin(), pixels_.end(), std::uint8_t{0x7f});
    EXPECT_EQ(paint(), c.damage);
    // Outside the damage not one byte was written.
    const bool all = !c.damage.empty() && c.damage[0] == whole;
    EXPECT_EQ(at(5, 5)[3], all ? 0 : 0x7f);
    view->removeFromSuperview();
    paint();
  }
}

// Premultiplied B, G, R, A; all four bytes 0 where the SDK draws nothing.
TEST_F(HostWindowTest, TransparentWhereTheSdkDrawsNothingAndTintedUnderTheBackdrop) {
  enum Backdrop { kNone, kBlur, kPlain };
  struct Case {
    const char* name;
    Backdrop backdrop;
    Point point;
    std::array<int, 4> bgra;
  };
  const Case cases[] = {
      {"the margin beside the card", kNone, {5, 100}, {0, 0, 0, 0}},
      {"a rounded corner", kNone, {10.5, 28.5}, {0, 0, 0, 0}},
      {"inside the card", kNone, {30, 40}, {255, 255, 255, 255}},
      {"below the card, inside the banner's frame", kNone, {187, 300}, {0, 0, 0, 0}},
      {"below the banner", kNone, {187, 600}, {0, 0, 0, 0}},
      {"the dark blur's tint, 0.07, 0.07, 0.08 at 0.62", kBlur, {187, 600}, {13, 11, 11, 158}},
      {"reduced transparency: black at 0.5", kPlain, {187, 600}, {0, 0, 0, 128}},
  };
  for (const Backdrop state : {kNone, kBlur, kPlain}) {
    env_->setReduceTransparency(state == kPlain);
    auto view = present();
    ASSERT_TRUE(view);
    advance(0.3);
    if (state != kNone) {
      sdk::SDKState::shared().banner->notificationViewDidPressExpand(view);
      advance(0.2);
    }
    host_->invalidate();  // every pixel anew: what gets repainted is another test's concern
    drain();
    paint();
    for (const auto& c : cases) {
      if (c.backdrop != state) continue;
      SCOPED_TRACE(c.name);
      const auto pixel = at(c.point.x, c.point.y);
      for (int i = 0; i < 4; ++i) EXPECT_NEAR(pixel[i], c.bgra[i], 1) << i;
    }
    hide(view);
  }
}

// Hit testing uses what is on screen now, the slide included; a press that
// began on the banner is the SDK's until it ends.
TEST_F(HostWindowTest, PointerAnswersComeFromWhatIsOnScreen) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Step {
    char kind;  // d(own) m(ove) u(p) c(ancel)
    Point point;
    PointerAnswer answer;
  };
  struct Setup {
    const char* name;
    double shown;  // seconds since the banner's slide began; no banner when negative
    bool onCard;   // step points are offsets from the question row's centre
    bool expands;
  };
  const Point host{187, 600};
  // Half way the banner is on screen from y -205 to 125; its model frame is 20...350.
  const std::vector<std::pair<Setup, std::vector<Step>>> cases = {
      {{"no banner: all is the host's", -1, false, false},
       {{'d', {187, 100}, kPassed}, {'u', {187, 100}, kPassed}, {'c', {}, kPassed}}},
      {{"the slide begins above the window", 0, false, false}, {{'m', {187, 100}, kPassed}}},
      {{"half way: what is on screen, not the model frame", 0.15, false, false},
       {{'m', {187, 100}, kTaken}, {'m', {187, 300}, kPassed}}},
      {{"arrived: the whole 330-point frame", 0.3, false, false},
       {{'m', {187, 300}, kTaken}, {'m', {187, 360}, kPassed}}},
      {{"a click on the host beside a banner", 0.3, false, false},
       {{'d', host, kPassed}, {'m', host, kPassed}, {'u', host, kPassed}}},
      {{"a tap on the card expands it", 0.3, true, true},
       {{'d', {}, kTaken}, {'m', {0, 500}, kTaken}, {'u', {}, kTaken}}},
      {{"a press on the card released on the host cancels", 0.3, true, false},
       {{'d', {}, kTaken}, {'u', {0, 500}, kTaken}}},
      {{"released off the label on the same row, still a tap", 0.3, true, true},
       {{'d', {}, kTaken}, {'u', {165, 0}, kTaken}}},
      {{"a cancelled press", 0.3, true, false},
       {{'d', {}, kTaken}, {'c', {}, kTaken}, {'c', {}, kPassed}}},
      {{"coordinates that are not numbers", 0.3, false, false},
       {{'d', {nan, 100}, kPassed}, {'m', {100, nan}, kPassed}, {'u', {nan, nan}, kPassed}}},
  };
  for (const auto& [is, steps] : cases) {
    SCOPED_TRACE(is.name);
    const auto view = is.shown < 0 ? nullptr : present();
    if (view) advance(is.shown);
    for (const auto& step : steps) {
      Point p = step.point;
      if (is.onCard) p = {card(*view).x + p.x, card(*view).y + p.y};
      const PointerAnswer answer = step.kind == 'd'   ? host_->pointerDown(p)
                                   : step.kind == 'm' ? host_->pointerMove(p)
                                   : step.kind == 'u' ? host_->pointerUp(p)
                                                      : host_->pointerCancel();
      EXPECT_EQ(answer, step.answer) << step.kind;
    }
    if (view) {
      EXPECT_EQ(view->showOptions(), is.expands);
      hide(view);
    }
  }
  EXPECT_TRUE(log_.contains("HostWindow: ignoring a pointer press at a point that is not finite"));
}

TEST_F(HostWindowTest, RepaintIsAskedForOnlyWhileSomethingChanges) {
  int asked = 0;
  host_->setRepaintCallback([&] {
    ++asked;
    paint();  // a host that paints at once
  });
  drain();
  EXPECT_EQ(asked, 1);  // the first picture
  auto view = present();
  ASSERT_TRUE(view);
  advance(0.35);
  // The slide at 60 frames per second; the first frames fall above the window.
  EXPECT_GE(asked, 12);
  EXPECT_LE(asked, 22);
  asked = 0;
  advance(10);
  EXPECT_EQ(asked, 0);  // a shown banner, idle: no repaint and no timer
  EXPECT_EQ(loop_->pendingTasks(), 0u);
  EXPECT_EQ(host_->pointerDown(card(*view)), kTaken);
  EXPECT_EQ(host_->pointerUp(card(*view)), kTaken);
  advance(0.25);
  EXPECT_GE(asked, 10);  // the expansion's fade
}

TEST_F(HostWindowTest, FocusPostsTheActivityNotificationsOnChangesOnly) {
  std::vector<std::string> posted;
  for (const char* name : {platform::UIApplicationDidBecomeActiveNotification,
                           platform::UIApplicationWillResignActiveNotification}) {
    platform::NotificationCenter::defaultCenter().addObserver(
        name, [&](std::string_view n) { posted.emplace_back(n); });
  }
  const std::string active = "UIApplicationDidBecomeActiveNotification";
  const std::string resign = "UIApplicationWillResignActiveNotification";
  const std::pair<bool, std::vector<std::string>> cases[] = {
      {true, {active}}, {true, {}}, {false, {resign}}, {false, {}}, {true, {active}}};
  for (const auto& [focused, expected] : cases) {
    posted.clear();
    host_->setFocused(focused);
    EXPECT_TRUE(posted.empty());  // posted on the main queue, not inside the call
    drain();
    EXPECT_EQ(posted, expected) << focused;
  }
}

TEST_F(HostWindowTest, BadSizesAndBuffersAreLoggedAndRefused) {
  const double inf = std::numeric_limits<double>::infinity();
  for (auto [w, h, scale] : {std::tuple{0.0, 667.0, 2.0},
                             {375.0, -1.0, 2.0},
                             {inf, 667.0, 2.0},
                             {375.0, 667.0, std::nan("")},
                             {1e6, 1e6, 2.0}}) {
    host_->setSize({w, h}, scale);
    EXPECT_EQ(host_->pixelWidth(), 750);
    EXPECT_EQ(host_->pixelHeight(), 1334);
  }
  for (const platform::PixelBuffer& bad : {platform::PixelBuffer{nullptr, 750, 1334, 3000},
                                           {pixels_.data(), 750, 1334, 2999},
                                           {pixels_.data(), 750, 1334, 1000},
                                           {pixels_.data(), 0, 1334, 3000}}) {
    EXPECT_TRUE(host_->paint(bad).empty());
  }
  EXPECT_GE(log_.lines().size(), 9u);
}

}  // namespace
}  // namespace quorvia
