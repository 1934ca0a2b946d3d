// Allocation cost: default-mode _vekMalloc/_vekFree against plain
// malloc/free, and debug mode against default mode on one and two threads.
//
// The allocator's mode is process-wide and is chosen once, before the first
// allocation. A forked child therefore runs everything in default mode, then
// the parent picks debug mode and runs the mode comparison again; the "mode"
// label tells the two runs apart in the output.
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>

#include <vekutil/memory.h>

namespace {

void BM_malloc_free(benchmark::State& state) {
  const size_t size = (size_t)state.range(0);
  for (auto _ : state) {
    void* p = std::malloc(size);
    benchmark::DoNotOptimize(p);
    std::free(p);
  }
}
BENCHMARK(BM_malloc_free)->Arg(16)->Arg(64)->Arg(4096);

void BM_vek_malloc_free(benchmark::State& state) {
  const size_t size = (size_t)state.range(0);
  for (auto _ : state) {
    void* p = _vekMalloc(size, __FILE__, __LINE__);
    benchmark::DoNotOptimize(p);
    _vekFree(p, __FILE__, __LINE__);
  }
}
BENCHMARK(BM_vek_malloc_free)->Arg(16)->Arg(64)->Arg(4096);

// The same work on 1 and 2 threads, run once per mode.
void BM_mode_malloc_free(benchmark::State& state) {
  const size_t size = (size_t)state.range(0);
  for (auto _ : state) {
    void* p = _vekMalloc(size, __FILE__, __LINE__);
    benchmark::DoNotOptimize(p);
    _vekFree(p, __FILE__, __LINE__);
  }
  state.SetLabel(g_vek_memory_debug ? "mode=debug" : "mode=default");
}
BENCHMARK(BM_mode_malloc_free)->Arg(64)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace

// Runs the selected benchmarks in a child process in default mode, then the
// mode comparison again here in debug mode. A process runs its benchmarks
// only once: the benchmark library does not support a second run.
int main(int argc, char** argv) {
  pid_t child = fork();
  if (child == 0) {
    vekMemoryInitEx(0);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) _exit(1);
    benchmark::RunSpecifiedBenchmarks();
    std::cout.flush();
    std::fflush(stdout);
    _exit(0);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return 1;

  vekMemoryInitEx(1);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks("BM_mode_malloc_free");
  benchmark::Shutdown();
  return 0;
}
