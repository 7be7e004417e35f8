// JSON decoding (the reader SimpleNetworking decodes every body with) against
// the corpus in json/: y_* must decode, n_* must give nil, i_* are the cases
// the RFC leaves to the implementation, and the table below holds our choice
// for each. No case may crash, hang or leak.

#include <gtest/gtest.h>

#include <cmath>
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
    // A UTF-8 byte order mark is skipped, as the platform reader does.
    {"i_bom_utf8", true},
    // Only UTF-8 text is read; UTF-16 gives nil.
    {"i_utf16le", false},
    // An escape that names half a surrogate pair cannot become UTF-8: nil.
    {"i_string_lone_high_surrogate", false},
    {"i_string_lone_low_surrogate", false},
    {"i_string_reversed_surrogates", false},
    // Noncharacters are valid scalar values and are kept.
    {"i_string_noncharacter", true},
    // An integer beyond 64 bits becomes the nearest double.
    {"i_number_huge_integer", true},
    // A number beyond the range of a double gives nil rather than infinity.
    {"i_number_huge_exponent", false},
    {"i_number_negative_huge_exponent", false},
    // Underflow rounds to zero.
    {"i_number_tiny_exponent", true},
    // A repeated key keeps the last value, in the first key's place.
    {"i_object_duplicate_key", true},
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
  struct Case {
    std::string text;
    Value expected;
  };
  const Case cases[] = {
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
  for (const auto& c : cases) {
    EXPECT_EQ(platform::parseJson(c.text), c.expected) << c.text;
  }
  const auto huge = platform::parseJson("[123456789012345678901234567890]");
  ASSERT_TRUE(huge);
  EXPECT_TRUE((*huge)[0].is_number_float());
  EXPECT_DOUBLE_EQ((*huge)[0].get<double>(), 1.2345678901234568e+29);
}

TEST(JsonConformance, GeneratedExtremesGiveAnAnswer) {
  struct Case {
    std::string name;
    std::string text;
    bool decodes;
  };
  const Case cases[] = {
      {"100000 open arrays", std::string(100000, '['), false},
      {"100000 nested arrays, closed", std::string(100000, '[') + std::string(100000, ']'), false},
      {"100000 nested objects", [] {
         std::string s;
         for (int i = 0; i < 100000; ++i) s += "{\"a\":";
         return s + "1" + std::string(100000, '}');
       }(),
       false},
      {"a 10 MB string", "[\"" + std::string(10 << 20, 'x') + "\"]", true},
      {"a million elements", "[" + [] {
         std::string s = "0";
         for (int i = 1; i < 1000000; ++i) s += ",0";
         return s;
       }() + "]",
       true},
      {"a 100000-digit number", "[" + std::string(100000, '9') + "]", false},
      {"every byte value", [] {
         std::string s;
         for (int b = 0; b < 256; ++b) s += static_cast<char>(b);
         return s;
       }(),
       false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(platform::parseJson(c.text).has_value(), c.decodes) << c.name;
  }
}

}  // namespace
}  // namespace quorvia::testing
