#include "alloc_failure.hpp"

#include <vekutil/btree.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace vektest {
namespace {

// Allocations counted since fail_nth(); 0 in fail_at means disarmed.
std::atomic<long> g_count{0};
std::atomic<long> g_fail_at{0};
std::atomic<bool> g_failed{false};

bool should_fail() {
  long at = g_fail_at.load(std::memory_order_relaxed);
  if (at == 0) return false;
  if (g_count.fetch_add(1, std::memory_order_relaxed) + 1 != at) return false;
  g_failed.store(true, std::memory_order_relaxed);
  return true;
}

void* failing_malloc(size_t size) { return should_fail() ? nullptr : std::malloc(size); }
void* failing_realloc(void* ptr, size_t size) { return should_fail() ? nullptr : std::realloc(ptr, size); }
void* failing_calloc(size_t num, size_t size) { return should_fail() ? nullptr : std::calloc(num, size); }
char* failing_strdup(const char* text) { return should_fail() ? nullptr : strdup(text); }

}  // namespace

FailingAllocator::FailingAllocator() : saved_(vekMemoryGetFunctions()) {
  VEK_MEMORY_FUNCTIONS funcs = saved_;
  funcs.mallocFunc = failing_malloc;
  funcs.reallocFunc = failing_realloc;
  funcs.callocFunc = failing_calloc;
  funcs.strdupFunc = failing_strdup;
  vekMemorySetFunctions(funcs);
}

FailingAllocator::~FailingAllocator() {
  disarm();
  vekMemorySetFunctions(saved_);
}

void FailingAllocator::fail_nth(long n) {
  g_fail_at.store(0, std::memory_order_relaxed);
  g_count.store(0, std::memory_order_relaxed);
  g_failed.store(false, std::memory_order_relaxed);
  g_fail_at.store(n, std::memory_order_relaxed);
}

bool FailingAllocator::failure_happened() const { return g_failed.load(std::memory_order_relaxed); }

namespace {

void count_block(int, time_t, void*, char*, int, const char* file, int line, int, void* custom) {
  auto* census = static_cast<BlockCensus*>(custom);
  (*census)[std::string(file ? file : "?") + "(" + std::to_string(line) + ")"] += 1;
}

constexpr long kKeptTreeNodes = 8;

BlockCensus walk_blocks() {
  BlockCensus census;
  vekMemoryDumpForeach(count_block, &census);
  return census;
}

// The source position of a hash B-tree node: the one new block when a
// private tree files its first element.
const std::string& tree_node_position() {
  static const std::string position = [] {
    void* tree = nullptr;
    if (btree_create_ex(&tree, nullptr, nullptr, BTREE_OPTION_NO_LOCK | BTREE_OPTION_NO_INSTRUMENT) != 0)
      return std::string("?");
    BlockCensus before = walk_blocks();
    static int element;
    btree_insert_with_hash(tree, &element, 1);
    std::string found = "?";
    for (const auto& [where, n] : walk_blocks())
      if (n > (before.count(where) ? before.at(where) : 0)) found = where;
    btree_delete(tree);
    return found;
  }();
  return position;
}

}  // namespace

BlockCensus take_block_census() {
  tree_node_position();
  BlockCensus census = walk_blocks();
  // Without the debug headers there is nothing to walk: the count alone.
  census["(all blocks)"] = (long)vekMemoryBlockUsed();
  return census;
}

std::string block_changes(const BlockCensus& before) {
  BlockCensus after = take_block_census();
  std::map<std::string, long> diff;
  for (const auto& [where, n] : after) diff[where] += n;
  for (const auto& [where, n] : before) diff[where] -= n;
  std::string out;
  long tree_blocks = 0, tree_total = 0;
  for (const auto& [where, d] : diff) {
    if (d == 0) continue;
    if (where == "(all blocks)") {
      tree_total = d;
    } else if (where == tree_node_position()) {
      tree_blocks += d;
      if (d < -kKeptTreeNodes || d > kKeptTreeNodes) out += where + ": " + std::to_string(d) + "\n";
    } else {
      out += where + ": " + std::to_string(d) + "\n";
    }
  }
  // Only positions that were walked may explain a change of the count.
  if (tree_total != tree_blocks && out.empty()) out = "blocks: " + std::to_string(tree_total) + "\n";
  return out;
}

}  // namespace vektest
