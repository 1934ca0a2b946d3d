/* SQLite access: a thread-safe handle around one SQLite 3 connection.
 *
 * SQLite is not linked. The first call of any entry point loads it at run
 * time ("libsqlite3.so", then "libsqlite3.so.0") and looks up the functions
 * it needs; when that fails the call returns ERR_SQLITE_LOAD (-7025) and the
 * next call tries again. Make the first call before threads share the layer.
 *
 * A handle (void*) owns one connection and a recursive mutex that every
 * operation takes for its duration. sqlite_transaction_begin returns holding
 * it and sqlite_transaction_end releases it, so a transaction excludes every
 * other thread using the handle; statements the owning thread runs inside
 * the transaction lock it again. Begin and end belong to the same thread.
 *
 * SQL is given as printf-style formats expanded by SQLite's own formatter
 * (%q, %Q and %w quote text safely; so the compiler does not check these
 * formats as printf formats). Results: 0 or a count on success;
 * ERR_INVALID_HANDLE (-7008) for a null handle; ERR_SQLITE_BUSY (-7026),
 * ERR_SQLITE_CONSTRAINT (-7023), ERR_SQLITE_MISMATCH (-7024) or
 * ERR_SQLITE_FAILED (-7021) when SQLite refuses a statement, with its text
 * in sqlite_error() and its result code in sqlite_error_code(). Both keep
 * the last failure; success does not clear them.
 */
#ifndef VEKUTIL_SQLITE_H
#define VEKUTIL_SQLITE_H

#include <stdarg.h>
#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* Called with each SQL text just before it runs. */
typedef void (*sqlite_log_func)(const char* sql, void* custom);
/* Row callback of sqlite_exec_ex: one call per result row; values[i] is
 * NULL for an SQL NULL. A non-zero return stops the statement (the call
 * then fails with ERR_SQLITE_FAILED). */
typedef int (*sqlite_callback)(void* custom, int ncols, char** values, char** colnames);
/* Progress of CSV export and import: rows handled so far. */
typedef void (*sqlite_progress_func)(void* custom, long long rows);

/* A result table. results holds ncols column names, then nrows rows of
 * ncols values each (row-major; NULL for an SQL NULL). Read it with
 * sqlite_column and sqlite_element; release it with sqlite_free. */
typedef struct SQLITE_RESULT {
  char** results;
  int nrows;
  int ncols;
} SQLITE_RESULT;

/* The column SQLite numbers itself (the INTEGER PRIMARY KEY, with or
 * without AUTOINCREMENT) as sqlite_table_column_autoincrement finds it.
 * id is the column number as text, name and type as SQLite lists them, opts the
 * constraints as text ("PRIMARY KEY AUTOINCREMENT NOT NULL", ...); index
 * is the column number (-1 and all texts NULL when there is no such column)
 * and all_column_count the number of columns of the table. The texts belong
 * to the record: release them with sqlite_autoincrement_free. */
typedef struct _AUTOINC {
  char* id;
  char* name;
  char* type;
  char* opts;
  int index;
  int all_column_count;
} _AUTOINC;

/* The loaded library handle; NULL until the first successful load. */
VEK_API extern void* g_sqlite_dbhandle;

/* Loads and binds SQLite if that has not happened yet: 0 or ERR_SQLITE_LOAD. */
VEK_API int sqlite_init(void);
/* Names the shared object to load instead of the default search (NULL
 * restores it). Takes effect at the next load, that is only while nothing is
 * loaded yet. ERR_INVALID_PARAMETER for a path of 4096 bytes or more. */
VEK_API int sqlite_set_library_path(const char* path);

/* A new handle without a connection; *handle is NULL on failure.
 * ERR_INVALID_PARAMETER for a null handle pointer, ERR_NO_MEMORY. */
VEK_API int sqlite_create(void** handle);
/* Opens (or creates) the database file and checks its integrity: 0,
 * ERR_SQLITE_FAILED when it cannot be opened, ERR_SQLITE_CORRUPT when the
 * check fails (the connection is closed again). A handle that is already
 * open closes its old connection first. */
VEK_API int sqlite_open(void* handle, const char* dbname);
/* Closes the connection and frees the handle (in every case);
 * ERR_SQLITE_FAILED when the close failed. */
VEK_API int sqlite_delete(void* handle);

/* Runs a query into a result table (NULL on failure; the mapped result code
 * is then in sqlite_error_code). */
VEK_API SQLITE_RESULT* sqlite_select(void* handle, const char* fmt, ...);
/* Column name c / value at row r, column c; NULL for a null result or a
 * position outside the table. */
