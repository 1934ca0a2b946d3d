// CSV export and import of SQLite tables.
//
// Export runs "SELECT rowid,* FROM table" and writes each row from the
// query's row callback into a large buffer that goes to the file in big
// writes. With a qualifier every field is enclosed and a qualifier inside
// the text is doubled, so any text survives a round trip; an SQL NULL is
// an empty field without qualifiers.
//
// Import reads the file in large blocks and cuts it into records. Each
// record becomes one "INSERT INTO table [(columns)] VALUES (...)" statement
// built in a blob: fields are SQL string literals (quote doubled), an empty
// field is NULL, and header names are quoted identifiers (double quote
// doubled), so nothing in the file can change what the statement does. The
// statement text is run as it stands, not formatted again, so a percent sign
// needs no doubling. A transaction is committed every 100 records.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include <vekutil/blob.h>
#include <vekutil/sqlite.h>

#include "core/internal.hpp"
#include "core/scoped_lock.hpp"
#include "formats/sqlite.internal.hpp"

namespace vek::sql {
namespace {

constexpr size_t kWriteBuffer = 1 << 18;
constexpr size_t kReadBuffer = 1 << 20;
constexpr size_t kMaxRecord = size_t{1} << 28;  // its statement (quotes doubled) stays below 1 GiB
constexpr int kQueryCapacity = 256;
constexpr int kCommitEvery = 100;
constexpr long long kProgressEvery = 4096;

bool valid_separators(char delim, char qualifier) {
  auto line_break = [](char c) { return c == '\r' || c == '\n'; };
  return delim != 0 && !line_break(delim) && !line_break(qualifier) && delim != qualifier;
}

// ---------------------------------------------------------------- export

struct CsvWriter {
  Handle* h;
  std::FILE* file;
  const char* filename;
  char* buffer;
  size_t used;
  char delim;
  char qualifier;
  bool header_pending;
  bool failed;
  int rows_written;   // rows whose bytes reached the file
  int rows_buffered;  // rows still in the buffer
  int rows_failed;
  long long first_rowid;
  long long last_rowid;
};

bool flush(CsvWriter& w) {
  if (w.failed) return false;
  if (w.used && std::fwrite(w.buffer, 1, w.used, w.file) != w.used) {
    log_vek_error("sqlite_to_csv(%s): fwrite failed[%d]\n", w.filename, errno);
    w.failed = true;
    w.rows_failed += w.rows_buffered;
  } else {
    w.rows_written += w.rows_buffered;
  }
  w.used = 0;
  w.rows_buffered = 0;
  return !w.failed;
}

void put(CsvWriter& w, const char* text, size_t n) {
  if (w.used + n > kWriteBuffer) {
    if (!flush(w)) return;
    if (n > kWriteBuffer) {
      if (std::fwrite(text, 1, n, w.file) != n) {
        log_vek_error("sqlite_to_csv(%s): fwrite failed[%d]\n", w.filename, errno);
        w.failed = true;
      }
      return;
    }
  }
  std::memcpy(w.buffer + w.used, text, n);
  w.used += n;
}

void put_char(CsvWriter& w, char c) {
  if (w.used == kWriteBuffer && !flush(w)) return;
  w.buffer[w.used++] = c;
}

// The text between qualifiers, each qualifier in it doubled.
void put_qualified(CsvWriter& w, const char* text) {
  const char q = w.qualifier;
  put_char(w, q);
  for (const char* hit; (hit = std::strchr(text, q)) != nullptr; text = hit + 1) {
    put(w, text, static_cast<size_t>(hit - text) + 1);
    put_char(w, q);
  }
  put(w, text, std::strlen(text));
  put_char(w, q);
}

void put_line(CsvWriter& w, char** fields, int count) {
  for (int i = 0; i < count; ++i) {
    const char* text = fields[i];
    if (text && w.qualifier)
      put_qualified(w, text);
    else if (text)
      put(w, text, std::strlen(text));
    if (i + 1 < count) put_char(w, w.delim);
  }
  put(w, "\r\n", 2);
}

long long parse_rowid(const char* text) {
  if (!text) return 0;
  const bool negative = *text == '-';
  unsigned long long value = 0;
  for (const char* p = text + negative; *p >= '0' && *p <= '9'; ++p) value = value * 10 + static_cast<unsigned>(*p - '0');
  return negative ? static_cast<long long>(0 - value) : static_cast<long long>(value);
}

int write_row(void* custom, int ncols, char** values, char** names) {
  auto& w = *static_cast<CsvWriter*>(custom);
  if (w.failed || ncols < 1) return 1;
  const long long rowid = parse_rowid(values[0]);
  const int done = w.rows_written + w.rows_buffered;
  if (done == 0 || rowid < w.first_rowid) w.first_rowid = rowid;
  if (done == 0 || rowid > w.last_rowid) w.last_rowid = rowid;
  if (w.header_pending) {
    w.header_pending = false;
    put_line(w, names + 1, ncols - 1);
  }
  put_line(w, values + 1, ncols - 1);
  if (w.failed) {
    ++w.rows_failed;
    return 1;
  }
  ++w.rows_buffered;
  if ((done + 1) % kProgressEvery == 0) report_progress(w.h, done + 1);
  return 0;
}

// Closes the file; after a failure removes it, and every row counts as
// failed since none of them stays.
int finish_export(CsvWriter& w, int rc) {
  if (rc >= 0) flush(w);
  if (std::fclose(w.file) != 0 && !w.failed) {
    log_vek_error("sqlite_to_csv(%s): fclose failed[%d]\n", w.filename, errno);
    w.failed = true;
  }
  if (w.failed) rc = ERR_SYSTEM;
  if (rc >= 0) {
    report_progress(w.h, w.rows_written);
    return 0;
  }
  w.rows_failed += w.rows_written + w.rows_buffered;
  w.rows_written = w.rows_buffered = 0;
  if (std::remove(w.filename) != 0) {
    log_vek_error("sqlite_to_csv(Failed to remove %s\n", w.filename);
    return ERR_SQLITE_REMOVE;
  }
  return rc;
}

// ---------------------------------------------------------------- import

enum class RecordStatus { kRecord, kNeedMore, kEnd, kFailed };

// Turns field text into SQL: string literals (or NULL) for values, quoted
// identifiers for header names. Kept in a blob between records.
struct SqlSink {
  void* blob;
  char quote;       // '\'' for literals, '"' for identifiers
  bool identifiers;
  int fields;
  bool bad;         // a zero byte, too many fields, an open qualifier, no memory
  bool empty_name;

