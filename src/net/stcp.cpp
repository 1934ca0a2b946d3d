// The secure stream: AES-CBC over an open socket, one cipher chain per
// direction carried from call to call. See stcp.h for the wire format.
//
// The cipher contexts come from OpenSSL's EVP interface, which uses the
// processor's AES instructions where it has them; each context keeps its
// direction's chaining vector between calls by itself.
#include <openssl/evp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include <vekutil/stcp.h>

#include "net/net.internal.hpp"

namespace {

constexpr const char* kSource = "src/stcp.c";
constexpr int kBlock = 16;
constexpr int kDefaultSendTimeout = 10000;

struct SECURE_TCP_SOCKET {
  EVP_CIPHER_CTX* s_ctx;          // encryption, sending direction
  EVP_CIPHER_CTX* r_ctx;          // decryption, receiving direction
  unsigned char s_ivector[32];    // initial vectors of both directions
  unsigned char r_ivector[32];
  int bytelen;                    // key length in bytes
};

using vek::net::as_socket;
using vek::net::install_layer;
using vek::net::release_layer;
using vek::net::Deadline;
using vek::net::kMaxIoChunk;
using vek::net::Ready;

SECURE_TCP_SOCKET* state_of(ABSTRACT_SOCKET* s) { return static_cast<SECURE_TCP_SOCKET*>(s->handle); }

const EVP_CIPHER* cipher_for(int bits) {
  switch (bits) {
    case 128:
      return EVP_aes_128_cbc();
    case 192:
      return EVP_aes_192_cbc();
    case 256:
      return EVP_aes_256_cbc();
    default:
      return nullptr;
  }
}

void free_contexts(SECURE_TCP_SOCKET* st) {
  EVP_CIPHER_CTX_free(st->s_ctx);
  EVP_CIPHER_CTX_free(st->r_ctx);
  st->s_ctx = st->r_ctx = nullptr;
}

// Builds both key schedules; false (and none) if OpenSSL refuses.
bool build_schedules(SECURE_TCP_SOCKET* st, const unsigned char* key, int bits) {
  const EVP_CIPHER* cipher = cipher_for(bits);
  st->s_ctx = EVP_CIPHER_CTX_new();
  st->r_ctx = EVP_CIPHER_CTX_new();
  bool ok = st->s_ctx && st->r_ctx && EVP_EncryptInit_ex(st->s_ctx, cipher, nullptr, key, st->s_ivector) == 1 &&
            EVP_DecryptInit_ex(st->r_ctx, cipher, nullptr, key, st->r_ivector) == 1 &&
            EVP_CIPHER_CTX_set_padding(st->s_ctx, 0) == 1 && EVP_CIPHER_CTX_set_padding(st->r_ctx, 0) == 1;
  if (!ok) free_contexts(st);
  return ok;
}

// Checks shared by the slot functions; 0 when the stream can be used.
int usable(ABSTRACT_SOCKET* s) {
  if (!s || !s->handle) return ERR_INVALID_HANDLE;
  return state_of(s)->s_ctx ? 0 : ERR_SOCKET_KEY_BITS;
}

int stream_error(ABSTRACT_SOCKET* s, int code, int err) {
  s->err = err;
  return code;
}

// Waits for the descriptor after a call that would block; 0 to go on.
int await(ABSTRACT_SOCKET* s, bool for_write, const Deadline& deadline) {
  switch (vek::net::wait_fd(s->s, for_write, deadline)) {
    case Ready::yes:
      return 0;
    case Ready::timeout:
      return stream_error(s, ERR_SOCKET_TIMEOUT, ERR_SOCKET_TIMEOUT);
    default:
      return stream_error(s, ERR_SOCKET_FAILED, errno);
  }
}

int send_all(ABSTRACT_SOCKET* s, const unsigned char* data, int length, int timeout, const Deadline& deadline,
             bool more_follows) {
  const int flags = MSG_NOSIGNAL | (timeout > 0 ? MSG_DONTWAIT : 0);
  int sent = 0;
  while (sent < length) {
    const int chunk = std::min(length - sent, kMaxIoChunk);
    const bool last = sent + chunk == length && !more_follows;
    const ssize_t n = send(s->s, data + sent, (size_t)chunk, flags | (last ? 0 : MSG_MORE));
    if (n > 0) {
      sent += (int)n;
      // Short while not blocking: the buffer is full, wait before retrying.
      if (n < chunk && timeout > 0)
        if (int rc = await(s, true, deadline)) return rc;
    } else if (n == 0) {
      return stream_error(s, ERR_SOCKET_CLOSED, ERR_SOCKET_CLOSED);
    } else if (timeout > 0 && vek::net::would_block(errno)) {
      if (int rc = await(s, true, deadline)) return rc;
    } else {
      return stream_error(s, ERR_SOCKET_FAILED, errno);
    }
  }
  return 0;
}

int recv_all(ABSTRACT_SOCKET* s, unsigned char* data, int length, int timeout, const Deadline& deadline) {
  const int flags = timeout > 0 ? MSG_DONTWAIT : 0;
  int received = 0;
  while (received < length) {
    const int chunk = std::min(length - received, kMaxIoChunk);
    const ssize_t n = recv(s->s, data + received, (size_t)chunk, flags);
    if (n > 0) {
      received += (int)n;
      // Short while not blocking: the queue is empty, wait before asking again.
      if (n < chunk && timeout > 0 && received < length)
        if (int rc = await(s, false, deadline)) return rc;
    } else if (n == 0) {
      return stream_error(s, ERR_SOCKET_CLOSED, ERR_SOCKET_CLOSED);
    } else if (errno == EINTR) {
      continue;
    } else if (timeout > 0 && vek::net::would_block(errno)) {
      if (int rc = await(s, false, deadline)) return rc;
    } else {
      return stream_error(s, ERR_SOCKET_FAILED, errno);
    }
  }
  return 0;
}

// CBC over whole blocks, in place; the context carries the chain on.
bool crypt_blocks(EVP_CIPHER_CTX* ctx, bool encrypt, unsigned char* data, int length) {
  if (length <= 0) return true;
  int out = 0;
  const int ok = encrypt ? EVP_EncryptUpdate(ctx, data, &out, data, length)
                         : EVP_DecryptUpdate(ctx, data, &out, data, length);
  return ok == 1 && out == length;
}

}  // namespace

