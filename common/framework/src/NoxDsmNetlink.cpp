// The modem's interfaces as the kernel reports them over route netlink.

#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "NoxDsm.h"
#include "NoxDsmText.h"
#include "NoxLog.h"
#include "NoxNetlinkSocket.h"

using NoxDsmText::copy;
using NoxDsmText::replaceAddress;

namespace {

// IFA_F_SECONDARY | IFA_F_PERMANENT, as the start-up requests have always carried.
constexpr unsigned char kDumpAddrFlags = 0x81;
constexpr uint32_t kAllInterfaces = 0xFFFFFFFF;

bool isWantedFamily(int family) { return family == AF_INET || family == AF_INET6; }

size_t addressLength(int family) { return family == AF_INET6 ? 16 : 4; }

// Multicast, loopback, link-local (fe80::/10) and site-local (fec0::/10) addresses say
// nothing about the modem's data link.
bool isIgnoredV6(const unsigned char (&a)[16]) {
  static const unsigned char kLoopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  if (a[0] == 0xff) return true;
  if (memcmp(a, kLoopback, sizeof(kLoopback)) == 0) return true;
  return a[0] == 0xfe && (a[1] & 0xc0) >= 0x80;
}

// Everything HandleNlMsg reads is checked here first: the header against the bytes
// received, the fixed part of the message against its length, and for a new address
// the first attribute against the address it must hold.
bool isWhole(const nlmsghdr* msg, unsigned int len) {
  if (len < sizeof(nlmsghdr)) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_DSM, "HandleNlMsg dropping %u bytes: no room for a header", len);
    return false;
  }
  if (reinterpret_cast<uintptr_t>(msg) % alignof(nlmsghdr) != 0) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_DSM, "HandleNlMsg dropping a misaligned message");
    return false;
  }
  const uint32_t msgLen = msg->nlmsg_len;
  if (msgLen < sizeof(nlmsghdr) || msgLen > len) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_DSM, "HandleNlMsg dropping type %d: length %u, %u bytes received",
            msg->nlmsg_type, msgLen, len);
    return false;
  }
  size_t fixed = 0;
  switch (msg->nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
      fixed = NLMSG_LENGTH(sizeof(ifinfomsg));
      break;
    case RTM_NEWADDR:
    case RTM_DELADDR:
      fixed = NLMSG_LENGTH(sizeof(ifaddrmsg));
      break;
    default:
      return true;  // not read beyond the header
  }
  if (msgLen < fixed) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_DSM, "HandleNlMsg dropping type %d: length %u is too short",
            msg->nlmsg_type, msgLen);
    return false;
  }
  if (msg->nlmsg_type != RTM_NEWADDR) return true;
  const ifaddrmsg* ifa = static_cast<const ifaddrmsg*>(NLMSG_DATA(msg));
  if (!isWantedFamily(ifa->ifa_family)) return true;  // dropped before its address is read
  const size_t attrAt = NLMSG_LENGTH(NLMSG_ALIGN(sizeof(ifaddrmsg)));
  const size_t need = RTA_LENGTH(addressLength(ifa->ifa_family));
  const rtattr* attr = IFA_RTA(ifa);
  if (msgLen < attrAt + RTA_LENGTH(0) || attr->rta_len < need || attr->rta_len > msgLen - attrAt) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_DSM, "HandleNlMsg dropping NEWADDR family %d: no whole address",
            ifa->ifa_family);
    return false;
  }
  return true;
}

// The name of `index` in `name` (IF_NAMESIZE bytes) if it is one of the modem's links.
// For a deletion, an interface that is gone keeps the name its record was made under
// (`remembered`): deliberate, so that the deletions that outlive it still erase it.
bool modemLinkName(int index, char* name, const std::map<int, std::string>* remembered) {
  if (if_indextoname(static_cast<unsigned int>(index), name) == nullptr) {
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_DSM, "HandleNlMsg ifName NULL");
    if (remembered == nullptr) return false;
    const auto it = remembered->find(index);
    if (it == remembered->end()) return false;
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_DSM, "HandleNlMsg index %d was %s", index, it->second.c_str());
    snprintf(name, IF_NAMESIZE, "%s", it->second.c_str());
    return true;
  }
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_DSM, "HandleNlMsg ifName %s", name);
  return strncmp(name, "mdlnk", 5) == 0;
}

}  // namespace

