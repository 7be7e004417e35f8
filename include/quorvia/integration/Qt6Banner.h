#pragma once
/// \file
/// The SDK's banner in a Qt 6 widget window, header-only (the library links
/// no toolkit): a transparent child widget over the host's content that draws
/// the SDK's layer, takes the mouse only where the banner is, sees the
/// window's keys before its widgets (and keeps only the banner's), follows
/// the content's size and the window's activation, and shows the banner in
/// Qt's own accessibility tree (QAccessible), where Qt publishes it to screen
/// readers with the rest of the application.
///
///     QApplication app(argc, argv);
///     quorvia::integration::QtMainQueue queue;
///     quorvia::integration::Qt6Banner banner(window.centralWidget());  // before the SDK starts
///
/// Lives on the main thread; `content` owns it as a child widget.

#include <QAccessible>
#include <QAccessibleWidget>
#include <QApplication>
#include <QEvent>
#include <QImage>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPaintEvent>
#include <QPainter>
#include <QRegion>
#include <QWidget>
#include <QWindow>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "quorvia/platform/HostWindow.h"

namespace quorvia::integration {

namespace detail {
class QtBannerPane;
class QtBannerElement;
}  // namespace detail

class Qt6Banner final : public QWidget {
 public:
  explicit Qt6Banner(QWidget* content)
      : QWidget(content), content_(content), host_(sizeOf(content), content->devicePixelRatioF()) {
    // The mouse reaches the host's widgets as usual; the application-wide
    // filter below takes what falls on the banner first.
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setAttribute(Qt::WA_NoSystemBackground);
    setGeometry(content->rect());
    raise();
    content->installEventFilter(this);
    qApp->installEventFilter(this);
    host_.setRepaintCallback([this] { paintLayer(); });
    // Qt publishes the banner with the application's widgets: the SDK need
    // not publish an application of its own.
    installAccessibleFactory();
    host_.setAccessibilityObserver(
        [this](const std::vector<platform::AccessibleElement>& now,
               const std::vector<platform::AccessibilityChange>& changes) {
          accessibilityChanged(now, changes);
        });
  }
  ~Qt6Banner() override {
    host_.setRepaintCallback(nullptr);
    host_.setAccessibilityObserver(nullptr);
    qApp->removeEventFilter(this);
    forgetElements({});
  }

  /// The SDK's side of the window: accessible elements, keys, focus.
  platform::HostWindow& host() { return host_; }
  /// Called after each time the banner was drawn (for hosts and tests that
  /// watch where the banner is).
  void setPaintedCallback(std::function<void()> painted) { painted_ = std::move(painted); }

 protected:
  void paintEvent(QPaintEvent* event) override {
    QPainter painter(this);
    painter.drawImage(event->rect(), image_, imageRect(event->rect()));
    if (painted_) painted_();
  }

  bool eventFilter(QObject* watched, QEvent* event) override {
    if (watched == content_ && event->type() == QEvent::Resize) {
      setGeometry(content_->rect());
      host_.setSize(sizeOf(content_), content_->devicePixelRatioF());
      return false;
    }
    switch (event->type()) {
      case QEvent::WindowActivate:
      case QEvent::WindowDeactivate:
        if (watched == content_->window()) {
          host_.setFocused(event->type() == QEvent::WindowActivate);
          if (event->type() == QEvent::WindowDeactivate) host_.pointerCancel();
        }
        return false;
      case QEvent::MouseButtonPress:
      case QEvent::MouseButtonRelease:
      case QEvent::MouseMove:
        return mouse(watched, static_cast<QMouseEvent*>(event));
      case QEvent::KeyPress:
      case QEvent::KeyRelease:
        return key(watched, static_cast<QKeyEvent*>(event));
      default:
        return false;
    }
  }

 private:
  static platform::Size sizeOf(const QWidget* widget) {
    return {static_cast<double>(widget->width()), static_cast<double>(widget->height())};
  }