  // A statement missing a piece could read differently: a failed append
  // refuses the record.
  void add(const char* text, size_t n) {
    if (n > kMaxRecord || blob_append(blob, text, static_cast<int>(n)) != 0) bad = true;
  }

  void begin_field() {
    if (fields++) add(",", 1);
    add(&quote, 1);
  }
  // Copies text, doubling the quote character.
  void text(const char* p, size_t n) {
    const char* end = p + n;
    for (const char* hit; (hit = static_cast<const char*>(std::memchr(p, quote, static_cast<size_t>(end - p))));
         p = hit + 1) {
      add(p, static_cast<size_t>(hit - p) + 1);
      add(&quote, 1);
    }
    add(p, static_cast<size_t>(end - p));
  }
  void end_field(bool qualified, bool empty) {
    if (!empty || qualified || identifiers) {
      if (empty && identifiers) empty_name = true;
      add(&quote, 1);
      return;
    }
    blob_truncate(blob, -1);  // the opening quote: an empty field is NULL
    add("NULL", 4);
  }
};

// Cuts the input into records. Fields are separated by delim; a field that
// begins with the qualifier runs to the next single qualifier, and inside it
// a doubled qualifier stands for one. A record ends at LF (a CR right before
// it is dropped) or at the end of the file; empty lines are skipped.
class CsvReader {
 public:
  CsvReader(std::FILE* file, char delim, char qualifier) : file_(file), delim_(delim), qualifier_(qualifier) {
    for (unsigned char c : {static_cast<unsigned char>(delim), static_cast<unsigned char>('\n'),
                            static_cast<unsigned char>('\r'), static_cast<unsigned char>(0)})
      stop_[c] = true;
  }
  ~CsvReader() { release(buffer_, kSource, __LINE__); }

  bool start() {
    buffer_ = static_cast<char*>(_vekMalloc(kReadBuffer, kSource, __LINE__));
    if (!buffer_) return false;
    capacity_ = kReadBuffer;
    if (!fill()) return false;
    if (end_ >= 3 && std::memcmp(buffer_, "\xEF\xBB\xBF", 3) == 0) pos_ = 3;  // byte-order mark
    return true;
  }

  bool read_failed() const { return read_failed_; }
  // With one field per record an empty line is a record (one NULL).
  void keep_empty_lines(bool keep) { keep_empty_lines_ = keep; }

  // Parses the next record into sink; on kNeedMore nothing was consumed and
  // the caller discards what the sink received, then calls again.
  RecordStatus next(SqlSink& sink) {
    if (!keep_empty_lines_) skip_empty_lines();
    if (pos_ == end_ && eof_) return RecordStatus::kEnd;
    return parse(sink);
  }

