// Queue entry points without a source position: they name the creator
// "Backward", line 0.
#include <vekutil/queue.h>

int queue_create_ex(void** handle, int max_size, int options) {
  return _queue_create_ex(handle, max_size, options, VEK_BACKWARD_FILE, 0);
}

int queue_create(void** handle) { return queue_create_ex(handle, -1, 0); }
