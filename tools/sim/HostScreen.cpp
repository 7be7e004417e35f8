#include "HostScreen.h"

#include <array>
#include <string>

#include "platform/Label.h"

namespace quorvia::sim {
namespace {

using platform::Color;
using platform::Label;
using platform::Rect;
using platform::View;

constexpr Color kBackground{0.945, 0.953, 0.969, 1};
constexpr Color kTitleBar{0.192, 0.361, 0.749, 1};
constexpr Color kText{0.11, 0.11, 0.12, 1};
constexpr Color kSecondaryText{0.47, 0.49, 0.53, 1};

std::shared_ptr<Label> label(Rect frame, const std::string& text, const char* font, Color color) {
  auto view = View::make<Label>(frame);
  view->setText(text);
  view->setFont(font);
  view->setTextColor(color);
  return view;
}

}  // namespace

void drawHostScreen(platform::Window& window) {
  const double width = window.bounds().width();
  auto content = View::make(window.bounds());
  content->setBackgroundColor(kBackground);

  auto bar = View::make(Rect::make(0, 0, width, 64));
  bar->setBackgroundColor(kTitleBar);
  bar->addSubview(label(Rect::make(16, 26, width - 32, 30), "Trips", "DejaVu Sans Bold 19",
                        Color::whiteColor()));
  content->addSubview(bar);

  struct Trip {
    const char* title;
    const char* detail;
    Color accent;
  };
  const std::array<Trip, 6> trips = {{
      {"Lisbon \xE2\x86\x92 Porto", "Fri 14 Mar \xC2\xB7 2 h 48 min", {0.2, 0.78, 0.35, 1}},
      {"Porto \xE2\x86\x92 Madrid", "Sun 16 Mar \xC2\xB7 1 h 15 min", {1, 0.62, 0.04, 1}},
      {"Madrid \xE2\x86\x92 Valencia", "Tue 18 Mar \xC2\xB7 1 h 52 min", {0.2, 0.78, 0.35, 1}},
      {"Valencia \xE2\x86\x92 Barcelona", "Thu 20 Mar \xC2\xB7 2 h 40 min", {0.35, 0.34, 0.84, 1}},
      {"Barcelona \xE2\x86\x92 Lyon", "Sat 22 Mar \xC2\xB7 4 h 58 min", {1, 0.62, 0.04, 1}},
      {"Lyon \xE2\x86\x92 Paris", "Mon 24 Mar \xC2\xB7 1 h 56 min", {0.2, 0.78, 0.35, 1}},
  }};
  for (std::size_t i = 0; i < trips.size(); ++i) {
    auto card = View::make(Rect::make(16, 80 + static_cast<double>(i) * 96, width - 32, 84));
    card->setBackgroundColor(Color::whiteColor());
    card->addSubview(
        label(Rect::make(16, 14, width - 64, 24), trips[i].title, "DejaVu Sans 15", kText));
    card->addSubview(label(Rect::make(16, 44, width - 96, 22), trips[i].detail, "DejaVu Sans 12",
                           kSecondaryText));
    auto accent = View::make(Rect::make(width - 56, 34, 12, 12));
    accent->setBackgroundColor(trips[i].accent);
    card->addSubview(accent);
    content->addSubview(card);
  }
  window.addSubview(content);
}

}  // namespace quorvia::sim
