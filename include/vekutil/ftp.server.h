/* An embeddable FTP server. The host starts it on a port with a root folder
 * and three callbacks (authentication, before-command, after-command); the
 * server accepts control connections, keeps one session per client and runs
 * each command line through the process-wide command table, which holds the
 * 29 built-in commands and whatever the host registers.
 *
 * Before ftp_server_start the application must start the default socket
 * workers with socket_async_default_init (<vekutil/socket.async.h>): the
 * server accepts its clients on the default acceptor.
 *
 * Threads. Each server has one asynchronous worker ("FTP Server Worker")
 * that gathers command lines from every session without blocking, and a
 * small pool of its own command threads ("FTP Server Command") that run the
 * commands: a session's commands run one after the other, in order, while
 * sessions proceed in parallel, so a slow client or a long transfer never
 * holds up the others. The authentication and command callbacks, and
 * handlers registered with ftp_command_register, run on those command
 * threads (several at once for different sessions) and must be
 * thread-safe; they get at least 256 KiB of stack.
 *
 * Confinement. Every path a client names stays inside the root folder: its
 * absolute form must equal the root or continue it after a "/", and its
 * existing part, with symbolic links resolved, must stay inside the resolved
 * root. Passive data connections are only taken from the control
 * connection's peer address, and PORT must name that address. */
#ifndef VEKUTIL_FTP_SERVER_H
#define VEKUTIL_FTP_SERVER_H

#include <vekutil/defs.h>
#include <vekutil/errors.h>

VEK_BEGIN_DECLS

/* Returns the access level of a login: 0 none (refused), 1 read only,
 * 2 write only, 3 read and write. Runs on a command thread. */
typedef int (*ftp_server_auth_callback)(const char* username, const char* password, const char* peer_address);
/* Before each command line: the command word and the line as received
 * (with its final CR, without the LF). */
typedef void (*ftp_server_cmd_callback)(const void* client, const char* command, const char* line);
/* After each command, with the handler's result (0 or a negative code). */
typedef void (*ftp_server_post_cmd_callback)(const void* client, const char* command, const char* line, int result);
/* A command handler: the session record, the command word and the argument
 * text (NULL when the line had none). It sends its own replies on
 * client_object->socket and returns 0 or a negative code. */
typedef int (*ftp_server_exec_callback)(void* client_object, const char* cmd, const char* args);

/* Access levels returned by the authentication callback. They are
 * exclusive: a read-only session may not write, a write-only one may not
 * read. */
#define FTP_ACCESS_NONE 0
#define FTP_ACCESS_READ 1
#define FTP_ACCESS_WRITE 2
#define FTP_ACCESS_ALL 3

/* Longest command line, CR LF and terminator included: 1022 characters of
 * text at most. Paths built from the root, the current directory and an
 * argument have the same limit. */
#define FTP_SERVER_LINE_SIZE 1024
#define FTP_SERVER_PATH_SIZE 1024

typedef struct _FTP_SERVER_OBJECT _FTP_SERVER_OBJECT;

/* One server. Read-only for callers; the field order is part of the
 * interface. */
struct _FTP_SERVER_OBJECT {
  char* public_ip;             /* address announced by PASV; NULL: the control connection's local address */
  unsigned short port;         /* listening port */
  void* socket;                /* listening socket */
  void* session_btree;         /* the live sessions, keyed by object */
  int timeout;                 /* ms an incomplete command line may wait: 600000 */
  int ref_count;               /* 1 for the server plus 1 per live session (under mutex) */
  char* root_folder;           /* root folder as given */
  char* root_folder_abs;       /* its absolute form */
  ftp_server_auth_callback auth_callback;
  ftp_server_cmd_callback pre_cmd_callback;
  ftp_server_post_cmd_callback post_cmd_callback;
  int stop_now;                /* set once ftp_server_stop has begun */
  void* mutex;                 /* "ftp_server_start": guards ref_count and public_ip */
  void* socket_async_ftp_server_worker; /* the worker that gathers command lines */
};

