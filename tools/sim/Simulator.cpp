#include "Simulator.h"

#include <algorithm>
#include <cstdlib>
#include <exception>

#include "CommandFields.h"
#include "HostDelegate.h"
#include "HostScreen.h"
#include "platform/Accessibility.h"
#include "platform/ApplicationDelegateRuntime.h"
#include "platform/ApplicationRecords.h"
#include "platform/ConfigurableEnvironment.h"
#include "platform/Device.h"
#include "platform/Log.h"
#include "platform/Window.h"
#include "quorvia/Observer.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/NotificationCenter.h"
#include "quorvia/platform/PushService.h"
#include "quorvia/platform/RunLoop.h"

namespace quorvia::sim {
namespace {

// main() installs it before the simulator starts.
platform::ConfigurableEnvironment& simulatedEnvironment() {
  return dynamic_cast<platform::ConfigurableEnvironment&>(platform::environment());
}

using platform::Value;

constexpr const char* kDefaultSystemVersion = "17.0";
// The simulated phone's screen, in points, and its pixels per point.
constexpr double kScreenWidth = 375;
constexpr double kScreenHeight = 667;
constexpr double kScreenScale = 2;

Value orNull(const std::optional<std::string>& text) { return text ? Value(*text) : Value(); }

Value pollFields(const PollEvent& poll) {
  return {{"pollId", orNull(poll.pollId)}, {"question", orNull(poll.question)}};
}

Value categoryIdentifiers(const std::optional<platform::CategorySet>& categories) {
  if (!categories) return nullptr;
  Value identifiers = Value::array();
  for (const auto& category : categories->allObjects())
    identifiers.push_back(category.identifier());
  return identifiers;
}

std::vector<std::string> selectorList(const Value& delegate, std::string_view key) {
  std::vector<std::string> selectors;
  const Value* list = field(delegate, key);
  if (!list) return selectors;
  if (!list->is_array()) throw CommandError("\"delegate." + std::string(key) + "\" must be a list");
  const auto& known = applicationDelegateCallbacks();
  for (const Value& selector : *list) {
    if (!selector.is_string() ||
        std::find(known.begin(), known.end(), selector.get<std::string>()) == known.end()) {
      throw CommandError("\"delegate." + std::string(key) +
                         "\" names no push callback: " + selector.dump());
    }
    selectors.push_back(selector.get<std::string>());
  }
  return selectors;
}

platform::NotificationSettings settingsFrom(const Value& settings) {
  platform::NotificationSettings result;
  const Value* types = field(settings, "types");
  if (types && !types->is_number_unsigned()) {
    throw CommandError("\"settings.types\" must be a number of at least 0");
  }
  if (types) result.types = types->get<std::uint32_t>();
  const Value* categories = field(settings, "categories");
  if (!categories) return result;
  if (!categories->is_array()) throw CommandError("\"settings.categories\" must be a list or null");
  platform::CategorySet set;
  for (const Value& identifier : *categories) {
    if (!identifier.is_string()) {
      throw CommandError("\"settings.categories\" must hold identifiers (strings)");
    }
    platform::NotificationCategory category;
    category.setIdentifier(identifier.get<std::string>());
    set.addObject(std::move(category));
  }
  result.categories = std::move(set);
  return result;
}

}  // namespace

Simulator::Simulator(std::shared_ptr<EventWriter> events, SimulatorOptions options)
    : events_(std::move(events)), options_(std::move(options)) {
  handlers_ = {
      {"launch", &Simulator::launch},
      {"deviceToken", &Simulator::deviceToken},
      {"registrationFailed", &Simulator::registrationFailed},
      {"push", &Simulator::push},
      {"action", &Simulator::action},
      {"setDeviceToken", &Simulator::setDeviceToken},
      {"handleRemoteNotification", &Simulator::handleRemoteNotification},
      {"handleAction", &Simulator::handleAction},
      {"setUserInfo", &Simulator::setUserInfo},
      {"askPermission", &Simulator::askPermission},
      {"setDebug", &Simulator::setDebug},
      {"becomeActive", &Simulator::lifecycle},
      {"resignActive", &Simulator::lifecycle},
      {"enterBackground", &Simulator::lifecycle},
      {"terminate", &Simulator::lifecycle},
      {"expireBackgroundTask", &Simulator::expireBackgroundTask},
      {"tapCard", &Simulator::tapCard},
      {"tapClose", &Simulator::tapClose},
      {"tapOption", &Simulator::tapOption},
      {"wait", &Simulator::wait},
      {"snapshot", &Simulator::snapshot},
      {"state", &Simulator::state},
      {"quit", &Simulator::quit},
      {"request", &Simulator::request},
      {"keychain", &Simulator::keychain},
  };
}

Simulator::~Simulator() = default;

void Simulator::install() {
  auto events = events_;
  simulatedEnvironment().setLogSink([events](std::string_view line) {
    events->write("log", {{"line", std::string(line)}});
  });
  auto& app = platform::Application::sharedApplication();
  platform::ApplicationRecords::setSettingsRegisteredObserver(
      app, [events](const platform::NotificationSettings& settings) {
        events->write(
            "settingsRegistered",
            {{"types", settings.types}, {"categories", categoryIdentifiers(settings.categories)}});
      });
  platform::ApplicationRecords::setBackgroundTaskObserver(
      app, [events](const platform::BackgroundTaskRecord& task, bool began) {
        events->write(
            "backgroundTask",
            {{"action", began ? "begin" : "end"}, {"name", task.name}, {"id", task.identifier}});
      });
  app.setOpenURLHandler([events](const std::string& url) {
    events->write("openURL", {{"url", url}});
  });
  remoteNotificationRequests_ =
      platform::ApplicationRecords::remoteNotificationRegistrationCount(app);
  // What happened, as the SDK tells a host that observes it.
  setObserver({
      .deviceRegistered =
          [events](const std::string& token) {
            events->write("registered", {{"pushToken", token}});
          },
      .deviceRegistrationFailed =
          [events](const RegistrationFailure& failure) {
            events->write(
                "registrationFailed",
                {{"stage", failure.stage == RegistrationFailure::Stage::kPushToken ? "pushToken"
                                                                                   : "pollService"},
                 {"error", failure.error}});
          },
      .pollPresented =
          [events](const PollEvent& poll) { events->write("presented", pollFields(poll)); },
      .bannerExpanded =
          [events](const PollEvent& poll) { events->write("expanded", pollFields(poll)); },
      .replySent =
          [events](const ReplyEvent& reply) {
            events->write("replied", {{"pollId", orNull(reply.pollId)},
                                      {"replyText", orNull(reply.replyText)},
                                      {"error", orNull(reply.error)}});
          },
      .bannerHidden =
          [events](const PollEvent& poll) { events->write("hidden", pollFields(poll)); },
  });
  // With a broker named, the device registers and pushes arrive by themselves; without one,
  // the deviceToken and push commands stand in for the push service.
  std::string broker = options_.pushBroker;
  if (const char* fromEnvironment = std::getenv("QUORVIA_PUSH_BROKER");
      broker.empty() && fromEnvironment) {
    broker = fromEnvironment;
  }
  if (!broker.empty()) {
    simulatedEnvironment().setPushService(
        platform::makeMqttPushService({broker, platform::dataDirectory()}));
  } else {
    simulatedEnvironment().setPushService(nullptr);
  }
  auto window = platform::View::make<platform::Window>(
      platform::Rect::make(0, 0, kScreenWidth, kScreenHeight));
  window->setScale(kScreenScale);
  app.setKeyWindow(window);
  drawHostScreen(*window);
}

bool Simulator::execute(std::string_view line) {
  if (quit_) return false;
  if (line.find_first_not_of(" \t\r") == std::string_view::npos) return true;
  try {
    const std::optional<Value> command = platform::parseJson(line);
    if (!command || !command->is_object()) throw CommandError("a command must be a JSON object");
    const std::string name = requiredString(*command, "cmd");
    auto handler = handlers_.find(name);
    if (handler == handlers_.end()) throw CommandError("unknown command \"" + name + "\"");
    (this->*(handler->second))(*command);
  } catch (const std::exception& e) {
    events_->error(e.what());
  }
  reportPlatformRequests();
  return !quit_;
}

void Simulator::reportPlatformRequests() {
  const int requests = platform::ApplicationRecords::remoteNotificationRegistrationCount(
      platform::Application::sharedApplication());
  for (; remoteNotificationRequests_ < requests; ++remoteNotificationRequests_) {
    events_->write("remoteNotificationsRequested");
  }
}

void Simulator::deliver(std::string_view selector, platform::MessageArguments arguments) {
  arguments.application = &platform::Application::sharedApplication();
  if (!platform::deliverToApplicationDelegate(selector, std::move(arguments))) {
    events_->write("undelivered", {{"selector", std::string(selector)}});
  }
}

void Simulator::launch(const Json& command) {
  // Everything is read before anything changes, so a bad field leaves the app as it was.
  const std::string appToken = requiredString(command, "appToken");
  const Value* launchOptionsField = field(command, "launchOptions");
  if (launchOptionsField && !launchOptionsField->is_object()) {
    throw CommandError("\"launchOptions\" must be an object or null");
  }
  std::optional<Value> launchOptions;
  if (launchOptionsField) launchOptions = *launchOptionsField;
  const Value* swizzling = field(command, "swizzling");
  if (swizzling && !swizzling->is_boolean())
    throw CommandError("\"swizzling\" must be true or false");
  const std::string systemVersion =
      optionalString(command, "systemVersion").value_or(kDefaultSystemVersion);
  HostDelegateSpec spec;
  if (const auto delegate = optionalDictionary(command, "delegate")) {
    spec.implements = selectorList(*delegate, "implements");
    spec.superclassImplements = selectorList(*delegate, "superclassImplements");
  }
  std::optional<platform::NotificationSettings> settings;
  if (const auto given = optionalDictionary(command, "settings")) settings = settingsFrom(*given);
  const bool reduceTransparency = optionalBool(command, "reduceTransparency", false);

  simulatedEnvironment().setSystemVersion(systemVersion);
  simulatedEnvironment().setReduceTransparency(reduceTransparency);
  auto& app = platform::Application::sharedApplication();
  if (settings) app.setCurrentUserNotificationSettings(*settings);
  ++launches_;
  const std::string className =
      launches_ == 1 ? "SimAppDelegate" : "SimAppDelegate" + std::to_string(launches_);
  delegate_ = makeHostDelegate(className, spec, events_);
  platform::setDelegateObject(app, delegate_);

  sdkStarted_ = true;
  if (swizzling) {
    QuorviaSDK::initWithAppToken(appToken, launchOptions, swizzling->get<bool>());
  } else {
    QuorviaSDK::initWithAppToken(appToken, launchOptions);
  }
}

void Simulator::deviceToken(const Json& command) {
  platform::MessageArguments arguments;
  arguments.deviceToken = optionalHex(command, "hex");
  deliver(platform::kDidRegisterForRemoteNotificationsSelector, std::move(arguments));
}

void Simulator::registrationFailed(const Json& command) {
  platform::MessageArguments arguments;
  platform::Error error;
  error.domain = optionalString(command, "domain").value_or("NSCocoaErrorDomain");
  error.code = static_cast<std::int64_t>(optionalNumber(command, "code", 3010));
  arguments.error = error;
  deliver(platform::kDidFailToRegisterForRemoteNotificationsSelector, std::move(arguments));
}

void Simulator::push(const Json& command) {
  platform::MessageArguments arguments;
  arguments.userInfo = optionalDictionary(command, "payload");
  if (!optionalBool(command, "fetchCompletion", false)) {
    deliver(platform::kDidReceiveRemoteNotificationSelector, std::move(arguments));
    return;
  }
  const std::string selector(platform::kDidReceiveRemoteNotificationFetchSelector);
  arguments.fetchCompletionHandler = [events = events_, selector](int result) {
    events->write("completion", {{"selector", selector}, {"result", result}});
  };
  deliver(selector, std::move(arguments));
}

void Simulator::action(const Json& command) {
  platform::MessageArguments arguments;
  arguments.identifier = optionalString(command, "identifier");
  arguments.userInfo = optionalDictionary(command, "payload");
  const bool withResponseInfo = platform::valueForKey(command, "responseInfo") != nullptr;
  if (withResponseInfo) arguments.responseInfo = optionalDictionary(command, "responseInfo");
  const std::string selector(withResponseInfo ? platform::kHandleActionWithResponseInfoSelector
                                              : platform::kHandleActionSelector);
  arguments.completionHandler = [events = events_, selector] {
    events->write("completion", {{"selector", selector}, {"result", nullptr}});
  };
  deliver(selector, std::move(arguments));
}

void Simulator::lifecycle(const Json& command) {
  // The app's activity changes as a host's window focus changes it, so that a
  // push to an app in the background becomes a desktop notification.
  const std::string name = requiredString(command, "cmd");
  auto& app = platform::Application::sharedApplication();
  app.setActive(name == "becomeActive");
  auto& center = platform::NotificationCenter::defaultCenter();
  if (name == "enterBackground") {
    center.postNotificationName(platform::UIApplicationDidEnterBackgroundNotification);
  } else if (name == "terminate") {
    center.postNotificationName(platform::UIApplicationWillTerminateNotification);
  }
}

void Simulator::expireBackgroundTask(const Json& command) {
  auto& app = platform::Application::sharedApplication();
  const Value* id = field(command, "id");
  if (id && !id->is_number_unsigned()) throw CommandError("\"id\" must be a task identifier");
  platform::BackgroundTaskIdentifier task = platform::UIBackgroundTaskInvalid;
  if (id) {
    task = id->get<platform::BackgroundTaskIdentifier>();
  } else {
    for (const auto& record : platform::ApplicationRecords::backgroundTasks(app)) {
      if (!record.ended && !record.expired) task = record.identifier;
    }
  }
  if (task == platform::UIBackgroundTaskInvalid ||
      !platform::ApplicationRecords::expireBackgroundTask(app, task)) {
    throw CommandError("no such background task is running");
  }
}

void Simulator::wait(const Json& command) {
  const double seconds = optionalNumber(command, "seconds", 0);
  if (seconds < 0 || seconds > 3600) throw CommandError("\"seconds\" must be between 0 and 3600");
  platform::mainRunLoop().runFor(platform::seconds(seconds));
}

void Simulator::quit(const Json&) { quit_ = true; }

}  // namespace quorvia::sim
