// Public record sizes on both widths: a changed record breaks this build before a caller's.
#include <gtest/gtest.h>

#include <vekutil/ftp.h>
#include <vekutil/http.h>
#include <vekutil/ssl.h>
#include <vekutil/vekutil.h>

namespace {

constexpr bool k64 = sizeof(void*) == 8;
static_assert(sizeof(void*) == 8 || sizeof(void*) == 4);

template <typename T, size_t Size64, size_t Size32>
constexpr bool has_size = sizeof(T) == (k64 ? Size64 : Size32);

static_assert(has_size<ABSTRACT_SOCKET, 152, 96>);
static_assert(has_size<SERVER_SOCKET, 48, 28>);
static_assert(has_size<SOCKET_PROXY_INFO, 32, 16>);
static_assert(has_size<JSON, 72, 48>);
static_assert(has_size<THREAD_EX_ARGS, 16, 12>);
static_assert(has_size<HTTP_REQUEST, 120, 68>);
static_assert(has_size<HTTP_RESPONSE, 32, 20>);
static_assert(has_size<SQLITE_RESULT, 16, 12>);
static_assert(has_size<_AUTOINC, 40, 24>);
static_assert(has_size<VEK_MEMORY_HDR, 64, 32>);
static_assert(VEK_MEMORY_HDR_SIZE % 16 == 0, "the caller's memory keeps malloc's alignment");
static_assert(has_size<VEK_MEMORY_FUNCTIONS, 64, 32>);
static_assert(has_size<_BLOB, 32, 24>);
static_assert(has_size<_FILEINFO, 184, 168>);
static_assert(has_size<_SSLO, 528, 524>);
static_assert(has_size<_FTP_CLIENT_OBJECT, 248, 220>);

// File sizes and absolute times are 64-bit on both widths.
static_assert(sizeof(((_FILEINFO*)nullptr)->size) == 8);

}  // namespace
