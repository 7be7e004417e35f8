#pragma once
/// \file
/// The poll record built from a poll dictionary.

#include <memory>
#include <optional>
#include <vector>

#include "quorvia/export.h"
#include "quorvia/platform/Value.h"

namespace quorvia {

/// One answer option. Values are kept as the dictionary gave them (a number
/// stays a number); nil is an empty optional. Not thread-safe: main thread.
class QUORVIA_EXPORT QVModelPollOption final {
 public:
  /// The display text, also the reply sent when the option is chosen.
  const std::optional<platform::Value>& text() const { return text_; }
  void setText(std::optional<platform::Value> text) { text_ = std::move(text); }
  /// The optional link opened when the option is chosen.
  const std::optional<platform::Value>& link() const { return link_; }
  void setLink(std::optional<platform::Value> link) { link_ = std::move(link); }

 private:
  std::optional<platform::Value> text_;
  std::optional<platform::Value> link_;
};

/// One poll: identifier, question and ordered options. Not thread-safe: main thread.
class QUORVIA_EXPORT QVModelPoll final {
 public:
  using Options = std::vector<std::shared_ptr<QVModelPollOption>>;

  /// Builds a poll from a poll dictionary; never returns null. A nil
  /// dictionary gives an empty poll. A missing "id" writes "nil id" to the
  /// system log and is not an error. A value that is not a dictionary, an
  /// "options" that is not a list, or an option that is not a dictionary
  /// raises platform::Exception (NSInvalidArgumentException), as the
  /// platform raises on a message such a value does not understand.
  static std::shared_ptr<QVModelPoll> objectWithDictionary(const platform::Value* dictionary);
  static std::shared_ptr<QVModelPoll> objectWithDictionary(const platform::Value& dictionary) {
    return objectWithDictionary(&dictionary);
  }

  const std::optional<platform::Value>& objectId() const { return objectId_; }
  void setObjectId(std::optional<platform::Value> v) { objectId_ = std::move(v); }
  const std::optional<platform::Value>& question() const { return question_; }
  void setQuestion(std::optional<platform::Value> v) { question_ = std::move(v); }
  const Options& options() const { return options_; }
  void setOptions(Options v) { options_ = std::move(v); }

 private:
  std::optional<platform::Value> objectId_;
  std::optional<platform::Value> question_;
  Options options_;
};

}  // namespace quorvia