int stcp_morph(void* handle, const unsigned char* key, const unsigned char* iv, int bits) {
  if (!handle) return ERR_INVALID_HANDLE;
  if (!key || !iv) return ERR_INVALID_PARAMETER;
  ABSTRACT_SOCKET* s = as_socket(handle);
  release_layer(s);
  auto* st = vek::alloc_record<SECURE_TCP_SOCKET>(kSource, __LINE__);
  if (!st) return ERR_NO_MEMORY;
  s->handle = st;
  st->bytelen = bits / 8;
  std::memcpy(st->s_ivector, iv, kBlock);
  std::memcpy(st->r_ivector, iv, kBlock);
  // A stream without boundaries has no "what is there" receive.
  install_layer(s, {_stcp_send, _stcp_send2, _stcp_recv, nullptr, _stcp_close});
  // The size is checked only now, with the slots already installed.
  if (!cipher_for(bits)) return ERR_SOCKET_KEY_BITS;
  return build_schedules(st, key, bits) ? 0 : ERR_NO_MEMORY;
}

int _stcp_send(void* handle, const char* buffer, int length) {
  return _stcp_send2(handle, buffer, length, kDefaultSendTimeout);
}

int _stcp_send2(void* handle, const char* buffer, int length, int timeout) {
  ABSTRACT_SOCKET* s = as_socket(handle);
  if (int rc = usable(s)) return rc;
  if (!buffer || length < -1) return stream_error(s, ERR_INVALID_PARAMETER, ERR_INVALID_PARAMETER);
  if (length == -1) length = (int)std::min<size_t>(std::strlen(buffer) + 1, INT_MAX - kBlock);
  if (timeout < -1) return stream_error(s, ERR_SOCKET_FAILED, EINVAL);
  SECURE_TCP_SOCKET* st = state_of(s);
  // The whole blocks are encrypted in the caller's buffer, as documented.
  auto* data = reinterpret_cast<unsigned char*>(const_cast<char*>(buffer));
  const int aligned = length - length % kBlock;
  const int rest = length % kBlock;
  if (!crypt_blocks(st->s_ctx, true, data, aligned)) return stream_error(s, ERR_SOCKET_FAILED, EIO);
  const Deadline deadline(timeout);
  if (int rc = send_all(s, data, aligned, timeout, deadline, rest != 0)) return rc;
  if (rest == 0) return 0;
  unsigned char block[kBlock];
  std::memcpy(block, data + aligned, (size_t)rest);
  std::memset(block + rest, kBlock - rest, (size_t)(kBlock - rest));
  if (!crypt_blocks(st->s_ctx, true, block, kBlock)) return stream_error(s, ERR_SOCKET_FAILED, EIO);
  return send_all(s, block, kBlock, timeout, deadline, false);
}

int _stcp_recv(void* handle, char* buffer, int length, int timeout) {
  ABSTRACT_SOCKET* s = as_socket(handle);
  if (int rc = usable(s)) return rc;
  if (!buffer) return stream_error(s, ERR_INVALID_PARAMETER, ERR_INVALID_PARAMETER);
  if (length < 1) {
    log_vek_error("_stcp_recv(): recving length is bad[%d]\n", length);
    return 0;
  }
  if (timeout < -1) return stream_error(s, ERR_SOCKET_FAILED, EINVAL);
  SECURE_TCP_SOCKET* st = state_of(s);
  auto* data = reinterpret_cast<unsigned char*>(buffer);
  const int aligned = length - length % kBlock;
  const int rest = length % kBlock;
  const Deadline deadline(timeout);
  unsigned char block[kBlock];
  if (int rc = recv_all(s, data, aligned, timeout, deadline)) return rc;
  if (rest != 0) {
    if (int rc = recv_all(s, block, kBlock, timeout, deadline)) return rc;
  }
  if (!crypt_blocks(st->r_ctx, false, data, aligned)) return stream_error(s, ERR_SOCKET_FAILED, EIO);
  if (rest != 0) {
    if (!crypt_blocks(st->r_ctx, false, block, kBlock)) return stream_error(s, ERR_SOCKET_FAILED, EIO);
    // The padding bytes are dropped unchecked: the stream has no framing.
    std::memcpy(data + aligned, block, (size_t)rest);
  }
  return 0;
}

int _stcp_close(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  ABSTRACT_SOCKET* s = as_socket(handle);
  if (auto* st = state_of(s)) {
    free_contexts(st);
    _vekFree(st, kSource, __LINE__);
  }
  s->handle = nullptr;
  return 0;
}
