// Discards log output and keeps a second thread alive, as in any real host:
// libraries take shortcuts in a process with one thread.
#include <android/log.h>
#include <benchmark/benchmark.h>

#include <atomic>
#include <thread>

int main(int argc, char** argv) {
  __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
  std::atomic<bool> stop{false};
  std::thread idle([&] { stop.wait(false); });
  benchmark::Initialize(&argc, argv);
  const bool bad = benchmark::ReportUnrecognizedArguments(argc, argv);
  if (!bad) benchmark::RunSpecifiedBenchmarks();
  stop = true;
  stop.notify_all();
  idle.join();
  return bad ? 1 : 0;
}
