// Demo section "ftp appliance": the appliance on a free loopback port with a
// scratch database and root, one account, a session of the library's FTP
// client, SITE STATUS, and what the appliance's statsd and syslog
// collectors received. Everything it starts is stopped before it returns.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <vekutil/vekutil.h>

#include "command.hpp"
#include "ftpd_appliance.hpp"

namespace {

struct Received {
  std::mutex lock;
  std::vector<std::string> lines;
  void add(const std::string& line) {
    std::lock_guard<std::mutex> guard(lock);
    lines.push_back(line);
  }
  std::vector<std::string> take() {
    std::lock_guard<std::mutex> guard(lock);
    return lines;
  }
};

void on_syslog(int, int level, long long, const char*, const char* message, void* custom) {
  // Appended piece by piece: GCC 12 at -O3 warns wrongly (-Wrestrict) about
  // a chain of operator+ on a temporary.
  std::string line = "<";
  line += std::to_string(level);
  line += ">";
  line += message;
  static_cast<Received*>(custom)->add(line);
}

// A statsd stand-in on the library's datagram socket, on a port the
// system picks.
class StatsdInbox {
 public:
  bool start() {
    if (udp_create(&udp_) != 0 || udp_bind(udp_, "127.0.0.1:0") != 0) return false;
    sockaddr_in local{};
    socklen_t size = sizeof local;
    if (getsockname(udp_descriptor(udp_), reinterpret_cast<sockaddr*>(&local), &size) != 0) return false;
    port_ = ntohs(local.sin_port);
    thread_ = std::thread([this] { receive(); });
    return true;
  }
  void stop() {
    done_ = true;
    if (thread_.joinable()) thread_.join();
    if (udp_) udp_delete(udp_);
    udp_ = nullptr;
  }
  ~StatsdInbox() { stop(); }
  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
  Received received;

