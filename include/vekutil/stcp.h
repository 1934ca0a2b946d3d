/* The secure stream: AES in CBC mode over an open socket, with a key and
 * initial vector both ends already share. stcp_morph replaces the socket's
 * operation slots; socket_send / socket_recv then encrypt and decrypt.
 *
 * Wire format: no header, length or boundary. Each direction is one CBC
 * chain in 16-byte blocks, continued from call to call. A message of n bytes
 * takes ceil(n / 16) blocks: the whole blocks are encrypted in place in the
 * caller's buffer (which then holds ciphertext) and sent; a remainder of r
 * bytes is padded with the byte value 16 - r to one block of its own. The
 * receiver must ask for exactly the sender's n. socket_recv2 is not offered
 * (ERR_SOCKET_NO_OPERATION). One sender and one receiver may work at once. */
#ifndef VEKUTIL_STCP_H
#define VEKUTIL_STCP_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* bits: 128, 192 or 256; key holds bits / 8 bytes, iv 16. Installs the
 * slots first and then checks bits: ERR_SOCKET_KEY_BITS leaves the secure
 * slots in place without a key schedule. ERR_NO_MEMORY. */
VEK_API int stcp_morph(void* handle, const unsigned char* key, const unsigned char* iv, int bits);

/* The slot functions (_stcp_send uses a time-out of 10000 ms). */
VEK_API int _stcp_send(void* handle, const char* buffer, int length);
VEK_API int _stcp_send2(void* handle, const char* buffer, int length, int timeout);
VEK_API int _stcp_recv(void* handle, char* buffer, int length, int timeout);
VEK_API int _stcp_close(void* handle);

VEK_END_DECLS

#endif
