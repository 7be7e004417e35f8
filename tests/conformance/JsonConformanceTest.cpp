// JSON decoding (the reader SimpleNetworking decodes every body with) against
// the corpus in json/: y_* must decode, n_* must give nil, i_* are the cases
// the RFC leaves to the implementation, and the table below holds our choice
// for each. No case may crash, hang or leak.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>

#include "quorvia/platform/Value.h"

namespace quorvia::testing {
namespace {

using platform::Value;
namespace fs = std::filesystem;

// Implementation-defined cases: true = decoded, false = nil.
const std::map<std::string, bool> kImplementationChoices = {
    {"i_bom_utf8", true},  // a UTF-8 byte order mark is skipped, as the platform reader does
    {"i_utf16le", false},  // only UTF-8 text is read
    // An escape that names half a surrogate pair cannot become UTF-8.
    {"i_string_lone_high_surrogate", false},
    {"i_string_lone_low_surrogate", false},
    {"i_string_reversed_surrogates", false},
    {"i_string_noncharacter", true},  // a valid scalar value, kept
    {"i_number_huge_integer", true},  // beyond 64 bits: the nearest double
    // Beyond the range of a double: nil rather than infinity; underflow is zero.
    {"i_number_huge_exponent", false},
    {"i_number_negative_huge_exponent", false},
    {"i_number_tiny_exponent", true},
    {"i_object_duplicate_key", true},  // the last value, in the first key's place
};

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(JsonConformance, EveryCorpusCaseDecodesOrGivesNil) {
  std::set<std::string> seenChoices;
  int files = 0;
  for (const auto& entry : fs::directory_iterator(JSON_CORPUS_DIR)) {
    const std::string name = entry.path().stem().string();
    const std::string text = readFile(entry.path());
    const std::optional<Value> decoded = platform::parseJson(text);
    ++files;
    switch (name[0]) {
      case 'y':
        ASSERT_TRUE(decoded) << name;
        // What decodes must also survive a round trip through the writer.
        EXPECT_EQ(platform::parseJson(*platform::serializeJson(*decoded)), decoded) << name;
        break;
      case 'n':
        EXPECT_FALSE(decoded) << name << " decoded to " << decoded->dump();
        break;
      case 'i': {
        const auto choice = kImplementationChoices.find(name);
        ASSERT_NE(choice, kImplementationChoices.end()) << name << " has no documented choice";
        EXPECT_EQ(decoded.has_value(), choice->second) << name;
        seenChoices.insert(name);
        break;
      }
      default:
        ADD_FAILURE() << "corpus file without y_/n_/i_ prefix: " << name;
    }
  }
  EXPECT_GE(files, 70);
  EXPECT_EQ(seenChoices.size(), kImplementationChoices.size()) << "a choice without its file";
}

TEST(JsonConformance, DecodedValuesAreTheOnesWritten) {
  const std::pair<std::string, Value> cases[] = {
      {R"(["\"\\\/\b\f\n\r\t\u0041"])", Value::array({"\"\\/\b\f\n\r\tA"})},
      {R"(["a\u0000b"])", Value::array({std::string("a\0b", 3)})},
      {R"(["\uD83D\uDE00"])", Value::array({"\xF0\x9F\x98\x80"})},
      {"\xEF\xBB\xBF[1]", Value::array({1})},
      {"[18446744073709551615]", Value::array({18446744073709551615ull})},
      {"[-9223372036854775808]", Value::array({INT64_MIN})},
      {"[1e-400]", Value::array({0.0})},
      {R"({"a":1,"b":0,"a":2})", Value{{"a", 2}, {"b", 0}}},
      {R"({"":[]})", Value{{"", Value::array()}}},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(platform::parseJson(text), expected) << text;
  const auto huge = platform::parseJson("[123456789012345678901234567890]");
  ASSERT_TRUE(huge);
  EXPECT_TRUE((*huge)[0].is_number_float());
  EXPECT_DOUBLE_EQ((*huge)[0].get<double>(), 1.2345678901234568e+29);
}

// What the platform reader refuses is refused: top-level fragments, nesting
// deeper than is walked, bytes that are not UTF-8; and no size of input crashes.
TEST(JsonConformance, FragmentsDepthAndExtremesGiveAnAnswer) {
  const auto repeated = [](const std::string& part, int times) {
    std::string s;
    for (int i = 0; i < times; ++i) s += part;
    return s;
  };
  std::string everyByte;
  for (int b = 0; b < 256; ++b) everyByte += static_cast<char>(b);
  const std::pair<std::string, bool> cases[] = {
      {"7", false},
      {"\"s\"", false},
      {"null", false},
      {"", false},
      {"<html>500</html>", false},
      {"{\"a\":\"\xff\"}", false},
      {repeated("[", 100) + repeated("]", 100), true},
      {repeated("[", 600) + repeated("]", 600), false},
      {repeated("[", 100000), false},
      {repeated("[", 100000) + repeated("]", 100000), false},
      {repeated("{\"a\":", 100000) + "1" + repeated("}", 100000), false},
      {"[\"" + std::string(10 << 20, 'x') + "\"]", true},
      {"[0" + repeated(",0", 999999) + "]", true},
      {"[" + std::string(100000, '9') + "]", false},
      {everyByte, false},
  };
  for (const auto& [text, decodes] : cases) {
    EXPECT_EQ(platform::parseJson(text).has_value(), decodes) << text.substr(0, 40);
  }
  EXPECT_EQ(*platform::parseJson(R"({"b":1,"a":2})")->begin(), 1) << "insertion order kept";
}

}  // namespace
}  // namespace quorvia::testing
