// SQLite access layer: loading SQLite at run time, the handle with its
// recursive mutex, statements, result tables, transactions, the busy
// handler, the integrity check, on-line backup and column descriptions.
// CSV export and import live in sqlite.csv.cpp.
#include <pthread.h>
#include <strings.h>

#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <type_traits>

#include <vekutil/loader.h>
#include <vekutil/mutex.h>
#include <vekutil/sqlite.h>
#include <vekutil/threads.h>

#include "core/internal.hpp"
#include "core/scoped_lock.hpp"
#include "formats/sqlite.internal.hpp"

void* g_sqlite_dbhandle = nullptr;

// The public records keep their documented field order.
static_assert(offsetof(SQLITE_RESULT, results) == 0 && offsetof(SQLITE_RESULT, nrows) == sizeof(char**) &&
              offsetof(SQLITE_RESULT, ncols) == sizeof(char**) + sizeof(int));
static_assert(offsetof(_AUTOINC, id) == 0 && offsetof(_AUTOINC, name) == sizeof(char*) &&
              offsetof(_AUTOINC, type) == 2 * sizeof(char*) && offsetof(_AUTOINC, opts) == 3 * sizeof(char*) &&
              offsetof(_AUTOINC, index) == 4 * sizeof(char*) &&
              offsetof(_AUTOINC, all_column_count) == 4 * sizeof(char*) + sizeof(int));

