#pragma once
/// \file
/// The application delegate: the six push callbacks the platform makes to the
/// application, as plain C++ functions. A host sets the ones it wants with
/// Application::setDelegate() before it starts the SDK:
///
///     platform::ApplicationDelegate delegate;
///     delegate.didReceiveRemoteNotification = [](const std::optional<platform::Value>& payload) {
///       /* the host's own handling of a push */
///     };
///     platform::Application::sharedApplication().setDelegate(std::move(delegate));
///
/// A callback left empty is one the host does not implement. With
/// interception on (the default), the SDK puts its own handling in front of
/// every callback: it runs first, then the host's function if there is one.
/// For a callback that carries a completion handler and that the host left
/// empty, the SDK completes the platform's call itself; when the host provides
/// it, completing it is the host's duty (call the handler once, on any thread).
/// Every callback runs on the main thread.

#include <functional>
#include <optional>
#include <string>

#include "quorvia/export.h"
#include "quorvia/platform/Error.h"
#include "quorvia/platform/Value.h"

namespace quorvia::platform {

/// What a host tells the platform when it has handled a pushed payload
/// (UIBackgroundFetchResult).
enum class FetchResult {
  kNewData = 0,
  kNoData = 1,
  kFailed = 2,
};

/// The push callbacks of the application delegate. Copyable; the application
/// keeps its own copy.
struct ApplicationDelegate {
  /// The push service gave the device its token (raw bytes).
  std::function<void(const Bytes& deviceToken)> didRegisterForRemoteNotifications;
  /// The push service could not give the device a token.
  std::function<void(const Error& error)> didFailToRegisterForRemoteNotifications;
  /// A push arrived (its payload, nil when it came without one).
  std::function<void(const std::optional<Value>& userInfo)> didReceiveRemoteNotification;
  /// A push arrived; call `completionHandler` once when done with it.
  std::function<void(const std::optional<Value>& userInfo,
                     std::function<void(FetchResult)> completionHandler)>
      didReceiveRemoteNotificationWithFetchCompletion;
  /// The user pressed a button of a notification (or the notification itself:
  /// identifier "com.apple.UNNotificationDefaultActionIdentifier"); call
  /// `completionHandler` once when done.
  std::function<void(const std::optional<std::string>& identifier,
                     const std::optional<Value>& userInfo, std::function<void()> completionHandler)>
      handleAction;
  /// The same with the response info the notification came back with (such
  /// as text the user typed). When both are set, the platform calls this one.
  std::function<void(const std::optional<std::string>& identifier,
                     const std::optional<Value>& userInfo, const std::optional<Value>& responseInfo,
                     std::function<void()> completionHandler)>
      handleActionWithResponseInfo;
};

}  // namespace quorvia::platform
