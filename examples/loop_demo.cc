// Shows a loop at work: posted, synchronous and delayed calls and a repeating
// timer, with every line the library logs along the way.
#include <zelsocket/zelsocket.h>

#include <atomic>
#include <cstdio>

using namespace zelsocket;

static void PrintLine(LOG_LEVEL level, const char* tag, const char* message) {
  static const char* const kLevels[] = {"", "ERROR", "INFO", "DEBUG"};
  std::printf("  [%-5s %-5s] %s\n", kLevels[level], tag, message);
}

int main() {
  SetLogCallback(PrintLine);

  IOLoop loop;
  std::printf("Start the loop:\n");
  loop.Start();

  std::printf("Post three calls from the main thread; they run in order on the loop thread:\n");
  for (int i = 1; i <= 3; ++i) {
    loop.AsyncCall([&loop, i] { std::printf("  posted call %d, on loop thread: %s\n", i, loop.IsLoopThread() ? "yes" : "no"); });
  }
  int answer = 0;
  loop.SyncCall([&answer] { answer = 42; });
  std::printf("A synchronous call returned after its target ran: answer=%d\n", answer);

  Semaphore done;
  std::printf("A delayed call of 120 ms and a timer firing every 100 ms, three times:\n");
  loop.DelayCall(120, [] { std::printf("  delayed call ran\n"); });
  Timer* timer = nullptr;
  std::atomic<int> ticks{0};
  loop.SyncCall([&] {
    timer = new Timer(&loop);
    timer->SetTimeout(100, 100, [&] {
      std::printf("  timer tick %d\n", ticks + 1);
      if (++ticks == 3) {
        timer->Cancel();
        done.Post();
      }
    });
  });
  done.Wait();
  loop.SyncCall([&] { delete timer; });

  std::printf("A call posted now and the stop that follows it:\n");
  loop.DelayCall(10000, [] { std::printf("  never runs: dropped by the stop\n"); });
  loop.Stop();
  std::printf("Calls after the stop are refused: AsyncCall returned %d\n", loop.AsyncCall([] {}));
  return 0;
}
