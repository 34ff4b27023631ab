// The main of the end-to-end benchmarks: a server and a client runtime for
// the run, the benchmarks with a reporter that prints their ratios, then
// both runtimes shut down.
#ifndef TAVIX_BENCH_BENCH_MAIN_H_
#define TAVIX_BENCH_BENCH_MAIN_H_

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <vector>

namespace TAVIX {

// `Bench` has `server` and `client` communicators; `start` brings its
// server up; `global` is where the benchmarks find it while they run.
// Repetitions of the benchmarks run in random order unless the command line
// says otherwise: a machine that slows down or speeds up during the run
// then weighs on TAVIX and its baseline alike, instead of on whichever ran
// in the slow stretch.
inline std::vector<char*> WithInterleaving(int argc, char** argv) {
  static char interleave[] = "--benchmark_enable_random_interleaving=true";
  std::vector<char*> args(argv, argv + argc);
  bool given = false;
  for (char* arg : args) given = given || std::strstr(arg, "--benchmark_enable_random_interleaving") == arg;
  if (!given) args.push_back(interleave);
  args.push_back(nullptr);
  return args;
}

template <class Bench, class Reporter>
int RunBenchmarks(int argc, char** argv, const char* name, bool (*start)(Bench&), Bench*& global) {
  std::vector<char*> args = WithInterleaving(argc, argv);
  int count = static_cast<int>(args.size()) - 1;
  benchmark::Initialize(&count, args.data());
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
