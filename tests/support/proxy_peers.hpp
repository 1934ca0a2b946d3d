// Proxy peers: tinyproxy (CONNECT, Basic auth), dante (SOCKS4/5), microsocks (SOCKS5, password).
#pragma once

#include <string>

#include "peer.hpp"
#include "vek_test.hpp"

namespace vektest {

// One proxy on its own loopback port, with a generated configuration.
class ProxyPeer {
 public:
  bool start_tinyproxy(const TempDir& dir, const std::string& user, const std::string& pass) {
    port_ = free_tcp_port();
    const std::string conf = dir.file("tinyproxy.conf");
    write_file(conf, "Port " + std::to_string(port_) + "\nListen 127.0.0.1\nTimeout 30\nMaxClients 20\n" +
                                  "Allow 127.0.0.1\nLogLevel Info\nLogFile \"" + dir.file("tinyproxy.log") +
                                  "\"\nPidFile \"" + dir.file("tinyproxy.pid") + "\"\nBasicAuth " + user + " " +
                                  pass + "\n");
    return process_.start({"tinyproxy", "-d", "-c", conf}, dir.file("tinyproxy.out")) &&
           process_.wait_tcp_port(port_);
  }
  bool start_dante(const TempDir& dir) {
    port_ = free_tcp_port();
    const std::string conf = dir.file("danted.conf");
    write_file(conf, "logoutput: " + dir.file("danted.log") + "\ninternal: 127.0.0.1 port = " +
                                  std::to_string(port_) +
                                  "\nexternal: 127.0.0.1\nclientmethod: none\nsocksmethod: none\n"
                                  "user.privileged: root\nuser.unprivileged: nobody\n"
                                  "client pass { from: 127.0.0.0/8 to: 0.0.0.0/0 }\n"
                                  "socks pass { from: 127.0.0.0/8 to: 0.0.0.0/0 }\n");
    return process_.start({"/usr/sbin/danted", "-f", conf, "-p", dir.file("danted.pid")}, dir.file("danted.out")) &&
           process_.wait_tcp_port(port_);
  }
  bool start_microsocks(const TempDir& dir, const std::string& user, const std::string& pass) {
    port_ = free_tcp_port();
    return process_.start({"microsocks", "-i", "127.0.0.1", "-p", std::to_string(port_), "-u", user, "-P", pass},
                          dir.file("microsocks.out")) &&
           process_.wait_tcp_port(port_);
  }
  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

 private:
  PeerProcess process_;
  int port_ = 0;
};

}  // namespace vektest
