// ctest-labels: tsan
#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <vekutil/errors.h>
#include <vekutil/instrument.h>
#include <vekutil/json.h>
#include <vekutil/queue.h>

#include "vek_test.hpp"

namespace {

// The registry groups are made on first use and live for the process; make
// them before the first test measures its allocations.
class RegistryWarmup : public ::testing::Environment {
 public:
  void SetUp() override {
    void* q = nullptr;
    ASSERT_EQ(0, queue_create(&q));
    queue_delete(q);
  }
};
const auto* const g_warmup = ::testing::AddGlobalTestEnvironment(new RegistryWarmup);

void* as_item(uintptr_t n) { return reinterpret_cast<void*>(n); }
uintptr_t as_number(void* item) { return reinterpret_cast<uintptr_t>(item); }

class QueueTest : public vektest::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    ASSERT_EQ(0, _queue_create(&q_, "queue_test.cpp", 7));
  }
  void TearDown() override {
    EXPECT_EQ(0, queue_delete(q_));
    LeakCheckedTest::TearDown();
  }
  void* q_ = nullptr;
};

// One string field of the queue's detail record.
std::string detail_field(void* q, const char* key) {
  JSON* detail = nullptr;
  if (instrument_detail(queue_instrument_handle(), (long long)(intptr_t)q, &detail) != 0) return "<missing>";
  const char* value = json_GetObjectItemAsString(detail, key);
  std::string text = value ? value : "<null>";
  json_Delete(detail);
  return text;
}