  bool mouse(QObject* watched, QMouseEvent* event) {
    // Taken at the host's window, before Qt hands it to the widget below
    // (and again to each parent that ignores it): once per press.
    auto* window = qobject_cast<QWindow*>(watched);
    if (!window || window != content_->window()->windowHandle()) return false;
    if (event->type() != QEvent::MouseMove && event->button() != Qt::LeftButton) return false;
    const QPointF at = content_->mapFromGlobal(event->globalPosition());
    const platform::Point point{at.x(), at.y()};
    platform::PointerAnswer answer;
    if (event->type() == QEvent::MouseButtonPress) {
      answer = host_.pointerDown(point);
    } else if (event->type() == QEvent::MouseButtonRelease) {
      answer = host_.pointerUp(point);
    } else {
      answer = host_.pointerMove(point);
    }
    return answer == platform::PointerAnswer::kTaken;
  }

  // Taken at the host's window, before Qt hands it to the focused widget:
  // a key the SDK takes (only while keyboard focus is in the banner, or F6
  // into it) reaches no widget, nor types anything.
  bool key(QObject* watched, QKeyEvent* event) {
    auto* window = qobject_cast<QWindow*>(watched);
    if (!window || window != content_->window()->windowHandle()) return false;
    const platform::Key key = keyOf(event->key());
    const Qt::KeyboardModifiers m = event->modifiers();
    const platform::KeyModifiers modifiers{
        .shift = m.testFlag(Qt::ShiftModifier) || event->key() == Qt::Key_Backtab,
        .control = m.testFlag(Qt::ControlModifier), .alt = m.testFlag(Qt::AltModifier),
        .super = m.testFlag(Qt::MetaModifier)};
    const platform::EventAnswer answer = event->type() == QEvent::KeyPress
                                             ? host_.keyDown(key, modifiers)
                                             : host_.keyUp(key, modifiers);
    return answer == platform::EventAnswer::kTaken;
  }
  static platform::Key keyOf(int key) {
    using platform::Key;
    switch (key) {
      case Qt::Key_Tab: case Qt::Key_Backtab: return Key::kTab;
      case Qt::Key_Return: case Qt::Key_Enter: return Key::kEnter;
      case Qt::Key_Space: return Key::kSpace;
      case Qt::Key_Escape: return Key::kEscape;
      case Qt::Key_Up: return Key::kUp;
      case Qt::Key_Down: return Key::kDown;
      case Qt::Key_Left: return Key::kLeft;
      case Qt::Key_Right: return Key::kRight;
      case Qt::Key_Home: return Key::kHome;
      case Qt::Key_End: return Key::kEnd;
      case Qt::Key_F6: return Key::kF6;
      default: return Key::kOther;
    }
  }

  // Paints what changed into the image, then asks Qt to show those parts.
  void paintLayer() {
    const int pw = host_.pixelWidth(), ph = host_.pixelHeight();
    if (image_.width() != pw || image_.height() != ph) {
      // QImage's premultiplied ARGB32 is the SDK's B, G, R, A bytes as they stand.
      image_ = QImage(pw, ph, QImage::Format_ARGB32_Premultiplied);
      image_.fill(Qt::transparent);
      host_.invalidate();
    }
    QRegion changed;
    const double scale = host_.scale();
    for (const platform::PixelRect& r :
         host_.paint({image_.bits(), pw, ph, static_cast<int>(image_.bytesPerLine())})) {
      changed += QRect(static_cast<int>(std::floor(r.x / scale)),
                       static_cast<int>(std::floor(r.y / scale)),
                       static_cast<int>(std::ceil(r.width / scale)) + 1,
                       static_cast<int>(std::ceil(r.height / scale)) + 1);
    }
    if (!changed.isEmpty()) update(changed);
  }

  QRectF imageRect(const QRect& widgetRect) const {
    const double scale = host_.scale();
    return QRectF(widgetRect.x() * scale, widgetRect.y() * scale, widgetRect.width() * scale,
                  widgetRect.height() * scale);
  }

