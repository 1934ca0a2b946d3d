// ctest-labels: tsan
#include <algorithm>
#include <atomic>
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

void* as_item(uintptr_t n) { return reinterpret_cast<void*>(n); }
uintptr_t as_number(void* item) { return reinterpret_cast<uintptr_t>(item); }
using vektest::compact_json;
using vektest::registry_key;

// One field of the queue's registry detail.
std::string detail(void* q, const char* key) {
  JSON* object = nullptr;
  if (instrument_detail(queue_instrument_handle(), registry_key(q), &object) != 0) return "<missing>";
  const char* value = json_GetObjectItemAsString(object, key);
  std::string s = value ? value : "<null>";
  json_Delete(object);
  return s;
}

void drain_and_delete(void* q) {
  void* item = nullptr;
  while (queue_get(q, &item, 0) >= 0) {
  }
  EXPECT_EQ(0, queue_delete(q));
}

class QueueTest : public vektest::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    ASSERT_EQ(0, _queue_create(&q_, "queue_test.cpp", 7));
  }
  void TearDown() override {
    drain_and_delete(q_);
    LeakCheckedTest::TearDown();
  }
  void* take(void* q = nullptr) {
    void* item = as_item(999);
    EXPECT_GE(queue_get(q ? q : q_, &item, 0), 0);
    return item;
  }
  void* q_ = nullptr;
};

TEST_F(QueueTest, KeepsFifoOrderAcrossWrapAndGrowthAndRefusesNullHandles) {
  EXPECT_EQ(ERR_INVALID_HANDLE, queue_put(nullptr, as_item(1)));
  EXPECT_EQ(ERR_INVALID_PARAMETER, queue_get(q_, nullptr, 0));
  EXPECT_EQ(1, queue_put(q_, nullptr)) << "a null item is an item";
  EXPECT_EQ(nullptr, take());
  uintptr_t in = 1, out = 1;
  for (int i = 0; i < 20; ++i) queue_put(q_, as_item(in++));
  for (int i = 0; i < 15; ++i) ASSERT_EQ(out++, as_number(take()));
  // Five items from slot 15 on; 60 more wrap, then grow the ring twice.
  for (int i = 0; i < 60; ++i) ASSERT_EQ(6 + i, queue_put(q_, as_item(in++)));
  EXPECT_EQ("128", detail(q_, "Current Size"));
  void* item = nullptr;
  for (int left = 64; left >= 0; --left) {
    ASSERT_EQ(left, queue_get(q_, &item, 0)) << "returns the count left, 0 for the last";
    ASSERT_EQ(out++, as_number(item));
  }
  EXPECT_EQ(ERR_TIMEOUT, queue_get(q_, &item, 0));
  EXPECT_EQ(nullptr, item);
  item = as_item(5);
  EXPECT_EQ(ERR_TIMEOUT, queue_get(q_, &item, 30)) << "a timed wait";
  EXPECT_EQ(nullptr, item);
}

TEST_F(QueueTest, MaximumRefusesPutsAndShapesGrowth) {
  // From a ring of 32: a maximum of at least twice the ring is taken at once,
  // a smaller one doubles the ring.
  for (auto [max, ring] : {std::pair{100, "100"}, std::pair{40, "64"}}) {
    void* q = nullptr;
    ASSERT_EQ(0, queue_create(&q));
    EXPECT_EQ(0, queue_set_max_size(q, max));
    for (int i = 0; i < max; ++i) ASSERT_EQ(i + 1, queue_put(q, as_item(i)));
    EXPECT_EQ(ERR_QUEUE_FULL, queue_put(q, as_item(0)));
    EXPECT_EQ(max, queue_count(q));
    EXPECT_EQ(ring, detail(q, "Current Size"));
    queue_set_max_size(q, 10);
    EXPECT_EQ(ERR_QUEUE_FULL, queue_put(q, as_item(0))) << "lowered below the count: still refused";
    EXPECT_EQ(0u, as_number(take(q)));
    drain_and_delete(q);
  }
}

void log_call(void* queue, void* custom) { static_cast<std::vector<void*>*>(custom)->push_back(queue); }
void log_after_error(void*, void* custom) { static_cast<std::vector<void*>*>(custom)->push_back(nullptr); }

TEST_F(QueueTest, CallbacksFireOncePerArming) {
  std::vector<void*> calls;  // the queue for "next item", null for "after error"
  EXPECT_EQ(0, queue_set_callbacks(q_, log_call, log_after_error, &calls));
  EXPECT_EQ("True", detail(q_, "Uses Callback"));
  for (uintptr_t n : {1, 2}) queue_put(q_, as_item(n));
  EXPECT_EQ(std::vector<void*>{q_}, calls);
  EXPECT_EQ("False", detail(q_, "Uses Callback"));
  for (int i = 0; i < 2; ++i) take();
  queue_put(q_, as_item(3));  // the queue never ran dry: nothing
  take();
  void* item = nullptr;
  EXPECT_EQ(ERR_TIMEOUT, queue_get(q_, &item, 0));
  for (uintptr_t n : {4, 5}) queue_put(q_, as_item(n));
  EXPECT_EQ((std::vector<void*>{q_, nullptr}), calls);
  // Null arguments keep the old callbacks; custom is always replaced.
  std::vector<void*> other;
  queue_set_callbacks(q_, log_call, nullptr, &other);
  queue_put(q_, as_item(6));
  EXPECT_EQ(std::vector<void*>{q_}, other);
}

