// Checksums, codecs, numeric conversions and blob appends against their
// usual peers, on the same data in one process:
//   hash_crc32            vs zlib crc32            (4 KiB and 1 MiB buffers)
//   base64_encode/decode  vs OpenSSL EVP_EncodeBlock/EVP_DecodeBlock
//   convert_to_ll/ull/d   vs strtoll/strtoull/strtod (1 million mixed texts)
//   blob_append           vs std::string::append   (many small pieces)
// Each pair shares a name stem: BM_<what>_vek and BM_<what>_peer.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#ifdef VEK_HAVE_ZLIB
#include <zlib.h>
#endif

#include <vekutil/base64.h>
#include <vekutil/blob.h>
#include <vekutil/convert.h>
#include <vekutil/crc32.h>
#include <vekutil/memory.h>

namespace {

std::string random_bytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (auto& c : s) c = static_cast<char>(gen());
  return s;
}

// ------------------------------------------------------------------ CRC-32 --

const std::string& crc_data(size_t n) {
  static const std::string small = random_bytes(4096, 1), large = random_bytes(1 << 20, 2);
  return n == small.size() ? small : large;
}

void BM_crc32_vek(benchmark::State& state) {
  const std::string& data = crc_data(static_cast<size_t>(state.range(0)));
  for (auto _ : state)
    benchmark::DoNotOptimize(hash_crc32(data.data(), static_cast<unsigned>(data.size())));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}
BENCHMARK(BM_crc32_vek)->Arg(4096)->Arg(1 << 20);

#ifdef VEK_HAVE_ZLIB
void BM_crc32_peer(benchmark::State& state) {
  const std::string& data = crc_data(static_cast<size_t>(state.range(0)));
  if (crc32(0, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(data.size())) !=
      hash_crc32(data.data(), static_cast<unsigned>(data.size())))
    state.SkipWithError("checksums differ");
  for (auto _ : state)
    benchmark::DoNotOptimize(crc32(0, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(data.size())));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}
BENCHMARK(BM_crc32_peer)->Arg(4096)->Arg(1 << 20);
#endif

// ------------------------------------------------------------------ Base64 --

const std::string& b64_plain(size_t n) {
  static const std::string small = random_bytes(4096, 3), large = random_bytes(1 << 20, 4);
  return n == small.size() ? small : large;
}
const std::string& b64_text(size_t n) {
  static const auto encode = [](const std::string& in) {
    std::string out(in.size() / 3 * 4 + 8, '\0');
    out.resize(static_cast<size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                                   reinterpret_cast<const unsigned char*>(in.data()),
                                                   static_cast<int>(in.size()))));
    return out;
  };
  static const std::string small = encode(b64_plain(4096)), large = encode(b64_plain(1 << 20));
  return n == 4096 ? small : large;
}