/* One control session, as handed to callbacks and command handlers. The
 * field order is part of the interface. */
typedef struct _FTP_CLIENT_OBJECT {
  char remote_addr[36];        /* peer "a.b.c.d:port"; after PORT, the data address */
  char username[132];          /* the peer address until USER names someone */
  void* socket;                /* control socket: reply with socket_send */
  _FTP_SERVER_OBJECT* server;  /* owner */
  char* directory;             /* current directory below the root, "/" first and last */
  int is_authenticated;        /* access level from the authentication callback */
  int rest_point;              /* restart offset from REST (saturated at INT_MAX; the full
                                  64-bit offset is kept inside) */
  char* rename_from;           /* name given by RNFR */
  int data_state;              /* 0 no data address, 1 address known, 2 data connection open */
  int data_passive_mode;       /* 1 after PASV, 0 after PORT */
  void* data_socket;           /* passive listening socket */
  void* data_connection_socket; /* the open data connection */
  int data_ascii_mode;         /* 1 after TYPE A, 0 after TYPE I (binary at first) */
  int data_appe_mode;          /* 1 after APPE: the next STOR appends */
  int bad_command;             /* failed logins so far; the sixth ends the session */
} _FTP_CLIENT_OBJECT;

/* One entry of the command table. */
typedef struct _FTP_COMMAND {
  char name[132];
  ftp_server_exec_callback exec_callback;
} _FTP_COMMAND;

/* Starts a server listening on 0.0.0.0:port (0: a free port, read it from
 * (*handle)->port) that serves root_folder. Any callback may be NULL; with
 * no authentication callback nobody can log in. 0 and *handle set, or
 * ERR_INVALID_HANDLE for a NULL handle pointer, ERR_INVALID_PARAMETER for a
 * NULL root folder, ERR_NO_MEMORY, or the socket layer's code (a port in
 * use gives its bind failure). */
VEK_API int ftp_server_start(void** handle, unsigned short port, const char* root_folder,
                             ftp_server_auth_callback auth_callback, ftp_server_cmd_callback pre_cmd_callback,
                             ftp_server_post_cmd_callback post_cmd_callback);
/* Stops accepting, closes every session (a transfer under way ends with
 * its failure reply), waits until every command has finished and every
 * session has ended, and frees the server. Callbacks are not called after
 * it returns. Must not be called from a callback of the same server. */
VEK_API void ftp_server_stop(void* handle);
/* The address PASV announces: a non-empty text is copied; NULL or "" goes
 * back to the control connection's local address. 0, or
 * ERR_INVALID_PARAMETER for a NULL handle. */
VEK_API int ftp_server_set_public_ip(void* handle, const char* public_ip);

/* Session accessors for callbacks (NULL for a NULL client). */
VEK_API const char* ftp_server_client_directory(const void* client);
VEK_API const char* ftp_server_client_username(const void* client);
VEK_API const char* ftp_server_client_address(const void* client);

/* The process-wide command table: a hash B-tree of _FTP_COMMAND keyed by the
 * CRC-32 of the name (btree_str_hash). NULL until the first registration. */
VEK_API extern void* g_ftp_command_btree;

/* Adds a command to the process-wide table (names are case-sensitive, at
 * most 128 characters kept). The first registration of a name wins. Not
 * locked: register before starting servers. Registering before the first
 * ftp_server_start replaces the built-in commands altogether, since
 * ftp_command_init only fills a table that does not exist yet. */
VEK_API void ftp_command_register(const char* command, ftp_server_exec_callback callback);
/* Registers the 29 built-in commands unless the table already exists. */
VEK_API void ftp_command_init(void);
/* Frees the command table (call after every server has stopped); the next
 * ftp_server_start builds it again. */
VEK_API void ftp_command_uninit(void);

VEK_END_DECLS

#endif