namespace vek::sql {

Api api{};
StatementApi statement_api{};

namespace {

constexpr int kPathCapacity = 4096;
constexpr int kBusyRetries = 10;
constexpr int kBusySleepMs = 200;
constexpr int kBackupPagesPerStep = 50;
constexpr int kBackupPauseMs = 250;

// Serialises loading so that two first calls never bind at the same time;
// once loaded, g_sqlite_dbhandle is read without it.
pthread_mutex_t g_load_lock = PTHREAD_MUTEX_INITIALIZER;
char g_library_path[kPathCapacity];  // empty: the default search

void* loaded_library() { return __atomic_load_n(&g_sqlite_dbhandle, __ATOMIC_ACQUIRE); }

// Looks name up, then "_" + name (or the given fallback name).
template <class F>
bool bind(void* library, F& slot, const char* name, const char* fallback = nullptr) {
  void* symbol = loader_get_symbol(library, name);
  char underscored[64];
  if (!symbol) {
    if (!fallback) {
      underscored[0] = '_';
      vek::copy_name(underscored + 1, sizeof underscored - 1, name);
      fallback = underscored;
    }
    symbol = loader_get_symbol(library, fallback);
  }
  if (!symbol) {
    log_vek_error("sqlite_init(): function %s not found\n", name);
    return false;
  }
  slot = reinterpret_cast<F>(symbol);
  return true;
}

bool bind_all(void* library, Api& a) {
  return bind(library, a.open, "sqlite3_open") && bind(library, a.close, "sqlite3_close") &&
         bind(library, a.errmsg, "sqlite3_errmsg") && bind(library, a.exec, "sqlite3_exec") &&
         bind(library, a.get_table, "sqlite3_get_table", "_sqlite3_exec") &&
         bind(library, a.free_table, "sqlite3_free_table") && bind(library, a.update_hook, "sqlite3_update_hook") &&
         bind(library, a.busy_handler, "sqlite3_busy_handler") && bind(library, a.free, "sqlite3_free") &&
         bind(library, a.vmprintf, "sqlite3_vmprintf") && bind(library, a.libversion, "sqlite3_libversion") &&
         bind(library, a.backup_init, "sqlite3_backup_init") && bind(library, a.backup_step, "sqlite3_backup_step") &&
         bind(library, a.backup_finish, "sqlite3_backup_finish") && bind(library, a.errcode, "sqlite3_errcode") &&
         bind(library, a.memory_used, "sqlite3_memory_used") &&
         bind(library, a.memory_highwater, "sqlite3_memory_highwater") &&
         bind(library, a.total_changes, "sqlite3_total_changes") &&
         bind(library, a.table_column_metadata, "sqlite3_table_column_metadata");
}

// Binds what SQLite offers for prepared statements; a missing function
// leaves the whole set unused, without a log line.
StatementApi bind_statement_functions(void* library) {
  StatementApi a{};
  auto find = [library](auto& slot, const char* name) {
    void* symbol = loader_get_symbol(library, name);
    if (!symbol) {
      char underscored[64] = "_";
      vek::copy_name(underscored + 1, sizeof underscored - 1, name);
      symbol = loader_get_symbol(library, underscored);
    }
    slot = reinterpret_cast<std::remove_reference_t<decltype(slot)>>(symbol);
  };
  find(a.prepare_v2, "sqlite3_prepare_v2");
  find(a.bind_parameter_count, "sqlite3_bind_parameter_count");
  find(a.bind_text, "sqlite3_bind_text");
  find(a.bind_null, "sqlite3_bind_null");
  find(a.step, "sqlite3_step");
  find(a.reset, "sqlite3_reset");
  find(a.finalize, "sqlite3_finalize");
  return a.available() ? a : StatementApi{};
}

// The shared object: the configured path, else the development name and
// then the run-time name, which is all a machine without the development
// files has.
void* open_library() {
  void* library = nullptr;
  if (g_library_path[0]) {
    loader_load(&library, g_library_path);
    return library;
  }
  for (const char* name : {"libsqlite3.so", "libsqlite3.so.0"})
    if (loader_load(&library, name) == 0) return library;
  return nullptr;
}

int load() {
  vek::ScopedLock guard(g_load_lock);
  if (loaded_library()) return 0;
  void* library = open_library();
  if (!library) return ERR_SQLITE_LOAD;
  Api bound{};
  if (!bind_all(library, bound)) {
    loader_unload(library);
    return ERR_SQLITE_LOAD;
  }
  api = bound;
  statement_api = bind_statement_functions(library);
  __atomic_store_n(&g_sqlite_dbhandle, library, __ATOMIC_RELEASE);
  return 0;
}

void count_change(void* counter, int, const char*, const char*, long long) { ++*static_cast<int*>(counter); }

// Retries a locked database for about two seconds, then gives up.
int busy_callback(void*, int count) {
  if (count >= kBusyRetries) {
    log_vek_error("_sqlbusy_callback(): repeat[%d] and failed.\n", count);
    return 0;
  }
  thread_sleep(kBusySleepMs);
  return 1;
}

void log_failure(Caller caller, const char* sql, int rc, const char* text) {
  switch (caller) {
    case Caller::kExec: log_vek_error("_sqlite3_exec(\"%s\")\n\tFailed[%d] [%s]\n", sql, rc, text); break;
    case Caller::kExecEx: log_vek_error("_sqlite3_exec_ex(\"%s\")\n\tFailed[%d] [%s]\n", sql, rc, text); break;
    case Caller::kBegin: log_vek_error("_sqlite3_exec(\"BEGIN IMMEDIATE\")\n\tFailed[%d] [%s]\n", rc, text); break;
    case Caller::kCommit:
      log_vek_error("_sqlite3_exec(\"COMMIT\"(sqlite_transaction_end))\n\tFailed[%d] [%s]\n", rc, text);
      break;
  }
}

void log_sql(Handle* h, const char* sql) {
  if (h->log_func) h->log_func(sql, h->custom);
}

// A private copy of text from the library's allocator.
char* copy_text(const char* text, int line) {
  if (!text) return nullptr;
  const size_t n = std::strlen(text) + 1;
  auto* copy = static_cast<char*>(_vekMalloc(n, kSource, line));
  if (copy) std::memcpy(copy, text, n);
  return copy;
}

// Runs "PRAGMA integrity_check": 0 when SQLite answers with the single row
// "ok". A database locked by another connection is busy, not corrupt.
int check_integrity(Handle* h) {
  static const char kCheck[] = "PRAGMA integrity_check";
  const char* name = h->dbname ? h->dbname : "";
  log_sql(h, kCheck);
  char** table = nullptr;
  char* err = nullptr;
  int rows = 0, cols = 0;
  const int rc = api.get_table(h->dbhandle, kCheck, &table, &rows, &cols, &err);
  if (rc != kOk || err) {
    log_vek_error("Database[%s] PRAGMA integrity_check: [%d]: %s\n", name, rc, err ? err : "");
    keep_error(h, rc, err);
    if (table) api.free_table(table);
    return rc == kBusy ? ERR_SQLITE_BUSY : ERR_SQLITE_CORRUPT;
  }
  const bool ok = rows == 1 && cols >= 1 && table[cols] && std::strncmp(table[cols], "ok", 2) == 0;
  if (!ok)
    for (int r = 1; r <= rows; ++r) log_vek_error("Database[%s] corrupted:[%s].\n", name, table[r * cols] ? table[r * cols] : "");
  api.free_table(table);
  return ok ? 0 : ERR_SQLITE_CORRUPT;
}

int close_connection(Handle* h) {
  if (!h->dbhandle) return 0;
  const int rc = api.close(h->dbhandle);
  if (rc != kOk) {
    log_vek_error("sqlite_delete(%s): sqlite3_close failed[%d]\n", h->dbname ? h->dbname : "", rc);
    return ERR_SQLITE_FAILED;
  }
  h->dbhandle = nullptr;
  vek::release(h->dbname, kSource, __LINE__);
  return 0;
}

// Opens dbname into h->dbhandle with the busy handler installed.
int connect(Handle* h, const char* dbname) {
  sqlite3* db = nullptr;
  const int rc = api.open(dbname, &db);
  if (rc != kOk) {
    const char* why = db ? api.errmsg(db) : "out of memory";
    log_vek_error("sqlite_open(%s): sqlite3_open failed[%d] [%s]\n", dbname, rc, why);
    keep_error(h, rc, format("%s", why));
    if (db) api.close(db);
    return ERR_SQLITE_FAILED;
  }
  h->dbhandle = db;
  h->dbname = copy_text(dbname, __LINE__);
  h->total_changes = -1;
  api.busy_handler(db, busy_callback, nullptr);
  return 0;
}

// Returns the raw SQLite code of a backup connection after closing it.
int close_backup_target(sqlite3* dest) {
  const int rc = api.errcode(dest);
  api.close(dest);
  return rc;
}

// Steps the backup to its end, holding the handle's mutex only during a
// step so that the handle stays usable in the pauses.
int copy_pages(Handle* h, sqlite3* dest) {
  sqlite3_backup* backup;
  {
    vek::ScopedLock guard(h->mux, kSource, __LINE__);
    backup = api.backup_init(dest, "main", h->dbhandle, "main");
  }
  if (!backup) return close_backup_target(dest);
  for (;;) {
    int rc;
    {
      vek::ScopedLock guard(h->mux, kSource, __LINE__);
      rc = api.backup_step(backup, kBackupPagesPerStep);
    }
    if (rc != kOk && rc != kBusy && rc != kLocked) break;
    thread_sleep(kBackupPauseMs);
  }
  {
    vek::ScopedLock guard(h->mux, kSource, __LINE__);
    api.backup_finish(backup);
  }
  return close_backup_target(dest);
}

// The column SQLite numbers itself: one declared AUTOINCREMENT, else the
// only primary-key column when it is declared INTEGER (the row id alias).
int find_autoincrement(Handle* h, const char* tablename, char** info, int rows, int cols, bool* autoinc) {
  int pk_columns = 0;
  for (int r = 1; r <= rows; ++r) pk_columns += info[r * cols + 5] && std::strcmp(info[r * cols + 5], "0") != 0;
  for (int r = 1; r <= rows; ++r) {
    char** row = info + r * cols;
    const char *type = nullptr, *collation = nullptr;
    int not_null = 0, primary = 0, is_autoinc = 0;
    if (api.table_column_metadata(h->dbhandle, nullptr, tablename, row[1], &type, &collation, &not_null, &primary,
                                  &is_autoinc) != kOk)
      continue;
    if (is_autoinc || (primary && pk_columns == 1 && row[2] && strcasecmp(row[2], "INTEGER") == 0)) {
      *autoinc = is_autoinc != 0;
      return r - 1;
    }
  }
  return -1;
}

int fill_autoincrement(_AUTOINC* out, char** row, bool autoinc) {
  const bool not_null = row[3] && std::strcmp(row[3], "0") != 0;
  const char* opts = autoinc ? (not_null ? "PRIMARY KEY AUTOINCREMENT NOT NULL" : "PRIMARY KEY AUTOINCREMENT")
                             : (not_null ? "PRIMARY KEY NOT NULL" : "PRIMARY KEY");
  out->id = copy_text(row[0] ? row[0] : "", __LINE__);
  out->name = copy_text(row[1] ? row[1] : "", __LINE__);
  out->type = copy_text(row[2] ? row[2] : "", __LINE__);
  out->opts = copy_text(opts, __LINE__);
  if (out->id && out->name && out->type && out->opts) return 0;
  sqlite_autoincrement_free(out);
  return ERR_NO_MEMORY;
}

// Loads SQLite if needed: 0 when the handle may be used, else the code.
int enter(void* handle) {
  if (const int rc = sqlite_init()) return rc;
  return handle ? 0 : ERR_INVALID_HANDLE;
}

// Expands fmt with SQLite's formatter and runs the text under the mutex.
int exec_formatted(void* handle, ExecCallback callback, void* custom, Caller caller, const char* fmt,
                   va_list args) {
  if (const int rc = enter(handle)) return rc;
  if (!fmt) return ERR_INVALID_PARAMETER;
  Handle* h = as_handle(handle);
  char* sql = api.vmprintf(fmt, args);
  if (!sql) return ERR_NO_MEMORY;
  int rc;
  {
    vek::ScopedLock guard(h->mux, kSource, __LINE__);
    rc = run(h, sql, callback, custom, caller);
  }
  api.free(sql);
  return rc;
}

}  // namespace

char* format(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  char* text = api.vmprintf(fmt, args);
  va_end(args);
  return text;
}

int map_result(int rc, bool has_text) {
  switch (rc) {
    case kOk: return has_text ? ERR_SQLITE_FAILED : 0;
    case kConstraint: return ERR_SQLITE_CONSTRAINT;
    case kMismatch: return ERR_SQLITE_MISMATCH;
    case kBusy: return ERR_SQLITE_BUSY;
    default: return ERR_SQLITE_FAILED;
  }
}

void keep_error(Handle* h, int rc, char* text) {
  if (h->errmsg) api.free(const_cast<char*>(h->errmsg));
  h->errmsg = text;
  h->errcode = rc;
}

int not_open(Handle* h) {
  keep_error(h, kMisuse, format("no database is open"));
  return ERR_SQLITE_FAILED;
}

int start_statement(Handle* h, const char* sql) {
  h->dbcount = 0;
  const int changes_before = api.total_changes(h->dbhandle);
  if (sql) log_sql(h, sql);
  return changes_before;
}

int finish_statement(Handle* h, int changes_before, int rc, char* err, const char* sql, Caller caller) {
  // The update hook misses rows that SQLite removes wholesale (a DELETE
  // without WHERE) and tables without row ids; the connection's change
  // counter sees those.
  const int changes = api.total_changes(h->dbhandle) - changes_before;
  if (changes > h->dbcount) h->dbcount = changes;
  if (rc == kOk && !err) return h->dbcount;
  if (rc != kConstraint) log_failure(caller, sql ? sql : "", rc, err ? err : "");
  keep_error(h, rc, err);
  return map_result(rc, true);
}

int run(Handle* h, const char* sql, ExecCallback callback, void* custom, Caller caller) {
  if (!h->dbhandle) return not_open(h);
  const int changes_before = start_statement(h, sql);
  char* err = nullptr;
  const int rc = api.exec(h->dbhandle, sql, callback, custom, &err);
  return finish_statement(h, changes_before, rc, err, sql, caller);
}

}  // namespace vek::sql

