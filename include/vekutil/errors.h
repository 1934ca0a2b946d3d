/* Library-wide result codes: 0 or a non-negative count is success, these
 * negative values are failures. Two ranges carry two names each; the meaning
 * follows from the function that returned the code. */
#ifndef VEKUTIL_ERRORS_H
#define VEKUTIL_ERRORS_H

#define ERR_TIMEOUT                  (-7002) /* a timed wait expired */
#define ERR_NO_MEMORY                (-7003) /* an allocation failed */
#define ERR_INVALID_PARAMETER        (-7004) /* a required pointer is null, a position or time-out is out of range */
#define ERR_SYSTEM                   (-7006) /* an operating-system call failed; the POSIX error is kept in the object's err */
#define ERR_CORRUPTED                (-7007) /* an address is not a live allocation header */
#define ERR_INVALID_HANDLE           (-7008) /* the handle is null */
#define ERR_HTTP_NULL_OBJECT         (-7009) /* a null request or response record */
#define ERR_SQLITE_REMOVE            (-7010) /* partial CSV output could not be removed */
#define ERR_NOT_FOUND                (-7011) /* item, key, option or log file not found */
#define ERR_ALREADY_EXISTS           (-7012) /* object already registered, key already indexed */
#define ERR_DISABLED                 (-7014) /* instrumentation is switched off */
#define ERR_FTP_LOCAL_FILE           (-7018) /* the FTP client cannot open the local file */
#define ERR_SQLITE_FAILED            (-7021) /* an SQLite call failed (any result not listed below), open or close failed */
#define ERR_SQLITE_TRANSACTION       (-7022) /* CSV import could not begin its transaction */
#define ERR_SQLITE_CONSTRAINT        (-7023) /* SQLite result 19 */
#define ERR_SQLITE_MISMATCH          (-7024) /* SQLite result 20 */
#define ERR_SQLITE_LOAD              (-7025) /* libsqlite3.so, or a function in it, could not be loaded */
#define ERR_SQLITE_BUSY              (-7026) /* SQLite result 5 */
#define ERR_SQLITE_IMPORT            (-7027) /* CSV import failed (input file or row loop) */
#define ERR_SQLITE_CORRUPT           (-7028) /* the integrity check failed */
#define ERR_QUEUE_FULL               (-7035) /* the queue holds its maximum, or its ring cannot grow */
#define ERR_QUEUE_NOT_EMPTY          (-7037) /* a flag cannot be cleared while items are queued */
#define ERR_LIST_NO_INDEX            (-7041) /* the list was made without a hash function */
#define ERR_FILE_INVALID_NAME        (-7051) /* a name holds one of the characters ":?*<>|" */
#define ERR_FILE_TRAVERSAL           (-7052) /* a name holds ".." where that is not allowed */
#define ERR_FILE_NOT_FOUND           (-7053) /* a file is missing or cannot be opened for reading */
#define ERR_FILE_ACCESS_DENIED       (-7054) /* access denied, or the lock file already exists */
#define ERR_FILE_EXISTS              (-7055) /* the rename target exists */
#define ERR_FILE_CREATE              (-7056) /* the copy destination cannot be created */
#define ERR_FILE_WRITE               (-7058) /* writing a local file failed */
#define ERR_FILE_SEEK                (-7059) /* seeking in a local file failed */
#define ERR_CONVERT_NO_DIGITS        (-7061) /* the text holds no digits */
#define ERR_CONVERT_RANGE            (-7062) /* the value is out of range for the type, or has a sign the type refuses */
#define ERR_FILE_OPEN                (-7082) /* a local file cannot be opened into a blob */
#define ERR_INTERRUPTED              (-7121) /* a scheduled-event sleep was cut short by schevent_interrupt */
#define ERR_BLOB_NOT_ARRAY           (-7135) /* an array operation on a blob that has no record size */
#define ERR_SOCKET_FAILED            (-7201) /* a socket call failed (close, shutdown, select, getsockname, SO_ERROR after connect) */
#define ERR_SOCKET_TIMEOUT           (-7205) /* no readiness within the time-out */
#define ERR_SOCKET_NOT_LISTENING     (-7206) /* the server socket has no descriptor */
#define ERR_SOCKET_HOST_NOT_FOUND    (-7208) /* the host lookup failed */
#define ERR_SOCKET_CLOSED            (-7209) /* the peer closed the connection */
#define ERR_SOCKET_NO_OPERATION      (-7210) /* the socket's operation slot for this call is empty */
#define ERR_SOCKET_KEY_BITS          (-7211) /* the secure-stream key size is not 128, 192 or 256 bits */
#define ERR_SOCKET_BAD_TIMEOUT       (-7212) /* a receive time-out below -1 */
#define ERR_SOCKET_NOT_OPEN          (-7213) /* the socket has no descriptor */
#define ERR_SOCKET_CREATE            (-7221) /* socket() failed */
#define ERR_SOCKET_BIND              (-7222) /* bind() failed */
#define ERR_SOCKET_LISTEN            (-7223) /* listen() failed */
#define ERR_SOCKET_CONNECT           (-7224) /* connect() failed */
#define ERR_SOCKET_SEND_FAILED       (-7225) /* select failed while sending or connecting */
#define ERR_SOCKET_SEND              (-7226) /* send() failed */
#define ERR_SOCKET_RECV              (-7227) /* recv() failed */
#define ERR_SOCKET_OPTION            (-7228) /* a socket option call failed */
#define ERR_SOCKET_FCNTL             (-7229) /* switching the blocking mode failed */
#define ERR_UDP_TOO_LARGE            (-7231) /* a datagram longer than 65535 bytes */
#define ERR_SOCKET_PROXY_REFUSED     (-7232) /* the proxy refused to open the tunnel */
#define ERR_SOCKET_PROXY_AUTH        (-7233) /* the proxy rejected the credentials */
#define ERR_SOCKET_PROXY_REPLY       (-7234) /* the proxy's reply is malformed */
#define ERR_SSL_IO                   (-7251) /* TLS read or write failed / asynchronous registration with a mode other than 1 or 4 */
#define ERR_ASYNC_BAD_MODE           (-7251) /* TLS read or write failed / asynchronous registration with a mode other than 1 or 4 */
#define ERR_SSL_CTX_FILE             (-7252) /* key, chain or CA loading failed / the asynchronous worker has no free slot */
#define ERR_ASYNC_FULL               (-7252) /* key, chain or CA loading failed / the asynchronous worker has no free slot */
#define ERR_SSL_NO_CONTEXT           (-7253) /* no TLS context given / the socket is already registered */
#define ERR_ASYNC_ALREADY_ADDED      (-7253) /* no TLS context given / the socket is already registered */
#define ERR_SSL_CONNECT              (-7254) /* creating the TLS connection or the client handshake failed / the socket is not registered */
#define ERR_ASYNC_NOT_ADDED          (-7254) /* creating the TLS connection or the client handshake failed / the socket is not registered */
#define ERR_SSL_ACCEPT               (-7255) /* the server handshake failed / status handed to callbacks when their worker is deleted */
#define ERR_ASYNC_WORKER_DELETED     (-7255) /* the server handshake failed / status handed to callbacks when their worker is deleted */
#define ERR_SSL_CTX_CREATE           (-7256) /* creating the TLS context failed */
#define ERR_HTTP_BAD_URL             (-7271) /* the URL is neither "http://" nor "https://" */
#define ERR_HTTP_BAD_METHOD          (-7272) /* the request method is not GET, POST, PUT or DELETE */
#define ERR_HTTP_BAD_RESPONSE        (-7275) /* the status line is not HTTP/1.0 or HTTP/1.1 */
#define ERR_HTTP_FILE_CREATE         (-7277) /* the chunked download file cannot be created */
#define ERR_FTP_LOGIN_FAILED         (-7521) /* an FTP login was rejected */
#define ERR_FTP_BAD_PASV_REPLY       (-7522) /* a malformed PASV reply */
#define ERR_FTP_REPLY_TOO_LONG       (-7524) /* a reply line exceeds 4076 bytes */
#define ERR_FTP_NO_DATA_CONNECTION   (-7525) /* the active data connection was not accepted within 5 seconds */
#define ERR_FTP_BAD_PATH             (-7526) /* an invalid name, a path outside the root, or an unreadable file */
#define ERR_FTP_TRANSFER_OPEN        (-7527) /* the file cannot be created, or there is no data connection */
#define ERR_FTP_LINE_TOO_LONG        (-7531) /* a control line is longer than the buffer */

#endif
