// fuzz-seconds: 60
// Parses arbitrary bytes, prints what parsed, and checks that the printed
// text parses again. The printed form may still be normalised once (numbers
// in "%e"/"%f" lose digits), so the second and third prints must agree.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <vekutil/json.h>
#include <vekutil/memory.h>

namespace {

char* parse_and_print(const char* text, int fmt) {
  JSON* tree = json_Parse(text);
  if (!tree) return nullptr;
  char* printed = print_value(tree, 0, fmt);
  json_Delete(tree);
  if (!printed) std::abort();  // every parsed tree is printable
  return printed;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  char* text = static_cast<char*>(std::malloc(size + 1));
  std::memcpy(text, data, size);
  text[size] = '\0';
  char* first = parse_and_print(text, size > 0 && (data[0] & 1));
  std::free(text);
  if (!first) return 0;
  char* second = parse_and_print(first, 0);
  if (!second) std::abort();  // printed text must parse
  char* third = parse_and_print(second, 0);
  if (!third || std::strcmp(second, third) != 0) std::abort();
  vekFree(first);
  vekFree(second);
  vekFree(third);
  return 0;
}
