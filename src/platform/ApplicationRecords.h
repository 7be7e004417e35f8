#pragma once
// What the SDK asked of the application object. The simulator reports it and
// drives the platform's side of background tasks (their time running out); a
// host never needs it, so it stays out of the installed header.

#include <functional>
#include <string>
#include <vector>

#include "quorvia/platform/Application.h"

namespace quorvia::platform {

/// What the application was asked about one background task.
struct BackgroundTaskRecord {
  BackgroundTaskIdentifier identifier = UIBackgroundTaskInvalid;
  std::string name;
  bool ended = false;
  bool expired = false;
};

class ApplicationRecords {
 public:
  static int remoteNotificationRegistrationCount(const Application& app);
  /// Called (on the calling thread) after each settings registration is recorded.
  static void setSettingsRegisteredObserver(
      Application& app, std::function<void(const NotificationSettings&)> observer);
  /// The platform's time for `identifier` ran out: its expiry handler runs
  /// now, on the calling thread. False when there is no such live task.
  static bool expireBackgroundTask(Application& app, BackgroundTaskIdentifier identifier);
  static std::vector<BackgroundTaskRecord> backgroundTasks(const Application& app);
  /// Called after each begin and end, with the record as it now stands.
  static void setBackgroundTaskObserver(
      Application& app, std::function<void(const BackgroundTaskRecord&, bool began)> observer);
  static std::vector<std::string> openedURLs(const Application& app);
};

}  // namespace quorvia::platform
