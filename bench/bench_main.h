// The main of the end-to-end benchmarks: a server and a client runtime for
// the run, the benchmarks with a reporter that prints their ratios, then
// both runtimes shut down.
#ifndef TAVIX_BENCH_BENCH_MAIN_H_
#define TAVIX_BENCH_BENCH_MAIN_H_

#include <benchmark/benchmark.h>

#include <cstdio>

namespace TAVIX {

// `Bench` has `server` and `client` communicators; `start` brings its
// server up; `global` is where the benchmarks find it while they run.
template <class Bench, class Reporter>
int RunBenchmarks(int argc, char** argv, const char* name, bool (*start)(Bench&), Bench*& global) {
  benchmark::Initialize(&argc, argv);
  Bench bench;
  if (!start(bench)) {
    std::fprintf(stderr, "%s: cannot start the Echo server\n", name);
    return 1;
  }
  global = &bench;
  Reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  global = nullptr;
  bench.client->Destroy();
  bench.server->Destroy();
  return 0;
}

}  // namespace TAVIX

#endif  // TAVIX_BENCH_BENCH_MAIN_H_