void BM_base64_encode_vek(benchmark::State& state) {
  const std::string& in = b64_plain(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    char* out = nullptr;
    base64_encode(reinterpret_cast<const unsigned char*>(in.data()), static_cast<int>(in.size()), &out);
    benchmark::DoNotOptimize(out);
    vekFree(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
}
BENCHMARK(BM_base64_encode_vek)->Arg(4096)->Arg(1 << 20);

void BM_base64_encode_peer(benchmark::State& state) {
  const std::string& in = b64_plain(static_cast<size_t>(state.range(0)));
  std::vector<unsigned char> out(in.size() / 3 * 4 + 8);
  for (auto _ : state) {
    benchmark::DoNotOptimize(EVP_EncodeBlock(out.data(), reinterpret_cast<const unsigned char*>(in.data()),
                                             static_cast<int>(in.size())));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
}
BENCHMARK(BM_base64_encode_peer)->Arg(4096)->Arg(1 << 20);

void BM_base64_decode_vek(benchmark::State& state) {
  const std::string& text = b64_text(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    unsigned char* out = nullptr;
    int len = 0;
    base64_decode(text.c_str(), &out, &len);
    benchmark::DoNotOptimize(out);
    vekFree(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_base64_decode_vek)->Arg(4096)->Arg(1 << 20);

void BM_base64_decode_peer(benchmark::State& state) {
  const std::string& text = b64_text(static_cast<size_t>(state.range(0)));
  std::vector<unsigned char> out(text.size() / 4 * 3 + 3);
  for (auto _ : state) {
    benchmark::DoNotOptimize(EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                             static_cast<int>(text.size())));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_base64_decode_peer)->Arg(4096)->Arg(1 << 20);

// ------------------------------------------------------------ conversions --

constexpr int kTexts = 1000000;

// Short and long, signed and unsigned decimal integers, some with spaces.
const std::vector<std::string>& integer_texts(bool with_negatives) {
  static const auto make = [](bool negatives) {
    std::mt19937_64 gen(5);
    std::vector<std::string> v;
    v.reserve(kTexts);
    for (int i = 0; i < kTexts; ++i) {
      const unsigned long long r = gen();
      const char* sign = negatives && (r & 1) ? "-" : "";
      char buf[32];
      switch (i % 4) {
        case 0: std::snprintf(buf, sizeof buf, "%s%llu", sign, r % 100); break;
        case 1: std::snprintf(buf, sizeof buf, "%s%llu", sign, r % 1000000); break;
        case 2: std::snprintf(buf, sizeof buf, "%s%llu", sign, r >> 1); break;
        default: std::snprintf(buf, sizeof buf, " %s%llu", sign, r % 4000000000ull); break;
      }
      std::string s = buf;
      v.push_back(s);
    }
    return v;
  };
  static const std::vector<std::string> signed_texts = make(true), unsigned_texts = make(false);
  return with_negatives ? signed_texts : unsigned_texts;
}

// Integers, fixed-point and exponent forms of various lengths.
const std::vector<std::string>& double_texts() {
  static const std::vector<std::string> texts = [] {
    std::mt19937_64 gen(6);
    std::vector<std::string> v;
    v.reserve(kTexts);
    char buf[64];
    for (int i = 0; i < kTexts; ++i) {
      const unsigned long long r = gen();
      const double x = static_cast<double>(r % 1000000007) / 997.0;
      switch (i % 4) {
        case 0: std::snprintf(buf, sizeof buf, "%llu", r % 100000); break;
        case 1: std::snprintf(buf, sizeof buf, "%.3f", x); break;
        case 2: std::snprintf(buf, sizeof buf, "-%.15g", x / 1e4); break;
        default: std::snprintf(buf, sizeof buf, "%.6e", x * 1e-20); break;
      }
      v.emplace_back(buf);
    }
    return v;
  }();
  return texts;
}

template <class Fn>
void run_texts(benchmark::State& state, const std::vector<std::string>& texts, Fn fn) {
  for (auto _ : state)
    for (const auto& t : texts) fn(t.c_str());
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * texts.size()));
}

void BM_convert_ll_vek(benchmark::State& state) {
  run_texts(state, integer_texts(true), [](const char* s) {
    long long v;
    convert_to_ll(&v, s, nullptr, 10);
    benchmark::DoNotOptimize(v);
  });
}
void BM_convert_ll_peer(benchmark::State& state) {
  run_texts(state, integer_texts(true), [](const char* s) { benchmark::DoNotOptimize(std::strtoll(s, nullptr, 10)); });
}
void BM_convert_ull_vek(benchmark::State& state) {
  run_texts(state, integer_texts(false), [](const char* s) {
    unsigned long long v;
    convert_to_ull(&v, s, nullptr, 10);
    benchmark::DoNotOptimize(v);
  });
}
void BM_convert_ull_peer(benchmark::State& state) {
  run_texts(state, integer_texts(false),
            [](const char* s) { benchmark::DoNotOptimize(std::strtoull(s, nullptr, 10)); });
}
void BM_convert_d_vek(benchmark::State& state) {
  run_texts(state, double_texts(), [](const char* s) {
    double v;
    convert_to_d(&v, s, nullptr);
    benchmark::DoNotOptimize(v);
  });
}
void BM_convert_d_peer(benchmark::State& state) {
  run_texts(state, double_texts(), [](const char* s) { benchmark::DoNotOptimize(std::strtod(s, nullptr)); });
}
BENCHMARK(BM_convert_ll_vek)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_convert_ll_peer)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_convert_ull_vek)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_convert_ull_peer)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_convert_d_vek)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_convert_d_peer)->Unit(benchmark::kMillisecond);

// ------------------------------------------------------------- blob append --

constexpr int kPieces = 10000;

// Pieces of 1 to 24 bytes, as when a message is built field by field.
const std::vector<std::string>& pieces() {
  static const std::vector<std::string> p = [] {
    std::vector<std::string> v;
    std::mt19937 gen(7);
    for (int i = 0; i < kPieces; ++i) v.emplace_back(1 + gen() % 24, static_cast<char>('a' + i % 26));
    return v;
  }();
  return p;
}

void BM_blob_append_vek(benchmark::State& state) {
  const auto& p = pieces();
  for (auto _ : state) {
    void* blob = nullptr;
    blob_create(&blob, 0);
    for (const auto& s : p) blob_append(blob, s.data(), static_cast<int>(s.size()));
    benchmark::DoNotOptimize(blob_get_buffer(blob));
    blob_delete(blob);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * p.size()));
}
BENCHMARK(BM_blob_append_vek);

void BM_blob_append_peer(benchmark::State& state) {
  const auto& p = pieces();
  for (auto _ : state) {
    std::string out;
    out.reserve(1024);  // the blob's default start size
    for (const auto& s : p) out.append(s.data(), s.size());
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * p.size()));
}
BENCHMARK(BM_blob_append_peer);

}  // namespace

BENCHMARK_MAIN();
