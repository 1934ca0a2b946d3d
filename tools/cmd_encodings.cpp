// "vekutil crc32", "vekutil base32", "vekutil base64" and "vekutil guid", and
// the "encodings" demo section.
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <vekutil/vekutil.h>

#include "command.hpp"

namespace {

bool read_stdin(std::string* data) {
  char chunk[65536];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, stdin)) > 0) data->append(chunk, n);
  return !std::ferror(stdin);
}

void release(void* p) {
  if (p) _vekFree(p, __FILE__, __LINE__);
}

int run_crc32(int argc, char** argv) {
  if (argc < 2) return vektool::usage_error("crc32", "at least one FILE is required");
  int status = 0;
  for (int i = 1; i < argc; ++i) {
    unsigned int crc = 0;
    if (hash_file_crc32(argv[i], &crc) != 0) {
      std::fprintf(stderr, "vekutil crc32: cannot read %s: %s\n", argv[i], std::strerror(errno));
      status = 1;
      continue;
    }
    std::printf("%08X  %s\n", crc, argv[i]);
  }
  return status;
}

// Parses "encode" / "decode"; prints a usage hint and returns -1 otherwise.
int codec_direction(int argc, char** argv, const char* name) {
  if (argc == 2 && !std::strcmp(argv[1], "encode")) return 0;
  if (argc == 2 && !std::strcmp(argv[1], "decode")) return 1;
  vektool::usage_error(name, "the one argument is encode or decode");
  return -1;
}

// Writes encoded text with a final newline, or decoded bytes as they are.
int write_result(int rc, void* out, size_t length, bool text, const char* name) {
  if (rc != 0) {
    std::fprintf(stderr, "vekutil %s: invalid input or out of memory (%d)\n", name, rc);
    return 1;
  }
  std::fwrite(out, 1, length, stdout);
  if (text) std::fputc('\n', stdout);
  release(out);
  return 0;
}

int run_base32(int argc, char** argv) {
  const int direction = codec_direction(argc, argv, "base32");
  if (direction < 0) return 2;
  std::string input;
  if (!read_stdin(&input)) return 1;
  if (direction == 0) {
    if (input.empty()) return 0;  // nothing to encode
    char* text = nullptr;
    const int rc = base32_encode(reinterpret_cast<const unsigned char*>(input.data()),
                                 static_cast<int>(input.size()), &text);
    return write_result(rc, text, text ? std::strlen(text) : 0, true, "base32");
  }
  unsigned char* bytes = nullptr;
  int length = 0;
  const int rc = base32_decode(input.c_str(), &bytes, &length);
  return write_result(rc, bytes, static_cast<size_t>(length), false, "base32");
}

int run_base64(int argc, char** argv) {
  const int direction = codec_direction(argc, argv, "base64");
  if (direction < 0) return 2;
  std::string input;
  if (!read_stdin(&input)) return 1;
  if (direction == 0) {
    char* text = nullptr;
    const int rc = base64_encode(reinterpret_cast<const unsigned char*>(input.data()),
                                 static_cast<int>(input.size()), &text);
    return write_result(rc, text, text ? std::strlen(text) : 0, true, "base64");
  }
  // The decoder is strict; line breaks and spaces of wrapped input go first.
  std::string compact;
  for (char c : input)
    if (!std::isspace(static_cast<unsigned char>(c))) compact.push_back(c);
  unsigned char* bytes = nullptr;
  int length = 0;
  const int rc = base64_decode(compact.c_str(), &bytes, &length);
  return write_result(rc, bytes, static_cast<size_t>(length), false, "base64");
}

int run_guid(int argc, char**) {
  if (argc != 1) return vektool::usage_error("guid", "takes no arguments");
  guid_init();
  char* guid = guid_create();
  if (!guid) return 1;
  std::printf("%s\n", guid);
  release(guid);
  return 0;
}

int demo_encodings() {
  const char* check = "123456789";
  std::printf("crc32(\"%s\") = %08X, crc16-ccitt = %04X\n", check, hash_crc32(check, 9),
              hash_crc16_ccitt(check, 9, 0xFFFF));

  const char* message = "vekutil encodings";
  char* encoded = nullptr;
  unsigned char* decoded = nullptr;
  int decoded_len = 0;
  if (base64_encode(reinterpret_cast<const unsigned char*>(message), static_cast<int>(std::strlen(message)),
                    &encoded) != 0 ||
      base64_decode(encoded, &decoded, &decoded_len) != 0) {
    release(encoded);
    return 1;
  }
  const bool same = decoded_len == static_cast<int>(std::strlen(message)) && !std::memcmp(decoded, message, decoded_len);
  std::printf("base64 \"%s\" -> %s -> %s\n", message, encoded, same ? "round trip ok" : "MISMATCH");
  release(encoded);
  release(decoded);

  guid_init();
  char* guid = guid_create();
  if (!guid) return 1;
  std::printf("guid %s\n", guid);
  release(guid);

  long long value = 0;
  char* end = nullptr;
  const int rc = convert_to_ll(&value, "  0x7fffffffffffffff", &end, 0);
  std::printf("convert_to_ll(\"  0x7fffffffffffffff\", base 0) = %lld (result %d)\n", value, rc);
  return same && rc == 0 ? 0 : 1;
}

constexpr const char* kCodecDetails =
    "Reads standard input and writes standard output; encoded text ends with a newline.\n";

vektool::Registrar reg_crc32{{"crc32", "crc32 FILE...", "CRC-32 of each file", run_crc32, nullptr}};
vektool::Registrar reg_base32{{"base32", "base32 encode|decode", "Base32 from standard input", run_base32,
                                kCodecDetails}};
vektool::Registrar reg_base64{{"base64", "base64 encode|decode", "Base64 from standard input", run_base64,
                                kCodecDetails}};
vektool::Registrar reg_guid{{"guid", "guid", "print a new 36-character identifier", run_guid, nullptr}};
vektool::DemoRegistrar demo{{"encodings", 50, demo_encodings}};

}  // namespace
