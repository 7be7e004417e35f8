// Values as the rest of the SDK sees them: their descriptions (log lines,
// paths and form bodies), errors, archives and URLs.

#include <gtest/gtest.h>

#include <tuple>

#include "platform/KeyedArchiver.h"
#include "platform/URL.h"
#include "quorvia/platform/Error.h"
#include "quorvia/platform/Value.h"

namespace quorvia::platform {
namespace {

// A key that comes again in one object keeps its first place and takes its last value, in a
// small object as in one wide enough to be indexed; objects in an array do not share keys.
TEST(RepeatedKeysKeepFirstPlaceAndLastValue, SmallAndWideObjects) {
  std::string wide = "{";
  for (int i = 0; i < 100; ++i)
    wide += "\"k" + std::to_string(i % 30) + "\":" + std::to_string(i) + ",";
  wide += "\"last\":true}";
  const std::tuple<const char*, std::string, std::string> cases[] = {
      {"small", R"({"b":1,"a":2,"b":3})", R"({"b":3,"a":2})"},
      {"nested", R"({"o":{"x":1,"x":{"y":2}},"o":{"z":3}})", R"({"o":{"z":3}})"},
      {"objects in an array", R"([{"k":1},{"k":2,"k":3}])", R"([{"k":1},{"k":3}])"},
  };
  for (const auto& [name, text, expected] : cases) {
    const auto value = parseJson(text);
    ASSERT_TRUE(value) << name;
    EXPECT_EQ(value->dump(), expected) << name;
  }
  const auto value = parseJson(wide);
  ASSERT_TRUE(value);
  ASSERT_EQ(value->size(), 31u);
  const auto* object = value->get_ptr<const Value::object_t*>();
  for (int k = 0; k < 30; ++k) {
    const auto& [key, v] = *(object->begin() + k);
    EXPECT_EQ(key, "k" + std::to_string(k));
    EXPECT_EQ(v, 90 + (k < 10 ? k : k - 30));
  }
  EXPECT_EQ(object->back().first, "last");
  // A wide dictionary is described in key order, each key with its own value.
  EXPECT_TRUE(describe(*value).starts_with("{\n    k0 = 90;\n    k1 = 91;\n    k10 = 70;"))
      << describe(*value).substr(0, 80);
}

// Log lines, URL paths and the form body depend on these exact texts.
TEST(DescribeFormatsAsFoundation, EveryKindOfValue) {
  const std::tuple<const char*, Value, std::string> cases[] = {
      {"string as is", "x y", "x y"},
      {"integer", 7, "7"},
      {"negative", -25300, "-25300"},
      {"double", 0.5, "0.5"},
      {"double sum", 0.1 + 0.2, "0.3"},
      {"bool", true, "1"},
      {"null object", nullptr, "<null>"},
      {"data with a blank every four bytes", dataValue({0x00, 0x01, 0xab, 0xff, 0x10}),
       "<0001abff 10>"},
      {"one-entry dictionary", Value{{"name", "A"}}, "{\n    name = A;\n}"},
      {"keys sorted, odd strings quoted", Value{{"b", "x y"}, {"a_b", 1}, {"A", ""}},
       "{\n    A = \"\";\n    \"a_b\" = 1;\n    b = \"x y\";\n}"},
      {"nested dictionary", Value{{"aps", {{"alert", "Hi"}}}},
       "{\n    aps =     {\n        alert = Hi;\n    };\n}"},
      {"array", Value::array({1, "two"}), "(\n    1,\n    two\n)"},
      {"array of dictionaries", Value::array({Value{{"a", 1}}}),
       "(\n        {\n        a = 1;\n    }\n)"},
      {"empty dictionary", Value::object(), "{\n}"},
      {"escapes and non-ASCII", Value{{"k", "\"\xC3\xA9\xF0\x9F\x91\x8D"}},
       "{\n    k = \"\\\"\\U00e9\\Ud83d\\Udc4d\";\n}"},
  };
  for (const auto& [name, value, expected] : cases) EXPECT_EQ(describe(value), expected) << name;
  EXPECT_EQ(describe(static_cast<const Value*>(nullptr)), "(null)");
  EXPECT_EQ(describe(std::optional<std::string>()), "(null)");
}

// A small input never becomes a huge text: each nesting level indents deeper,
// so 2 KB of brackets once described as a megabyte.
TEST(DescriptionIsBoundedWhateverTheValue, Cases) {
  constexpr std::size_t kLimit = 64 * 1024;
  const std::string kMarker = "...(truncated)";
  const auto nested = [](int depth) {
    Value v = "q";
    for (int i = 0; i < depth; ++i) {
      Value outer = Value::array();
      outer.push_back(std::move(v));
      v = std::move(outer);
    }
    return v;
  };
  const std::tuple<const char*, Value, bool> cases[] = {
      // name, value, truncated
      {"500-deep array, as in a 2 KB push", nested(500), true},
      {"deeper than any reader lets through", nested(5000), true},
      {"1 MB of data", dataValue(Bytes(1 << 20, 0xab)), true},
      {"many long quoted strings", Value::array({std::string(40000, ' '), std::string(40000, ' ')}),
       true},
      {"non-ASCII cut inside a character", Value::array({std::string(70000, '\xE9')}), true},
      {"a small dictionary is whole", Value{{"a", Value::array({1, 2})}}, false},
  };
  for (const auto& [name, value, truncated] : cases) {
    const std::string text = describe(value);
    EXPECT_LE(text.size(), kLimit + kMarker.size()) << name;
    EXPECT_EQ(text.ends_with(kMarker), truncated) << name;
  }
  EXPECT_EQ(describe(Value(std::string(100000, 'x'))).size(), 100000u) << "a string is itself";
}

TEST(ErrorDescription, MatchesFoundation) {
  Error plain{"com.lockwell.lkkeychain", -25300};
  EXPECT_EQ(plain.description(), "Error Domain=com.lockwell.lkkeychain Code=-25300 \"(null)\"");
  EXPECT_EQ(plain.localizedDescription(),
            "The operation couldn\u2019t be completed. (com.lockwell.lkkeychain error -25300.)");
  Error withText{"NSURLErrorDomain", -1004,
                 Value{{kNSLocalizedDescriptionKey, "Could not connect."}}};
  EXPECT_EQ(withText.description(),
            "Error Domain=NSURLErrorDomain Code=-1004 \"Could not connect.\" "
            "UserInfo={NSLocalizedDescription=Could not connect.}");
}

TEST(KeyedArchiveRoundTripsExactly, EveryKind) {
  const Value original = {
      {"s", "x"},     {"i", -3},   {"u", 18446744073709551615ULL}, {"d", 0.25},
      {"n", nullptr}, {"b", true}, {"data", dataValue({0, 255})},  {"z", Value::array({1, "a"})}};
  const auto restored = unarchiveObjectWithData(archivedDataWithRootObject(original));
  ASSERT_TRUE(restored);
  EXPECT_EQ(*restored, original);
  EXPECT_EQ(restored->dump(), original.dump()) << "order and number kinds kept";
  EXPECT_FALSE(unarchiveObjectWithData({'q', 'v', 'k', 'a', 1, 0xff}));
  EXPECT_FALSE(unarchiveObjectWithData({}));
  EXPECT_FALSE(unarchiveObjectWithData({'j', 'u', 'n', 'k', 1, 0x01}));
  // Nesting is bounded as in JSON, before the decoder (which recurses) runs.
  const auto nestedArchive = [](std::size_t depth) {
    Bytes bytes = {'q', 'v', 'k', 'a', 1};
    bytes.insert(bytes.end(), depth, 0x81);  // an array of one element
    bytes.push_back(0x00);
    return bytes;
  };
  EXPECT_TRUE(unarchiveObjectWithData(nestedArchive(512)));
  EXPECT_FALSE(unarchiveObjectWithData(nestedArchive(513)));
  EXPECT_FALSE(unarchiveObjectWithData(nestedArchive(200000)));
}

TEST(URLWithStringRefusesWhatCannotBeAURL, Cases) {
  const std::pair<const char*, bool> cases[] = {
      {"http://127.0.0.1:8765/polls/7/replies/", true},
      {"http://x/polls/(null)/replies/", true},
      {"http://x/a%20b", true},
      {"http://x/a b", false},
      {"http://x/%zz", false},
      {"http://x:99999999/", false},
      {"http://x/\xC3\xA9", false},
      {"not a url", false},
      {"", false},
      {"mailto:a@b.c", true},
  };
  for (const auto& [text, valid] : cases) EXPECT_EQ(URLWithString(text).has_value(), valid) << text;
  const auto url = URLWithString("HTTP://h:81/p?q=1#f");
  ASSERT_TRUE(url);
  EXPECT_EQ(url->scheme, "http");
  EXPECT_EQ(url->host, "h");
  EXPECT_EQ(url->port, 81);
  EXPECT_EQ(url->path, "/p");
  EXPECT_EQ(url->query, "q=1");
}

}  // namespace
}  // namespace quorvia::platform
