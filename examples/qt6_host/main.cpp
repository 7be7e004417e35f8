// A small Qt 6 application with polls: a text field and a list of its own,
// with the SDK's banner over them. Everything the SDK needs is in main(),
// between the two "Polls" comments.
#include <QApplication>
#include <QLineEdit>
#include <QListWidget>
#include <QMainWindow>
#include <QVBoxLayout>
#include <QWindow>
#include <string>

#include "../common/HostOptions.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/integration/Qt6Banner.h"
#include "quorvia/integration/QtMainQueue.h"
#include "quorvia/platform/Environment.h"

namespace {

using example::say;

// The application's own content: a text field above a list of notes.
QWidget* makeContent() {
  auto* content = new QWidget;
  auto* layout = new QVBoxLayout(content);
  auto* field = new QLineEdit;
  field->setPlaceholderText("Write a note");
  QObject::connect(field, &QLineEdit::textChanged,
                   [](const QString& text) { say("typed " + text.toStdString()); });
  layout->addWidget(field);
  auto* list = new QListWidget;
  for (int i = 0; i < 12; ++i) {
    auto* item = new QListWidgetItem("Note " + QString::number(i + 1), list);
    item->setSizeHint(QSize(0, 56));
  }
  QObject::connect(list, &QListWidget::currentRowChanged,
                   [](int row) { say("row " + std::to_string(row)); });
  layout->addWidget(list);
  return content;
}

}  // namespace

int main(int argc, char** argv) {
  const example::HostOptions options = example::parseHostOptions(
      argc, argv, "quorvia-qt6-host",
      "A small Qt 6 application (a text field and a list) that shows Quorvia polls.");
  QApplication app(argc, argv);
  QMainWindow window;
  window.setWindowTitle("Quorvia Qt 6 host");
  window.resize(options.width, options.height);
  window.setCentralWidget(makeContent());
  QObject::connect(&app, &QGuiApplication::focusWindowChanged,
                   [](QWindow* focused) { say(focused ? "focus gained" : "focus lost"); });

  // Polls: configure, embed, observe, start.
  using namespace quorvia;
  platform::installEnvironment(
      platform::makeDesktopEnvironment({.appIdentifier = "quorvia-qt6-host",
                                        .dataDirectory = options.dataDir,
                                        .serviceBaseURL = options.serviceURL,
                                        .pushBroker = options.pushBroker}));
  integration::QtMainQueue queue;
  auto* banner = new integration::Qt6Banner(window.centralWidget());
  setObserver(example::sayingObserver());
  QuorviaSDK::initWithAppToken(options.appToken, std::nullopt);
  QuorviaSDK::askUserForPushPermissions();
  std::string lastFrames;
  if (options.printFrames)
    banner->setPaintedCallback([&] { example::sayElements(banner->host(), lastFrames); });
  // Polls: end of the setup; the banner follows the window by itself.

  window.show();
  say("ready");
  return app.exec();
}