using namespace vek::sql;

int sqlite_init() { return loaded_library() ? 0 : load(); }

int sqlite_set_library_path(const char* path) {
  if (path && std::strlen(path) >= kPathCapacity) return ERR_INVALID_PARAMETER;
  vek::ScopedLock guard(g_load_lock);
  vek::copy_name(g_library_path, sizeof g_library_path, path);
  return 0;
}

int sqlite_create(void** handle) {
  if (handle) *handle = nullptr;
  if (const int rc = sqlite_init()) return rc;
  if (!handle) return ERR_INVALID_PARAMETER;
  auto* h = vek::alloc_record<Handle>(kSource, __LINE__);
  if (!h) return ERR_NO_MEMORY;
  h->total_changes = -1;
  if (_mutex_create_ex(&h->mux, "sqlite", 0, kSource, __LINE__) != 0) {
    _vekFree(h, kSource, __LINE__);
    return ERR_NO_MEMORY;
  }
  *handle = h;
  return 0;
}

int sqlite_open(void* handle, const char* dbname) {
  if (const int rc = enter(handle)) return rc;
  if (!dbname) return ERR_INVALID_PARAMETER;
  Handle* h = as_handle(handle);
  vek::ScopedLock guard(h->mux, kSource, __LINE__);
  if (close_connection(h) != 0) return ERR_SQLITE_FAILED;
  if (const int rc = connect(h, dbname)) return rc;
  if (const int rc = check_integrity(h)) {
    close_connection(h);
    return rc;
  }
  // The log callback has always been shown this spelling; the statement
  // that runs is the correct one.
  log_sql(h, "PRAGMA locking_mod = NORMAL");
  char* err = nullptr;
  api.exec(h->dbhandle, "PRAGMA locking_mode = NORMAL", nullptr, nullptr, &err);
  if (err) api.free(err);
  api.update_hook(h->dbhandle, count_change, &h->dbcount);
  return 0;
}

