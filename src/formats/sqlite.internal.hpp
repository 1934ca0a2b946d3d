// Shared between the SQLite access layer's sources: the table of SQLite
// functions bound at run time, the handle record and the statement runner.
// Not installed.
#pragma once

#include <cstdarg>

#include <vekutil/sqlite.h>

namespace vek::sql {

// SQLite's own types stay opaque: only pointers to them cross this layer.
struct sqlite3;
struct sqlite3_backup;
struct sqlite3_stmt;

constexpr const char* kSource = "src/sqlite.c";

// SQLite result codes this layer looks at.
constexpr int kOk = 0;
constexpr int kBusy = 5;
constexpr int kLocked = 6;
constexpr int kMisuse = 21;
constexpr int kConstraint = 19;
constexpr int kMismatch = 20;
constexpr int kRow = 100;
constexpr int kDone = 101;

using ExecCallback = int (*)(void*, int, char**, char**);
using UpdateHook = void (*)(void*, int, const char*, const char*, long long);
using BusyHandler = int (*)(void*, int);

// The functions bound from the loaded library, in binding order.
struct Api {
  int (*open)(const char* filename, sqlite3** db);
  int (*close)(sqlite3* db);
  const char* (*errmsg)(sqlite3* db);
  int (*exec)(sqlite3* db, const char* sql, ExecCallback callback, void* custom, char** errmsg);
  int (*get_table)(sqlite3* db, const char* sql, char*** result, int* nrows, int* ncols, char** errmsg);
  void (*free_table)(char** result);
  void* (*update_hook)(sqlite3* db, UpdateHook hook, void* custom);
  int (*busy_handler)(sqlite3* db, BusyHandler handler, void* custom);
  void (*free)(void* p);
  char* (*vmprintf)(const char* format, va_list args);
  const char* (*libversion)();
  sqlite3_backup* (*backup_init)(sqlite3* dest, const char* dest_name, sqlite3* source, const char* source_name);
  int (*backup_step)(sqlite3_backup* backup, int pages);
  int (*backup_finish)(sqlite3_backup* backup);
  int (*errcode)(sqlite3* db);
  long long (*memory_used)();
  long long (*memory_highwater)(int reset);
  int (*total_changes)(sqlite3* db);
  int (*table_column_metadata)(sqlite3* db, const char* schema, const char* table, const char* column,
                               const char** type, const char** collation, int* not_null, int* primary_key,
                               int* autoinc);
};

// Functions for statements prepared once and run many times. Optional: a
// library without them still loads, and callers fall back to running text.
struct StatementApi {
  int (*prepare_v2)(sqlite3* db, const char* sql, int bytes, sqlite3_stmt** statement, const char** tail);
  int (*bind_parameter_count)(sqlite3_stmt* statement);
  int (*bind_text)(sqlite3_stmt* statement, int index, const char* text, int bytes, void (*destructor)(void*));
  int (*bind_null)(sqlite3_stmt* statement, int index);
  int (*step)(sqlite3_stmt* statement);
  int (*reset)(sqlite3_stmt* statement);
  int (*finalize)(sqlite3_stmt* statement);

  bool available() const { return prepare_v2 && bind_parameter_count && bind_text && bind_null && step && reset && finalize; }
};

// Valid once sqlite_init has returned 0.
extern Api api;
extern StatementApi statement_api;

// The record behind a handle. The first eight fields keep their documented
// order; the rest serve the CSV progress report and the log lines.
struct Handle {
  sqlite3* dbhandle;
  void* mux;
  const char* errmsg;  // from SQLite's allocator
  int errcode;
  int dbcount;         // rows changed by the current statement (update hook)
  int total_changes;   // at the last backup; -1 before the first one
  sqlite_log_func log_func;
  void* custom;
  sqlite_progress_func progress_func;
  void* progress_custom;
  char* dbname;        // the open database's name, for log lines
};

inline Handle* as_handle(void* handle) { return static_cast<Handle*>(handle); }

// Text from SQLite's formatter (release with api.free), NULL without memory.
char* format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Which log line a failed statement writes.
enum class Caller { kExec, kExecEx, kBegin, kCommit };

// Runs ready SQL text on the handle: resets the changed-row count, hands the
// text to the log callback, runs it and keeps a failure's text and code.
// The caller holds the handle's mutex. Returns the changed-row count or the
// mapped result code.
int run(Handle* h, const char* sql, ExecCallback callback, void* custom, Caller caller);

// The two halves of run for statements not run from text. start_statement
// resets the changed-row count and shows sql (when not null) to the log
// callback; it returns the connection's change counter, which
// finish_statement takes with SQLite's result and error text (taken over)
// to give what run gives. sql may be null when the statement succeeded or
// failed on a constraint: only other failures write it to the error log.
int start_statement(Handle* h, const char* sql);
int finish_statement(Handle* h, int changes_before, int rc, char* err, const char* sql, Caller caller);

// The library code for an SQLite result (and whether it came with a text).
int map_result(int rc, bool has_text);

// Replaces the kept error with text (taken over; from SQLite's allocator).
void keep_error(Handle* h, int rc, char* text);

// ERR_SQLITE_FAILED with SQLite's misuse code and a text, for a handle
// without an open connection.
int not_open(Handle* h);

// Reports rows handled to the progress callback.
inline void report_progress(Handle* h, long long rows) {
  if (h->progress_func) h->progress_func(h->progress_custom, rows);
}

}  // namespace vek::sql
