/* A blocking HTTP/1.0 and HTTP/1.1 client for http:// and https:// URLs.
 *
 * One call to http_client makes one GET, POST, PUT or DELETE request on a
 * new connection (direct, or through any proxy of socket.h; over TLS for
 * https) and fills a response record with the status, the headers and the
 * body. The body goes into memory, or for a GET with a file into that file,
 * with resume from an offset. A request body comes from memory, or for POST
 * from a file sent with chunked transfer encoding.
 *
 * https needs ssl_init() (ssl.h) once beforehand. Request and response
 * records are not locked: one pair belongs to one call at a time; separate
 * pairs may be used on separate threads.
 *
 * Results: 0, or a negative code. Besides the ERR_HTTP_* codes, socket, TLS
 * and file codes (errors.h) are passed through as they come.
 */
#ifndef VEKUTIL_HTTP_H
#define VEKUTIL_HTTP_H

#include <vekutil/defs.h>
#include <vekutil/socket.h>

VEK_BEGIN_DECLS

/* Values of HTTP_REQUEST.method. */
#define HTTP_METHOD_GET 1
#define HTTP_METHOD_POST 2
#define HTTP_METHOD_PUT 8
#define HTTP_METHOD_DELETE 16

/* Bit of HTTP_REQUEST.options. */
#define HTTP_REQUEST_HTTP10 1 /* send an HTTP/1.0 request (no Host, no Connection header) */

/* Bits of HTTP_RESPONSE.options. */
#define HTTP_RESPONSE_HTTP10 1  /* the reply was HTTP/1.0 */
#define HTTP_RESPONSE_HTTP11 2  /* the reply was HTTP/1.1 */
#define HTTP_RESPONSE_CHUNKED 4 /* "Transfer-Encoding: chunked" */

/* Default time-out of a new request, in milliseconds. */
#define HTTP_DEFAULT_TIMEOUT 5000

/* Longest response header accepted; a longer one fails the exchange with
 * ERR_HTTP_BAD_RESPONSE instead of growing without bound. */
#define HTTP_MAX_RESPONSE_HEADER (1024 * 1024)

/* The field order is part of the interface. The library never frees or
 * changes what the text and data pointers point to. */
typedef struct _HTTP_REQUEST {
  const char* url;           /* "http://host[:port][/path]" or "https://..." */
  const char* override_host; /* NULL, or "host:port" to connect to; the request line then carries the whole url */
  int method;                /* HTTP_METHOD_* */
  int options;               /* HTTP_REQUEST_HTTP10 */
  void* properties;          /* property tree (ptree.h): extra request headers, sent in its order */
  const char* data;          /* request body for POST, PUT and DELETE */
  int data_len;
  int timeout;               /* milliseconds; HTTP_DEFAULT_TIMEOUT at creation */
  const char* ssl_cert_path; /* PEM file with client certificate chain, CA list and key (ssl_ctx_set_packed_file) */
  const char* ssl_cert_pass; /* pass phrase of its key */
  int ssl_verify_peer;       /* non-zero: verify the server against the system CAs (and the file's) and its name */
  SOCKET_PROXY_INFO proxy;   /* type SOCKET_PROXY_NONE (0): direct connection */
  const char* file;          /* GET: where the body is written; POST: the file to upload */
  int offset;                /* GET with file: resume from this byte */
} HTTP_REQUEST;

typedef struct _HTTP_RESPONSE {
  int status;       /* e.g. 200 */
  int options;      /* HTTP_RESPONSE_* bits */
  void* properties; /* property tree of the response headers; repeated names are joined with ", " */
  char* data;       /* body read into memory, NUL-terminated; owned by the record */
  int data_len;     /* Content-Length (INT_MAX when larger), else the bytes in data */
} HTTP_RESPONSE;

/* Zeroed records with an empty property tree; the request's timeout is
 * HTTP_DEFAULT_TIMEOUT. 0, ERR_NO_MEMORY, or ERR_HTTP_NULL_OBJECT for a NULL
 * argument. */
VEK_API int http_request_create(HTTP_REQUEST** request);
VEK_API int http_response_create(HTTP_RESPONSE** response);
/* Free the record and its property tree (and the response's data).
 * ERR_HTTP_NULL_OBJECT for NULL. */
VEK_API int http_request_delete(HTTP_REQUEST* request);
VEK_API int http_response_delete(HTTP_RESPONSE* response);