int sqlite_delete(void* handle) {
  if (const int rc = enter(handle)) return rc;
  Handle* h = as_handle(handle);
  mutex_delete(h->mux);
  keep_error(h, 0, nullptr);
  const int rc = close_connection(h);
  vek::release(h->dbname, kSource, __LINE__);
  _vekFree(h, kSource, __LINE__);
  return rc;
}

SQLITE_RESULT* sqlite_select(void* handle, const char* fmt, ...) {
  if (enter(handle) != 0 || !fmt) return nullptr;
  Handle* h = as_handle(handle);
  va_list args;
  va_start(args, fmt);
  char* sql = api.vmprintf(fmt, args);
  va_end(args);
  auto* result = sql ? vek::alloc_record<SQLITE_RESULT>(kSource, __LINE__) : nullptr;
  vek::ScopedLock guard(h->mux, kSource, __LINE__);
  if (!result) {
    h->errcode = ERR_NO_MEMORY;
  } else if (!h->dbhandle) {
    not_open(h);
    h->errcode = ERR_SQLITE_FAILED;
    vek::release(result, kSource, __LINE__);
  } else {
    h->dbcount = 0;
    log_sql(h, sql);
    char* err = nullptr;
    const int rc = api.get_table(h->dbhandle, sql, &result->results, &result->nrows, &result->ncols, &err);
    if (rc != kOk || err) {
      log_vek_error("_sqlite3_get_table(\"%s\")\n\tFailed[%d] [%s]\n", sql, rc, err ? err : "");
      keep_error(h, rc, err);
      h->errcode = map_result(rc, true);
      if (result->results) api.free_table(result->results);
      vek::release(result, kSource, __LINE__);
    }
  }
  if (sql) api.free(sql);
  return result;
}

