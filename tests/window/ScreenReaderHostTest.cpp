// Each example host read and answered through a screen reader, in a real X window: at-spi2-core's
// accessibility bus and registry run on the test's private session bus, and a real AT-SPI client
// (tests/window/screen_reader.py, on Debian's python3-pyatspi) is the screen reader. It hears the
// banner arrive, finds it by its role, reads the question and the options, opens it and answers
// with the action "click", and the devserver records the answer; once the banner has slid out it
// is gone from the tree. The banner is an application of the SDK's own, or in Qt's host a part of
// Qt's own tree.
#include <sys/stat.h>

#include "window/HostSession.h"

namespace quorvia {
namespace {

using namespace testing;
using nlohmann::json;

// A line the screen reader printed, as JSON (null when it is none).
json parsed(const std::string& line) {
  return line.empty() ? json() : json::parse(line, nullptr, false);
}

// An event line of `type` whose source (or, for children, whose child) is `role` `name`.
auto heard(const std::string& type, const std::string& role, const std::string& name = "") {
  return [=](const std::string& line) {
    const json e = parsed(line);
    if (!e.is_object() || e.value("event", "") != type) return false;
    // An element that went may have left only an error to say about it.
    const json who =
        e.value(type.rfind("object:children-changed", 0) == 0 ? "child" : "source", json());
    return who.is_object() && who.value("role", "") == role &&
           (name.empty() || who.value("name", "") == name);
  };
}

const json* child(const json& tree, const std::string& name) {
  if (!tree.is_object() || !tree.contains("children")) return nullptr;
  for (const json& c : tree.at("children"))
    if (c.is_object() && c.value("name", "") == name) return &c;
  return nullptr;
}

// A field of an element the screen reader described; null when it said nothing of it.
json field(const json* element, const char* key) {
  return element && element->is_object() ? element->value(key, json()) : json();
}

bool has(const json& list, const std::string& item) {
  return list.is_array() && std::find(list.begin(), list.end(), item) != list.end();
}

class ScreenReaderHostTest : public ::testing::TestWithParam<Host> {};

TEST_P(ScreenReaderHostTest, PollIsReadAndAnsweredThroughTheAccessibilityBus) {
  HostSession session(GetParam());
  ASSERT_TRUE(session.ready());
  // at-spi2-core's bus launcher starts the accessibility bus (a dbus-daemon of its own) and
  // serves its address on the session bus; its socket goes into the test's own runtime
  // directory. The registry lists the applications on that bus.
  const auto runtime = session.dir() / "runtime";
  ASSERT_EQ(::mkdir(runtime.c_str(), 0700), 0);
  const std::vector<std::string> busEnvironment = {
      "DBUS_SESSION_BUS_ADDRESS=" + session.busAddress(), "DISPLAY=" + session.display(),
      "XDG_RUNTIME_DIR=" + runtime.string()};
  ChildProcess launcher({"/usr/libexec/at-spi-bus-launcher", "--launch-immediately"},
                        {.environment = busEnvironment, .errorsInOutput = true});
  ChildProcess launched({"gdbus", "wait", "--session", "--timeout", "30", "org.a11y.Bus"},
                        {.environment = busEnvironment, .errorsInOutput = true});
  ASSERT_EQ(launched.finish(), 0) << "the bus launcher (at-spi2-core) did not start\n"
                                  << launched.output() << launcher.output();
  ChildProcess registry({"/usr/libexec/at-spi2-registryd"},
                        {.environment = busEnvironment, .errorsInOutput = true});
  ASSERT_FALSE(registry.waitForLine(containing("org.a11y.atspi.Registry")).empty())
      << registry.output();
  ChildProcess reader({"/usr/bin/python3", QUORVIA_SCREEN_READER},
                      {.environment = busEnvironment, .errorsInOutput = true});
  ASSERT_FALSE(reader.waitForLine(containing("\"ready\"")).empty()) << reader.output();
  const auto ask = [&](const std::string& command) {
    auto answer = fromNow(reader, [](const std::string& l) {
      const json j = parsed(l);
      return j.is_object() && !j.contains("event");
    });
    EXPECT_TRUE(reader.write(command + "\n"));
    return parsed(reader.waitForLine(answer));
  };

  // The toolkits' own accessibility is on, as on a desktop with a screen reader.
  ASSERT_TRUE(
      session.start({"GTK_A11Y=atspi", "QT_ACCESSIBILITY=1", "QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1"}))
      << session.host().output();
  ChildProcess& host = session.host();
  // Somewhere else than the toolkit put it: the banner is found where the window is now.
  ASSERT_TRUE(run(session.display(),
                  "xdotool windowmove --sync " + session.windowId().value_or("") + " 0 45"));
  double originX = 0, originY = 0;
  ASSERT_TRUE(session.windowOrigin(originX, originY));
  EXPECT_EQ(originY, 45);
  ASSERT_TRUE(session.focusWindow()) << host.output();

  const int poll = session.createPoll("Tea or coffee?");
  ASSERT_GT(poll, 0);
  ASSERT_TRUE(session.push(poll));
  // Heard as it slides in: the banner joins the application (the SDK's own, or the toolkit's
  // window it shows in), with what it holds.
  const json arrived =
      parsed(reader.waitForLine(heard("object:children-changed:add", "alert", "Poll")));
  ASSERT_TRUE(arrived.is_object()) << reader.output() << host.output();
  EXPECT_EQ(arrived["source"]["role"], GetParam().toolkitPublishesBanner ? "panel" : "application")
      << arrived;
  const std::string alertPath = arrived.value("path", "");
  ASSERT_FALSE(
      reader.waitForLine(heard("object:children-changed:add", "label", "Tea or coffee?")).empty())
      << reader.output();
  ASSERT_FALSE(host.waitForLine([](const std::string& l) {
                     const Element* p = find(elementsOf(l), "Poll");
                     return p && p->y == 20;
                   })
                   .empty())
      << host.output();

  json tree = ask("tree");
  ASSERT_TRUE(tree["alert"].is_object()) << tree << reader.output();
  EXPECT_EQ(tree["alert"]["name"], "Poll");
  EXPECT_TRUE(has(tree["alert"]["states"], "showing"));
  // The banner lies inside the window, at the window's width, 20 points below its top.
  const json& box = tree["alert"]["extents"];
  ASSERT_EQ(box.size(), 4u) << tree;
  EXPECT_EQ(box[0].get<double>(), originX);
  EXPECT_EQ(box[1].get<double>(), originY + 20);
  EXPECT_EQ(box[2].get<double>(), kScreenWidth);
  EXPECT_LE(box[1].get<double>() + box[3].get<double>(), originY + kWindowHeight);
  const json* question = child(tree, "Tea or coffee?");
  const json* close = child(tree, "Close");
  ASSERT_TRUE(question && close) << tree;
  EXPECT_EQ(field(question, "role"), "label");
  EXPECT_EQ(field(close, "role"), "push button");
  for (const json* e : {question, close}) {
    for (const char* state : {"showing", "visible", "focusable", "enabled"})
      EXPECT_TRUE(has(field(e, "states"), state)) << *e;
    EXPECT_TRUE(has(field(e, "actions"), "click")) << *e;
    const json at = field(e, "extents");
    ASSERT_EQ(at.size(), 4u) << *e;
    EXPECT_GE(at[0].get<double>(), box[0].get<double>());
    EXPECT_GE(at[1].get<double>(), box[1].get<double>());
    EXPECT_LE(at[0].get<double>() + at[2].get<double>(), originX + kScreenWidth);
  }

  // "click" on the question opens the banner, as a tap on the card does: its options join it,
  // and keyboard focus goes into it.
  EXPECT_EQ(ask("click Tea or coffee?")["done"], true);
  ASSERT_FALSE(
      reader.waitForLine(heard("object:children-changed:add", "push button", "Yes")).empty())
      << reader.output();
  ASSERT_FALSE(
      reader.waitForLine(heard("object:state-changed:focused", "label", "Tea or coffee?")).empty())
      << reader.output();
  ASSERT_FALSE(host.waitForLine(showingElement("No")).empty()) << host.output();
  tree = ask("tree");
  for (const char* name : {"Yes", "No"}) {
    const json* option = child(tree, name);
    ASSERT_TRUE(option) << tree;
    EXPECT_EQ(field(option, "role"), "push button");
    EXPECT_TRUE(has(field(option, "actions"), "click")) << *option;
    EXPECT_TRUE(has(field(option, "states"), "showing")) << *option;
  }
  EXPECT_TRUE(has(field(child(tree, "Tea or coffee?"), "states"), "focused")) << tree;

  // Its request for focus moves the keyboard's focus, and "click" answers.
  EXPECT_EQ(ask("focus No")["done"], true);
  ASSERT_FALSE(
      reader.waitForLine(heard("object:state-changed:focused", "push button", "No")).empty())
      << reader.output();
  // What went cannot be asked its role any more: known by its path.
  auto gone = fromNow(reader, [&](const std::string& line) {
    const json e = parsed(line);
    return e.is_object() && e.value("event", "") == "object:children-changed:remove" &&
           e.value("path", "") == alertPath;
  });
  EXPECT_EQ(ask("click Yes")["done"], true);
  ASSERT_FALSE(host.waitForLine(containing("host: replied Yes ok")).empty()) << host.output();
  const json replies = session.repliesTo(poll);
  ASSERT_EQ(replies.size(), 1u) << replies;
  EXPECT_EQ(replies[0]["reply_text"], "Yes");

  // Slid out, the banner is gone from the tree.
  ASSERT_FALSE(reader.waitForLine(gone).empty()) << reader.output();
  tree = ask("tree");
  EXPECT_TRUE(tree["alert"].is_null()) << tree;
}

INSTANTIATE_TEST_SUITE_P(Hosts, ScreenReaderHostTest, ::testing::ValuesIn(hostsBuilt()),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace quorvia