void NoxDsm::noxEvtCallback(int, void* cbData) {
  NoxDsm* dsm = static_cast<NoxDsm*>(cbData);
  dsm->nlSocket->NetlinkRecv(0, HandleNlMsg, dsm);
  if (!dsm->nlSocket->overrunSeen()) return;
  NOX_LOG(NOX_LOG_WARN, NOX_MOD_DSM, "Netlink messages were lost, reading the addresses again");
  // The kernel reports the loss ahead of what it still holds: take that first, so the
  // dump, which is newer, has the last word.
  dsm->nlSocket->NetlinkRecv(0, HandleNlMsg, dsm);
  dsm->dumpAddresses();
  dsm->forgetVanishedInterfaces();
}

void NoxDsm::forgetVanishedInterfaces() {
  std::vector<std::string> gone;
  for (const auto& entry : wwanIfaceMap)
    if (if_nametoindex(entry.first.c_str()) == 0) gone.push_back(entry.first);
  for (std::string& name : gone) {
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_DSM, "interface %s is gone", name.c_str());
    handleNlLinkDown(&name[0]);
  }
}

void NoxDsm::dumpAddresses() {
  dumpAddresses(AF_INET);
  dumpAddresses(AF_INET6);
}

void NoxDsm::dumpAddresses(unsigned char family) {
  struct {
    nlmsghdr header;
    ifaddrmsg ifa;
  } request;
  static_assert(sizeof(request) == 24, "address dump request");
  memset(&request, 0, sizeof(request));
  request.header.nlmsg_type = RTM_GETADDR;
  request.ifa.ifa_family = family;
  request.ifa.ifa_flags = kDumpAddrFlags;
  request.ifa.ifa_index = kAllInterfaces;
  const unsigned int seqno = nlSocket->NetlinkSend(&request.header, sizeof(request));
  nlSocket->NetlinkRecv(seqno, HandleNlMsg, this);
}

void NoxDsm::HandleNlMsg(void* cbData, nlmsghdr* msg, unsigned int len) {
  NoxDsm* dsm = static_cast<NoxDsm*>(cbData);
  if (dsm == nullptr || msg == nullptr) return;
  std::unique_ptr<char[]> ifName(new (std::nothrow) char[IF_NAMESIZE]());
  if (!ifName) {
    NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_DSM, "HandleNlMsg ifName malloc failed");
    return;
  }
  if (!isWhole(msg, len)) return;
  try {
    switch (msg->nlmsg_type) {
      case RTM_NEWLINK:
      case RTM_DELLINK: {
        const ifinfomsg* ifi = static_cast<const ifinfomsg*>(NLMSG_DATA(msg));
        const bool isNew = msg->nlmsg_type == RTM_NEWLINK;
        NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_DSM, "HandleNlMsg %s family %d",
                isNew ? "NEWLINK" : "DELLINK", ifi->ifi_family);
        // Deliberate: link messages are filtered by family too, and the kernel's own carry
        // none; links are followed through their addresses.
        if (!isWantedFamily(ifi->ifi_family)) break;
        const bool up = isNew && (ifi->ifi_flags & IFF_UP) != 0;
        if (!modemLinkName(ifi->ifi_index, ifName.get(), up ? nullptr : &dsm->nlIndexNames)) break;
        if (!isNew) {
          dsm->handleNlLinkDown(ifName.get());
        } else if ((ifi->ifi_change & IFF_UP) == 0) {
          break;
        } else if ((ifi->ifi_flags & IFF_UP) != 0) {
          dsm->handleNlLinkUp(ifName.get(), ifi->ifi_family);
          dsm->rememberIndex(ifi->ifi_index, ifName.get());
        } else {
          dsm->handleNlLinkDown(ifName.get());
        }
        break;
      }
      case RTM_NEWADDR:
      case RTM_DELADDR: {
        ifaddrmsg* ifa = static_cast<ifaddrmsg*>(NLMSG_DATA(msg));
        const bool isNew = msg->nlmsg_type == RTM_NEWADDR;
        NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_DSM, "HandleNlMsg %s family %d",
                isNew ? "NEWADDR" : "DELADDR", ifa->ifa_family);
        if (!isWantedFamily(ifa->ifa_family)) break;
        const int index = static_cast<int>(ifa->ifa_index);
        if (!modemLinkName(index, ifName.get(), isNew ? nullptr : &dsm->nlIndexNames)) break;
        // Losing an address counts as losing the link.
        if (isNew) {
          dsm->handleNlNewAddr(ifName.get(), ifa);
          dsm->rememberIndex(index, ifName.get());
        } else {
          dsm->handleNlLinkDown(ifName.get());
        }
        break;
      }
      default:
        break;
    }
  } catch (const std::bad_alloc&) {
    NoxUtils::exitOutOfMemory();
  }
}

