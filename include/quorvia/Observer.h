#pragma once
/// \file
/// What happened, as typed events, for a host that wants to know: the device
/// registered, a poll was presented, the banner expanded, a reply was sent,
/// the banner went. Setting an observer is optional and changes nothing the
/// SDK logs, sends or stores; it only tells.
///
///     quorvia::setObserver({
///         .pollPresented = [](const quorvia::PollEvent& poll) { /* ... */ },
///         .replySent = [](const quorvia::ReplyEvent& reply) { /* ... */ },
///     });
///
/// Every event is delivered on the main queue, in the order things happened,
/// after the SDK has finished the step it reports; an observer may call the
/// SDK from inside one.

#include <functional>
#include <optional>
#include <string>

#include "quorvia/export.h"

namespace quorvia {

/// The poll an event is about, as the SDK holds it.
struct PollEvent {
  /// The poll's "id" as text (a number as its digits); nil when it had none.
  std::optional<std::string> pollId;
  /// The poll's question; nil when it had none (or it was not text).
  std::optional<std::string> question;
};

/// A reply the service was sent, and how that went.
struct ReplyEvent {
  /// The poll replied to; nil when the reply went to a poll without an id.
  std::optional<std::string> pollId;
  /// What was sent as "reply_text": an option's text, a notification
  /// button's identifier, or "Dismiss".
  std::optional<std::string> replyText;
  /// Nil when the service got the reply; else why not (the transport's error).
  std::optional<std::string> error;

  bool succeeded() const { return !error; }
};

/// Why the device is not registered.
struct RegistrationFailure {
  enum class Stage {
    /// The push service gave the device no token.
    kPushToken,
    /// The poll service could not be reached with the token.
    kPollService,
  };
  Stage stage = Stage::kPollService;
  /// The error's description.
  std::string error;
};

/// The events, each optional: leave empty what you do not need.
struct Observer {
  /// The poll service registered the device's push token (lowercase hex).
  std::function<void(const std::string& pushToken)> deviceRegistered;
  /// Registration failed. The push-token stage is reported while the SDK
  /// intercepts the application delegate (the default).
  std::function<void(const RegistrationFailure& failure)> deviceRegistrationFailed;
  /// A poll slid in as a banner.
  std::function<void(const PollEvent& poll)> pollPresented;
  /// The banner opened to show its options.
  std::function<void(const PollEvent& poll)> bannerExpanded;
  /// A reply's request finished, from the banner or from a notification's
  /// button.
  std::function<void(const ReplyEvent& reply)> replySent;
  /// The banner slid out of sight; the next poll may be presented.
  std::function<void(const PollEvent& poll)> bannerHidden;
};

/// Makes `observer` the one that receives the SDK's events from now on
/// (an empty Observer stops them). Main thread.
QUORVIA_EXPORT void setObserver(Observer observer);

}  // namespace quorvia
