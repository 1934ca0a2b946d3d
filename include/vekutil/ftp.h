/* A small blocking FTP client: connect, log in, upload, download and delete
 * one file at a time. Transfers are binary; the data connection is passive
 * by default or active on request. Everything runs on the caller's thread;
 * use one client per thread.
 *
 * Results are 0 on success, a negative library code, or - when the server
 * answered with a reply the call did not expect - that positive reply code
 * (550 for a missing file, for example). Treat anything non-zero as failure.
 *
 * After a failed put or get the client sends NOOP and leaves its reply
 * unread: the next reply read by the client consumes it first.
 */
#ifndef VEKUTIL_FTP_H
#define VEKUTIL_FTP_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* host: "host:port" of the server (at most 64 characters are kept).
 * active_mode 0: passive data connections, 1: active. The passive data
 * connection always goes to the control connection's peer address; only the
 * port of the server's 227 reply is used. *handle is NULL on failure.
 * Returns 0, ERR_INVALID_HANDLE (-7008) for a NULL handle pointer,
 * ERR_INVALID_PARAMETER (-7004) for a NULL host, ERR_NO_MEMORY (-7003) or
 * the socket layer's code. */
VEK_API int ftp_connect2(void** handle, const char* host, int active_mode);
/* ftp_connect2(handle, host, 0) */
VEK_API int ftp_connect(void** handle, const char* host);
/* Closes the control connection (no QUIT is sent) and frees the client. */
VEK_API int ftp_disconnect(void* handle);

/* Reads the greeting and logs in, driven by the server's replies (15 s per
 * reply). ERR_FTP_LOGIN_FAILED (-7521) for a refused login. */
VEK_API int ftp_login(void* handle, const char* user, const char* pass);

/* STOR: ERR_FTP_LOCAL_FILE (-7018) when local_file cannot be read. */
VEK_API int ftp_put(void* handle, const char* local_file, const char* remote_file);
/* RETR: ERR_FTP_LOCAL_FILE when local_file cannot be created. If the server
 * refuses the file the local file is removed; a transfer that fails part way
 * keeps what arrived. A download that receives nothing for 60 s ends with
 * ERR_SOCKET_TIMEOUT (-7205). */
VEK_API int ftp_get(void* handle, const char* remote_file, const char* local_file);
/* DELE: 0 for reply 250 or 200. */
VEK_API int ftp_del(void* handle, const char* remote_file);

/* Reports the bytes moved so far by ftp_put and ftp_get on this client, for
 * progress displays; called on the caller's thread after every block. NULL
 * switches it off. */
typedef void (*ftp_progress_callback)(long long bytes, void* custom);
VEK_API int ftp_set_progress_callback(void* handle, ftp_progress_callback callback, void* custom);

VEK_END_DECLS

#endif
