#pragma once
/// \file
/// Runs the SDK's main queue from a Qt 6 event loop, header-only: a
/// QSocketNotifier on the queue's wake descriptor and one single-shot QTimer
/// for its next delayed task. An idle SDK wakes nothing.
///
///     QApplication app(argc, argv);
///     quorvia::integration::QtMainQueue queue;
///
/// Make it on the thread that runs the Qt event loop (the main thread).

#include <QObject>
#include <QSocketNotifier>
#include <QTimer>
#include <chrono>
#include <climits>

#include "quorvia/platform/RunLoop.h"

namespace quorvia::integration {

class QtMainQueue final : public QObject {
 public:
  explicit QtMainQueue(QObject* parent = nullptr)
      : QObject(parent),
        notifier_(platform::mainRunLoop().wakeFileDescriptor(), QSocketNotifier::Read, this) {
    timer_.setSingleShot(true);
    QObject::connect(&notifier_, &QSocketNotifier::activated, this, [this] { drain(); });
    QObject::connect(&timer_, &QTimer::timeout, this, [this] { drain(); });
    drain();
  }

 private:
  void drain() {
    auto& loop = platform::mainRunLoop();
    loop.drainOnce();
    // Re-armed after every drain: the tasks that ran may have queued others.
    if (const auto next = loop.timeUntilNextTimer()) {
      const auto ms = std::chrono::ceil<std::chrono::milliseconds>(*next).count();
      timer_.start(ms > INT_MAX ? INT_MAX : static_cast<int>(ms));
    } else {
      timer_.stop();
    }
  }

  QSocketNotifier notifier_;
  QTimer timer_{this};
};

}  // namespace quorvia::integration
