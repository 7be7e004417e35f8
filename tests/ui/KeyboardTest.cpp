// The banner for keyboard and screen-reader users: which keys the SDK takes
// and which it leaves to the host, where focus goes, that a key and a screen
// reader's "click" do exactly what a tap does, the focus ring, and what the
// accessibility bus hears, all on the virtual clock.

#include <cmath>

#include "platform/AccessibilityBus.h"
#include "platform/FocusRing.h"
#include "platform/Renderer.h"
#include "quorvia/platform/HostWindow.h"
#include "support/FakeTransport.h"
#include "support/PlatformTest.h"
#include "ui/BannerScene.h"

namespace quorvia {
namespace {

using platform::AccessibilityChange;
using platform::AccessibleElement;
using platform::AccessibleState;
using platform::EventAnswer;
using platform::HostWindow;
using platform::Key;
using platform::KeyModifiers;

constexpr EventAnswer kTaken = EventAnswer::kTaken;
constexpr EventAnswer kPassed = EventAnswer::kPassed;
constexpr KeyModifiers kShift{.shift = true};
constexpr KeyModifiers kControl{.control = true};

// What a screen reader would be told, kept as the bus would keep it.
class RecordingBus final : public platform::AccessibilityBus {
 public:
  void publish(std::weak_ptr<Tree> tree) override {
    tree_ = std::move(tree);
    ++publishes;
  }
  void update(const std::vector<AccessibleElement>& now) override {
    for (const auto& change : platform::changesBetween(last_, now)) changes.push_back(change);
    last_ = now;
  }
  std::shared_ptr<Tree> tree() const { return tree_.lock(); }
  const std::vector<AccessibleElement>& last() const { return last_; }

  int publishes = 0;
  std::vector<AccessibilityChange> changes;

 private:
  std::weak_ptr<Tree> tree_;
  std::vector<AccessibleElement> last_;
};

class KeyboardTest : public testing::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    transport_ = testing::FakeTransport::install();
    bus_ = std::make_shared<RecordingBus>();
    env_->setAccessibilityBus(bus_);
    host_ = std::make_unique<HostWindow>(platform::Size{375, 667}, 2);
  }
  void TearDown() override {
    host_.reset();
    PlatformTest::TearDown();
  }

  std::shared_ptr<QVNotificationView> present(int options = 2, int id = 42) {
    std::vector<std::pair<std::string, std::string>> list;
    for (int i = 0; i < options; ++i) list.push_back({"Option " + std::to_string(i + 1), ""});
    const auto poll = testing::pollDict("Coffee?", list, id);
    auto view = sdk::SDKState::shared().banner->presentPollWithPollDict(&poll);
    advance(0.3);
    return view;
  }
  // The name of the element keyboard focus is on, or "" when none.
  std::string focused() const {
    for (const auto& e : host_->accessibleElements())
      if (e.focused) return e.name;
    return "";
  }
  const AccessibleElement* element(const std::string& name) const {
    static thread_local std::vector<AccessibleElement> list;
    list = host_->accessibleElements();
    for (const auto& e : list)
      if (e.name == name) return &e;
    return nullptr;
  }
  EventAnswer press(Key key, KeyModifiers modifiers = {}) {
    const EventAnswer down = host_->keyDown(key, modifiers);
    EXPECT_EQ(host_->keyUp(key, modifiers), down) << "an up is answered as its down was";
    return down;
  }
  // Every request the SDK sent: what it sends on the wire.
  std::vector<std::string> wire() const {
    std::vector<std::string> sent;
    for (std::size_t i = 0; i < transport_->requestCount(); ++i) {
      const auto request = transport_->request(i);
      std::string text = transport_->requestLines()[i];
      for (const auto& [name, value] : request.allHTTPHeaderFields)
        text += "\n" + name + ": " + value;
      sent.push_back(text + "\n\n" + transport_->bodyText(i));
    }
    return sent;
  }
  // The first pixel row at which the ring's colour shows, scanning down at `x`.
  static bool isRing(const platform::RenderedImage::Pixel& p) {
    const auto& c = platform::FocusRing::kColor;
    return std::abs(p.r - c.red * 255) < 24 && std::abs(p.g - c.green * 255) < 24 &&
           std::abs(p.b - c.blue * 255) < 24;
  }

  std::shared_ptr<testing::FakeTransport> transport_;
  std::shared_ptr<RecordingBus> bus_;
  std::unique_ptr<HostWindow> host_;
};

