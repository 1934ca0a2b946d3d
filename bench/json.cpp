// JSON parse and compact-print throughput, ours against cJSON, on three
// generated documents of about 1 MiB each. The counters "peak_bytes" give the
// most heap memory held at once while parsing (the tree) and while printing
// (tree plus text), measured once with a counting allocator.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <vekutil/json.h>
#include <vekutil/memory.h>

#ifdef VEK_HAVE_CJSON
#include <cjson/cJSON.h>
#endif

namespace {

constexpr size_t kTargetSize = 1 << 20;

const char* const kWords[] = {"alpha", "beta", "gamma", "delta", "epsilon", "zeta", "theta", "kappa",
                              "lambda", "omicron", "sigma", "omega", "vek", "queue", "mutex", "socket"};

std::string word(std::mt19937& rng) { return kWords[rng() % (sizeof kWords / sizeof kWords[0])]; }

std::string number(std::mt19937& rng) {
  char text[32];
  switch (rng() % 3) {
    case 0: std::snprintf(text, sizeof text, "%d", static_cast<int>(rng() % 2000000) - 1000000); break;
    case 1: std::snprintf(text, sizeof text, "%.2f", static_cast<double>(rng() % 1000000) / 7.0); break;
    default: std::snprintf(text, sizeof text, "%u", static_cast<unsigned>(rng() % 1000)); break;
  }
  return text;
}

// Appends the pieces in order (one append each keeps the generators simple).
template <class... Pieces>
void append(std::string& doc, const Pieces&... pieces) {
  (doc.append(pieces), ...);
}

// Records of nested objects with strings, numbers and booleans.
std::string nested_objects() {
  std::mt19937 rng(1);
  std::string doc = "{\"records\":[";
  for (int id = 0; doc.size() < kTargetSize; ++id) {
    if (id) doc += ',';
    append(doc, "{\"id\":", std::to_string(id), ",\"name\":\"", word(rng), "_", std::to_string(rng() % 1000));
    append(doc, "\",\"active\":", rng() % 2 ? "true" : "false", ",\"score\":", number(rng));
    append(doc, ",\"owner\":{\"user\":\"", word(rng), "\",\"uid\":", number(rng));
    append(doc, ",\"flags\":{\"admin\":false,\"level\":", number(rng), ",\"path\":\"/srv/", word(rng), "\"}}");
    append(doc, ",\"tags\":[\"", word(rng), "\",\"", word(rng), "\"]}");
  }
  doc += "]}";
  return doc;
}

std::string number_array() {
  std::mt19937 rng(2);
  std::string doc = "[";
  while (doc.size() < kTargetSize) append(doc, doc.size() > 1 ? "," : "", number(rng));
  doc += "]";
  return doc;
}

std::string string_array() {
  std::mt19937 rng(3);
  std::string doc = "[";
  while (doc.size() < kTargetSize)
    append(doc, doc.size() > 1 ? ",\"" : "\"", word(rng), std::to_string(rng() % 100), "\"");
  doc += "]";
  return doc;
}

const std::string& document(int which) {
  static const std::string docs[] = {nested_objects(), number_array(), string_array()};
  return docs[which];
}

const char* const kDocNames[] = {"nested_objects", "number_array", "string_array"};

// Both libraries' big text buffers come from the warm heap, as in a
// long-running service, instead of depending on where glibc's adaptive mmap
// threshold stands after the previous benchmark.
const bool g_heap_fixed = [] {
  mallopt(M_MMAP_THRESHOLD, 64 << 20);
  mallopt(M_TRIM_THRESHOLD, 128 << 20);
  return true;
}();

// The machine is shared: the fastest of several repetitions is the figure
// least disturbed by other work.
double fastest(const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); }

void configure(benchmark::internal::Benchmark* b) {
  b->DenseRange(0, 2)->Unit(benchmark::kMillisecond)->ComputeStatistics("min", fastest);
}

// ---------------------------------------------------------------- counting allocator

struct Usage {
  long long current = 0;
  long long peak = 0;
  void add(void* p) {
    if (!p) return;
    current += static_cast<long long>(malloc_usable_size(p));
    if (current > peak) peak = current;
  }
  void remove(void* p) {
    if (p) current -= static_cast<long long>(malloc_usable_size(p));
  }
};
Usage g_usage;

