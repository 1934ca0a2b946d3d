// Each allocating operation with its Nth allocation failing: a clean failure, nothing left.
#include <atomic>
#include <cstring>
#include <string>

#include <vekutil/vekutil.h>

#include "alloc_failure.hpp"
#include "vek_test.hpp"

namespace {

using vektest::for_each_allocation_failure;

class AllocFailureTest : public vektest::LeakCheckedTest {};

// Constructors give 0 and a handle, or ERR_NO_MEMORY (ERR_SYSTEM) and no handle.
struct Constructor {
  const char* name;
  int (*create)(void** handle);
  void (*destroy)(void* handle);
};

const Constructor kConstructors[] = {
    {"btree", [](void** h) { return btree_create(h, nullptr, nullptr); }, btree_delete},
    {"list", [](void** h) { return list_create(h, nullptr, nullptr); }, list_delete},
    {"queue", queue_create, [](void* h) { queue_delete(h); }},
    {"mutex", [](void** h) { return mutex_create_ex(h, "alloc test", 0); }, [](void* h) { mutex_delete(h); }},
    {"rwlock", [](void** h) { return rwlock_create_ex(h, 0, "alloc test"); }, [](void* h) { rwlock_delete(h); }},
    {"event", [](void** h) { return event_create_ex(h, "alloc test", 0); }, [](void* h) { event_delete(h); }},
    {"schevent", schevent_create, [](void* h) { schevent_delete(h); }},
    {"semaphore", semaphore_create, [](void* h) { semaphore_delete(h); }},
    {"blob", [](void** h) { return blob_create(h, 64); }, blob_delete},
};

TEST_F(AllocFailureTest, ConstructorsFailCleanly) {
  for (const Constructor& c : kConstructors) {
    SCOPED_TRACE(c.name);
    for_each_allocation_failure([&] {
      void* handle = nullptr;
      int rc = c.create(&handle);
      if (rc == 0) {
        EXPECT_NE(nullptr, handle);
        c.destroy(handle);
        return true;
      }
      EXPECT_TRUE(rc == ERR_NO_MEMORY || rc == ERR_SYSTEM) << rc;
      if (handle) c.destroy(handle);  // a record kept for its error, as documented
      return false;
    });
  }
}

TEST_F(AllocFailureTest, JsonParseAndPrint) {
  const char* text = R"({"name":"pump","tags":["a","b",{"deep":[1,2.5,-3e10,true,null]}],"text":"\u00e9\n"})";
  for_each_allocation_failure([&] {
    JSON* tree = json_Parse(text);
    if (!tree) return false;
    json_Delete(tree);
    return true;
  });
  JSON* tree = json_Parse(text);
  ASSERT_NE(nullptr, tree);
  for (int fmt : {0, 1}) {
    for_each_allocation_failure([&] {
      char* printed = print_value(tree, 0, fmt);
      if (!printed) return false;
      EXPECT_NE(nullptr, std::strstr(printed, "pump"));
      vekFree(printed);
      return true;
    });
  }
  json_Delete(tree);
}

TEST_F(AllocFailureTest, JsonBuilders) {
  const char* strings[] = {"a", "b"};
  const int ints[] = {1, 2};
  for_each_allocation_failure([&] {
    JSON* root = json_CreateObject();
    if (!root) return false;
    const std::pair<const char*, JSON*> members[] = {
        {"s", json_CreateString("value")}, {"a", json_CreateStringArray(strings, 2)}, {"i", json_CreateIntArray(ints, 2)}};
    // A member is linked even when its key cannot be copied: the tree owns it either way.
    bool all = true;
    for (auto [key, m] : members) {
      if (m) json_AddItemToObject(root, key, m);
      all = all && m && json_GetObjectItem(root, key) == m;
    }
    json_AddItemReferenceToObject(root, "ref", root);
    all = all && json_GetObjectItem(root, "ref");
    json_Delete(root);
    return all;
  });
}

// Fills a tree, a list and a queue in one run, so that each of their
// allocations fails once: every insert reported as done is there afterwards,
// every refused one is absent.
TEST_F(AllocFailureTest, ContainerInsertsKeepOnlyWhatTheyReported) {
  static int values[200];
  for_each_allocation_failure([] {
    void *tree = nullptr, *list = nullptr, *queue = nullptr;
    const bool made = btree_create(&tree, nullptr, nullptr) == 0 &&
                      list_create(&list, [](const void* e) { return (long long)(intptr_t)e; }, nullptr) == 0 &&
                      queue_create(&queue) == 0;
    bool all = made;
    for (int i = 0; made && i < 200; ++i) {
      if (!btree_insert_with_hash(tree, &values[i], i)) {
        all = false;
        EXPECT_EQ(nullptr, btree_find_by_hash(tree, i));
      }
      const int listed = i % 2 ? list_insert_at_tail(list, &values[i]) : list_insert_at_head(list, &values[i]);
      if (listed < 0) {
        all = false;
        EXPECT_EQ(ERR_NO_MEMORY, listed);
        EXPECT_EQ(nullptr, list_find_by_object(list, &values[i]));
      }
      const int queued = queue_put(queue, &values[i]);
      if (queued < 0) {
        all = false;
        EXPECT_EQ(ERR_NO_MEMORY, queued);
      }
    }
    void* item = nullptr;
    while (queue && queue_count(queue) > 0) queue_get(queue, &item, 0);
    btree_delete(tree);
    list_delete(list);
    if (queue) queue_delete(queue);
    return all;
  });
}

TEST_F(AllocFailureTest, BlobAppendKeepsWhatItHad) {
  for_each_allocation_failure([] {
    void* blob = nullptr;
    if (blob_create(&blob, 8) != 0) return false;
    std::string expected;
    bool all = true;
    for (int i = 0; i < 50; ++i) {
      std::string piece = "piece " + std::to_string(i) + ";";
      if (blob_append(blob, piece.data(), (int)piece.size()) < 0)
        all = false;
      else
        expected += piece;
    }
    EXPECT_EQ(expected, std::string(static_cast<const char*>(blob_get_buffer(blob)), blob_get_length(blob)));
    blob_delete(blob);
    return all;
  });
}

void* return_arg(void* arg) { return arg; }

TEST_F(AllocFailureTest, ThreadsAndPool) {
  for_each_allocation_failure([] {
    void* thread = nullptr;
    int rc = thread_create(&thread, return_arg, nullptr);
    if (rc != 0) {
      EXPECT_TRUE(rc == ERR_NO_MEMORY || rc == ERR_SYSTEM) << rc;
      if (thread) thread_delete(thread);
      return false;
    }
    thread_join(thread, nullptr);
    thread_delete(thread);
    return true;
  });
  static std::atomic<int> ran{0};
  for_each_allocation_failure([] {
    void* pool = nullptr;
    thread_pool_init(&pool, 1, 2, 0);
    if (!pool) return false;
    int rc = thread_pool_put_work(pool, "alloc test", [](int, void*, void*, void*) { ran++; }, nullptr, nullptr,
                                  nullptr);
    thread_pool_uninit(pool);
    return rc >= 1;
  });
}

}  // namespace