// Every key is the host's while no banner is shown and while focus is not in
// a collapsed banner, but F6; Control, Alt or the logo key with a key make a
// shortcut, which is the host's unless an expanded banner holds the keyboard.
TEST_F(KeyboardTest, KeyTable) {
  const Key all[] = {Key::kOther, Key::kTab,  Key::kEnter, Key::kSpace, Key::kEscape, Key::kUp,
                     Key::kDown,  Key::kLeft, Key::kRight, Key::kHome,  Key::kEnd,    Key::kF6};
  for (Key key : all) {
    for (KeyModifiers m : {KeyModifiers{}, kShift, kControl}) {
      EXPECT_EQ(press(key, m), kPassed) << "no banner: " << int(key);
    }
  }
  // A key a host made up from a toolkit's code is like any other key.
  EXPECT_EQ(press(static_cast<Key>(999)), kPassed);
  EXPECT_EQ(host_->keyUp(Key::kEnter), kPassed) << "an up without its down";

  auto view = present();
  struct Case {
    const char* state;
    Key key;
    KeyModifiers modifiers;
    EventAnswer answer;
    std::string focusAfter;
  };
  const Case cases[] = {
      {"outside", Key::kTab, {}, kPassed, ""},
      {"outside", Key::kEnter, {}, kPassed, ""},
      {"outside", Key::kEscape, {}, kPassed, ""},
      {"outside", Key::kOther, {}, kPassed, ""},
      {"outside", Key::kF6, kControl, kPassed, ""},
      {"outside", Key::kF6, {}, kTaken, "Close"},
      {"collapsed, inside", Key::kOther, {}, kPassed, "Close"},
      {"collapsed, inside", Key::kTab, kControl, kPassed, "Close"},
      {"collapsed, inside", Key::kDown, kShift, kPassed, "Close"},
      {"collapsed, inside", Key::kTab, {}, kTaken, "Coffee?"},
      {"collapsed, inside", Key::kTab, {}, kTaken, "Close"},
      {"collapsed, inside", Key::kTab, kShift, kTaken, "Coffee?"},
      {"collapsed, inside", Key::kF6, kShift, kTaken, ""},
      {"outside again", Key::kSpace, {}, kPassed, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.state) + ", key " + std::to_string(int(c.key)));
    EXPECT_EQ(press(c.key, c.modifiers), c.answer);
    EXPECT_EQ(focused(), c.focusAfter);
    EXPECT_EQ(host_->hasKeyboardFocus(), !c.focusAfter.empty());
  }
  EXPECT_FALSE(view->showOptions());
  EXPECT_TRUE(transport_->requestLines().empty());
}

// Focus visits the close control, the card and the options in the order they
// read, wrapping around; arrows, Home and End move it too.
TEST_F(KeyboardTest, FocusOrder) {
  auto view = present(3);
  ASSERT_TRUE(host_->focusBanner());
  const std::vector<std::pair<std::vector<std::pair<Key, KeyModifiers>>, std::string>> steps = {
      {{}, "Close"},
      {{{Key::kTab, {}}}, "Coffee?"},
      {{{Key::kEnter, {}}}, "Coffee?"},  // expands; focus stays on the card
      {{{Key::kDown, {}}}, "Option 1"},
      {{{Key::kRight, {}}}, "Option 2"},
      {{{Key::kTab, {}}}, "Option 3"},
      {{{Key::kTab, {}}}, "Close"},
      {{{Key::kUp, {}}}, "Option 3"},
      {{{Key::kLeft, {}}, {Key::kTab, kShift}}, "Option 1"},
      {{{Key::kEnd, {}}}, "Option 3"},
      {{{Key::kHome, {}}}, "Close"},
  };
  for (const auto& [keys, after] : steps) {
    for (const auto& [key, modifiers] : keys) EXPECT_EQ(press(key, modifiers), kTaken);
    EXPECT_EQ(focused(), after);
  }
  EXPECT_TRUE(view->showOptions());
  EXPECT_EQ(log_.count("QuorviaSDK: User expanded poll: Coffee?"), 1);
  const auto list = host_->accessibleElements();
  for (const auto& e : list) {
    EXPECT_EQ(e.focusable, e.role != platform::AccessibleRole::kAlert) << e.name;
    EXPECT_EQ(e.modal, e.role == platform::AccessibleRole::kAlert) << e.name;
  }
}