 private:
  void receive() {
    char buffer[1024];
    while (!done_) {
      int length = sizeof buffer - 1;
      char* from = nullptr;
      int n = udp_recv2(udp_, buffer, &length, &from, 100);
      if (from) vekFree(from);
      if (n > 0) received.add(std::string(buffer, static_cast<size_t>(n)));
    }
  }
  void* udp_ = nullptr;
  int port_ = 0;
  std::atomic<bool> done_{false};
  std::thread thread_;
};

// USER, PASS, SITE STATUS and QUIT on a library socket; the whole reply text.
std::string site_status(int port, const std::string& user, const std::string& password) {
  void* socket = nullptr;
  std::string replies;
  if (socket_create(&socket) != 0) return replies;
  if (socket_connect_ex(socket, ("127.0.0.1:" + std::to_string(port)).c_str(), 5000) == 0) {
    const std::string commands = "USER " + user + "\r\nPASS " + password + "\r\nSITE STATUS\r\nQUIT\r\n";
    socket_send(socket, commands.data(), static_cast<int>(commands.size()));
    char buffer[4096];
    for (int round = 0; round < 50 && replies.find("\n221 ") == std::string::npos; ++round) {
      int length = sizeof buffer;
      if (socket_recv2(socket, buffer, &length, 2000) < 0 || length <= 0) break;
      replies.append(buffer, static_cast<size_t>(length));
    }
  }
  socket_delete(socket);
  return replies;
}

void print_status(const std::string& replies) {
  size_t start = replies.find("211-");
  size_t json_start = start == std::string::npos ? start : replies.find('\n', start);
  size_t json_end = json_start == std::string::npos ? json_start : replies.find("\r\n211 ", json_start);
  if (json_end == std::string::npos) {
    std::printf("  SITE STATUS: no status reply\n");
    return;
  }
  const std::string text = replies.substr(json_start + 1, json_end - json_start - 1);
  JSON* status = json_Parse(text.c_str());
  if (!status) {
    std::printf("  SITE STATUS: not JSON\n");
    return;
  }
  JSON* memory = json_GetObjectItem(status, "memory");
  long long* blocks = json_GetObjectItemAsLongLong(memory, "blocks");
  std::printf("  SITE STATUS: %d live session(s), %d socket(s) in the registry, %lld memory blocks\n",
              json_GetArraySize(json_GetObjectItem(status, "sessions")),
              std::max(0, json_GetArraySize(json_GetObjectItem(status, "sockets")) - 1), blocks ? *blocks : -1LL);
  std::printf("    %.160s%s\n", text.c_str(), text.size() > 160 ? "..." : "");
  json_Delete(status);
}

// Put, get and delete with the library's FTP client.
bool client_session(int port, const std::string& scratch) {
  const std::string local = scratch + "/local.txt", back = scratch + "/back.txt";
  std::ofstream(local) << "hello from the demo\n";
  void* ftp = nullptr;
  if (ftp_connect(&ftp, ("127.0.0.1:" + std::to_string(port)).c_str()) != 0) return false;
  int login = ftp_login(ftp, "demo", "demo-password");
  int put = login == 0 ? ftp_put(ftp, local.c_str(), "hello.txt") : -1;
  int get = put == 0 ? ftp_get(ftp, "hello.txt", back.c_str()) : -1;
  int del = get == 0 ? ftp_del(ftp, "hello.txt") : -1;
  ftp_disconnect(ftp);
  std::printf("  client: login %d, put %d, get %d, delete %d\n", login, put, get, del);
  return login == 0 && put == 0 && get == 0 && del == 0;
}

void wait_for_arrivals(Received* received, size_t want) {
  for (int i = 0; i < 50 && received->take().size() < want; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

int run_demo(const std::string& scratch) {
  StatsdInbox statsd;
  Received events;
  void* collector = nullptr;
  if (!statsd.start() || syslog_collector_create(&collector, 0, on_syslog, &events) != 0) return 1;
  ftpd_appliance::Settings settings;
  settings.port = 0;
  settings.root = scratch + "/root";
  settings.db = scratch + "/ftp.db";
  settings.statsd = statsd.address();
  settings.syslog = "127.0.0.1:" + std::to_string(syslog_collector_port(collector));
  std::filesystem::create_directories(settings.root);

  bool ok = false;
  std::string error;
  {
    ftpd_appliance::Accounts accounts;
    ok = accounts.open(settings.db, &error) &&
         accounts.add("demo", "demo-password", FTP_ACCESS_ALL, &error);
  }
  ftpd_appliance::Appliance appliance;
  if (ok) ok = appliance.start(settings, &error);
  if (ok) {
    std::printf("  appliance on 127.0.0.1:%u, accounts in %s\n", appliance.port(), settings.db.c_str());
    ok = client_session(appliance.port(), scratch);
    print_status(site_status(appliance.port(), "demo", "demo-password"));
    wait_for_arrivals(&events, 6);
  } else {
    std::printf("  %s\n", error.c_str());
  }
  appliance.stop();
  syslog_collector_delete(collector);
  statsd.stop();
  std::vector<std::string> metrics = statsd.received.take();
  std::sort(metrics.begin(), metrics.end());
  metrics.erase(std::unique(metrics.begin(), metrics.end()), metrics.end());
  std::printf("  statsd received %zu distinct metric(s):", metrics.size());
  for (size_t i = 0; i < metrics.size(); ++i) std::printf("%s%s", i % 4 ? "  " : "\n    ", metrics[i].c_str());
  std::printf("\n  syslog received:\n");
  for (const std::string& e : events.take()) std::printf("    %s\n", e.c_str());
  return ok ? 0 : 1;
}

int demo_ftp_appliance() {
  char scratch[] = "/tmp/vekutil-ftpd-demo-XXXXXX";
  if (!mkdtemp(scratch)) return 1;
  int rc = run_demo(scratch);
  std::error_code ignored;
  std::filesystem::remove_all(scratch, ignored);
  return rc;
}

vektool::DemoRegistrar demo_section{{"ftp appliance", 90, demo_ftp_appliance}};

}  // namespace
