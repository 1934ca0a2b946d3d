// Demo section "queue and pool": pool workers square numbers and hand the
// results back through a queue; a scheduled job joins in; the registry then
// lists the live queues (the demo's own and the pool's work queue).
#include <cstdint>
#include <cstdio>

#include <vekutil/instrument.h>
#include <vekutil/vekutil.h>

#include "command.hpp"

namespace {

constexpr int kJobs = 20;

void* as_item(intptr_t n) { return reinterpret_cast<void*>(n); }

void square(int, void* results, void* n, void*) {
  const intptr_t value = reinterpret_cast<intptr_t>(n);
  queue_put(results, as_item(value * value));
}

void late_answer(int, void* results, void*, void*) { queue_put(results, as_item(1000)); }

void print_json(const char* title, JSON* json) {
  char* text = json_PrintUnformatted(json);
  std::printf("%s %s\n", title, text ? text : "(none)");
  _vekFree(text, __FILE__, __LINE__);
  json_Delete(json);
}

void show_registry(void* queue) {
  JSON* json = nullptr;
  if (instrument_list(queue_instrument_handle(), &json) == 0) print_json("queues:", json);
  json = nullptr;
  if (instrument_detail(queue_instrument_handle(), (long long)(intptr_t)queue, &json) == 0)
    print_json("demo queue:", json);
}

int demo_queue_and_pool() {
  void* results = nullptr;
  if (QUEUE_CREATE(&results) != 0) return 1;
  queue_set_name(results, "demo results");
  void* pool = nullptr;
  thread_pool_init(&pool, 2, 4, 0);
  if (!pool) {
    queue_delete(results);
    return 1;
  }
  for (intptr_t n = 1; n <= kJobs; ++n) thread_pool_put_work(pool, "demo", square, results, as_item(n), nullptr);
  thread_pool_put_scheduled_work(pool, "demo", nullptr, 20, 0, late_answer, results, nullptr, nullptr);

  long long sum = 0;
  int received = 0;
  void* item = nullptr;
  while (received < kJobs + 1 && queue_get(results, &item, 2000) >= 0) {
    sum += reinterpret_cast<intptr_t>(item);
    ++received;
  }
  std::printf("%d results through the queue, sum %lld (squares of 1..%d plus 1000 from the scheduled job)\n",
              received, sum, kJobs);
  // Leave a few items queued so the listing has something to count.
  for (int i = 0; i < 3; ++i) queue_put(results, as_item(i));
  show_registry(results);

  thread_pool_uninit(pool);
  while (queue_get(results, &item, 0) >= 0) {
  }
  queue_delete(results);
  const long long expected = kJobs * (kJobs + 1) * (2 * kJobs + 1) / 6 + 1000;
  return received == kJobs + 1 && sum == expected ? 0 : 1;
}

vektool::DemoRegistrar demo{{"queue and pool", 70, demo_queue_and_pool}};

}  // namespace
