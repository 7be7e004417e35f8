#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace quorvia::devserver {

// Splits a request body in the form the SDK writes it: `key=value` entries joined by '&', with
// nothing escaped, so a value may itself hold '&' or '=' (a reply text, or the multi-line
// description of a dictionary). Only the keys the caller expects can start an entry: an entry
// begins where one of them, followed by '=', stands at the start of the body or right after '&',
// and runs to the start of the next such entry. The first occurrence of a key wins; a later one
// is part of the value before it. Text before the first expected key is ignored.
// Returns the entries found, keyed by name; a missing key is simply absent. Pure function.
std::map<std::string, std::string> parseSdkForm(std::string_view body,
                                                const std::vector<std::string_view>& keys);

}  // namespace quorvia::devserver