TEST_F(QueueTest, FlagIsRaisedOnceUntilClearedOnAnEmptyQueue) {
  queue_put(q_, as_item(1));
  EXPECT_EQ(0, queue_get_flag(q_)) << "option 0x1 not given";
  void* q = nullptr;
  ASSERT_EQ(0, queue_create_ex(&q, -1, QUEUE_OPTION_FLAG));
  queue_put(q, as_item(1));
  EXPECT_EQ(1, queue_get_flag(q));
  queue_put(q, as_item(2));
  EXPECT_EQ(0, queue_get_flag(q)) << "acknowledged: puts do not raise it again";
  EXPECT_EQ(ERR_QUEUE_NOT_EMPTY, queue_clr_flag(q));
  // The refusal leaves the queue usable by other threads.
  std::thread([q] { EXPECT_EQ(3, queue_put(q, as_item(3))); }).join();
  for (int i = 0; i < 3; ++i) take(q);
  EXPECT_EQ(0, queue_clr_flag(q));
  queue_put(q, as_item(4));
  EXPECT_EQ(1, queue_get_flag(q));
  queue_set_flag(q);
  EXPECT_EQ(1, queue_get_flag(q)) << "raised by hand even while acknowledged";
  drain_and_delete(q);

  // Option 0x2: a get that finds the queue empty re-arms the flag.
  ASSERT_EQ(0, queue_create_ex(&q, -1, QUEUE_OPTION_FLAG | QUEUE_OPTION_FLAG_RESET));
  queue_put(q, as_item(1));
  EXPECT_EQ(1, queue_get_flag(q));
  take(q);
  void* item = nullptr;
  EXPECT_EQ(ERR_TIMEOUT, queue_get(q, &item, 0));
  EXPECT_EQ(std::to_string(QUEUE_OPTION_FLAG | QUEUE_OPTION_FLAG_RESET | QUEUE_STATE_GET_FAILED), detail(q, "Options"));
  queue_put(q, as_item(2));
  EXPECT_EQ(1, queue_get_flag(q));
  drain_and_delete(q);
}

TEST_F(QueueTest, RegistryListsAndDescribesEveryQueue) {
  for (uintptr_t n : {1, 2}) queue_put(q_, as_item(n));
  JSON* list = nullptr;
  ASSERT_EQ(0, instrument_list(queue_instrument_handle(), &list));
  EXPECT_EQ("[\"Hash\",\"Created by File\",\"Line Number\",\"Count\",\"Has Lock\"]",
            compact_json(json_GetArrayItem(list, 0)));
  std::string row;
  for (int i = 1; i < json_GetArraySize(list); ++i)
    if (*json_GetArrayItemAsLongLong(json_GetArrayItem(list, i), 0) == registry_key(q_))
      row = compact_json(json_GetArrayItem(list, i));
  EXPECT_EQ("[" + std::to_string(registry_key(q_)) + ",\"queue_test.cpp\",7,2,\"Lock\"]", row);
  json_Delete(list);

  JSON* object = nullptr;
  ASSERT_EQ(0, instrument_detail(queue_instrument_handle(), registry_key(q_), &object));
  EXPECT_EQ(
      "{\"Name\":\"queue[queue_test.cpp:7]\",\"Count\":\"2\",\"Max Size\":\"-1\",\"Current Size\":\"32\","
      "\"Options\":\"0\",\"Uses Callback\":\"False\"}",
      compact_json(object));
  json_Delete(object);
  queue_set_name(q_, "jobs");
  EXPECT_EQ("jobs", detail(q_, "Name"));
  queue_set_name(q_, nullptr);
  EXPECT_EQ("", detail(q_, "Name"));

  const int before = instrument_count(queue_instrument_handle());
  void* backward = nullptr;
  queue_create(&backward);
  EXPECT_EQ("queue[Backward:0]", detail(backward, "Name"));
  queue_delete(backward);
  EXPECT_EQ(before, instrument_count(queue_instrument_handle()));
}

// Every item arrives once, and each consumer sees each producer's items in order.
TEST_F(QueueTest, FourProducersFourConsumersPassEveryItemOnceInOrder) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
  constexpr uintptr_t kPerProducer = 62500;  // a quarter: sanitizers slow every lock down
#else
  constexpr uintptr_t kPerProducer = 250000;
#endif
  constexpr int kPairs = 4;
  constexpr uintptr_t kStop = ~uintptr_t{0};
  std::vector<std::atomic<unsigned char>> seen(kPairs * kPerProducer);
  std::atomic<int> out_of_order{0}, refused{0};
  std::vector<std::thread> consumers, producers;
  for (int c = 0; c < kPairs; ++c)
    consumers.emplace_back([&] {
      std::vector<long long> last(kPairs, -1);
      void* got = nullptr;
      while (queue_get(q_, &got, -1) >= 0 && as_number(got) != kStop) {
        const uintptr_t n = as_number(got) - 1, producer = n / kPerProducer, seq = n % kPerProducer;
        out_of_order += (long long)seq <= last[producer];
        last[producer] = (long long)seq;
        seen[n].fetch_add(1);
      }
    });
  for (uintptr_t p = 0; p < kPairs; ++p)
    producers.emplace_back([&, p] {
      for (uintptr_t seq = 0; seq < kPerProducer; ++seq)
        refused += queue_put(q_, as_item(p * kPerProducer + seq + 1)) < 1;
    });
  for (auto& t : producers) t.join();
  for (int c = 0; c < kPairs; ++c) queue_put(q_, as_item(kStop));
  for (auto& t : consumers) t.join();
  EXPECT_EQ(0, refused.load());
  EXPECT_EQ(0, out_of_order.load());
  EXPECT_EQ(0, std::count_if(seen.begin(), seen.end(), [](auto& s) { return s.load() != 1; }))
      << "items lost or delivered twice";
}

}  // namespace
