// Demo sections "registry" and "list": a keyed tree and an indexed list,
// then the registry's listing of every instrumented kind of object.
#include <cstdint>
#include <cstdio>

#include <vekutil/vekutil.h>

#include "command.hpp"

namespace {

const char* const kWords[] = {"delta", "alpha", "echo", "charlie", "bravo"};

void print_json(const char* title, JSON* json) {
  char* text = json_Print(json);
  std::printf("%s %s\n", title, text ? text : "(none)");
  _vekFree(text, __FILE__, __LINE__);
  json_Delete(json);
}

void print_group(const char* title, void* group) {
  JSON* json = nullptr;
  if (instrument_list(group, &json) == 0)
    print_json(title, json);
  else
    std::printf("%s (registry disabled)\n", title);
}

int demo_registry() {
  void* words = nullptr;
  if (_btree_create_ex(&words, btree_str_hash, nullptr, 0, __FILE__, __LINE__) != 0) return 1;
  for (const char* w : kWords) btree_insert(words, const_cast<char*>(w));
  std::printf("b-tree of %d words keyed by CRC-32; in key order:", btree_count(words));
  btree_foreach_ex(
      words, [](long long hash, const void* e, void*) { std::printf(" %s(%lld)", static_cast<const char*>(e), hash); },
      nullptr);
  std::printf("\nposition of \"echo\": %d\n", btree_index_by_hash(words, btree_str_hash("echo")));

  void* list = nullptr;
  void* mutex = nullptr;
  void* rwlock = nullptr;
  void* event = nullptr;
  list_create(&list, btree_str_hash, nullptr);
  list_insert_at_tail(list, const_cast<char*>(kWords[0]));
  MUTEX_CREATE(&mutex, "demo mutex", 0);
  rwlock_create_ex(&rwlock, 0, "demo rwlock");
  event_create_ex(&event, "demo event", 0);

  print_group("b-trees:", btree_instrument_handle());
  JSON* detail = nullptr;
  if (instrument_detail(btree_instrument_handle(), (long long)(intptr_t)words, &detail) == 0)
    print_json("demo b-tree:", detail);
  print_group("mutexes:", mutex_instrument_handle());
  print_group("rwlocks:", rwlock_instrument_handle());
  print_group("events:", event_instrument_handle());
  print_group("queues:", queue_instrument_handle());

  event_delete(event);
  rwlock_delete(rwlock);
  mutex_delete(mutex);
  list_delete(list);
  btree_delete(words);
  return 0;
}

int demo_list() {
  void* list = nullptr;
  if (list_create(&list, btree_str_hash, nullptr) != 0) return 1;
  for (const char* w : kWords) list_insert_at_tail(list, const_cast<char*>(w));
  list_insert_at_index(list, const_cast<char*>("foxtrot"), 2);
  std::printf("list of %d in insertion order:", list_count(list));
  list_foreach(list, [](const void* e, void*) { std::printf(" %s", static_cast<const char*>(e)); }, nullptr);
  std::printf("\nsecond \"alpha\" refused: %d; \"echo\" by key: %s\n",
              list_insert_at_head(list, const_cast<char*>("alpha")),
              static_cast<const char*>(list_find_by_hash(list, btree_str_hash("echo"))));
  list_delete_by_object(list, "delta");
  std::printf("backwards after deleting \"delta\":");
  list_lock(list);
  void* it = nullptr;
  if (list_itr_get(list, &it, list_count(list) - 1) == 0)
    for (void* e = list_itr_curr(&it); e; e = list_itr_prev(&it)) std::printf(" %s", static_cast<const char*>(e));
  list_unlock(list);
  std::printf("\n");
  list_delete(list);
  return 0;
}

vektool::DemoRegistrar demo_registry_section{{"registry", 60, demo_registry}};
vektool::DemoRegistrar demo_list_section{{"list", 65, demo_list}};

}  // namespace
