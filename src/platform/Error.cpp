#include "quorvia/platform/Error.h"

namespace quorvia::platform {

std::string Error::localizedDescription() const {
  if (const Value* message = valueForKey(userInfo, kNSLocalizedDescriptionKey);
      message && message->is_string()) {
    return message->get<std::string>();
  }
  return "The operation couldn\u2019t be completed. (" + domain + " error " +
         std::to_string(code) + ".)";
}

std::string Error::description() const {
  const Value* message = valueForKey(userInfo, kNSLocalizedDescriptionKey);
  std::string out = "Error Domain=" + domain + " Code=" + std::to_string(code) + " \"" +
                    (message ? describe(*message) : std::string("(null)")) + "\"";
  if (userInfo.is_object() && !userInfo.empty()) {
    out += " UserInfo={";
    bool first = true;
    for (const auto& item : userInfo.items()) {
      if (!first) out += ", ";
      first = false;
      out += item.key() + "=" + describe(item.value());
    }
    out += "}";
  }
  return out;
}

Exception::Exception(std::string name, std::string reason)
    : name_(std::move(name)), reason_(std::move(reason)) {}

std::string className(const Value& value) {
  switch (value.type()) {
    case Value::value_t::null: return "NSNull";
    case Value::value_t::boolean: return "__NSCFBoolean";
    case Value::value_t::string: return "__NSCFString";
    case Value::value_t::binary: return "NSConcreteData";
    case Value::value_t::object: return "__NSDictionaryI";
    case Value::value_t::array: return "__NSArrayI";
    default: return "__NSCFNumber";
  }
}

Exception unrecognizedSelector(const Value& receiver, std::string_view selector) {
  return Exception(kNSInvalidArgumentException, "-[" + className(receiver) + " " +
                                                     std::string(selector) +
                                                     "]: unrecognized selector sent to instance");
}

}  // namespace quorvia::platform
