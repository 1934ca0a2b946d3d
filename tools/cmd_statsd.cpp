// "vekutil statsd": publishes one gauge, counter or timing.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <vekutil/vekutil.h>

#include "command.hpp"

namespace {

constexpr const char* kUsage = "statsd HOST:PORT BUCKET:VALUE|g|c|ms [--rate R]";

constexpr const char* kDetails =
    "Sends one metric datagram to a statsd daemon:\n"
    "  BUCKET:VALUE|g   gauge\n"
    "  BUCKET:VALUE|c   counter (--rate R adds the sample rate, e.g. 0.1)\n"
    "  BUCKET:VALUE|ms  timing in milliseconds\n"
    "VALUE is a whole number. Quote the metric: '|' is special to the shell.\n";

int usage_error(const char* problem) { return vektool::usage_error("statsd", problem); }

struct Metric {
  std::string bucket;
  int value = 0;
  std::string kind;
};

// "bucket:value|kind", split at the last ':' so that buckets may hold ':'.
bool parse_metric(const char* text, Metric* metric) {
  const char* bar = std::strrchr(text, '|');
  if (!bar) return false;
  const std::string head(text, bar);
  const size_t colon = head.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  metric->bucket = head.substr(0, colon);
  metric->kind = bar + 1;
  const std::string number = head.substr(colon + 1);
  char* end = nullptr;
  errno = 0;
  const long long v = std::strtoll(number.c_str(), &end, 10);
  if (number.empty() || errno != 0 || *end != '\0' || v < -2147483648LL || v > 2147483647LL) return false;
  metric->value = static_cast<int>(v);
  return metric->kind == "g" || metric->kind == "c" || metric->kind == "ms";
}

int run_statsd(int argc, char** argv) {
  const char* server = nullptr;
  const char* metric_text = nullptr;
  float rate = 0.0f;
  bool has_rate = false;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--rate") && i + 1 < argc) {
      char* end = nullptr;
      rate = std::strtof(argv[++i], &end);
      if (*end != '\0' || !(rate > 0.0f && rate <= 1.0f)) return usage_error("--rate needs a number in (0, 1]");
      has_rate = true;
    } else if (!server) {
      server = argv[i];
    } else if (!metric_text) {
      metric_text = argv[i];
    } else {
      return usage_error("too many arguments");
    }
  }
  if (!server || !metric_text) return usage_error("HOST:PORT and the metric are required");
  if (!std::strchr(server, ':')) return usage_error("the daemon needs a port (HOST:PORT)");
  Metric metric;
  if (!parse_metric(metric_text, &metric)) return usage_error("the metric must look like name:12|c");
  if (has_rate && metric.kind != "c") return usage_error("--rate applies to counters only");

  void* publisher = nullptr;
  int rc = statsd_create(&publisher, server);
  if (rc == 0) {
    if (metric.kind == "g")
      rc = statsd_publish_gauge(publisher, metric.bucket.c_str(), metric.value);
    else if (metric.kind == "ms")
      rc = statsd_publish_timing(publisher, metric.bucket.c_str(), metric.value);
    else
      rc = statsd_publish_counter(publisher, metric.bucket.c_str(), metric.value, has_rate ? rate : 0.0f);
    statsd_delete(publisher);
  }
  if (rc != 0) {
    std::fprintf(stderr, "vekutil statsd: publishing to %s failed (%d)\n", server, rc);
    return 1;
  }
  return 0;
}

vektool::Registrar reg_statsd{{"statsd", kUsage, "publish one statsd metric", run_statsd, kDetails}};

}  // namespace