// Enter, Space and Escape do what a tap does there, through the same path:
// the same log lines and the same requests on the wire.
TEST_F(KeyboardTest, KeysDoWhatTapsDo) {
  struct Case {
    const char* what;
    std::vector<Key> toGetThere;  // after F6, which focuses the close control
    Key key;
    std::string tapped;  // the element a tap presses
    bool expanded;
  };
  const Case cases[] = {
      {"Enter on the card expands", {Key::kTab}, Key::kEnter, "Coffee?", false},
      {"Space on the card expands", {Key::kTab}, Key::kSpace, "Coffee?", false},
      {"Enter on an option replies and hides",
       {Key::kTab, Key::kEnter, Key::kDown, Key::kDown},
       Key::kEnter,
       "Option 2",
       true},
      {"Space on the close control dismisses", {}, Key::kSpace, "Close", false},
      {"Escape dismisses from anywhere", {Key::kTab}, Key::kEscape, "Close", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<std::string> lines[2], sent[2];
    for (int byKey = 0; byKey < 2; ++byKey) {
      auto view = present(2, 7);
      if (byKey) {
        ASSERT_EQ(press(Key::kF6), kTaken);
        for (Key key : c.toGetThere) ASSERT_EQ(press(key), kTaken);
      } else if (c.expanded) {
        sdk::SDKState::shared().banner->notificationViewDidPressExpand(view);
      }
      log_.clear();
      const std::size_t before = transport_->requestCount();
      if (byKey) {
        EXPECT_EQ(press(c.key), kTaken);
      } else {
        const AccessibleElement* e = element(c.tapped);
        ASSERT_TRUE(e);
        const platform::Point centre{e->frame.x() + e->frame.width() / 2,
                                     e->frame.y() + e->frame.height() / 2};
        EXPECT_EQ(host_->pointerDown(centre), kTaken);
        EXPECT_EQ(host_->pointerUp(centre), kTaken);
      }
      lines[byKey] = log_.lines();
      const auto all = wire();
      sent[byKey].assign(all.begin() + static_cast<long>(before), all.end());
      EXPECT_EQ(view->showOptions(), c.expanded || c.tapped == "Coffee?");
      sdk::SDKState::shared().banner->hideNotificationView(view);
      advance(0.3);
    }
    EXPECT_FALSE(lines[0].empty());
    EXPECT_EQ(lines[1], lines[0]);
    EXPECT_EQ(sent[1], sent[0]);
  }
}

// An expanded banner holds the keyboard as its backdrop holds the pointer:
// focus is in it however it was opened, every key is its own, and only its
// going lets focus out.
TEST_F(KeyboardTest, ExpandedBannerIsModal) {
  auto view = present();
  const auto card = element("Coffee?")->frame;
  const platform::Point onCard{card.x() + 20, card.y() + 10};
  EXPECT_EQ(host_->pointerDown(onCard), kTaken);
  EXPECT_EQ(host_->pointerUp(onCard), kTaken);
  ASSERT_TRUE(view->showOptions());
  advance(0.2);  // the backdrop fades in
  EXPECT_TRUE(host_->hasKeyboardFocus());
  EXPECT_EQ(focused(), "Coffee?");
  for (Key key : {Key::kOther, Key::kF6}) EXPECT_EQ(press(key), kTaken);
  EXPECT_EQ(press(Key::kTab, kControl), kTaken);
  EXPECT_EQ(host_->pointerDown({187, 600}), kTaken);  // the backdrop
  EXPECT_EQ(host_->pointerUp({187, 600}), kTaken);
  EXPECT_EQ(focused(), "Coffee?");
  EXPECT_EQ(press(Key::kDown), kTaken);
  EXPECT_EQ(host_->keyDown(Key::kEnter), kTaken);
  // Gone with the reply: keys are the host's again, but for the up of the
  // key whose down the banner took.
  EXPECT_FALSE(host_->hasKeyboardFocus());
  EXPECT_EQ(press(Key::kOther), kPassed);
  EXPECT_EQ(host_->keyUp(Key::kEnter), kTaken);
  EXPECT_EQ(press(Key::kF6), kPassed) << "a banner sliding out takes no focus";
  advance(0.3);

  // Collapsed, a press on the host's own content takes focus back to it.
  present(2, 43);
  EXPECT_EQ(press(Key::kF6), kTaken);
  EXPECT_EQ(host_->pointerDown({187, 600}), kPassed);
  EXPECT_FALSE(host_->hasKeyboardFocus());
  EXPECT_EQ(press(Key::kTab), kPassed);
}

// The ring shows around the focused element only while focus came by a key:
// at least 2 points of a colour that stands 3:1 against the white card, drawn
// by repainting no more than the rows it leaves and reaches.
TEST_F(KeyboardTest, FocusRing) {
  auto view = present();
  std::vector<std::uint8_t> pixels(std::size_t{750} * 1334 * 4);
  auto paint = [&] { return host_->paint({pixels.data(), 750, 1334, 750 * 4}); };
  paint();
  auto render = [] { return platform::Renderer::render(*platform::keyWindow()); };
  // Pixel rows of ring colour down the column at x, from y0 to y1 (points).
  auto ringRows = [](const platform::RenderedImage& image, double x, double y0, double y1) {
    int rows = 0;
    for (int y = static_cast<int>(y0 * 2); y < static_cast<int>(y1 * 2) && y < image.height; ++y)
      if (y >= 0 && isRing(image.pixel(static_cast<int>(x * 2), y))) ++rows;
    return rows;
  };
  // Down the middle of the close control, and down the card beside it.
  const auto close = element("Close")->frame;
  auto onClose = [&](const platform::RenderedImage& image) {
    return ringRows(image, close.x() + close.width() / 2, close.y(), close.maxY());
  };
  auto onCard = [&](const platform::RenderedImage& image) { return ringRows(image, 100, 20, 350); };
  EXPECT_EQ(onClose(render()) + onCard(render()), 0);
  ASSERT_EQ(press(Key::kF6), kTaken);
  drain();
  auto shown = render();
  // Top and bottom stroke, each at least 2 points (4 pixels at scale 2).
  EXPECT_GE(onClose(shown), 2 * 4);
  EXPECT_EQ(onCard(shown), 0);
  // The ring's colour against white: relative luminance, WCAG's formula.
  auto linear = [](double c) {
    return c <= 0.03928 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
  };
  const auto& ring = platform::FocusRing::kColor;
  const double luminance =
      0.2126 * linear(ring.red) + 0.7152 * linear(ring.green) + 0.0722 * linear(ring.blue);
  EXPECT_GE(1.05 / (luminance + 0.05), 3.0);

  paint();
  ASSERT_EQ(press(Key::kTab), kTaken);
  drain();
  int area = 0;
  for (const auto& r : paint()) area += r.width * r.height;
  EXPECT_GT(area, 0);
  EXPECT_LT(area, 750 * 330 * 2) << "moving the ring repaints the rings, not the banner";
  auto moved = render();
  EXPECT_EQ(onClose(moved), 0);
  EXPECT_GE(onCard(moved), 2 * 4);

  // A press of the pointer hides it; focus stays for the next key.
  const auto card = element("Coffee?")->frame;
  EXPECT_EQ(host_->pointerDown({card.x() + 20, card.y() + 10}), kTaken);
  EXPECT_EQ(host_->pointerCancel(), kTaken);
  drain();
  EXPECT_EQ(onCard(render()), 0);
  EXPECT_EQ(focused(), "Coffee?");
  (void)view;
}

// What the accessibility bus hears, in the order a screen reader's copy of
// the tree needs it: the banner and its elements as it slides in, each move
// of focus, the options as they open, everything gone as it slides out. The
// bus is joined at the first banner, and its "click" is a tap.
TEST_F(KeyboardTest, AccessibilityBusFollowsTheBanner) {
  using Kind = AccessibilityChange::Kind;
  drain();
  EXPECT_EQ(bus_->publishes, 0) << "nothing is published before the first banner";
  auto view = present(2);
  EXPECT_EQ(bus_->publishes, 1);
  auto id = [&](const std::string& name) {
    for (const auto& e : bus_->last())
      if (e.name == name) return e.id;
    return std::uint64_t{0};
  };
  const std::uint64_t alert = id("Poll");
  ASSERT_NE(alert, 0u);
  std::vector<AccessibilityChange> added;
  for (const auto& c : bus_->changes)
    if (c.kind == Kind::kAdded) added.push_back(c);
  ASSERT_EQ(added.size(), 3u);
  EXPECT_EQ(added[0], (AccessibilityChange{Kind::kAdded, alert, 0, 0}));
  EXPECT_EQ(added[1], (AccessibilityChange{Kind::kAdded, id("Close"), alert, 0}));
  EXPECT_EQ(added[2], (AccessibilityChange{Kind::kAdded, id("Coffee?"), alert, 1}));

  auto focusChanges = [&] {
    std::vector<std::pair<std::uint64_t, bool>> moves;
    for (const auto& c : bus_->changes)
      if (c.kind == Kind::kStateChanged && c.state == AccessibleState::kFocused)
        moves.push_back({c.element, c.value});
    bus_->changes.clear();
    return moves;
  };
  focusChanges();
  press(Key::kF6);
  EXPECT_EQ(focusChanges(), (std::vector<std::pair<std::uint64_t, bool>>{{id("Close"), true}}));
  press(Key::kTab);
  EXPECT_EQ(focusChanges(), (std::vector<std::pair<std::uint64_t, bool>>{{id("Close"), false},
                                                                         {id("Coffee?"), true}}));

  // The screen reader's "click" on the question is the card's tap.
  auto tree = bus_->tree();
  ASSERT_TRUE(tree);
  EXPECT_FALSE(tree->pressElement(alert)) << "the banner itself is not pressed";
  EXPECT_FALSE(tree->pressElement(987654)) << "an element that never was";
  EXPECT_TRUE(tree->pressElement(id("Coffee?")));
  EXPECT_TRUE(log_.contains("QuorviaSDK: User expanded poll: Coffee?"));
  drain();
  std::vector<AccessibilityChange> options;
  for (const auto& c : bus_->changes)
    if (c.kind == Kind::kAdded) options.push_back(c);
  ASSERT_EQ(options.size(), 2u);
  EXPECT_EQ(options[0], (AccessibilityChange{Kind::kAdded, id("Option 1"), alert, 2}));
  EXPECT_EQ(options[1], (AccessibilityChange{Kind::kAdded, id("Option 2"), alert, 3}));
  bool modal = false;
  for (const auto& c : bus_->changes)
    modal |= c.kind == Kind::kStateChanged && c.state == AccessibleState::kModal && c.value;
  EXPECT_TRUE(modal);

  // Its request for focus moves the ring there; its "click" on an option answers.
  EXPECT_TRUE(tree->focusElement(id("Option 2")));
  EXPECT_EQ(focused(), "Option 2");
  const std::uint64_t option1 = id("Option 1");
  bus_->changes.clear();
  EXPECT_TRUE(tree->pressElement(option1));
  EXPECT_TRUE(log_.contains("QuorviaSDK: User tapped action: Option 1"));
  advance(0.35);  // the slide out, and the next look at it
  EXPECT_TRUE(host_->accessibleElements().empty());
  std::vector<AccessibilityChange> removed;
  for (const auto& c : bus_->changes)
    if (c.kind == Kind::kRemoved) removed.push_back(c);
  ASSERT_EQ(removed.size(), 1u) << "the banner goes with all it holds";
  EXPECT_EQ(removed[0], (AccessibilityChange{Kind::kRemoved, alert, 0, 0}));
  EXPECT_FALSE(tree->pressElement(option1)) << "gone with the banner";
  (void)view;
}

// A host whose toolkit publishes its own tree hears the same changes, with the elements as they
// are; the SDK then publishes no application of its own.
TEST_F(KeyboardTest, HostObserverPublishesInsteadOfTheSdk) {
  std::vector<AccessibilityChange> heard;
  std::vector<AccessibleElement> last;
  host_->setAccessibilityObserver(
      [&](const std::vector<AccessibleElement>& now, const std::vector<AccessibilityChange>& c) {
        last = now;
        heard.insert(heard.end(), c.begin(), c.end());
      });
  present();
  EXPECT_EQ(bus_->publishes, 0);
  ASSERT_EQ(last.size(), 3u);
  ASSERT_GE(heard.size(), 3u);
  EXPECT_EQ(heard[0], (AccessibilityChange{AccessibilityChange::Kind::kAdded, last[0].id, 0, 0}));
  heard.clear();
  press(Key::kF6);
  ASSERT_EQ(heard.size(), 1u);
  EXPECT_EQ(heard[0].state, AccessibleState::kFocused);
  EXPECT_EQ(heard[0].element, last[1].id);  // the close control
  EXPECT_TRUE(last[1].focused);
}

}  // namespace
}  // namespace quorvia