VEK_API const char* sqlite_column(SQLITE_RESULT* rslt, int c);
VEK_API const char* sqlite_element(SQLITE_RESULT* rslt, int r, int c);
VEK_API void sqlite_free(SQLITE_RESULT* rslt);

/* Runs one or more statements: the number of rows they changed (0 for
 * statements that change none), or a result code. ERR_NO_MEMORY when the
 * format cannot be expanded. A constraint violation is not logged. */
VEK_API int sqlite_exec(void* handle, const char* fmt, ...);
VEK_API int sqlite_exec_args(void* handle, const char* fmt, va_list args);
/* The same, calling callback for every result row. */
VEK_API int sqlite_exec_ex(void* handle, sqlite_callback callback, void* custom, const char* fmt, ...);

/* "BEGIN IMMEDIATE" and return holding the handle's mutex (0), or release
 * it and return the result code. */
VEK_API int sqlite_transaction_begin(void* handle);
/* "COMMIT", then release the mutex whatever the outcome. */
VEK_API int sqlite_transaction_end(void* handle);

/* Copies the open database into filename on line, 50 pages at a time with a
 * pause of 250 ms between steps (other threads may use the handle in the
 * pauses). Returns 0 without writing when nothing has changed since the
 * last backup through this handle; ERR_SQLITE_CORRUPT when the integrity
 * check fails; otherwise the destination's SQLite result code (0 on
 * success, a positive SQLite code on failure). */
VEK_API int sqlite_backup(void* handle, const char* filename);

/* Describes tablename's auto-numbered column in *autoincrement (see
 * _AUTOINC): 0, or ERR_SQLITE_FAILED for a table that does not exist. */
VEK_API int sqlite_table_column_autoincrement(void* handle, const char* tablename, _AUTOINC* autoincrement);
/* Releases the texts of a record filled by the call above and clears it. */
VEK_API void sqlite_autoincrement_free(_AUTOINC* autoincrement);

/* Writes "SELECT rowid,* FROM tablename" (at most maxrows rows when
 * maxrows > 0) to filename as CSV lines ending in CR LF, the row id left
 * out. With write_header the column names come first (not for an empty
 * table). delim separates fields; a non-zero qualifier encloses every field
 * (an SQL NULL is written as an empty field without qualifiers) and is
 * doubled where the text holds it. Rows written and failed go to *success
 * and *error, the smallest and largest row id to *first_rowid and
 * *last_rowid (each pointer may be NULL). 0; ERR_INVALID_PARAMETER; ERR_SYSTEM
 * when the file cannot be created or written; a statement's code; on any
 * failure the partial file is removed (ERR_SQLITE_REMOVE if that fails). */
VEK_API int sqlite_to_csv(void* handle, const char* tablename, int maxrows, int write_header, char delim,
                          char qualifier, const char* filename, int* success, int* error,
                          long long* first_rowid, long long* last_rowid);
/* Inserts every CSV record of filename into tablename, one statement per
 * record, committing every 100 records. With first_row_is_header the first
 * record names the columns. Fields are separated by delim and may be
 * enclosed in qualifier (0: none), inside which delimiters, CR, LF and the
 * doubled qualifier are data. An empty field is NULL, an empty qualified
 * field the empty text. A record shorter than the first is filled up with
 * NULL; a longer one, or one holding a zero byte, is not inserted. Records
 * inserted go to *success, records refused to *error. 0 when the whole file
 * was read and committed; ERR_SQLITE_IMPORT when the file cannot be read or
 * the header is unusable; ERR_SQLITE_TRANSACTION when a transaction cannot
 * be begun or committed (the uncommitted records then count as refused). */
VEK_API int sqlite_from_csv(void* handle, const char* tablename, int first_row_is_header, char delim,
                            char qualifier, const char* filename, int* success, int* error);

VEK_API int sqlite_set_log_callback(void* handle, sqlite_log_func func, void* custom);
/* Called every 4096 rows and once at the end of each CSV export or import. */
VEK_API int sqlite_set_progress_callback(void* handle, sqlite_progress_func func, void* custom);

/* The last SQLite error text (NULL for a null handle or none yet). */
VEK_API const char* sqlite_error(void* handle);
/* The last SQLite result code (a library code after a failed select). */
VEK_API int sqlite_error_code(void* handle);
/* Rows changed by the last statement. */
VEK_API int sqlite_result_count(void* handle);

/* SQLite's version text, NULL when it cannot be loaded. */
VEK_API const char* sqlite_get_version(void);
/* Bytes SQLite holds now, and its peak (not reset); ERR_SQLITE_LOAD when it
 * cannot be loaded. */
VEK_API long long sqlite_get_usage(void);
VEK_API long long sqlite_get_watermark(void);

VEK_END_DECLS

#endif