  // -- Accessibility: the banner's elements in Qt's tree --------------------

  friend class detail::QtBannerPane;
  friend class detail::QtBannerElement;

  struct Known {
    platform::AccessibleElement element;
    std::uint64_t parent = 0;  // 0: the banner's own widget holds it
  };

  static void installAccessibleFactory();

  // The element as it is now, or as it was when it just went (it is still
  // asked about while Qt tells of its going).
  const Known* known(std::uint64_t id) {
    refresh();
    const auto found = known_.find(id);
    return found == known_.end() ? nullptr : &found->second;
  }
  // Where things are changes with every frame of a slide: asked, not kept.
  void refresh() {
    now_ = host_.accessibleElements();
    for (const auto& e : now_) {
      const bool held = e.parent >= 0 && static_cast<std::size_t>(e.parent) < now_.size();
      known_[e.id] = {e, held ? now_[e.parent].id : 0};
    }
  }
  // The ids of the elements `parent` holds now, in order (0: the top ones).
  std::vector<std::uint64_t> childrenOf(std::uint64_t parent) {
    refresh();
    std::vector<std::uint64_t> children;
    for (const auto& e : now_) {
      if (known_[e.id].parent == parent) children.push_back(e.id);
    }
    return children;
  }
  std::uint64_t focusedElement() {
    refresh();
    for (const auto& e : now_) {
      if (e.focused) return e.id;
    }
    return 0;
  }
  // The element's rectangle on the screen, in Qt's device-independent pixels.
  QRect globalRect(const platform::AccessibleElement& e) const {
    const QPoint origin = content_->mapToGlobal(QPoint(0, 0));
    return QRect(origin.x() + static_cast<int>(std::lround(e.frame.x())),
                 origin.y() + static_cast<int>(std::lround(e.frame.y())),
                 static_cast<int>(std::lround(e.frame.width())),
                 static_cast<int>(std::lround(e.frame.height())));
  }
  QAccessibleInterface* interfaceFor(std::uint64_t id);

  void accessibilityChanged(const std::vector<platform::AccessibleElement>& now,
                            const std::vector<platform::AccessibilityChange>& changes);
  // Lets go of the interfaces of elements that are not in `now`.
  void forgetElements(const std::vector<platform::AccessibleElement>& now);

  QWidget* const content_;
  platform::HostWindow host_;
  QImage image_;
  std::function<void()> painted_;
  std::vector<platform::AccessibleElement> now_;
  std::map<std::uint64_t, Known> known_;  // what is shown, and what just went
  std::map<std::uint64_t, QAccessibleInterface*> interfaces_;  // owned by Qt's cache
};

namespace detail {

// The banner's own widget in Qt's tree: it holds the banner (an alert) while
// one is shown, and is invisible to a screen reader otherwise.
class QtBannerPane final : public QAccessibleWidget {
 public:
  explicit QtBannerPane(Qt6Banner* banner) : QAccessibleWidget(banner, QAccessible::Pane) {}

  int childCount() const override { return static_cast<int>(banner()->childrenOf(0).size()); }
  QAccessibleInterface* child(int index) const override {
    const auto children = banner()->childrenOf(0);
    return index >= 0 && index < static_cast<int>(children.size())
               ? banner()->interfaceFor(children[index])
               : nullptr;
  }
  int indexOfChild(const QAccessibleInterface* child) const override {
    const auto children = banner()->childrenOf(0);
    for (int i = 0; i < static_cast<int>(children.size()); ++i) {
      if (banner()->interfaceFor(children[i]) == child) return i;
    }
    return -1;
  }
  QAccessibleInterface* childAt(int x, int y) const override {
    for (int i = childCount() - 1; i >= 0; --i) {
      QAccessibleInterface* c = child(i);
      if (c && c->rect().contains(x, y)) return c;
    }
    return nullptr;
  }
  QAccessibleInterface* focusChild() const override {
    const std::uint64_t focused = banner()->focusedElement();
    return focused ? banner()->interfaceFor(focused) : nullptr;
  }
  QAccessible::State state() const override {
    QAccessible::State s = QAccessibleWidget::state();
    if (childCount() == 0) s.invisible = true;
    return s;
  }

