#include "platform/push/NotificationActions.h"

#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include "platform/ApplicationDelegateRuntime.h"
#include "platform/Log.h"
#include "platform/push/CompletionDeadline.h"
#include "quorvia/platform/Application.h"
#include "quorvia/platform/Environment.h"
#include "quorvia/platform/NotificationPresenter.h"

namespace quorvia::platform {
namespace {

// The alert's text: "aps" "alert" as a text, or the "body" (else "title") of
// an alert dictionary. Nullopt when the push has no alert to show.
std::optional<std::string> alertText(const Value& payload) {
  const Value* alert = valueForKey(valueForKey(payload, "aps"), "alert");
  if (!alert) return std::nullopt;
  if (alert->is_string()) return alert->get<std::string>();
  for (const char* key : {"body", "title"}) {
    const Value* text = valueForKey(alert, key);
    if (text && text->is_string()) return text->get<std::string>();
  }
  debugLog(
      "QuorviaSDK: a push's aps.alert is neither a text nor a dictionary with a body; no "
      "desktop notification");
  return std::nullopt;
}

// The buttons of the registered category the push names, in the category's
// order; none for a category that is not registered.
std::vector<NotificationPresenter::Button> buttonsFor(const Value& payload,
                                                      const NotificationSettings& settings) {
  std::vector<NotificationPresenter::Button> buttons;
  const Value* name = valueForKey(valueForKey(payload, "aps"), "category");
  if (!name || !name->is_string() || !settings.categories) return buttons;
  const NotificationCategory* category =
      settings.categories->categoryWithIdentifier(name->get<std::string>());
  if (!category) return buttons;
  for (const NotificationAction& action :
       category->actionsForContext(UserNotificationActionContext::kDefault)) {
    buttons.push_back({action.identifier(), action.title()});
  }
  return buttons;
}

// Installs the action handler once per presenter (the environment may be
// replaced). Main queue only.
void routeActionsFrom(const std::shared_ptr<NotificationPresenter>& presenter) {
  static auto* const routed = new std::weak_ptr<NotificationPresenter>;
  if (routed->lock() == presenter) return;
  *routed = presenter;
  presenter->setActionHandler([](std::string identifier, Value payload) {
    deliverNotificationAction(std::move(identifier), std::move(payload));
  });
}

// A real platform ends the app's time for the action when its deadline is over.
CompletionDeadline& actionDeadline() {
  static auto* const deadline = new CompletionDeadline(
      kActionCompletionDeadline,
      "QuorviaSDK: a notification action's completion handler was not called within 30 seconds");
  return *deadline;
}

}  // namespace

void presentRemoteNotification(const Value& payload) {
  Application& application = Application::sharedApplication();
  // The app in front handles the push itself (the banner); a bubble would
  // repeat it.
  if (application.isActive()) return;
  const NotificationSettings settings = application.currentUserNotificationSettings();
  if ((settings.types & kUserNotificationTypeAlert) == 0) return;
  std::optional<std::string> text = alertText(payload);
  if (!text) return;
  const std::shared_ptr<NotificationPresenter> presenter = environment().notificationPresenter();
  if (!presenter) return;
  routeActionsFrom(presenter);
  presenter->present({environment().deviceInfo().appIdentifier, std::move(*text),
                      buttonsFor(payload, settings), payload});
}

void deliverNotificationAction(std::string identifier, Value payload) {
  if (identifier == kNotificationDefaultAction) identifier = kDefaultActionIdentifier;
  const std::shared_ptr<Object> delegate = delegateObject(Application::sharedApplication());
  const bool withResponseInfo =
      delegate && delegate->respondsToSelector(kHandleActionWithResponseInfoSelector);
  if (!withResponseInfo && !(delegate && delegate->respondsToSelector(kHandleActionSelector))) {
    debugLog(
        "QuorviaSDK: the app delegate handles no notification actions; the action was dropped");
    return;
  }
  MessageArguments arguments;
  arguments.identifier = std::move(identifier);
  arguments.userInfo.emplace(std::move(payload));
  // The platform hands over no typed text on the desktop: an empty info.
  if (withResponseInfo) arguments.responseInfo = Value::object();
  // The host may complete from any thread, and more than once by mistake.
  auto called = std::make_shared<std::atomic<bool>>(false);
  arguments.completionHandler = [called, ticket = actionDeadline().start()] {
    if (called->exchange(true)) {
      debugLog("QuorviaSDK: a notification action's completion handler was called again; ignored");
      return;
    }
    actionDeadline().finish(ticket);
  };
  deliverToApplicationDelegate(
      withResponseInfo ? kHandleActionWithResponseInfoSelector : kHandleActionSelector,
      std::move(arguments));
}

void withdrawRemoteNotifications(std::function<bool(const Value&)> matches) {
  if (const auto presenter = environment().notificationPresenter()) {
    presenter->withdraw(std::move(matches));
  }
}

std::size_t actionCompletionsAwaited() { return actionDeadline().watching(); }

}  // namespace quorvia::platform
