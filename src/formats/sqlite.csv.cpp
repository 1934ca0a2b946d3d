// CSV export and import of SQLite tables.
//
// Export runs "SELECT rowid,* FROM table" and writes each row from the
// query's row callback into a large buffer that goes to the file in big
// writes. With a qualifier every field is enclosed and a qualifier inside
// the text is doubled, so any text survives a round trip; an SQL NULL is
// an empty field without qualifiers.
//
// Import reads the file in large blocks and cuts it into records. Each
// record is one "INSERT INTO table [(columns)] VALUES (...)" statement:
// fields are SQL string literals (quote doubled), an empty field is NULL,
// and header names are quoted identifiers (double quote doubled), so
// nothing in the file can change what the statement does. The statement is
// prepared once with a parameter in place of each literal and run with the
// record's values bound; its text, built in a blob, is what the log
// callback and the failure lines show, and what runs when the statement
// cannot be prepared. The text is run as it stands, not formatted again, so
// a percent sign needs no doubling. A transaction is committed every 100
// records.
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

// Where one field's text lies in its record.
struct Field {
  int offset;
  int length;
  bool null;  // an empty field without qualifiers
};

// One record as the file means it: the field texts (qualifiers removed, a
// doubled qualifier read as one) one after another, and where each lies.
// The reader fills it; the importer binds the fields or quotes them into a
// statement. Fields beyond the limit are counted but not kept, since such a
// record is refused anyway.
class Record {
 public:
  Record() = default;
  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;
  ~Record() {
    release(bytes_, kSource, __LINE__);
    release(fields_, kSource, __LINE__);
  }

  void clear() {
    used_ = 0;
    count_ = 0;
    bad = false;
  }
  void set_limit(int fields) { limit_ = fields; }

  int count() const { return count_; }
  const Field& field(int i) const { return fields_[i]; }
  // The field's text; never null, so that an empty text stays a text.
  const char* text_of(const Field& f) const { return f.length ? bytes_ + f.offset : ""; }

  // What the reader calls, field by field.
  void begin_field() {
    storing_ = count_++ < limit_ && !bad && reserve_field();
    if (storing_) fields_[count_ - 1] = Field{static_cast<int>(used_), 0, false};
  }
  void text(const char* p, size_t n) {
    if (!storing_ || n == 0) return;
    if (!reserve_bytes(n)) {
      storing_ = false;
      bad = true;
      return;
    }
    std::memcpy(bytes_ + used_, p, n);
    used_ += n;
  }
  void end_field(bool qualified, bool empty) {
    if (!storing_) return;
    Field& f = fields_[count_ - 1];
    f.length = static_cast<int>(used_ - static_cast<size_t>(f.offset));
    f.null = empty && !qualified;
  }

  bool bad = false;  // a zero byte, an open qualifier, no memory

 private:
  bool reserve_field() {
    if (count_ <= field_capacity_) return true;
    const int grown = field_capacity_ ? field_capacity_ * 2 : 16;
    auto* p = static_cast<Field*>(_vekRealloc(fields_, sizeof(Field) * static_cast<size_t>(grown), kSource, __LINE__));
    if (!p) {
      bad = true;
      return false;
    }
    fields_ = p;
    field_capacity_ = grown;
    return true;
  }
  bool reserve_bytes(size_t n) {
    if (n <= byte_capacity_ - used_) return true;
    if (n > kMaxRecord - used_) return false;
    size_t grown = byte_capacity_ ? byte_capacity_ : 256;
    while (grown - used_ < n) grown *= 2;
    auto* p = static_cast<char*>(_vekRealloc(bytes_, grown, kSource, __LINE__));
    if (!p) return false;
    bytes_ = p;
    byte_capacity_ = grown;
    return true;
  }

