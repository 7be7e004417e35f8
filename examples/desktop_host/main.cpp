// A small SDL 2 application with polls: a list and a text field of its own,
// with the SDK's banner over them. Everything the SDK needs is in main(),
// between the two "Polls" comments.
#include <SDL.h>

#include <string>

#include "../common/HostOptions.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/integration/SdlHost.h"
#include "quorvia/platform/Environment.h"

namespace {

using example::say;

// The application's own screen: a title bar, a text field and a list.
struct Screen {
  int selected = -1;
  std::string typed;
  bool editing = false;

  static constexpr int kFieldY = 76, kFieldHeight = 36, kListY = 124, kRowPitch = 72;

  void draw(SDL_Renderer* r, int width, int height) const {
    auto fill = [r](SDL_Rect rect, Uint8 red, Uint8 green, Uint8 blue) {
      SDL_SetRenderDrawColor(r, red, green, blue, 255);
      SDL_RenderFillRect(r, &rect);
    };
    fill({0, 0, width, height}, 241, 243, 247);
    fill({0, 0, width, 64}, 49, 92, 191);
    fill({16, kFieldY, width - 32, kFieldHeight}, editing ? 214 : 255, editing ? 226 : 255, 255);
    // No font here: each typed character is a block.
    for (int i = 0; i < static_cast<int>(typed.size()) && 28 + i * 10 < width - 40; ++i)
      fill({28 + i * 10, kFieldY + 12, 7, 12}, 60, 60, 67);
    for (int i = 0; kListY + i * kRowPitch < height; ++i) {
      const SDL_Rect row{16, kListY + i * kRowPitch, width - 32, 60};
      if (i == selected)
        fill(row, 214, 226, 252);
      else
        fill(row, 255, 255, 255);
      fill({row.x + 16, row.y + 14, row.w / 2 - 20 * (i % 3), 12}, 60, 60, 67);
      fill({row.x + 16, row.y + 36, row.w / 3, 8}, 174, 174, 178);
    }
  }

  void click(int y) {
    editing = y >= kFieldY && y < kFieldY + kFieldHeight;
    if (editing)
      SDL_StartTextInput();
    else
      SDL_StopTextInput();
    selected = y >= kListY ? (y - kListY) / kRowPitch : -1;
    say(editing ? "text field" : "row " + std::to_string(selected));
  }
};

}  // namespace

int main(int argc, char** argv) {
  const example::HostOptions options = example::parseHostOptions(
      argc, argv, "quorvia-desktop-host",
      "A small SDL 2 application (a list and a text field) that shows Quorvia polls.");
  if (SDL_Init(SDL_INIT_VIDEO) != 0) {
    std::fprintf(stderr, "quorvia-desktop-host: SDL: %s\n", SDL_GetError());
    return 1;
  }
  SDL_Window* window =
      SDL_CreateWindow("Quorvia desktop host", SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED,
                       options.width, options.height, SDL_WINDOW_RESIZABLE);
  SDL_Renderer* renderer = window ? SDL_CreateRenderer(window, -1, 0) : nullptr;
  if (!renderer) {
    std::fprintf(stderr, "quorvia-desktop-host: SDL: %s\n", SDL_GetError());
    return 1;
  }
  SDL_StopTextInput();

  // Polls: configure, embed, observe, start.
  using namespace quorvia;
  platform::installEnvironment(
      platform::makeDesktopEnvironment({.appIdentifier = "quorvia-desktop-host",
                                        .dataDirectory = options.dataDir,
                                        .serviceBaseURL = options.serviceURL,
                                        .pushBroker = options.pushBroker}));
  integration::SdlBanner banner(window, renderer);
  integration::SdlMainQueue queue;
  setObserver(example::sayingObserver());
  QuorviaSDK::initWithAppToken(options.appToken, std::nullopt);
  QuorviaSDK::askUserForPushPermissions();
  std::string lastFrames;
  // Polls: end of the setup; the loop below hands the banner its events.

  Screen screen;
  say("ready, window " + std::to_string(SDL_GetWindowID(window)));
  for (SDL_Event event; queue.waitEvent(event);) {
    if (banner.handleEvent(event)) continue;
    if (event.type == SDL_QUIT) break;
    if (event.type == SDL_MOUSEBUTTONDOWN && event.button.button == SDL_BUTTON_LEFT) {
      screen.click(event.button.y);
    } else if (event.type == SDL_WINDOWEVENT &&
               (event.window.event == SDL_WINDOWEVENT_FOCUS_GAINED ||
                event.window.event == SDL_WINDOWEVENT_FOCUS_LOST)) {
      say(event.window.event == SDL_WINDOWEVENT_FOCUS_GAINED ? "focus gained" : "focus lost");
      continue;
    } else if (event.type == SDL_TEXTINPUT && screen.editing) {
      screen.typed += event.text.text;
      say("typed " + screen.typed);
    } else if (event.type != SDL_WINDOWEVENT || event.window.event != SDL_WINDOWEVENT_EXPOSED) {
      continue;
    }
    int width = 0, height = 0;
    SDL_GetWindowSize(window, &width, &height);
    screen.draw(renderer, width, height);
    banner.render();
    SDL_RenderPresent(renderer);
    if (options.printFrames) example::sayElements(banner.host(), lastFrames);
  }
  SDL_DestroyRenderer(renderer);
  SDL_DestroyWindow(window);
  SDL_Quit();
  return 0;
}