  // Makes room and reads more after kNeedMore; false at a read error or a
  // record too large to hold.
  bool more() {
    if (pos_ > 0) {
      std::memmove(buffer_, buffer_ + pos_, end_ - pos_);
      end_ -= pos_;
      pos_ = 0;
    }
    if (end_ == capacity_) {
      if (capacity_ >= kMaxRecord) return false;
      auto* grown = static_cast<char*>(_vekRealloc(buffer_, capacity_ * 2, kSource, __LINE__));
      if (!grown) return false;
      buffer_ = grown;
      capacity_ *= 2;
    }
    return fill();
  }

 private:
  bool fill() {
    while (end_ < capacity_ && !eof_) {
      const size_t got = std::fread(buffer_ + end_, 1, capacity_ - end_, file_);
      end_ += got;
      if (got == 0) {
        eof_ = true;
        read_failed_ = std::ferror(file_) != 0;
      }
    }
    return !read_failed_;
  }

  void skip_empty_lines() {
    for (;;) {
      if (pos_ < end_ && buffer_[pos_] == '\n') {
        ++pos_;
      } else if (pos_ + 1 < end_ && buffer_[pos_] == '\r' && buffer_[pos_ + 1] == '\n') {
        pos_ += 2;
      } else {
        return;
      }
    }
  }

  // One record from pos_; consumes it only when it is complete.
  RecordStatus parse(SqlSink& sink) {
    const char* p = buffer_ + pos_;
    const char* const end = buffer_ + end_;
    for (;;) {
      sink.begin_field();
      bool qualified = false;
      bool empty = true;
      if (qualifier_ && p < end && *p == qualifier_) {
        qualified = true;
        p = parse_qualified(p + 1, end, sink, &empty);
        if (!p) return RecordStatus::kNeedMore;
      }
      if (!parse_plain(p, end, sink, &empty)) return RecordStatus::kNeedMore;
      sink.end_field(qualified, empty);
      if (p == end) {
        if (!eof_) return RecordStatus::kNeedMore;
        pos_ = end_;
        return RecordStatus::kRecord;
      }
      if (*p == delim_) {
        ++p;
        continue;
      }
      p += *p == '\r' ? 2 : 1;  // LF or CR LF
      pos_ = static_cast<size_t>(p - buffer_);
      return RecordStatus::kRecord;
    }
  }

  // Unqualified text (also what follows a closing qualifier) up to the
  // delimiter, the line end or the end of the data; false when the buffer
  // ends on a CR and more may come.
  bool parse_plain(const char*& p, const char* end, SqlSink& sink, bool* empty) {
    for (;;) {
      const char* start = p;
      while (p < end && !stop_[static_cast<unsigned char>(*p)]) ++p;
      if (p > start) {
        sink.text(start, static_cast<size_t>(p - start));
        *empty = false;
      }
      if (p == end) return true;
      if (*p == '\0') {  // cannot be stored in a statement: the record is refused
        sink.bad = true;
        *empty = false;
        ++p;
        continue;
      }
      if (*p == '\r') {
        if (p + 1 == end) {
          if (!eof_) return false;
          p = end;  // a CR ending the file ends the line
          return true;
        }
        if (p[1] != '\n') {  // a lone CR is data
          sink.text(p++, 1);
          *empty = false;
          continue;
        }
      }
      return true;  // delimiter, LF or CR LF
    }
  }

  // Inside qualifiers from p; returns the position after the closing
  // qualifier, or null when the buffer ends first (and more may come).
  const char* parse_qualified(const char* p, const char* end, SqlSink& sink, bool* empty) {
    for (;;) {
      const char* start = p;
      while (p < end && *p != qualifier_ && *p != '\0') ++p;
      if (p > start) {
        sink.text(start, static_cast<size_t>(p - start));
        *empty = false;
      }
      if (p == end) {
        if (!eof_) return nullptr;
        sink.bad = true;  // the file ends inside qualifiers
        return p;
      }
      if (*p == '\0') {
        sink.bad = true;
        ++p;
        continue;
      }
      if (p + 1 == end && !eof_) return nullptr;
      if (p + 1 < end && p[1] == qualifier_) {
        sink.text(p, 1);
        *empty = false;
        p += 2;
        continue;
      }
      return p + 1;
    }
  }

