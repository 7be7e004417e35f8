#include "sdk/SDKState.h"

#include <cctype>
#include <mutex>

#include "platform/Device.h"
#include "platform/Guard.h"
#include "quorvia/platform/Application.h"
#include "quorvia/platform/RunLoop.h"
#include "sdk/CategoriesManager.h"
#include "sdk/Events.h"

namespace quorvia::sdk {
namespace {

using platform::Value;

constexpr double kMinimumSystemRelease = 8.0;
constexpr auto kLaunchPollDelay = std::chrono::nanoseconds(100'000'000);

// The token of the latest start-up, deliberately kept apart from the appToken
// property: service calls read it from here.
struct AppTokenSlot {
  std::mutex mu;
  std::optional<std::string> token;
};

AppTokenSlot& appTokenSlot() {
  static auto* slot = new AppTokenSlot;
  return *slot;
}

// The leading integer of a version string, as the platform's intValue reads it:
// "7.1.2" -> 7, "10.0" -> 10, " 9" -> 9, "abc" -> 0.
int leadingInt(const std::string& text) {
  std::size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  long long value = 0;
  for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
    value = value * 10 + (text[i] - '0');
    if (value > 2147483647LL) {
      value = 2147483647LL + (negative ? 1 : 0);
      break;
    }
  }
  return static_cast<int>(negative ? -value : value);
}

service::ServiceHooks serviceHooks(SDKState* state) {
  service::ServiceHooks hooks;
  hooks.appToken = [] { return SDKState::currentAppToken(); };
  hooks.hostLacks = [state](std::string_view selector) {
    return state->interception.hostLacks(selector);
  };
  hooks.presentPoll = [state](const Value* pollDict) {
    state->banner->presentPollWithPollDict(pollDict);
  };
  hooks.log = [](std::string_view message) { QuorviaSDK::log(message); };
  hooks.registered = [](const std::string& pushToken,
                        const std::optional<platform::Error>& error) {
    if (error) {
      Events::shared().emit(&Observer::deviceRegistrationFailed,
                            RegistrationFailure{RegistrationFailure::Stage::kPollService,
                                                error->description()});
    } else {
      Events::shared().emit(&Observer::deviceRegistered, pushToken);
    }
  };
  hooks.replied = [](const std::optional<Value>& pollId,
                     const std::optional<std::string>& identifier,
                     const std::optional<platform::Error>& error) {
    Events::shared().emit(
        &Observer::replySent,
        ReplyEvent{eventText(pollId), identifier,
                   error ? std::optional<std::string>(error->description()) : std::nullopt});
  };
  return hooks;
}

}  // namespace

SDKState::SDKState()
    : service(std::make_shared<service::PollService>(serviceHooks(this))),
      banner(std::make_shared<BannerController>(
          service, [](std::string_view message) { QuorviaSDK::log(message); })) {}

SDKState& SDKState::shared() { return *QuorviaSDK::sharedInstance()->state_; }

std::optional<std::string> SDKState::currentAppToken() {
  std::lock_guard lock(appTokenSlot().mu);
  return appTokenSlot().token;
}

QuorviaSDK* SDKState::startWithAppToken(QuorviaSDK& self, const std::string& token,
                                        const std::optional<Value>& launchOptions,
                                        bool swizzling) {
  // Integer comparison on purpose: "10.3" passes where a text comparison would not.
  if (static_cast<double>(leadingInt(platform::systemVersion())) < kMinimumSystemRelease) {
    QuorviaSDK::log("iOS lower than 8.0, SDK will not run.");
    return nullptr;
  }
  {
    std::lock_guard lock(appTokenSlot().mu);
    appTokenSlot().token = token;
  }
  QuorviaSDK::log("Initialized SDK with app token: " + token);

  if (swizzling) {
    interception.swizzle();
  } else {
    QuorviaSDK::log("Swizzling is disabled, please make sure to call required methods.");
  }

  mergeCategoriesIntoSettings();

  const Value* payload =
      launchOptions
          ? platform::valueForKey(*launchOptions, UIApplicationLaunchOptionsRemoteNotificationKey)
          : nullptr;
  if (platform::valueForKey(payload, "poll")) {
    QuorviaSDK::log("Detected poll in notification upon app launch. Presenting.");
    platform::dispatch_after(kLaunchPollDelay, [payload = *payload, banner = banner] {
      platform::runDroppingExceptions("Launch poll", [&] {
        auto view = banner->presentPollWithPollDict(platform::valueForKey(payload, "poll"));
        banner->showOptionsForNotificationView(view);
      });
    });
  } else {
    service->fetchPolls();
  }
  return &self;
}

void SDKState::handleRemoteNotification(const std::optional<Value>& payload) {
  const Value* poll = payload ? platform::valueForKey(*payload, "poll") : nullptr;
  if (!poll) return;
  try {
    // The banner is shown collapsed: the returned view is not expanded here.
    banner->presentPollWithPollDict(poll);
  } catch (...) {
    // A malformed poll is dropped without a message.
  }
}

void SDKState::askUserForPushPermissions() {
  auto& app = platform::Application::sharedApplication();
  if (!app.respondsToRegisterUserNotificationSettings()) return;
  const platform::CategorySet library = CategoriesManager().categories();
  const auto current = app.currentUserNotificationSettings().categories;
  // An absent current set gives an absent union: the three types, no categories.
  std::optional<platform::CategorySet> merged;
  if (current) merged = current->setByAddingObjectsFromSet(library);
  // Registers every time, with full types, whether or not anything changed.
  app.registerUserNotificationSettings(platform::NotificationSettings::settingsForTypes(
      platform::kUserNotificationTypeBadge | platform::kUserNotificationTypeSound |
          platform::kUserNotificationTypeAlert,
      merged));
}

void SDKState::mergeCategoriesIntoSettings() {
  auto& app = platform::Application::sharedApplication();
  const platform::NotificationSettings current = app.currentUserNotificationSettings();
  if ((current.types & platform::kUserNotificationTypeAlert) == 0) return;

  const platform::CategorySet library = CategoriesManager().categories();
  std::optional<platform::CategorySet> merged;
  if (current.categories) merged = current.categories->setByAddingObjectsFromSet(library);
  // An absent current set gives an absent union, which never counts as equal.
  if (merged && merged->isEqualToSet(*current.categories)) return;
  // Deliberately no types: they are read from the new settings before it exists.
  app.registerUserNotificationSettings(
      platform::NotificationSettings::settingsForTypes(platform::kUserNotificationTypeNone, merged));
}

}  // namespace quorvia::sdk
