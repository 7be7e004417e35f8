#include "platform/ApplicationRecords.h"

#include <mutex>

#include "platform/ApplicationDelegateRuntime.h"
#include "platform/URL.h"
#include "quorvia/platform/Environment.h"
#include "quorvia/platform/NotificationCenter.h"
#include "platform/push/RemoteNotifications.h"

namespace quorvia::platform {

struct Application::State {
  mutable std::mutex mu;
  int remoteRegistrations = 0;
  NotificationSettings current{0, CategorySet{}};  // a fresh app: no types, no categories
  bool respondsToRegisterSettings = true;
  std::vector<NotificationSettings> registered;
  std::function<void(const NotificationSettings&)> settingsObserver;

  BackgroundTaskIdentifier nextTask = 1;
  std::vector<BackgroundTaskRecord> tasks;
  std::vector<std::pair<BackgroundTaskIdentifier, Task>> expiryHandlers;
  std::function<void(const BackgroundTaskRecord&, bool)> taskObserver;

  std::function<bool(const std::string&)> canOpen;
  std::function<void(const std::string&)> opener;
  std::vector<std::string> opened;

  bool active = false;  // no window has the focus until the host says so

  std::shared_ptr<Window> keyWindow;
  std::shared_ptr<Object> delegate;

  BackgroundTaskRecord* findTask(BackgroundTaskIdentifier id) {
    for (auto& t : tasks)
      if (t.identifier == id) return &t;
    return nullptr;
  }
};

Application& Application::sharedApplication() {
  static auto* app = new Application;  // lives for the process, like the platform's
  return *app;
}

Application::Application() : state_(std::make_unique<State>()) {
  // Every application has a delegate; a host that sets none has one that
  // implements no callback, so interception adds all of them.
  state_->delegate = makeDelegateObject({});
}
Application::~Application() = default;

void Application::registerForRemoteNotifications() {
  {
    std::lock_guard lock(state_->mu);
    ++state_->remoteRegistrations;
  }
  startRemoteNotifications();
}

int ApplicationRecords::remoteNotificationRegistrationCount(const Application& app) {
  std::lock_guard lock(app.state_->mu);
  return app.state_->remoteRegistrations;
}

NotificationSettings Application::currentUserNotificationSettings() const {
  std::lock_guard lock(state_->mu);
  return state_->current;
}

void Application::setCurrentUserNotificationSettings(NotificationSettings settings) {
  std::lock_guard lock(state_->mu);
  state_->current = std::move(settings);
}

bool Application::respondsToRegisterUserNotificationSettings() const {
  std::lock_guard lock(state_->mu);
  return state_->respondsToRegisterSettings;
}

void Application::setRespondsToRegisterUserNotificationSettings(bool responds) {
  std::lock_guard lock(state_->mu);
  state_->respondsToRegisterSettings = responds;
}

void Application::registerUserNotificationSettings(NotificationSettings settings) {
  std::function<void(const NotificationSettings&)> observer;
  {
    std::lock_guard lock(state_->mu);
    state_->registered.push_back(settings);
    observer = state_->settingsObserver;
  }
  if (observer) observer(settings);
  // The user answers later, as a prompt would, never inside the request.
  if (auto granted = environment().answerNotificationPermission(settings)) {
    dispatch_async([granted = std::move(*granted)] {
      sharedApplication().setCurrentUserNotificationSettings(granted);
    });
  }
}

std::vector<NotificationSettings> Application::registeredUserNotificationSettings() const {
  std::lock_guard lock(state_->mu);
  return state_->registered;
}

void ApplicationRecords::setSettingsRegisteredObserver(
    Application& app, std::function<void(const NotificationSettings&)> observer) {
  std::lock_guard lock(app.state_->mu);
  app.state_->settingsObserver = std::move(observer);
}

BackgroundTaskIdentifier Application::beginBackgroundTaskWithName(std::string name,
                                                                  Task expirationHandler) {
  BackgroundTaskRecord record;
  std::function<void(const BackgroundTaskRecord&, bool)> observer;
  {
    std::lock_guard lock(state_->mu);
    record = BackgroundTaskRecord{state_->nextTask++, std::move(name), false, false};
    state_->tasks.push_back(record);
    state_->expiryHandlers.emplace_back(record.identifier, std::move(expirationHandler));
    observer = state_->taskObserver;
  }
  if (observer) observer(record, true);
  return record.identifier;
}

void Application::endBackgroundTask(BackgroundTaskIdentifier identifier) {
  BackgroundTaskRecord record;
  std::function<void(const BackgroundTaskRecord&, bool)> observer;
  {
    std::lock_guard lock(state_->mu);
    BackgroundTaskRecord* task = state_->findTask(identifier);
    if (!task || task->ended) return;
    task->ended = true;
    record = *task;
    std::erase_if(state_->expiryHandlers, [&](const auto& e) { return e.first == identifier; });
    observer = state_->taskObserver;
  }
  if (observer) observer(record, false);
}

bool ApplicationRecords::expireBackgroundTask(Application& app,
                                              BackgroundTaskIdentifier identifier) {
  Task handler;
  {
    std::lock_guard lock(app.state_->mu);
    BackgroundTaskRecord* task = app.state_->findTask(identifier);
    if (!task || task->ended) return false;
    task->expired = true;
    for (auto& e : app.state_->expiryHandlers)
      if (e.first == identifier) handler = e.second;
  }
  if (handler) handler();
  return true;
}

std::vector<BackgroundTaskRecord> ApplicationRecords::backgroundTasks(const Application& app) {
  std::lock_guard lock(app.state_->mu);
  return app.state_->tasks;
}

void ApplicationRecords::setBackgroundTaskObserver(
    Application& app, std::function<void(const BackgroundTaskRecord&, bool)> observer) {
  std::lock_guard lock(app.state_->mu);
  app.state_->taskObserver = std::move(observer);
}

bool Application::canOpenURL(const std::string& url) const {
  std::function<bool(const std::string&)> canOpen;
  {
    std::lock_guard lock(state_->mu);
    canOpen = state_->canOpen;
  }
  if (canOpen) return canOpen(url);
  const auto parsed = URLWithString(url);
  if (!parsed) return false;
  return parsed->scheme == "http" || parsed->scheme == "https" || parsed->scheme == "mailto" ||
         parsed->scheme == "tel";
}

void Application::setCanOpenURLHandler(std::function<bool(const std::string&)> handler) {
  std::lock_guard lock(state_->mu);
  state_->canOpen = std::move(handler);
}

void Application::openURL(const std::string& url) {
  std::function<void(const std::string&)> opener;
  {
    std::lock_guard lock(state_->mu);
    state_->opened.push_back(url);
    opener = state_->opener;
  }
  if (opener) opener(url);
}

void Application::setOpenURLHandler(std::function<void(const std::string&)> handler) {
  std::lock_guard lock(state_->mu);
  state_->opener = std::move(handler);
}

std::vector<std::string> ApplicationRecords::openedURLs(const Application& app) {
  std::lock_guard lock(app.state_->mu);
  return app.state_->opened;
}

bool Application::isActive() const {
  std::lock_guard lock(state_->mu);
  return state_->active;
}

void Application::setActive(bool active) {
  {
    std::lock_guard lock(state_->mu);
    if (state_->active == active) return;
    state_->active = active;
  }
  NotificationCenter::defaultCenter().postNotificationName(
      active ? UIApplicationDidBecomeActiveNotification
             : UIApplicationWillResignActiveNotification);
}

std::shared_ptr<Window> Application::keyWindow() const {
  std::lock_guard lock(state_->mu);
  return state_->keyWindow;
}

void Application::setKeyWindow(std::shared_ptr<Window> window) {
  std::lock_guard lock(state_->mu);
  state_->keyWindow = std::move(window);
}

void Application::setDelegate(ApplicationDelegate delegate) {
  setDelegateObject(*this, makeDelegateObject(std::move(delegate)));
}

std::shared_ptr<Object> delegateObject(const Application& app) {
  std::lock_guard lock(app.state_->mu);
  return app.state_->delegate;
}

void setDelegateObject(Application& app, std::shared_ptr<Object> delegate) {
  std::lock_guard lock(app.state_->mu);
  app.state_->delegate = std::move(delegate);
}

}  // namespace quorvia::platform