 private:
  Qt6Banner* banner() const { return static_cast<Qt6Banner*>(widget()); }
};

// One element of the banner: the alert, its question, an option, the close
// control. "click" does what a tap on it does.
class QtBannerElement final : public QAccessibleInterface, public QAccessibleActionInterface {
 public:
  QtBannerElement(Qt6Banner* banner, std::uint64_t id) : banner_(banner), id_(id) {}

  bool isValid() const override { return banner_->known(id_) != nullptr; }
  QObject* object() const override { return nullptr; }
  QWindow* window() const override { return banner_->window()->windowHandle(); }
  QAccessibleInterface* parent() const override {
    const auto* k = banner_->known(id_);
    if (!k) return nullptr;
    return k->parent ? banner_->interfaceFor(k->parent)
                     : QAccessible::queryAccessibleInterface(banner_);
  }
  int childCount() const override { return static_cast<int>(banner_->childrenOf(id_).size()); }
  QAccessibleInterface* child(int index) const override {
    const auto children = banner_->childrenOf(id_);
    return index >= 0 && index < static_cast<int>(children.size())
               ? banner_->interfaceFor(children[index])
               : nullptr;
  }
  int indexOfChild(const QAccessibleInterface* child) const override {
    const auto children = banner_->childrenOf(id_);
    for (int i = 0; i < static_cast<int>(children.size()); ++i) {
      if (banner_->interfaceFor(children[i]) == child) return i;
    }
    return -1;
  }
  QAccessibleInterface* childAt(int x, int y) const override {
    for (int i = childCount() - 1; i >= 0; --i) {
      QAccessibleInterface* c = child(i);
      if (c && c->rect().contains(x, y)) return c;
    }
    return nullptr;
  }
  QAccessibleInterface* focusChild() const override {
    const std::uint64_t focused = banner_->focusedElement();
    return focused && focused != id_ ? banner_->interfaceFor(focused) : nullptr;
  }
  QString text(QAccessible::Text t) const override {
    const auto* k = banner_->known(id_);
    return k && t == QAccessible::Name ? QString::fromStdString(k->element.name) : QString();
  }
  void setText(QAccessible::Text, const QString&) override {}
  QRect rect() const override {
    const auto* k = banner_->known(id_);
    return k ? banner_->globalRect(k->element) : QRect();
  }
  QAccessible::Role role() const override {
    const auto* k = banner_->known(id_);
    if (!k) return QAccessible::NoRole;
    switch (k->element.role) {
      case platform::AccessibleRole::kAlert: return QAccessible::AlertMessage;
      case platform::AccessibleRole::kLabel: return QAccessible::StaticText;
      case platform::AccessibleRole::kPushButton: return QAccessible::Button;
      case platform::AccessibleRole::kNone: break;
    }
    return QAccessible::NoRole;
  }
  QAccessible::State state() const override {
    QAccessible::State s;
    const auto* k = banner_->known(id_);
    if (!k) {
      s.invalid = true;
      return s;
    }
    s.focusable = k->element.focusable;
    s.focused = k->element.focused;
    s.modal = k->element.modal;
    // Not "offscreen" while part of the banner is above the window's edge:
    // Qt's bridge would tell a screen reader of it coming into sight as
    // "showing" but never as "visible", which it then keeps missing.
    return s;
  }
  void* interface_cast(QAccessible::InterfaceType type) override {
    const auto* k = banner_->known(id_);
    return type == QAccessible::ActionInterface && k && k->element.focusable
               ? static_cast<QAccessibleActionInterface*>(this)
               : nullptr;
  }

