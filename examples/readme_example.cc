// The short example of the README, kept here so that it is compiled and run.
#include <zelsocket/zelsocket.h>
#include <cstdio>

int main() {
  zelsocket::IOLoop loop;
  loop.Start();

  int answer = 0;
  loop.SyncCall([&] { answer = 6 * 7; });      // runs on the loop thread, waits

  zelsocket::Semaphore fired;
  zelsocket::Timer* timer = nullptr;
  loop.SyncCall([&] {                          // timers are used on their loop
    timer = new zelsocket::Timer(&loop);
    timer->SetTimeout(100, 0, [&] { fired.Post(); });
  });
  fired.Wait();
  loop.SyncCall([&] { delete timer; });

  std::printf("answer=%d\n", answer);
  loop.Stop();
}
