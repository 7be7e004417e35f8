#pragma once
// Helpers of the banner tests, and a host screen with a poll banner on it as
// the render tests and the render benchmark show it.

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/Label.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Application.h"
#include "quorvia/platform/RunLoop.h"
#include "platform/Window.h"
#include "sdk/SDKState.h"
#include "ui/QVNotificationActionCell.h"
#include "ui/QVNotificationHeaderCell.h"
#include "ui/QVNotificationTextCell.h"
#include "ui/QVNotificationView.h"

namespace quorvia::testing {

/// A poll dictionary with `options` as (text, link) pairs; an empty link is none.
inline platform::Value pollDict(const std::string& question,
                                const std::vector<std::pair<std::string, std::string>>& options,
                                int id = 42) {
  platform::Value poll = {
      {"id", id}, {"question", question}, {"options", platform::Value::array()}};
  for (const auto& [text, link] : options) {
    platform::Value option = {{"text", text}};
    if (!link.empty()) option["link"] = link;
    poll["options"].push_back(option);
  }
  return poll;
}

/// The visible cell of a row of the banner's table, after a layout pass.
template <typename Cell>
std::shared_ptr<Cell> cellAt(QVNotificationView& view, int section, int row) {
  view.tableView()->layoutIfNeeded();
  return std::dynamic_pointer_cast<Cell>(
      view.tableView()->cellForRowAtIndexPath(platform::IndexPath{section, row}));
}

/// The centre of `view` in window coordinates (model values).
inline platform::Point centerInWindow(platform::View& view) {
  platform::Point p{view.frame().width() / 2, view.frame().height() / 2};
  for (platform::View* v = &view; v->superview(); v = v->superview().get()) {
    p.x += v->frame().x();
    p.y += v->frame().y();
  }
  return p;
}

/// Makes a key window of 375 x 667 points at scale 2, as a host's would be.
inline std::shared_ptr<platform::Window> installKeyWindow() {
  auto window = platform::View::make<platform::Window>(platform::Rect::make(0, 0, 375, 667));
  window->setScale(2);
  platform::Application::sharedApplication().setKeyWindow(window);
  return window;
}

/// The host app's background colour behind the banner.
inline constexpr platform::Color kHostBackground{0.933, 0.945, 0.965, 1};

/// Fills the key window (made when there is none) with a simple host screen,
/// presents a poll with emoji options, lets the slide finish and, when
/// `expanded`, expands it and lets the fade finish.
inline std::shared_ptr<QVNotificationView> makeBannerScene(platform::RunLoop& loop, bool expanded) {
  using platform::Color;
  using platform::Rect;
  using platform::View;
  auto window = platform::keyWindow();
  if (!window) window = installKeyWindow();
  auto content = View::make(window->bounds());
  content->setBackgroundColor(kHostBackground);
  auto bar = View::make(Rect::make(0, 0, 375, 64));
  bar->setBackgroundColor(Color{0.357, 0.357, 0.839, 1});
  auto title = View::make<platform::Label>(Rect::make(16, 26, 343, 30));
  title->setText("Orders");
  title->setFont("DejaVu Sans Bold 19");
  title->setTextColor(Color::whiteColor());
  bar->addSubview(title);
  content->addSubview(bar);
  for (int i = 0; i < 6; ++i) {
    auto card = View::make(Rect::make(16, 80 + i * 96, 343, 84));
    card->setBackgroundColor(Color::whiteColor());
    auto text = View::make<platform::Label>(Rect::make(16, 14, 311, 24));
    text->setText("Order #10" + std::to_string(42 + i) + "  \xC2\xB7  delivered");
    text->setFont("DejaVu Sans 15");
    text->setTextColor(Color{0.11, 0.11, 0.12, 1});
    auto accent = View::make(Rect::make(16, 50, 120 + 30 * i, 10));
    accent->setBackgroundColor(i % 2 ? Color{1, 0.62, 0.04, 1} : Color{0.2, 0.78, 0.35, 1});
    card->addSubview(text);
    card->addSubview(accent);
    content->addSubview(card);
  }
  window->addSubview(content);
  const auto poll = pollDict("How do you like the new checkout?",
                             {{"\xF0\x9F\x91\x8D Love it", ""},
                              {"\xF0\x9F\xA4\x94 Not sure yet", ""},
                              {"\xF0\x9F\x91\x8E Not for me", "https://example.com/feedback"}},
                             17);
  auto view = sdk::SDKState::shared().banner->presentPollWithPollDict(&poll);
  loop.advance(platform::seconds(0.3));
  if (view && expanded) {
    sdk::SDKState::shared().banner->notificationViewDidPressExpand(view);
    loop.advance(platform::seconds(0.2));
  }
  window->layoutIfNeeded();
  loop.drainOnce();  // the rows' deferred masks
  return view;
}

}  // namespace quorvia::testing
