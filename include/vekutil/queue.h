/* First-in first-out queue of opaque pointers for handing work between
 * threads. The ring grows on demand up to an optional maximum; consumers wait
 * with a time-out. The queue never owns the items it holds. */
#ifndef VEKUTIL_QUEUE_H
#define VEKUTIL_QUEUE_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* Told when items start to arrive; runs inside queue_put with the queue's
 * lock held, so it must not call into the same queue, nor create or delete
 * queues. */
typedef void (*queue_on_item_callback)(void* queue, void* custom);

/* Option bits chosen at creation. */
#define QUEUE_OPTION_FLAG 0x1          /* a put raises the new-items flag */
#define QUEUE_OPTION_FLAG_RESET 0x2    /* a get that finds the queue empty clears the flag and its acknowledgement */
/* State bits kept in the same word. */
#define QUEUE_STATE_FLAG_RAISED 0x4000 /* items were put since the flag was last read */
#define QUEUE_STATE_FLAG_ACKED 0x8000  /* queue_get_flag saw the flag; no put raises it until queue_clr_flag */
#define QUEUE_STATE_GET_FAILED 0x10000 /* a get found the queue empty; the next put reports it */

/* The instrumentation group of all queues, made on first use. */
VEK_API extern void* g_queue_instrument_handle;
VEK_API void* queue_instrument_handle(void);

/* max_size: most items held at once, -1 for no limit. The file (kept, not
 * copied: pass a literal) and line name the creator in diagnostics. */
VEK_API int _queue_create_ex(void** handle, int max_size, int options, const char* file, int line);
VEK_API int _queue_create(void** handle, const char* file, int line);
VEK_API int queue_create_ex(void** handle, int max_size, int options);
VEK_API int queue_create(void** handle);
/* Items still queued are not released. */
VEK_API int queue_delete(void* handle);

/* Appends item; returns the new count, or ERR_QUEUE_FULL / ERR_NO_MEMORY. */
VEK_API int queue_put(void* handle, void* item);
/* Waits up to timeout milliseconds (-1: for ever) for an item, moves the
 * oldest into *item and returns the number left; on a failed wait returns
 * the wait's code (ERR_TIMEOUT, ...) with *item NULL. A timed wait counts
 * from the current whole second, so it may end up to one second early. */
VEK_API int queue_get(void* handle, void** item, long timeout);
VEK_API int queue_count(void* handle);

VEK_API int queue_set_max_size(void* handle, int max_size);
/* Replaces the name shown in diagnostics with a copy (NULL removes it). */
VEK_API int queue_set_name(void* handle, const char* name);
/* Sets each callback that is not NULL; always sets custom. next_item fires
 * once, on the next put; next_item_after_error fires on the first put after
 * a get that found the queue empty. */
VEK_API int queue_set_callbacks(void* handle, queue_on_item_callback next_item,
                                queue_on_item_callback next_item_after_error, void* custom);

/* The new-items flag for pollers (see QUEUE_OPTION_FLAG). queue_get_flag
 * returns 1 once per raising and acknowledges it; queue_clr_flag re-arms it
 * and returns ERR_QUEUE_NOT_EMPTY while items are queued. */
VEK_API int queue_set_flag(void* handle);
VEK_API int queue_get_flag(void* handle);
VEK_API int queue_clr_flag(void* handle);

#define QUEUE_CREATE(handle_ptr) _queue_create((handle_ptr), __FILE__, __LINE__)
#define QUEUE_CREATE_EX(handle_ptr, max_size, options) \
  _queue_create_ex((handle_ptr), (max_size), (options), __FILE__, __LINE__)

VEK_END_DECLS

#endif
