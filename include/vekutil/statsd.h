/* statsd publisher: gauges, counters and timings sent as single UDP text
 * datagrams to a metrics daemon given as "host:port".
 *
 * One publisher may be shared by threads; its own mutex serialises the
 * sends. Results: 0 on success, ERR_INVALID_PARAMETER (-7004) for a missing
 * handle or text, ERR_NO_MEMORY (-7003), or the datagram layer's code
 * (ERR_SOCKET_SEND, ERR_SOCKET_HOST_NOT_FOUND, ...). A metric text longer
 * than 255 characters is cut to 255.
 */
#ifndef VEKUTIL_STATSD_H
#define VEKUTIL_STATSD_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* address: the daemon's "host:port" (copied). The host name is looked up
 * again for every datagram. */
VEK_API int statsd_create(void** handle, const char* address);
VEK_API int statsd_delete(void* handle);

/* "bucket:value|g" */
VEK_API int statsd_publish_gauge(void* handle, const char* bucket, int value);
/* "bucket:value|ms" */
VEK_API int statsd_publish_timing(void* handle, const char* bucket, int value);
/* "bucket:value|c", or "bucket:value|c|@0.50" when sampling is not 0 (the
 * rate printed with two decimals; a NaN counts as a rate). */
VEK_API int statsd_publish_counter(void* handle, const char* bucket, int value, float sampling);

VEK_END_DECLS

#endif