TEST_F(QueueTest, NullHandlesAndBadArguments) {
  void* item = as_item(1);
  EXPECT_EQ(ERR_INVALID_HANDLE, queue_create(nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, _queue_create_ex(nullptr, 4, 0, "f", 1));
  EXPECT_EQ(ERR_INVALID_HANDLE, queue_delete(nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, queue_put(nullptr, item));
  EXPECT_EQ(ERR_INVALID_HANDLE, queue_get(nullptr, &item, 0));
  EXPECT_EQ(ERR_INVALID_HANDLE, queue_count(nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, queue_set_max_size(nullptr, 3));
  EXPECT_EQ(ERR_INVALID_HANDLE, queue_set_name(nullptr, "x"));
  EXPECT_EQ(ERR_INVALID_HANDLE, queue_set_callbacks(nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, queue_set_flag(nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, queue_get_flag(nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, queue_clr_flag(nullptr));
  EXPECT_EQ(ERR_INVALID_PARAMETER, queue_get(q_, nullptr, 0));
  // A null item is an item like any other.
  EXPECT_EQ(1, queue_put(q_, nullptr));
  item = as_item(1);
  EXPECT_EQ(0, queue_get(q_, &item, 0));
  EXPECT_EQ(nullptr, item);
}

TEST_F(QueueTest, KeepsFifoOrderAcrossWrapAndGrowth) {
  // Offset head and tail so the ring wraps before it grows.
  void* item = nullptr;
  uintptr_t next_in = 1, next_out = 1;
  for (int i = 0; i < 20; ++i) ASSERT_EQ(i + 1, queue_put(q_, as_item(next_in++)));
  for (int i = 0; i < 15; ++i) {
    ASSERT_GE(queue_get(q_, &item, 0), 0);
    ASSERT_EQ(next_out++, as_number(item));
  }
  // 5 queued from slot 15; 60 more wrap and force two growths (32 -> 64 -> 128).
  for (int i = 0; i < 60; ++i) ASSERT_EQ(6 + i, queue_put(q_, as_item(next_in++)));
  EXPECT_EQ("128", detail_field(q_, "Current Size"));
  EXPECT_EQ(65, queue_count(q_));
  int left = 0;
  do {
    left = queue_get(q_, &item, 0);
    ASSERT_GE(left, 0);
    ASSERT_EQ(next_out++, as_number(item));
  } while (left > 0);
  EXPECT_EQ(next_in, next_out);
  EXPECT_EQ(ERR_TIMEOUT, queue_get(q_, &item, 0));
}

TEST_F(QueueTest, ThirtyThreeItemsGrowTheRingTo64) {
  for (int i = 1; i <= 33; ++i) ASSERT_EQ(i, queue_put(q_, as_item(i)));
  EXPECT_EQ("64", detail_field(q_, "Current Size"));
  void* item = nullptr;
  for (int i = 1; i <= 33; ++i) {
    EXPECT_EQ(33 - i, queue_get(q_, &item, 0));
    EXPECT_EQ((uintptr_t)i, as_number(item));
  }
}

using QueueOwnLifetime = vektest::LeakCheckedTest;

TEST_F(QueueOwnLifetime, MaximumRefusesAndShapesGrowth) {
  void* q = nullptr;
  ASSERT_EQ(0, queue_create_ex(&q, 2, 0));
  EXPECT_EQ(1, queue_put(q, as_item(1)));
  EXPECT_EQ(2, queue_put(q, as_item(2)));
  EXPECT_EQ(ERR_QUEUE_FULL, queue_put(q, as_item(3)));
  EXPECT_EQ(2, queue_count(q));
  void* item = nullptr;
  EXPECT_EQ(1, queue_get(q, &item, 0));
  EXPECT_EQ(1u, as_number(item));

  // A maximum far above the ring: the ring jumps straight to it.
  EXPECT_EQ(0, queue_set_max_size(q, 100));
  for (int i = 0; i < 99; ++i) ASSERT_GT(queue_put(q, as_item(10 + i)), 0);
  EXPECT_EQ(ERR_QUEUE_FULL, queue_put(q, as_item(999)));
  EXPECT_EQ("100", detail_field(q, "Current Size"));
  EXPECT_EQ("100", detail_field(q, "Max Size"));

  // Lowering the maximum below the count refuses further puts.
  EXPECT_EQ(0, queue_set_max_size(q, 10));
  EXPECT_EQ(ERR_QUEUE_FULL, queue_put(q, as_item(999)));
  EXPECT_EQ(100, queue_count(q));
  EXPECT_EQ(0, queue_delete(q));

  // A maximum below twice the ring: the ring doubles past it, the limit holds.
  ASSERT_EQ(0, queue_create_ex(&q, 40, 0));
  for (int i = 0; i < 40; ++i) ASSERT_EQ(i + 1, queue_put(q, as_item(1 + i)));
  EXPECT_EQ(ERR_QUEUE_FULL, queue_put(q, as_item(41)));
  EXPECT_EQ("64", detail_field(q, "Current Size"));
  EXPECT_EQ(0, queue_delete(q));
}

TEST_F(QueueTest, TimedGetOnEmptyQueue) {
  void* item = as_item(5);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ERR_TIMEOUT, queue_get(q_, &item, 50));
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(nullptr, item);
  // The wait counts from the current whole second: never longer, maybe shorter.
  EXPECT_LT(waited, std::chrono::milliseconds(1000));

  // A consumer blocked for ever is released by a put from another thread.
  std::thread producer([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    queue_put(q_, as_item(77));
  });
  EXPECT_EQ(0, queue_get(q_, &item, -1));
  EXPECT_EQ(77u, as_number(item));
  producer.join();
}

struct CallbackLog {
  std::vector<std::string> calls;
  void* queue = nullptr;
};

void on_next(void* queue, void* custom) {
  auto* log = static_cast<CallbackLog*>(custom);
  log->calls.push_back("next");
  log->queue = queue;
}
void on_after_error(void*, void* custom) { static_cast<CallbackLog*>(custom)->calls.push_back("after_error"); }

TEST_F(QueueTest, CallbacksFireOncePerArming) {
  CallbackLog log;
  EXPECT_EQ(0, queue_set_callbacks(q_, on_next, on_after_error, &log));
  EXPECT_EQ("True", detail_field(q_, "Uses Callback"));
  queue_put(q_, as_item(1));
  queue_put(q_, as_item(2));
  EXPECT_EQ(std::vector<std::string>{"next"}, log.calls);
  EXPECT_EQ(q_, log.queue);
  EXPECT_EQ("False", detail_field(q_, "Uses Callback"));

  // A get that finds the queue empty arms the after-error callback once.
  void* item = nullptr;
  queue_get(q_, &item, 0);
  queue_get(q_, &item, 0);
  queue_put(q_, as_item(3));  // no failed get yet: nothing
  queue_get(q_, &item, 0);
  EXPECT_EQ(ERR_TIMEOUT, queue_get(q_, &item, 0));
  queue_put(q_, as_item(4));
  queue_put(q_, as_item(5));
  EXPECT_EQ((std::vector<std::string>{"next", "after_error"}), log.calls);

  // Null arguments keep the old callbacks; custom is always replaced.
  CallbackLog other;
  EXPECT_EQ(0, queue_set_callbacks(q_, on_next, nullptr, &other));
  queue_put(q_, as_item(6));
  EXPECT_EQ(std::vector<std::string>{"next"}, other.calls);
  EXPECT_EQ(2u, log.calls.size());
  for (int i = 0; i < 4; ++i) queue_get(q_, &item, 0);
}

TEST_F(QueueOwnLifetime, FlagIsRaisedOnceUntilCleared) {
  void* q = nullptr;
  ASSERT_EQ(0, queue_create_ex(&q, -1, QUEUE_OPTION_FLAG));
  EXPECT_EQ(0, queue_get_flag(q));
  queue_put(q, as_item(1));
  EXPECT_EQ(1, queue_get_flag(q));
  EXPECT_EQ(0, queue_get_flag(q));
  queue_put(q, as_item(2));
  EXPECT_EQ(0, queue_get_flag(q)) << "acknowledged: puts do not raise it again";

  // Refused while items are queued, and the queue stays usable from other
  // threads afterwards.
  EXPECT_EQ(ERR_QUEUE_NOT_EMPTY, queue_clr_flag(q));
  std::atomic<int> other_put{0};
  std::thread other([&] { other_put = queue_put(q, as_item(3)); });
  other.join();
  EXPECT_EQ(3, other_put.load());

  void* item = nullptr;
  while (queue_get(q, &item, 0) > 0) {
  }
  EXPECT_EQ(0, queue_clr_flag(q));
  queue_put(q, as_item(4));
  EXPECT_EQ(1, queue_get_flag(q));
  EXPECT_EQ(0, queue_set_flag(q));
  EXPECT_EQ(1, queue_get_flag(q)) << "set by hand even while acknowledged";
  EXPECT_EQ(0, queue_delete(q));

  // Without option 0x1 puts never raise it; with 0x2 an empty get re-arms it.
  ASSERT_EQ(0, queue_create_ex(&q, -1, QUEUE_OPTION_FLAG | QUEUE_OPTION_FLAG_RESET));
  queue_put(q, as_item(1));
  EXPECT_EQ(1, queue_get_flag(q));
  queue_get(q, &item, 0);
  queue_put(q, as_item(2));
  EXPECT_EQ(0, queue_get_flag(q));
  queue_get(q, &item, 0);
  EXPECT_EQ(ERR_TIMEOUT, queue_get(q, &item, 0));
  EXPECT_EQ(std::to_string(QUEUE_OPTION_FLAG | QUEUE_OPTION_FLAG_RESET | QUEUE_STATE_GET_FAILED),
            detail_field(q, "Options"));
  queue_put(q, as_item(3));
  EXPECT_EQ(1, queue_get_flag(q));
  queue_get(q, &item, 0);
  EXPECT_EQ(0, queue_delete(q));

  ASSERT_EQ(0, queue_create(&q));
  queue_put(q, as_item(1));
  EXPECT_EQ(0, queue_get_flag(q));
  queue_get(q, &item, 0);
  EXPECT_EQ(0, queue_delete(q));
}

TEST_F(QueueTest, RegistryListsAndDescribesTheQueue) {
  queue_put(q_, as_item(1));
  queue_put(q_, as_item(2));
  JSON* list = nullptr;
  ASSERT_EQ(0, instrument_list(queue_instrument_handle(), &list));
  char* text = json_PrintUnformatted(json_GetArrayItem(list, 0));
  EXPECT_STREQ("[\"Hash\",\"Created by File\",\"Line Number\",\"Count\",\"Has Lock\"]", text);
  _vekFree(text, __FILE__, __LINE__);
  bool found = false;
  for (int i = 1; i < json_GetArraySize(list); ++i) {
    JSON* row = json_GetArrayItem(list, i);
    if (*json_GetArrayItemAsLongLong(row, 0) != (long long)(intptr_t)q_) continue;
    found = true;
    text = json_PrintUnformatted(row);
    EXPECT_EQ("[" + std::to_string((long long)(intptr_t)q_) + ",\"queue_test.cpp\",7,2,\"Lock\"]", text);
    _vekFree(text, __FILE__, __LINE__);
  }
  EXPECT_TRUE(found);
  json_Delete(list);

  JSON* detail = nullptr;
  ASSERT_EQ(0, instrument_detail(queue_instrument_handle(), (long long)(intptr_t)q_, &detail));
  text = json_PrintUnformatted(detail);
  EXPECT_STREQ(
      "{\"Name\":\"queue[queue_test.cpp:7]\",\"Count\":\"2\",\"Max Size\":\"-1\",\"Current Size\":\"32\","
      "\"Options\":\"0\",\"Uses Callback\":\"False\"}",
      text);
  _vekFree(text, __FILE__, __LINE__);
  json_Delete(detail);

  EXPECT_EQ(0, queue_set_name(q_, "jobs"));
  EXPECT_EQ("jobs", detail_field(q_, "Name"));
  EXPECT_EQ(0, queue_set_name(q_, nullptr));
  EXPECT_EQ("", detail_field(q_, "Name"));
  void* item = nullptr;
  queue_get(q_, &item, 0);
  queue_get(q_, &item, 0);
}

TEST_F(QueueOwnLifetime, DeleteUnregistersAndBackwardNamesTheCreator) {
  void* q = nullptr;
  const int before = instrument_count(queue_instrument_handle());
  ASSERT_EQ(0, queue_create(&q));
  EXPECT_EQ(before + 1, instrument_count(queue_instrument_handle()));
  EXPECT_EQ("queue[Backward:0]", detail_field(q, "Name"));
  EXPECT_EQ(0, queue_delete(q));
  EXPECT_EQ(before, instrument_count(queue_instrument_handle()));
}

// Four producers and four consumers. Every item carries its producer and
// sequence number; each must arrive exactly once, and every consumer must see
// each producer's items in increasing order.
TEST_F(QueueTest, ManyProducersAndConsumersPassEveryItemOnceInOrder) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
  constexpr uintptr_t kItemsPerProducer = 62500;  // a quarter: sanitizers slow every lock down
#else
  constexpr uintptr_t kItemsPerProducer = 250000;
#endif
  constexpr int kProducers = 4, kConsumers = 4;
  constexpr uintptr_t kStop = ~uintptr_t{0};
  std::vector<std::atomic<unsigned char>> seen(kProducers * kItemsPerProducer);
  std::atomic<int> order_errors{0}, put_errors{0};

  std::vector<std::thread> threads;
  for (int c = 0; c < kConsumers; ++c) {
    threads.emplace_back([&] {
      std::vector<long long> last(kProducers, -1);
      for (;;) {
        void* got = nullptr;
        if (queue_get(q_, &got, -1) < 0) continue;
        const uintptr_t n = as_number(got);
        if (n == kStop) return;
        const uintptr_t producer = (n - 1) / kItemsPerProducer, seq = (n - 1) % kItemsPerProducer;
        if ((long long)seq <= last[producer]) ++order_errors;
        last[producer] = (long long)seq;
        seen[n - 1].fetch_add(1);
      }
    });
  }
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (uintptr_t seq = 0; seq < kItemsPerProducer; ++seq)
        if (queue_put(q_, as_item(p * kItemsPerProducer + seq + 1)) < 1) ++put_errors;
    });
  }
  for (auto& t : producers) t.join();
  for (int c = 0; c < kConsumers; ++c) queue_put(q_, as_item(kStop));
  for (auto& t : threads) t.join();

  EXPECT_EQ(0, put_errors.load());
  EXPECT_EQ(0, order_errors.load());
  size_t wrong = 0;
  for (auto& s : seen) wrong += s.load() != 1;
  EXPECT_EQ(0u, wrong) << "items lost or delivered twice";
  EXPECT_EQ(0, queue_count(q_));
}

}  // namespace
