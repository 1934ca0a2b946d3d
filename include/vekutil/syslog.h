/* Remote syslog over UDP: a one-shot sender and a collector that listens on
 * a UDP port in its own thread and hands every message to a callback.
 *
 * Sent datagrams are "<PRI>" (PRI = facility * 8 + level), optionally the
 * local time as "Mmm dd hh:mm:ss " and a host name (blanks turned into
 * underscores) followed by one blank, then the message and one more blank.
 * No newline and no terminator are sent.
 */
#ifndef VEKUTIL_SYSLOG_H
#define VEKUTIL_SYSLOG_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* Called on the collector's receiver thread ("Syslog UDP Listner"), one
 * message at a time, for every datagram that begins with "<":
 *   facility  always 0 (the priority's facility bits are not decoded);
 *   level     the priority number modulo 8;
 *   timestamp the receive time, milliseconds since the epoch;
 *   hostname  the sender's IPv4 address in dotted form, without the port;
 *   message   the text after the first ">" (after the digits when there is
 *             no ">"), with the datagram's last byte - typically a
 *             newline - dropped.
 * The texts are valid only during the call. The callback must not delete
 * its own collector. */
typedef void (*syslog_on_recv_callback)(int facility, int level, long long timestamp, const char* hostname,
                                        const char* message, void* custom);

/* Sends one datagram to server ("host:port"). timestamp in milliseconds
 * since the epoch, or <= 0 for none; hostname may be NULL. Returns 0,
 * ERR_INVALID_PARAMETER (-7004) for a NULL server or message, or the
 * datagram layer's code. Re-entrant: every call uses its own socket. */
VEK_API int syslog_remote_ex(const char* server, int facility, int level, long long timestamp, const char* hostname,
                             const char* message);
/* syslog_remote_ex(server, facility, level, -1, NULL, message) */
VEK_API int syslog_remote(const char* server, int facility, int level, const char* message);

/* Listens on 0.0.0.0:port (0: a port the system picks) and starts the
 * receiver thread. Returns 0, ERR_INVALID_PARAMETER for a NULL handle or
 * callback, ERR_NO_MEMORY, or the datagram or thread layer's code. */
VEK_API int syslog_collector_create(void** handle, int port, syslog_on_recv_callback callback, void* custom);
/* Stops the receiver (waiting for a callback in progress to return) and
 * frees everything. ERR_INVALID_PARAMETER for a NULL handle. */
VEK_API int syslog_collector_delete(void* handle);
/* The UDP port the collector listens on, or a negative code. */
VEK_API int syslog_collector_port(void* handle);

VEK_END_DECLS

#endif
