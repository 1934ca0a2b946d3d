// Hardware identifiers from the kernel's list of configured IPv4 interfaces.
#include <vekutil/hardwareid.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/internal.hpp"

namespace {

constexpr const char* kSource = "src/hardwareid.c";

// An IPv4 datagram socket, only used as a handle for interface queries.
class QuerySocket {
 public:
  explicit QuerySocket(const char* who) : fd_(socket(AF_INET, SOCK_DGRAM, 0)) {
    if (fd_ < 0) log_vek_error("%s socket failed[%d]\n", who, errno);
  }
  ~QuerySocket() {
    if (fd_ >= 0) close(fd_);
  }
  QuerySocket(const QuerySocket&) = delete;
  QuerySocket& operator=(const QuerySocket&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

// Byte length of the interface list (a query without a buffer), or -1.
int interface_list_length(int fd, const char* who) {
  struct ifconf ifc;
  std::memset(&ifc, 0, sizeof ifc);
  if (ioctl(fd, SIOCGIFCONF, &ifc) < 0) {
    log_vek_error("%s ioctl(SIOCGIFCONF) failed[%d]\n", who, errno);
    return -1;
  }
  return ifc.ifc_len;
}

// Fills entry from one interface record; false when the interface has no
// usable hardware address.
bool describe_interface(int fd, const struct ifreq& record, HWID_ENTRY* entry) {
  struct ifreq hw = record;
  if (ioctl(fd, SIOCGIFHWADDR, &hw) < 0) return false;
  const auto* mac = reinterpret_cast<const unsigned char*>(hw.ifr_hwaddr.sa_data);
  std::snprintf(entry->hwid, sizeof entry->hwid, "%02X%02X%02X%02X%02X%02X", mac[0], mac[1], mac[2], mac[3],
                mac[4], mac[5]);
  if (std::strcmp(entry->hwid, "000000000000") == 0) return false;

  struct sockaddr_in addr;
  std::memcpy(&addr, &record.ifr_addr, sizeof addr);
  char dotted[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &addr.sin_addr, dotted, sizeof dotted);
  std::snprintf(entry->ip, sizeof entry->ip, "%s", dotted);
  vek::copy_name(entry->type, sizeof entry->type, HWID_TYPE_MAC);
  entry->type_nls = HWID_TYPE_MAC_NLS;
  return true;
}

}  // namespace

extern "C" {

int hardwareid_count(void) {
  QuerySocket sock("hardwareid_count()");
  if (sock.fd() < 0) return -1;
  const int length = interface_list_length(sock.fd(), "hardwareid_count()");
  return length < 0 ? -1 : length / static_cast<int>(sizeof(struct ifreq));
}

int hardwareid_list(HWID_ENTRY* hwids, int* count) {
  if (!count) return -1;
  const int capacity = *count;
  *count = 0;
  if (!hwids) return -1;

  static constexpr const char* kWho = "hardwareid_list()";
  QuerySocket sock(kWho);
  if (sock.fd() < 0) return -1;
  const int length = interface_list_length(sock.fd(), kWho);
  if (length < 0) return -1;
  if (length == 0 || capacity <= 0) return 0;

  auto* records = static_cast<struct ifreq*>(vek::zalloc(static_cast<size_t>(length), kSource, __LINE__));
  if (!records) return -1;
  struct ifconf ifc;
  ifc.ifc_len = length;
  ifc.ifc_req = records;
  if (ioctl(sock.fd(), SIOCGIFCONF, &ifc) < 0) {
    log_vek_error("%s ioctl(SIOCGIFCONF) failed[%d]\n", kWho, errno);
    _vekFree(records, kSource, __LINE__);
    return -1;
  }
  const int interfaces = ifc.ifc_len / static_cast<int>(sizeof(struct ifreq));
  int filled = 0;
  for (int i = 0; i < interfaces && filled < capacity; ++i) {
    HWID_ENTRY entry;
    std::memset(&entry, 0, sizeof entry);
    if (describe_interface(sock.fd(), records[i], &entry)) hwids[filled++] = entry;
  }
  _vekFree(records, kSource, __LINE__);
  *count = filled;
  return 0;
}

}  // extern "C"