  std::FILE* file_;
  char delim_;
  char qualifier_;
  bool stop_[256] = {};
  char* buffer_ = nullptr;
  size_t capacity_ = 0;
  size_t pos_ = 0;
  size_t end_ = 0;
  bool eof_ = false;
  bool read_failed_ = false;
  bool keep_empty_lines_ = false;
};

struct Import {
  Handle* h;
  const char* filename;
  CsvReader* reader;
  void* blob;
  int prefix_len;   // "INSERT INTO ... VALUES (" in the blob
  int columns;      // fields of the first record
  int success;
  int error;
  int batch_success;  // inserted since the last commit
  int refused;
  long long handled;
  bool in_transaction;
};

void truncate_to(void* blob, int length) {
  const int extra = blob_get_length(blob) - length;
  if (extra > 0) blob_truncate(blob, -extra);
}

// The next whole record into sink, reading more as needed.
RecordStatus read_record(Import& im, SqlSink& sink) {
  for (;;) {
    sink.fields = 0;
    sink.bad = sink.empty_name = false;
    const RecordStatus status = im.reader->next(sink);
    if (status != RecordStatus::kNeedMore) return status;
    truncate_to(im.blob, im.prefix_len);
    if (!im.reader->more()) return RecordStatus::kFailed;
  }
}

// "INSERT INTO table [(columns)] VALUES (" into the blob. With a header the
// names are quoted identifiers, so a crafted header stays a list of names.
// 1 when a header was asked for and the file is empty.
int build_prefix(Import& im, const char* tablename, bool header) {
  if (blob_append_string(im.blob, "INSERT INTO ") != 0 || blob_append_string(im.blob, tablename) != 0 ||
      blob_append_string(im.blob, header ? " (" : " VALUES (") != 0)
    return ERR_NO_MEMORY;
  im.prefix_len = blob_get_length(im.blob);
  if (!header) return 0;
  SqlSink names{im.blob, '"', true, 0, false, false};
  const RecordStatus status = read_record(im, names);
  if (status == RecordStatus::kEnd) return 1;
  if (status != RecordStatus::kRecord || names.bad || names.empty_name) {
    log_vek_error("sqlite_from_csv(%s): unusable header line\n", im.filename);
    return ERR_SQLITE_IMPORT;
  }
  im.columns = names.fields;
  if (blob_append_string(im.blob, ") VALUES (") != 0) return ERR_NO_MEMORY;
  im.prefix_len = blob_get_length(im.blob);
  return 0;
}

// Ends a failed transaction: its inserted records count as refused.
void roll_back(Import& im) {
  char* err = nullptr;
  api.exec(im.h->dbhandle, "ROLLBACK", nullptr, nullptr, &err);
  if (err) api.free(err);
  im.success -= im.batch_success;
  im.error += im.batch_success;
  im.batch_success = 0;
}

bool begin(Import& im) {
  im.in_transaction = run(im.h, "BEGIN IMMEDIATE", nullptr, nullptr, Caller::kExec) >= 0;
  return im.in_transaction;
}

bool commit(Import& im, const char* statement) {
  im.in_transaction = false;
  if (run(im.h, statement, nullptr, nullptr, Caller::kExec) < 0) {
    roll_back(im);
    return false;
  }
  im.batch_success = 0;
  return true;
}

// Inserts one parsed record (the fields are in the blob after the prefix).
void insert(Import& im, SqlSink& values) {
  if (im.columns == 0) {
    im.columns = values.fields;
    im.reader->keep_empty_lines(im.columns == 1);
  }
  if (values.bad || values.fields > im.columns) {
    ++im.refused;
    ++im.error;
    return;
  }
  for (int i = values.fields; i < im.columns; ++i) values.add(",NULL", 5);
  values.add(")", 2);  // with the terminator
  if (values.bad) {
    ++im.refused;
    ++im.error;
    return;
  }
  const char* sql = static_cast<const char*>(blob_get_buffer(im.blob));
  if (run(im.h, sql, nullptr, nullptr, Caller::kExec) >= 1) {
    ++im.success;
    ++im.batch_success;
  } else {
    ++im.error;
  }
}

// The record loop inside the open transaction: 0, ERR_SQLITE_IMPORT after a
// read failure, ERR_SQLITE_TRANSACTION when a batch cannot be committed or
// the next one begun (the transaction is then closed).
int import_records(Import& im) {
  SqlSink values{im.blob, '\'', false, 0, false, false};
  for (;;) {
    const RecordStatus status = read_record(im, values);
    if (status == RecordStatus::kEnd) return 0;
    if (status == RecordStatus::kFailed) {
      log_vek_error("sqlite_from_csv(%s): read failed[%d]\n", im.filename, errno);
      return ERR_SQLITE_IMPORT;
    }
    insert(im, values);
    truncate_to(im.blob, im.prefix_len);
    if (++im.handled % kProgressEvery == 0) report_progress(im.h, im.handled);
    if (im.handled % kCommitEvery == 0) {
      if (!commit(im, "END") || !begin(im)) return ERR_SQLITE_TRANSACTION;
    }
  }
}

int import_file(Import& im, const char* tablename, bool header) {
  const int prefix = build_prefix(im, tablename, header);
  if (prefix != 0) return prefix > 0 ? 0 : prefix;
  im.reader->keep_empty_lines(im.columns == 1);
  if (!begin(im)) return ERR_SQLITE_TRANSACTION;
  int rc = import_records(im);
  // After a read failure what was read is still committed.
  if (im.in_transaction && !commit(im, "COMMIT")) rc = ERR_SQLITE_TRANSACTION;
  if (im.refused)
    log_vek_error("sqlite_from_csv(%s): %d record(s) refused (zero byte, open qualifier or more fields than the first)\n",
                  im.filename, im.refused);
  report_progress(im.h, im.handled);
  return rc;
}

}  // namespace
}  // namespace vek::sql

