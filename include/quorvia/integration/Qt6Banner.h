#pragma once
/// \file
/// The SDK's banner in a Qt 6 widget window, header-only (the library links
/// no toolkit): a transparent child widget over the host's content that draws
/// the SDK's layer, takes the mouse only where the banner is, and follows the
/// content's size and the window's activation.
///
///     QApplication app(argc, argv);
///     quorvia::integration::QtMainQueue queue;
///     quorvia::integration::Qt6Banner banner(window.centralWidget());  // before the SDK starts
///
/// Lives on the main thread; `content` owns it as a child widget.

#include <QApplication>
#include <QEvent>
#include <QImage>
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
  }
  ~Qt6Banner() override {
    host_.setRepaintCallback(nullptr);
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