const char* sqlite_column(SQLITE_RESULT* rslt, int c) {
  if (!rslt || !rslt->results || c < 0 || c >= rslt->ncols) return nullptr;
  return rslt->results[c];
}

const char* sqlite_element(SQLITE_RESULT* rslt, int r, int c) {
  if (!rslt || !rslt->results || r < 0 || r >= rslt->nrows || c < 0 || c >= rslt->ncols) return nullptr;
  return rslt->results[(r + 1) * rslt->ncols + c];
}

void sqlite_free(SQLITE_RESULT* rslt) {
  if (!rslt) return;
  if (rslt->results && loaded_library()) api.free_table(rslt->results);
  _vekFree(rslt, kSource, __LINE__);
}

int sqlite_exec_args(void* handle, const char* fmt, va_list args) {
  return exec_formatted(handle, nullptr, nullptr, Caller::kExec, fmt, args);
}

int sqlite_exec(void* handle, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int rc = exec_formatted(handle, nullptr, nullptr, Caller::kExec, fmt, args);
  va_end(args);
  return rc;
}

int sqlite_exec_ex(void* handle, sqlite_callback callback, void* custom, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int rc = exec_formatted(handle, callback, custom, Caller::kExecEx, fmt, args);
  va_end(args);
  return rc;
}

int sqlite_transaction_begin(void* handle) {
  if (sqlite_init() != 0) return ERR_SQLITE_FAILED;
  if (!handle) return ERR_INVALID_HANDLE;
  Handle* h = as_handle(handle);
  vek::ScopedLock guard(h->mux, kSource, __LINE__);
  if (!guard.held()) return ERR_SYSTEM;
  const int rc = run(h, "BEGIN IMMEDIATE", nullptr, nullptr, Caller::kBegin);
  if (rc >= 0) guard.keep();
  return rc;
}

int sqlite_transaction_end(void* handle) {
  if (sqlite_init() != 0) return ERR_SQLITE_FAILED;
  if (!handle) return ERR_INVALID_HANDLE;
  Handle* h = as_handle(handle);
  int rc;
  {
    // Locked once more so that COMMIT never runs beside another thread's
    // statement, even when the caller does not hold the transaction.
    vek::ScopedLock guard(h->mux, kSource, __LINE__);
    rc = run(h, "COMMIT", nullptr, nullptr, Caller::kCommit);
  }
  _mutex_unlock(h->mux, kSource, __LINE__);
  return rc;
}

