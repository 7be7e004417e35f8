#include "sdk/BannerController.h"

#include "platform/Accessibility.h"
#include "platform/Animation.h"
#include "platform/BlurView.h"
#include "platform/URL.h"
#include "platform/Window.h"
#include "platform/push/NotificationActions.h"
#include "quorvia/platform/Application.h"
#include "sdk/Events.h"
#include "service/PollService.h"

namespace quorvia {
namespace {

using platform::Rect;

constexpr double kBannerX = 0.0;
constexpr double kBannerHeight = 330.0;
constexpr double kBannerStartY = -430.0;
constexpr double kBannerShownY = 20.0;
constexpr double kSlideDuration = 0.3;
constexpr double kBackdropFadeDuration = 0.2;
// Lets hiding find the backdrop again without keeping a reference to it.
constexpr int kBackdropTag = 234555;
constexpr double kPlainBackdropAlpha = 0.5;
constexpr unsigned kFlexibleSize =
    platform::kAutoresizingFlexibleWidth | platform::kAutoresizingFlexibleHeight;
constexpr const char* kDismissIdentifier = "Dismiss";

std::string questionOf(const std::shared_ptr<QVNotificationView>& view) {
  return view && view->poll() ? platform::describe(view->poll()->question()) : "(null)";
}

const platform::Value* pollIdOf(const std::shared_ptr<QVNotificationView>& view) {
  if (!view || !view->poll() || !view->poll()->objectId()) return nullptr;
  return &*view->poll()->objectId();
}

PollEvent pollEventOf(const std::shared_ptr<QVNotificationView>& view) {
  if (!view || !view->poll()) return {};
  return {sdk::eventText(view->poll()->objectId()), sdk::eventText(view->poll()->question())};
}

// The poll was answered in the app: a desktop notification of the same poll
// would only ask again.
void withdrawNotificationsOfPoll(const std::shared_ptr<QVNotificationView>& view) {
  const platform::Value* id = pollIdOf(view);
  if (!id) return;
  platform::withdrawRemoteNotifications([id = *id](const platform::Value& payload) {
    const platform::Value* pushed =
        platform::valueForKey(platform::valueForKey(payload, "poll"), "id");
    return pushed && *pushed == id;
  });
}

// A window that is not there has bounds of zero.
Rect boundsOf(const std::shared_ptr<platform::Window>& window) {
  return window ? window->bounds() : Rect{};
}

std::shared_ptr<platform::View> makeBackdrop(const Rect& windowBounds) {
  auto backdrop = platform::View::make(windowBounds);
  if (platform::UIAccessibilityIsReduceTransparencyEnabled()) {
    backdrop->setBackgroundColor(platform::Color::blackColor().colorWithAlphaComponent(kPlainBackdropAlpha));
  } else {
    auto blur = std::make_shared<platform::BlurView>(platform::BlurEffectStyle::kDark);
    blur->setFrame(windowBounds);
    blur->setAutoresizingMask(kFlexibleSize);
    backdrop->addSubview(blur);
  }
  return backdrop;
}

}  // namespace

std::shared_ptr<QVNotificationView> BannerController::presentPollWithPollDict(
    const platform::Value* pollDict) {
  if (presentedPollView_) return nullptr;
  // Without a key window every step runs against nothing: the banner has no
  // width and is on no screen, yet it is the presented one until hidden.
  auto window = platform::keyWindow();

  const auto poll = QVModelPoll::objectWithDictionary(pollDict);
  log("Presenting poll: " + platform::describe(poll->question()));

  auto view = QVNotificationView::initWithFrame(
      Rect::make(kBannerX, kBannerStartY, boundsOf(window).width(), kBannerHeight));
  view->setPoll(poll);
  view->setDelegate(weak_from_this());
  if (window) window->addSubview(view);
  presentedPollView_ = view;
  platform::animateWithDuration(kSlideDuration, [&view] {
    Rect frame = view->frame();
    frame.origin.y = kBannerShownY;
    view->setFrame(frame);
  });
  sdk::Events::shared().emit(&Observer::pollPresented, pollEventOf(view));
  return view;
}

void BannerController::showOptionsForNotificationView(const std::shared_ptr<QVNotificationView>& view) {
  auto window = platform::keyWindow();
  if (view) view->removeFromSuperview();
  auto backdrop = makeBackdrop(boundsOf(window));
  backdrop->setAlpha(0.0);
  backdrop->setTag(kBackdropTag);
  if (window) window->addSubview(backdrop);
  if (window && view) window->addSubview(view);
  platform::animateWithDuration(kBackdropFadeDuration, [&backdrop] { backdrop->setAlpha(1.0); });
  // At once, not after the fade: the options slide in while the backdrop fades in.
  if (view) {
    view->setShowOptions(true);
    sdk::Events::shared().emit(&Observer::bannerExpanded, pollEventOf(view));
  }
}

void BannerController::hideNotificationView(const std::shared_ptr<QVNotificationView>& view) {
  // A going banner is no place for keyboard focus: keys are the host's again.
  if (view) view->endKeyboardFocus();
  auto window = platform::keyWindow();
  auto backdrop = window ? window->viewWithTag(kBackdropTag) : nullptr;
  platform::animateWithDuration(
      kBackdropFadeDuration,
      [&backdrop] {
        if (backdrop) backdrop->setAlpha(0.0);
      },
      [backdrop](bool) {
        if (backdrop) backdrop->removeFromSuperview();
      });
  // The banner stays in the window above its top edge on purpose: only the
  // property is cleared, which frees the way for the next banner.
  platform::animateWithDuration(
      kSlideDuration,
      [&view] {
        if (!view) return;
        Rect frame = view->frame();
        frame.origin.y = -frame.height();
        view->setFrame(frame);
      },
      [weak = weak_from_this(), event = pollEventOf(view)](bool) {
        if (auto self = weak.lock()) self->presentedPollView_ = nullptr;
        sdk::Events::shared().emit(&Observer::bannerHidden, event);
      });
}

void BannerController::notificationViewDidPressExpand(
    const std::shared_ptr<QVNotificationView>& view) {
  log("User expanded poll: " + questionOf(view));
  showOptionsForNotificationView(view);
}

void BannerController::notificationView(const std::shared_ptr<QVNotificationView>& view,
                                  const std::optional<std::string>& identifier,
                                  const std::optional<std::string>& link) {
  log("User tapped action: " + platform::describe(identifier));
  replies_->sendReplyWithIdentifier(identifier, pollIdOf(view), nullptr);
  withdrawNotificationsOfPoll(view);
  hideNotificationView(view);
  if (!link) return;
  auto& app = platform::Application::sharedApplication();
  const auto url = platform::URLWithString(*link);
  if (url && app.canOpenURL(url->absoluteString)) {
    log("User tapped link. Opening: " + *link);
    app.openURL(url->absoluteString);
  } else {
    log("User tapped link but link is invalid: " + *link);
  }
}

void BannerController::notificationViewDidPressClose(const std::shared_ptr<QVNotificationView>& view) {
  log("User dismissed poll: " + questionOf(view));
  // A dismissal is reported to the service like an answer.
  replies_->sendReplyWithIdentifier(std::string(kDismissIdentifier), pollIdOf(view), nullptr);
  withdrawNotificationsOfPoll(view);
  hideNotificationView(view);
}

}  // namespace quorvia
