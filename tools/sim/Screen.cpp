// What the user sees and touches: taps on the banner, snapshots of the window and the state
// event.
#include <system_error>

#include "CommandFields.h"
#include "Simulator.h"
#include "keychain/LKKeychain.h"
#include "platform/Renderer.h"
#include "platform/TableView.h"
#include "platform/Window.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Application.h"
#include "sdk/SDKState.h"
#include "ui/QVNotificationHeaderCell.h"
#include "ui/QVNotificationView.h"

namespace quorvia::sim {
namespace {

using platform::Value;

// The tag the SDK gives the backdrop laid under an expanded banner.
constexpr int kBackdropTag = 234555;
constexpr const char* kTokenService = "polls";
constexpr const char* kTokenAccount = "user_token";

std::shared_ptr<QVNotificationView> presentedBanner(bool sdkStarted) {
  auto banner = sdkStarted ? sdk::SDKState::shared().banner->presentedPollView() : nullptr;
  if (!banner) throw CommandError("no banner is presented");
  return banner;
}

// The centre of `view` in window coordinates, where it is drawn at this moment of its
// animations.
platform::Point centreOnScreen(platform::View& view) {
  const platform::Rect own = view.presentationFrame();
  platform::Point centre{own.width() / 2, own.height() / 2};
  for (platform::View* v = &view; v->superview(); v = v->superview().get()) {
    const platform::Rect frame = v->presentationFrame();
    centre.x += frame.x();
    centre.y += frame.y();
  }
  return centre;
}

void touch(platform::View& view) {
  auto window = platform::keyWindow();
  window->tap(centreOnScreen(view));
}

std::shared_ptr<platform::TableViewCell> visibleCell(QVNotificationView& banner, int section,
                                                     int row) {
  banner.tableView()->layoutIfNeeded();
  auto cell = banner.tableView()->cellForRowAtIndexPath(platform::IndexPath{section, row});
  if (!cell) throw CommandError("that row of the banner is not on screen");
  return cell;
}

Value frameOf(const platform::Rect& frame) {
  return Value::array({frame.x(), frame.y(), frame.width(), frame.height()});
}

}  // namespace

void Simulator::tapCard(const Json&) {
  auto banner = presentedBanner(sdkStarted_);
  touch(*visibleCell(*banner, QVNotificationViewModel::kCardSection, 1));
}

void Simulator::tapClose(const Json&) {
  auto banner = presentedBanner(sdkStarted_);
  auto header = std::dynamic_pointer_cast<QVNotificationHeaderCell>(
      visibleCell(*banner, QVNotificationViewModel::kCardSection, 0));
  if (!header || !header->closeButton()) throw CommandError("the banner has no close button");
  touch(*header->closeButton());
}

void Simulator::tapOption(const Json& command) {
  const Value* index = field(command, "index");
  if (!index || !index->is_number_integer()) throw CommandError("\"index\" must be an integer");
  auto banner = presentedBanner(sdkStarted_);
  if (!banner->showOptions()) throw CommandError("the banner is not expanded");
  const int rows =
      banner->tableView()->numberOfRowsInSection(QVNotificationViewModel::kOptionsSection);
  const auto row = index->get<std::int64_t>();
  if (row < 0 || row >= rows) {
    throw CommandError("\"index\" must be below the number of options, " + std::to_string(rows));
  }
  touch(*visibleCell(*banner, QVNotificationViewModel::kOptionsSection, static_cast<int>(row)));
}

void Simulator::snapshot(const Json& command) {
  std::filesystem::path path = requiredString(command, "path");
  if (path.is_relative() && !options_.pngDirectory.empty()) path = options_.pngDirectory / path;
  if (path.has_parent_path()) {
    std::error_code ignored;
    std::filesystem::create_directories(path.parent_path(), ignored);
  }
  auto window = platform::keyWindow();
  if (!platform::Renderer::writePNG(*window, path)) {
    throw CommandError("could not write " + path.string());
  }
  std::error_code ec;
  const std::filesystem::path absolute = std::filesystem::absolute(path, ec);
  events_->write("snapshot", {{"path", (ec ? path : absolute).string()},
                              {"width", window->bounds().width() * window->scale()},
                              {"height", window->bounds().height() * window->scale()}});
}

void Simulator::state(const Json&) {
  // Asking the SDK before the host did would create its shared instance, which registers for
  // remote notifications: a state query must not start the SDK.
  sdk::SDKState* sdk = sdkStarted_ ? &sdk::SDKState::shared() : nullptr;
  auto view = sdk ? sdk->banner->presentedPollView() : nullptr;
  Value banner = nullptr;
  if (view) {
    Value options = Value::array();
    if (view->poll()) {
      for (const auto& option : view->poll()->options()) {
        options.push_back(platform::describe(option ? option->text() : std::nullopt));
      }
    }
    banner = {{"question", view->poll() ? platform::describe(view->poll()->question()) : "(null)"},
              {"frame", frameOf(view->presentationFrame())},
              {"expanded", view->showOptions()},
              {"options", options}};
  }
  Value backdrop = nullptr;
  if (auto view = platform::keyWindow()->viewWithTag(kBackdropTag)) {
    backdrop = {{"alpha", view->presentationAlpha()}};
  }
  const std::optional<std::string> token =
      LKKeychain::passwordForService(kTokenService, kTokenAccount);
  Value added = Value::array();
  if (sdk) {
    for (const auto& [selector, flag] : sdk->interception.addedMethods().items()) {
      if (flag == true) added.push_back(selector);
    }
  }
  events_->write("state", {{"active", platform::Application::sharedApplication().isActive()},
                           {"presentedPollView", view != nullptr},
                           {"banner", banner},
                           {"backdrop", backdrop},
                           {"accessToken", token ? Value(*token) : Value(nullptr)},
                           {"addedMethods", added}});
}

}  // namespace quorvia::sim