  // Qt's bridge moves focus through its own "SetFocus" action.
  QStringList actionNames() const override {
    return {QStringLiteral("click"), QAccessibleActionInterface::setFocusAction()};
  }
  void doAction(const QString& name) override {
    if (name == QLatin1String("click")) {
      banner_->host().pressElement(id_);
    } else if (name == QAccessibleActionInterface::setFocusAction()) {
      banner_->host().focusElement(id_);
    }
  }
  QStringList keyBindingsForAction(const QString&) const override { return {}; }

 private:
  Qt6Banner* const banner_;
  const std::uint64_t id_;
};

}  // namespace detail

inline void Qt6Banner::installAccessibleFactory() {
  static const bool installed = [] {
    QAccessible::installFactory([](const QString&, QObject* object) -> QAccessibleInterface* {
      if (auto* banner = dynamic_cast<Qt6Banner*>(object)) return new detail::QtBannerPane(banner);
      return nullptr;
    });
    return true;
  }();
  (void)installed;
}

inline QAccessibleInterface* Qt6Banner::interfaceFor(std::uint64_t id) {
  if (!known(id)) return nullptr;
  auto& iface = interfaces_[id];
  if (!iface) {
    iface = new detail::QtBannerElement(this, id);
    QAccessible::registerAccessibleInterface(iface);  // Qt's cache owns it from now on
  }
  return iface;
}

inline void Qt6Banner::accessibilityChanged(const std::vector<platform::AccessibleElement>& now,
                                            const std::vector<platform::AccessibilityChange>& changes) {
  for (const auto& e : now) {
    const bool held = e.parent >= 0 && static_cast<std::size_t>(e.parent) < now.size();
    known_[e.id] = {e, held ? now[e.parent].id : 0};
  }
  using Kind = platform::AccessibilityChange::Kind;
  for (const auto& change : changes) {
    QAccessibleInterface* iface = interfaceFor(change.element);
    if (!iface) continue;
    switch (change.kind) {
      case Kind::kAdded: {
        QAccessibleEvent event(iface, QAccessible::ObjectCreated);
        QAccessible::updateAccessibility(&event);
        break;
      }
      case Kind::kRemoved: {
        // Told while it still answers; its interface goes below.
        QAccessibleEvent event(iface, QAccessible::ObjectDestroyed);
        QAccessible::updateAccessibility(&event);
        break;
      }
      case Kind::kNameChanged: {
        QAccessibleEvent event(iface, QAccessible::NameChanged);
        QAccessible::updateAccessibility(&event);
        break;
      }
      case Kind::kStateChanged: {
        if (change.state == platform::AccessibleState::kFocused && change.value) {
          QAccessibleEvent event(iface, QAccessible::Focus);
          QAccessible::updateAccessibility(&event);
          break;
        }
        if (change.state == platform::AccessibleState::kShowing) break;  // see state()
        QAccessible::State which;
        which.focused = change.state == platform::AccessibleState::kFocused;
        which.focusable = change.state == platform::AccessibleState::kFocusable;
        which.modal = change.state == platform::AccessibleState::kModal;
        QAccessibleStateChangeEvent event(iface, which);
        QAccessible::updateAccessibility(&event);
        break;
      }
    }
  }
  forgetElements(now);
}

inline void Qt6Banner::forgetElements(const std::vector<platform::AccessibleElement>& now) {
  for (auto it = known_.begin(); it != known_.end();) {
    const bool shown =
        std::any_of(now.begin(), now.end(), [&](const auto& e) { return e.id == it->first; });
    if (shown) {
      ++it;
      continue;
    }
    if (auto found = interfaces_.find(it->first); found != interfaces_.end()) {
      QAccessible::deleteAccessibleInterface(QAccessible::uniqueId(found->second));
      interfaces_.erase(found);
    }
    it = known_.erase(it);
  }
}

}  // namespace quorvia::integration
