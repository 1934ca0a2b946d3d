/* A minimal application of the installed library. */
#include <stdio.h>
#include <string.h>
#include <vekutil/vekutil.h>

int main(void) {
  vekMemoryInit();
  char* text = vekMalloc(16);
  if (text == NULL) return 1;
  strcpy(text, "linked");
  long long blocks = vekMemoryBlockUsed();
  vekFree(text);
  if (vekMemoryBlockUsed() != blocks - 1) return 2;
  puts("consumer: ok");
  return 0;
}