/* Adds "Authorization: Basic base64(user:pass)" to the request properties.
 * ERR_HTTP_NULL_OBJECT for a NULL request; ERR_INVALID_PARAMETER for a NULL
 * user or password or a failed allocation; else the encoder's result. */
VEK_API int http_request_set_basic_auth(HTTP_REQUEST* request, const char* user, const char* pass);

/* Performs the exchange: connect, send, read the header, read the body.
 *
 * The header is read until "\r\n\r\n" (four CR or LF bytes in a row); a
 * silence of timeout ms ends it with ERR_SOCKET_TIMEOUT. A 307 reply is
 * answered by repeating the same request once. The body is read by length
 * (HTTP/1.1 with Content-Length), by chunks (HTTP/1.1 chunked) or up to the
 * peer's close, into data - or, for a GET with file and a status below 400,
 * into the file: opened "wb", or appended to at offset (with a
 * "Range: bytes=offset-" request) when offset is set.
 *
 * A body that ends before its Content-Length or its last chunk returns the
 * failing receive's code; the bytes received stay in the file, so the
 * download can be resumed. ERR_INVALID_PARAMETER for a NULL record,
 * ERR_HTTP_BAD_URL, ERR_HTTP_BAD_METHOD, ERR_HTTP_BAD_RESPONSE, file codes
 * (ERR_FILE_OPEN, ERR_FILE_WRITE, ERR_FILE_SEEK, ERR_HTTP_FILE_CREATE), or
 * the socket, proxy and TLS codes. A URL, override_host or property holding
 * CR or LF is refused (ERR_HTTP_BAD_URL, ERR_INVALID_PARAMETER) rather than
 * sent. */
VEK_API int http_client(HTTP_REQUEST* request, HTTP_RESPONSE* response);

/* URL encoding into a new text (free it with _vekFree; NULL for NULL input or
 * no memory): letters, digits and "-_.~" stay, a blank becomes "+", every
 * other byte a percent escape - "%2f" style (two lower-case digits) from
 * http_encode_string, "%2F" style (upper case, "%A" without a leading zero
 * below 16) from _http_encode_url. */
VEK_API char* http_encode_string(const char* text);
VEK_API char* _http_encode_url(const char* text);

/* ---- The steps of http_client, for callers that drive an exchange ------- */

/* Parses the URL, connects (directly, to override_host, or through the
 * proxy), runs the TLS handshake for https and builds the request header.
 * On success *socket is the connected socket (release it with
 * socket_delete) and *header a blob (blob.h; release with blob_delete)
 * holding the header. On failure both are NULL. */
VEK_API int http_build_header(HTTP_REQUEST* request, void** socket, void** header);

/* Sends the header and the body: the data (with the header in one send for
 * POST, PUT and DELETE), or for a POST with file and no data that file as
 * chunks of at most 8192 bytes ending in "0\r\n\r\n". PUT and DELETE with a
 * file announce chunked encoding but send only the header. ERR_FILE_OPEN
 * when the upload file cannot be opened. */
VEK_API int http_put(HTTP_REQUEST* request, void* socket, void* header);

/* Parses a response header (status line and "Name: value" lines up to the
 * empty line) into status, options, properties and, from "Content-Length",
 * data_len. ERR_HTTP_BAD_RESPONSE unless it starts with "HTTP/1.0" or
 * "HTTP/1.1". */
VEK_API int http_build_properties(HTTP_RESPONSE* response, const char* header, int header_len);

/* Body readers for a socket positioned at the start of the body, as
 * http_client chooses them: a known data_len, chunked encoding, or up to the
 * peer's close. */
VEK_API int http_datalength_known(HTTP_REQUEST* request, HTTP_RESPONSE* response, void* socket);
VEK_API int http_chunk_transfer_encoding(HTTP_REQUEST* request, HTTP_RESPONSE* response, void* socket);
VEK_API int http_unknown_encoding(HTTP_REQUEST* request, HTTP_RESPONSE* response, void* socket);

/* The reading half of http_client on a socket whose request has been sent:
 * empties the response, reads and parses the header (with the time-out
 * rule of http_client) and reads the body as http_client would. There is
 * no 307 repeat; the socket stays open. */
VEK_API int _http_read_response(HTTP_REQUEST* request, HTTP_RESPONSE* response, void* socket);

VEK_END_DECLS

#endif
