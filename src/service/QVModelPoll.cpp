#include "service/QVModelPoll.h"

#include "quorvia/platform/Error.h"
#include "platform/Log.h"

namespace quorvia {
namespace {

using platform::Value;

// A nil receiver answers nil; anything but a dictionary cannot answer at all.
std::optional<Value> objectForKey(const Value* receiver, std::string_view key) {
  if (!receiver) return std::nullopt;
  if (!receiver->is_object()) throw platform::unrecognizedSelector(*receiver, "objectForKey:");
  const Value* found = platform::valueForKey(*receiver, key);
  return found ? std::optional<Value>(*found) : std::nullopt;
}

std::shared_ptr<QVModelPollOption> optionFromElement(const Value& element) {
  auto option = std::make_shared<QVModelPollOption>();
  option->setText(objectForKey(&element, "text"));
  if (auto link = objectForKey(&element, "link")) option->setLink(std::move(link));
  return option;
}

}  // namespace

std::shared_ptr<QVModelPoll> QVModelPoll::objectWithDictionary(const Value* dictionary) {
  auto poll = std::make_shared<QVModelPoll>();
  poll->setQuestion(objectForKey(dictionary, "question"));
  poll->setObjectId(objectForKey(dictionary, "id"));
  // Deliberately unconditional and unprefixed: a missing id is not an error.
  if (!poll->objectId()) platform::NSLog("nil id");

  Options options;
  if (const auto source = objectForKey(dictionary, "options")) {
    if (source->is_array()) {
      for (const Value& element : *source) options.push_back(optionFromElement(element));
    } else if (source->is_object()) {
      // Enumerating a dictionary yields its keys, which cannot answer objectForKey:.
      for (const auto& item : source->items()) optionFromElement(Value(item.key()));
    } else {
      throw platform::unrecognizedSelector(*source, "countByEnumeratingWithState:objects:count:");
    }
  }
  poll->setOptions(std::move(options));
  return poll;
}

}  // namespace quorvia
