#pragma once
/// \file
/// The SDK's banner in a Qt 6 widget window, header-only (the library links
/// no toolkit): a transparent child widget over the host's content that draws
/// the SDK's layer, takes the mouse only where the banner is, sees the
/// window's keys before its widgets (and keeps only the banner's), and
/// follows the content's size, place and the window's activation.
///
///     QApplication app(argc, argv);
///     quorvia::integration::QtMainQueue queue;
///     quorvia::integration::Qt6Banner banner(window.centralWidget());  // before the SDK starts
///
/// Lives on the main thread; `content` owns it as a child widget.

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

#include <cmath>
#include <functional>
#include <utility>

#include "quorvia/platform/HostWindow.h"

namespace quorvia::integration {

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
    host_.setScreenOriginCallback([this] {
      const QPointF origin = QPointF(content_->mapToGlobal(QPoint(0, 0))) * devicePixelRatioF();
      return platform::Point{origin.x(), origin.y()};
    });
  }
  ~Qt6Banner() override {
    host_.setRepaintCallback(nullptr);
    host_.setScreenOriginCallback(nullptr);
    qApp->removeEventFilter(this);
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

  QWidget* const content_;
  platform::HostWindow host_;
  QImage image_;
  std::function<void()> painted_;
};

}  // namespace quorvia::integration