  char* bytes_ = nullptr;
  size_t used_ = 0;
  size_t byte_capacity_ = 0;
  Field* fields_ = nullptr;
  int count_ = 0;
  int field_capacity_ = 0;
  int limit_ = 1 << 30;
  bool storing_ = false;
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
  RecordStatus next(Record& sink) {
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
  RecordStatus parse(Record& sink) {
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
  bool parse_plain(const char*& p, const char* end, Record& sink, bool* empty) {
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
  const char* parse_qualified(const char* p, const char* end, Record& sink, bool* empty) {
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
  const char* tablename;
  CsvReader* reader;
  Record* record;
  void* blob;           // the statement text: the prefix, then a record's values
  int prefix_len;       // "INSERT INTO ... VALUES (" in the blob
  int columns;          // fields of the first record
  sqlite3_stmt* insert;  // the prefix with a parameter per column; null: run the text
  bool prepare_tried;
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

// The next whole record, reading more as needed.
RecordStatus read_record(Import& im) {
  for (;;) {
    im.record->clear();
    const RecordStatus status = im.reader->next(*im.record);
    if (status != RecordStatus::kNeedMore) return status;
    if (!im.reader->more()) return RecordStatus::kFailed;
  }
}

bool append(void* blob, const char* text, size_t n) {
  return n <= kMaxRecord && blob_append(blob, text, static_cast<int>(n)) == 0;
}

// quote, the text with every quote in it doubled, quote: an SQL string
// literal or a quoted identifier.
bool append_quoted(void* blob, const char* p, size_t n, char quote) {
  if (!append(blob, &quote, 1)) return false;
  const char* end = p + n;
  for (const char* hit; (hit = static_cast<const char*>(std::memchr(p, quote, static_cast<size_t>(end - p))));
       p = hit + 1) {
    if (!append(blob, p, static_cast<size_t>(hit - p) + 1) || !append(blob, &quote, 1)) return false;
  }
  return append(blob, p, static_cast<size_t>(end - p)) && append(blob, &quote, 1);
}

// The record's values after the prefix: string literals, NULL for empty
// fields and for the columns the record lacks, ")" and the terminator. A
// statement missing a piece could read differently, so false refuses it.
bool build_values(Import& im) {
  const Record& r = *im.record;
  for (int i = 0; i < r.count(); ++i) {
    const Field& f = r.field(i);
    if (i && !append(im.blob, ",", 1)) return false;
    if (f.null ? !append(im.blob, "NULL", 4) : !append_quoted(im.blob, r.text_of(f), static_cast<size_t>(f.length), '\''))
      return false;
  }
  for (int i = r.count(); i < im.columns; ++i)
    if (!append(im.blob, ",NULL", 5)) return false;
  return append(im.blob, ")", 2);
}

const char* statement_text(Import& im) { return static_cast<const char*>(blob_get_buffer(im.blob)); }

// "INSERT INTO table [(columns)] VALUES (" into the blob. With a header the
// names are quoted identifiers, so a crafted header stays a list of names.
// 1 when a header was asked for and the file is empty.
int build_prefix(Import& im, bool header) {
  if (blob_append_string(im.blob, "INSERT INTO ") != 0 || blob_append_string(im.blob, im.tablename) != 0 ||
      blob_append_string(im.blob, header ? " (" : " VALUES (") != 0)
    return ERR_NO_MEMORY;
  im.prefix_len = blob_get_length(im.blob);
  if (!header) return 0;
  const RecordStatus status = read_record(im);
  if (status == RecordStatus::kEnd) return 1;
  const Record& names = *im.record;
  bool usable = status == RecordStatus::kRecord && !names.bad;
  for (int i = 0; usable && i < names.count(); ++i) {
    const Field& f = names.field(i);
    usable = f.length > 0 && (i == 0 || append(im.blob, ",", 1)) &&
             append_quoted(im.blob, names.text_of(f), static_cast<size_t>(f.length), '"');
  }
  if (!usable) {
    log_vek_error("sqlite_from_csv(%s): unusable header line\n", im.filename);
    return ERR_SQLITE_IMPORT;
  }
  im.columns = names.count();
  if (blob_append_string(im.blob, ") VALUES (") != 0) return ERR_NO_MEMORY;
  im.prefix_len = blob_get_length(im.blob);
  return 0;
}

// A table name in which nothing can begin a parameter, a comment or a
// second statement: a statement prepared from it has exactly the
// placeholders that follow it.
bool plain_table_name(const char* name) { return name[std::strcspn(name, "?:@$#;-/")] == '\0'; }

// Prepares the insert once, with a parameter where each value's literal
// stands in the text; each record then binds its values and runs it, which
// spares SQLite compiling a statement per record. Without the functions, or
// when the prefix does not prepare into exactly that statement, records are
// run as text, which gives SQLite's own failure for every one of them.
void prepare_insert(Import& im) {
  im.prepare_tried = true;
  if (!statement_api.available() || !plain_table_name(im.tablename)) return;
  bool built = true;
  for (int i = 0; built && i < im.columns; ++i) built = append(im.blob, i ? ",?" : "?", i ? 2 : 1);
  if (built && append(im.blob, ")", 2)) {
    sqlite3_stmt* statement = nullptr;
    const char* tail = nullptr;
    const int rc = statement_api.prepare_v2(im.h->dbhandle, statement_text(im), -1, &statement, &tail);
    if (rc == kOk && statement && tail && *tail == '\0' &&
        statement_api.bind_parameter_count(statement) == im.columns) {
      im.insert = statement;
    } else if (statement) {
      statement_api.finalize(statement);
    }
  }
  truncate_to(im.blob, im.prefix_len);
}

// Binds the record's values (NULL for the columns it lacks) and runs the
// prepared insert; SQLite's result code.
int step_insert(Import& im) {
  const Record& r = *im.record;
  sqlite3_stmt* s = im.insert;
  int rc = kOk;
  for (int i = 0; rc == kOk && i < im.columns; ++i) {
    const Field* f = i < r.count() ? &r.field(i) : nullptr;
    rc = !f || f->null ? statement_api.bind_null(s, i + 1)
                       : statement_api.bind_text(s, i + 1, r.text_of(*f), f->length, nullptr);  // not copied
  }
  if (rc == kOk) {
    do rc = statement_api.step(s);
    while (rc == kRow);
    if (rc == kDone) rc = kOk;
  }
  statement_api.reset(s);
  return rc;
}

// Runs the prepared insert as sqlite_exec would run the record's text: the
// text goes to the log callback, the changed rows are counted, a failure
// keeps SQLite's text and code and writes the statement to the error log.
// The text is built only where it is shown.
int run_prepared(Import& im) {
  Handle* h = im.h;
  const char* sql = nullptr;
  if (h->log_func) {
    if (!build_values(im)) return ERR_NO_MEMORY;
    sql = statement_text(im);
  }
  const int changes_before = start_statement(h, sql);
  const int rc = step_insert(im);
  char* err = rc == kOk ? nullptr : format("%s", api.errmsg(h->dbhandle));
  if (rc != kOk && rc != kConstraint && !sql && build_values(im)) sql = statement_text(im);
  return finish_statement(h, changes_before, rc, err, sql, Caller::kExec);
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

// The first record fixes the number of columns.
void set_columns(Import& im, int columns) {
  im.columns = columns;
  im.record->set_limit(columns);
  im.reader->keep_empty_lines(columns == 1);
}

// Inserts the record just read: 1 or more changed rows count it inserted.
void insert(Import& im) {
  const Record& r = *im.record;
  if (im.columns == 0) set_columns(im, r.count());
  if (r.bad || r.count() > im.columns) {
    ++im.refused;
    ++im.error;
    return;
  }
  if (!im.prepare_tried) prepare_insert(im);
  int rc;
  if (im.insert) {
    rc = run_prepared(im);
  } else {
    rc = build_values(im) ? run(im.h, statement_text(im), nullptr, nullptr, Caller::kExec) : ERR_NO_MEMORY;
  }
  truncate_to(im.blob, im.prefix_len);
  if (rc == ERR_NO_MEMORY) ++im.refused;
  if (rc >= 1) {
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
  for (;;) {
    const RecordStatus status = read_record(im);
    if (status == RecordStatus::kEnd) return 0;
    if (status == RecordStatus::kFailed) {
      log_vek_error("sqlite_from_csv(%s): read failed[%d]\n", im.filename, errno);
      return ERR_SQLITE_IMPORT;
    }
    insert(im);
    if (++im.handled % kProgressEvery == 0) report_progress(im.h, im.handled);
    if (im.handled % kCommitEvery == 0) {
      if (!commit(im, "END") || !begin(im)) return ERR_SQLITE_TRANSACTION;
    }
  }
}

int import_file(Import& im, bool header) {
  const int prefix = build_prefix(im, header);
  if (prefix != 0) return prefix > 0 ? 0 : prefix;
  if (im.columns) set_columns(im, im.columns);
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
  Record record;
  Import im{h, filename, tablename, &reader, &record, nullptr, 0, 0, nullptr, false, 0, 0, 0, 0, 0, false};
  int rc;
  if (blob_create(&im.blob, 4096) != 0 || !reader.start()) {
    rc = reader.read_failed() ? ERR_SQLITE_IMPORT : ERR_NO_MEMORY;
  } else {
    rc = import_file(im, first_row_is_header != 0);
  }
  if (im.insert) statement_api.finalize(im.insert);
  blob_delete(im.blob);
  std::fclose(file);
  if (success) *success = im.success;
  if (error) *error = im.error;
  return rc;
}