void* counting_malloc(size_t size) {
  void* p = std::malloc(size);
  g_usage.add(p);
  return p;
}
void* counting_realloc(void* old, size_t size) {
  g_usage.remove(old);
  void* p = std::realloc(old, size);
  g_usage.add(p ? p : old);
  return p;
}
void counting_free(void* p) {
  g_usage.remove(p);
  std::free(p);
}

// Peak bytes while parsing doc and while then printing it, by the given calls.
template <class Parse, class Print, class FreeText, class Delete>
void measure_peaks(benchmark::State& state, const std::string& doc, Parse parse, Print print, FreeText free_text,
                   Delete del) {
  g_usage = Usage{};
  auto* tree = parse(doc.c_str());
  state.counters["parse_peak_bytes"] = static_cast<double>(g_usage.peak);
  char* text = print(tree);
  state.counters["print_peak_bytes"] = static_cast<double>(g_usage.peak);
  free_text(text);
  del(tree);
}

void ours_peaks(benchmark::State& state, const std::string& doc) {
  VEK_MEMORY_FUNCTIONS saved = vekMemoryGetFunctions();
  VEK_MEMORY_FUNCTIONS counting = saved;
  counting.mallocFunc = counting_malloc;
  counting.reallocFunc = counting_realloc;
  counting.freeFunc = counting_free;
  vekMemorySetFunctions(counting);
  measure_peaks(state, doc, json_Parse, json_PrintUnformatted, vekFree, json_Delete);
  vekMemorySetFunctions(saved);
}

// ---------------------------------------------------------------- ours

void BM_Parse_Ours(benchmark::State& state) {
  const std::string& doc = document(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    JSON* tree = json_Parse(doc.c_str());
    if (!tree) state.SkipWithError("parse failed");
    json_Delete(tree);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * doc.size()));
  state.SetLabel(kDocNames[state.range(0)]);
  ours_peaks(state, doc);
}

void BM_Print_Ours(benchmark::State& state) {
  const std::string& doc = document(static_cast<int>(state.range(0)));
  JSON* tree = json_Parse(doc.c_str());
  size_t printed = 0;
  for (auto _ : state) {
    char* text = json_PrintUnformatted(tree);
    if (!text) state.SkipWithError("print failed");
    printed = text ? std::strlen(text) : 0;
    vekFree(text);
  }
  json_Delete(tree);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * printed));
  state.SetLabel(kDocNames[state.range(0)]);
}

BENCHMARK(BM_Parse_Ours)->Apply(configure);
BENCHMARK(BM_Print_Ours)->Apply(configure);

// ---------------------------------------------------------------- cJSON

#ifdef VEK_HAVE_CJSON
void cjson_peaks(benchmark::State& state, const std::string& doc) {
  cJSON_Hooks counting = {counting_malloc, counting_free};
  cJSON_InitHooks(&counting);
  measure_peaks(state, doc, cJSON_Parse, cJSON_PrintUnformatted, counting_free, cJSON_Delete);
  cJSON_InitHooks(nullptr);
}

void BM_Parse_cJSON(benchmark::State& state) {
  const std::string& doc = document(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    cJSON* tree = cJSON_Parse(doc.c_str());
    if (!tree) state.SkipWithError("parse failed");
    cJSON_Delete(tree);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * doc.size()));
  state.SetLabel(kDocNames[state.range(0)]);
  cjson_peaks(state, doc);
}

void BM_Print_cJSON(benchmark::State& state) {
  const std::string& doc = document(static_cast<int>(state.range(0)));
  cJSON* tree = cJSON_Parse(doc.c_str());
  size_t printed = 0;
  for (auto _ : state) {
    char* text = cJSON_PrintUnformatted(tree);
    if (!text) state.SkipWithError("print failed");
    printed = text ? std::strlen(text) : 0;
    std::free(text);
  }
  cJSON_Delete(tree);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * printed));
  state.SetLabel(kDocNames[state.range(0)]);
}

BENCHMARK(BM_Parse_cJSON)->Apply(configure);
BENCHMARK(BM_Print_cJSON)->Apply(configure);
#endif

}  // namespace

BENCHMARK_MAIN();