using namespace vek::sql;

int sqlite_to_csv(void* handle, const char* tablename, int maxrows, int write_header, char delim, char qualifier,
                  const char* filename, int* success, int* error, long long* first_rowid, long long* last_rowid) {
  if (const int rc = sqlite_init()) return rc;
  if (!handle) return ERR_INVALID_HANDLE;
  if (success) *success = 0;
  if (error) *error = 0;
  if (first_rowid) *first_rowid = 0;
  if (last_rowid) *last_rowid = 0;
  if (!tablename || !filename || !valid_separators(delim, qualifier)) return ERR_INVALID_PARAMETER;
  char query[kQueryCapacity];
  const int n = maxrows > 0 ? std::snprintf(query, sizeof query, "SELECT rowid,* FROM %s LIMIT %d", tablename, maxrows)
                            : std::snprintf(query, sizeof query, "SELECT rowid,* FROM %s", tablename);
  if (n < 0 || n >= kQueryCapacity) return ERR_INVALID_PARAMETER;

  Handle* h = as_handle(handle);
  vek::ScopedLock guard(h->mux, kSource, __LINE__);
  if (!h->dbhandle) return not_open(h);
  CsvWriter w{h, nullptr, filename, nullptr, 0, delim, qualifier, write_header != 0, false, 0, 0, 0, 0, 0};
  w.file = std::fopen(filename, "wb");
  if (!w.file) {
    log_vek_error("sqlite_to_csv(%s): fopen failed[%d]\n", filename, errno);
    return ERR_SYSTEM;
  }
  w.buffer = static_cast<char*>(_vekMalloc(kWriteBuffer, kSource, __LINE__));
  const int run_rc = w.buffer ? run(h, query, write_row, &w, Caller::kExecEx) : ERR_NO_MEMORY;
  const int rc = finish_export(w, run_rc);
  vek::release(w.buffer, kSource, __LINE__);
  if (success) *success = w.rows_written;
  if (error) *error = w.rows_failed;
  if (first_rowid && w.rows_written) *first_rowid = w.first_rowid;
  if (last_rowid && w.rows_written) *last_rowid = w.last_rowid;
  return rc;
}

int sqlite_from_csv(void* handle, const char* tablename, int first_row_is_header, char delim, char qualifier,
                    const char* filename, int* success, int* error) {
  if (const int rc = sqlite_init()) return rc;
  if (!handle) return ERR_INVALID_HANDLE;
  if (success) *success = 0;
  if (error) *error = 0;
  if (!tablename || !filename || !valid_separators(delim, qualifier)) return ERR_INVALID_PARAMETER;

  Handle* h = as_handle(handle);
  vek::ScopedLock guard(h->mux, kSource, __LINE__);
  if (!h->dbhandle) return not_open(h);
  std::FILE* file = std::fopen(filename, "rb");
  if (!file) {
    log_vek_error("sqlite_from_csv(%s): fopen failed[%d]\n", filename, errno);
    return ERR_SQLITE_IMPORT;
  }
  CsvReader reader(file, delim, qualifier);
  Import im{h, filename, &reader, nullptr, 0, 0, 0, 0, 0, 0, 0, false};
  int rc;
  if (blob_create(&im.blob, 4096) != 0 || !reader.start()) {
    rc = reader.read_failed() ? ERR_SQLITE_IMPORT : ERR_NO_MEMORY;
  } else {
    rc = import_file(im, tablename, first_row_is_header != 0);
  }
  blob_delete(im.blob);
  std::fclose(file);
  if (success) *success = im.success;
  if (error) *error = im.error;
  return rc;
}
