// Wake-ups of an idle started SDK driven through each event-loop adapter: GLib's main context,
// Qt's event loop and SDL's event queue. For two seconds nothing is pending: the threads of the
// process must wake no more often with the adapter attached than the same loop wakes without it
// (the loop's own way of ending the window, measured in the same run).
#include <SDL.h>
#include <benchmark/benchmark.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QTimer>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "platform/ConfigurableEnvironment.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/integration/GLibMainQueue.h"
#include "quorvia/integration/QtMainQueue.h"
#include "quorvia/integration/SdlHost.h"

namespace {

using namespace quorvia;
constexpr auto kWindow = std::chrono::seconds(2);

// Context switches of each thread of the process, by thread id.
std::map<std::string, long> switchesByThread() {
  std::map<std::string, long> switches;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream status(task.path() / "status");
    long total = 0;
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("voluntary_ctxt_switches:", 0) == 0 ||
          line.rfind("nonvoluntary_ctxt_switches:", 0) == 0) {
        total += std::atol(line.c_str() + line.find(':') + 1);
      }
    }
    switches[task.path().filename()] = total;
  }
  return switches;
}

// The SDK started once for the whole run, idle after its failed start-up fetch.
void startIdleSDK() {
  static const bool started = [] {
    auto env = platform::ConfigurableEnvironment::install(
        std::filesystem::temp_directory_path() / "quorvia-bench-idle-adapters",
        platform::RunLoop::Clock::kReal);
    env->setLogSink([](std::string_view) {});
    env->setServiceBaseURL("http://127.0.0.1:9");  // closed: the fetch fails at once
    QuorviaSDK::initWithAppToken("idle-app-token", std::nullopt, /*swizzling=*/false);
    env->mainRunLoop().runFor(platform::seconds(0.5));
    return true;
  }();
  (void)started;
}

// Context switches, during one run of `loop`, of the threads that existed before it.
template <typename Loop>
long switchesDuring(Loop& loop) {
  const auto before = switchesByThread();
  loop();
  const auto after = switchesByThread();
  long switches = 0;
  for (const auto& [thread, count] : before) {
    if (auto found = after.find(thread); found != after.end()) switches += found->second - count;
  }
  return switches;
}

// Runs `loop` (which returns after about kWindow) without the adapter and then with it made by
// `attach`, and reports the wake-ups the adapter added.
template <typename Attach, typename Loop>
void measure(benchmark::State& state, Attach attach, Loop loop) {
  startIdleSDK();
  double added = 0, seconds = 0;
  for (auto _ : state) {
    const long baseline = switchesDuring(loop);
    auto adapter = attach();
    const auto start = std::chrono::steady_clock::now();
    added += static_cast<double>(switchesDuring(loop) - baseline);
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
  state.counters["wakeups_per_second"] = seconds > 0 ? std::max(0.0, added) / seconds : 0;
}

void BM_IdleGLibWakeupsPerSecond(benchmark::State& state) {
  measure(
      state, [] { return std::make_unique<integration::GLibMainQueue>(); },
      [] {
        GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
        g_timeout_add(
            std::chrono::milliseconds(kWindow).count(),
            +[](gpointer l) {
              g_main_loop_quit(static_cast<GMainLoop*>(l));
              return G_SOURCE_REMOVE;
            },
            loop);
        g_main_loop_run(loop);
        g_main_loop_unref(loop);
      });
}
BENCHMARK(BM_IdleGLibWakeupsPerSecond)->Iterations(2)->UseRealTime()->Unit(benchmark::kSecond);

void BM_IdleQtWakeupsPerSecond(benchmark::State& state) {
  static int argc = 1;
  static char name[] = "idle_adapters_bench";
  static char* argv[] = {name, nullptr};
  static auto* app = new QCoreApplication(argc, argv);
  measure(
      state, [] { return std::make_unique<integration::QtMainQueue>(); },
      [] {
        QTimer::singleShot(std::chrono::milliseconds(kWindow), app,
                           [] { QCoreApplication::quit(); });
        QCoreApplication::exec();
      });
}
BENCHMARK(BM_IdleQtWakeupsPerSecond)->Iterations(2)->UseRealTime()->Unit(benchmark::kSecond);

// SDL waits without polling only with a real video driver: run it under an X server.
void BM_IdleSdlWakeupsPerSecond(benchmark::State& state) {
  if (SDL_Init(SDL_INIT_VIDEO) != 0) {
    state.SkipWithError("SDL has no video (run under an X server)");
    return;
  }
  SDL_Window* window = SDL_CreateWindow("idle", 0, 0, 64, 64, SDL_WINDOW_HIDDEN);
  {
    const Uint32 quit = SDL_RegisterEvents(1);
    // Made once: its waiting thread is then asleep in both runs, and only the waiting differs.
    integration::SdlMainQueue sdlQueue;
    integration::SdlMainQueue* queue = nullptr;
    measure(
        state,
        [&] {
          queue = &sdlQueue;
          return std::shared_ptr<void>(nullptr, [&queue](void*) { queue = nullptr; });
        },
        [&] {
          // A thread of its own ends the window; it is not counted, being newer than the window.
          std::thread ender([quit] {
            std::this_thread::sleep_for(kWindow);
            SDL_Event event{};
            event.type = quit;
            SDL_PushEvent(&event);
          });
          SDL_Event event;
          if (queue) {
            while (queue->waitEvent(event) && event.type != quit) {
            }
          } else {
            while (SDL_WaitEvent(&event) && event.type != quit) {
            }
          }
          ender.join();
        });
  }
  if (window) SDL_DestroyWindow(window);
  SDL_Quit();
}
BENCHMARK(BM_IdleSdlWakeupsPerSecond)->Iterations(2)->UseRealTime()->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