void NoxDsm::handleNlLinkUp(char* ifName, int family) {
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_DSM, "handleNlLinkUp interface %s family %d", ifName, family);
  const std::string key = NoxDsmText::ifaceKey(ifName);
  if (wwanIfaceMap.count(key) == 0) {
    _NoxDsmWwanInfoType entry;
    entry.state = NOX_NW_STATE_CONNECTED;
    if (family == AF_INET6)
      copy(entry.ifaceV6, ifName, NOX_IFACE_NAME_SIZE, NOX_IFACE_NAME_SIZE);
    else
      copy(entry.iface, ifName, NOX_IFACE_NAME_SIZE, NOX_IFACE_NAME_SIZE);
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_DSM, "handleNlLinkUp insert to map: %s", ifName);
    wwanIfaceMap.emplace(key, std::move(entry));
  }
  dispatchWwanEvent(ifName);
}

void NoxDsm::handleNlLinkDown(char* ifName) {
  const std::string key = NoxDsmText::ifaceKey(ifName);
  auto it = wwanIfaceMap.find(key);
  if (it == wwanIfaceMap.end()) return;
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_DSM, "handleNlLinkDown interface %s", ifName);
  it->second.state = NOX_NW_STATE_DISCONNECTED;
  dispatchApnEvent(ifName);
  it = wwanIfaceMap.find(key);  // a subscriber may have changed the map
  if (it != wwanIfaceMap.end()) {
    it->second.apnList.clear();
    NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_DSM, "handleNlLinkDown erase from map ifName: %s", ifName);
    wwanIfaceMap.erase(it);
    for (auto index = nlIndexNames.begin(); index != nlIndexNames.end();)
      index = index->second == key ? nlIndexNames.erase(index) : std::next(index);
  }
  dispatchWwanEvent(ifName);
}

void NoxDsm::rememberIndex(int index, const char* ifName) {
  const std::string key = NoxDsmText::ifaceKey(ifName);
  if (wwanIfaceMap.count(key) != 0) nlIndexNames[index] = key;
}

void NoxDsm::handleNlNewAddr(char* ifName, ifaddrmsg* ifa) {
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_DSM, "HandleNlNewAddr interface %s family %d", ifName,
          ifa->ifa_family);
  // The first attribute's payload, whatever its type: for the kernel's messages that is
  // the interface's own address.
  const unsigned char* payload =
      reinterpret_cast<const unsigned char*>(ifa) + NLMSG_ALIGN(sizeof(ifaddrmsg)) + RTA_LENGTH(0);
  char textV4[NOX_IP_ADDR_SIZE] = {};
  char textV6[NOX_IP_ADDR_SIZE] = {};
  if (ifa->ifa_family == AF_INET6) {
    unsigned char addr[16];
    memcpy(addr, payload, sizeof(addr));
    if (isIgnoredV6(addr)) return;
    inet_ntop(AF_INET6, addr, textV6, sizeof(textV6));
  } else {
    unsigned char addr[4];
    memcpy(addr, payload, sizeof(addr));
    inet_ntop(AF_INET, addr, textV4, sizeof(textV4));
  }

  const std::string key = NoxDsmText::ifaceKey(ifName);
  const auto it = wwanIfaceMap.find(key);
  if (it != wwanIfaceMap.end()) {
    NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_DSM, "handleNlNewAddr updating the map");
    _NoxDsmWwanInfoType& entry = it->second;
    entry.state = NOX_NW_STATE_CONNECTED;
    bool replaced =
        replaceAddress(entry.ipAddrV6, entry.ifaceV6, textV6, ifName, NOX_IFACE_NAME_SIZE);
    replaced |= replaceAddress(entry.ipAddr, entry.iface, textV4, ifName, NOX_IFACE_NAME_SIZE);
    if (replaced) dispatchWwanEvent(ifName);
    return;
  }
  _NoxDsmWwanInfoType entry;
  entry.state = NOX_NW_STATE_CONNECTED;
  copy(entry.iface, ifName, NOX_IFACE_NAME_SIZE, NOX_IFACE_NAME_SIZE);
  copy(entry.ifaceV6, ifName, NOX_IFACE_NAME_SIZE, NOX_IFACE_NAME_SIZE);
  copy(entry.ipAddr, textV4, NOX_IP_ADDR_SIZE);
  copy(entry.ipAddrV6, textV6, NOX_IP_ADDR_SIZE);
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_DSM, "handleNlNewAddr insert to map: %s", ifName);
  wwanIfaceMap.emplace(key, std::move(entry));
  dispatchWwanEvent(ifName);
}