int sqlite_backup(void* handle, const char* filename) {
  if (const int rc = enter(handle)) return rc;
  if (!filename) return ERR_INVALID_PARAMETER;
  Handle* h = as_handle(handle);
  int changes;
  {
    vek::ScopedLock guard(h->mux, kSource, __LINE__);
    if (!h->dbhandle) return not_open(h);
    changes = api.total_changes(h->dbhandle);
    if (changes == h->total_changes) return 0;
    if (const int rc = check_integrity(h)) return rc;
  }
  sqlite3* dest = nullptr;
  if (api.open(filename, &dest) != kOk) {
    log_vek_error("sqlite_backup(%s): sqlite3_open failed[%d]\n", filename, dest ? api.errcode(dest) : 0);
    return dest ? close_backup_target(dest) : ERR_NO_MEMORY;
  }
  const int rc = copy_pages(h, dest);
  // Only a finished copy counts: after a failure the next call tries again.
  if (rc == kOk) {
    vek::ScopedLock guard(h->mux, kSource, __LINE__);
    h->total_changes = changes;
  }
  return rc;
}

int sqlite_table_column_autoincrement(void* handle, const char* tablename, _AUTOINC* autoincrement) {
  if (const int rc = enter(handle)) return rc;
  if (!tablename || !autoincrement) return ERR_INVALID_PARAMETER;
  Handle* h = as_handle(handle);
  *autoincrement = _AUTOINC{nullptr, nullptr, nullptr, nullptr, -1, 0};
  SQLITE_RESULT* info = sqlite_select(handle, "PRAGMA table_info(%s)", tablename);
  if (!info) return h->errcode < 0 ? h->errcode : ERR_SQLITE_FAILED;
  int rc = 0;
  if (info->nrows == 0 || info->ncols < 6) {
    vek::ScopedLock guard(h->mux, kSource, __LINE__);
    keep_error(h, 1, format("no such table: %s", tablename));
    rc = ERR_SQLITE_FAILED;
  } else {
    vek::ScopedLock guard(h->mux, kSource, __LINE__);
    autoincrement->all_column_count = info->nrows;
    bool autoinc = false;
    const int index = find_autoincrement(h, tablename, info->results, info->nrows, info->ncols, &autoinc);
    if (index >= 0) {
      rc = fill_autoincrement(autoincrement, info->results + (index + 1) * info->ncols, autoinc);
      if (rc == 0) autoincrement->index = index;
    }
  }
  sqlite_free(info);
  return rc;
}

void sqlite_autoincrement_free(_AUTOINC* autoincrement) {
  if (!autoincrement) return;
  vek::release(autoincrement->id, kSource, __LINE__);
  vek::release(autoincrement->name, kSource, __LINE__);
  vek::release(autoincrement->type, kSource, __LINE__);
  vek::release(autoincrement->opts, kSource, __LINE__);
  autoincrement->index = -1;
}

int sqlite_set_log_callback(void* handle, sqlite_log_func func, void* custom) {
  if (const int rc = enter(handle)) return rc;
  Handle* h = as_handle(handle);
  vek::ScopedLock guard(h->mux, kSource, __LINE__);
  h->log_func = func;
  h->custom = custom;
  return 0;
}

int sqlite_set_progress_callback(void* handle, sqlite_progress_func func, void* custom) {
  if (const int rc = enter(handle)) return rc;
  Handle* h = as_handle(handle);
  vek::ScopedLock guard(h->mux, kSource, __LINE__);
  h->progress_func = func;
  h->progress_custom = custom;
  return 0;
}

const char* sqlite_error(void* handle) {
  if (enter(handle) != 0) return nullptr;
  return as_handle(handle)->errmsg;
}

int sqlite_error_code(void* handle) {
  if (const int rc = enter(handle)) return rc;
  return as_handle(handle)->errcode;
}

int sqlite_result_count(void* handle) {
  if (const int rc = enter(handle)) return rc;
  return as_handle(handle)->dbcount;
}

const char* sqlite_get_version() { return sqlite_init() == 0 ? api.libversion() : nullptr; }

long long sqlite_get_usage() {
  if (const int rc = sqlite_init()) return rc;
  return api.memory_used();
}

long long sqlite_get_watermark() {
  if (const int rc = sqlite_init()) return rc;
  return api.memory_highwater(0);
}
