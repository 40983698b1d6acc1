#include "bridge.h"

#include <sys/epoll.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "daemon_log.h"
#include "script.h"
#include "sim_frames.h"
#include "sim_switch.h"
#include "zek.h"

namespace vigild {

namespace {

constexpr double kWarningInterval = 10.0; /* seconds between like warnings */

uint64_t MacKey(uint16_t vlan, const uint8_t *mac) {
   uint64_t key = static_cast<uint64_t>(vlan & 0xfff) << 48;
   for (int i = 0; i < 6; i++) key |= static_cast<uint64_t>(mac[i]) << (8 * (5 - i));
   return key;
}

bool IsGroup(const uint8_t *mac) { return (mac[0] & 1) != 0; }

} // namespace

double SteadySeconds() {
   return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
       .count();
}

Bridge::Bridge(int epollFd, const BridgeOptions &options)
    : epollFd_(epollFd), options_(options) {}

Bridge::~Bridge() { DetachAll(); }

bool Bridge::Attach(uint32_t port, const std::string &portset, const std::string &ifname,
                    int accessVlan, std::string *error) {
   if (ports_.count(port) != 0) {
      *error = "port " + vigilsim::HexNumber(port) + " is attached to " + ports_[port]->ifname;
      return false;
   }
   for (const auto &entry : ports_) {
      if (entry.second->ifname == ifname) {
         *error = "interface " + ifname + " is attached to port " +
                  vigilsim::HexNumber(entry.first);
         return false;
      }
   }
   auto att = std::make_unique<Attachment>();
   att->port = port;
   att->portset = portset;
   att->ifname = ifname;
   att->accessVlan = accessVlan;
   att->downSince = SteadySeconds();
   Attachment &ref = *att;
   ports_[port] = std::move(att);
   if (!TryUp(ref)) {
      Log(Level::Warn, "port %#x: interface %s is not there or not up (%s); the port waits for it",
          port, ifname.c_str(), ref.downReason.c_str());
   }
   return true;
}

bool Bridge::Detach(uint32_t port) {
   auto it = ports_.find(port);
   if (it == ports_.end()) return false;
   Attachment &att = *it->second;
   if (att.socket.IsOpen()) {
      epoll_ctl(epollFd_, EPOLL_CTL_DEL, att.socket.Fd(), nullptr);
      CollectSocketStats(att);
   }
   att.socket.Close();
   Forget(port);
   Log(Level::Info, "port %#x: detached from %s (rx %llu frames, tx %llu frames)", port,
       att.ifname.c_str(), static_cast<unsigned long long>(att.counters.rxFrames),
       static_cast<unsigned long long>(att.counters.txFrames));
   ports_.erase(it);
   return true;
}

void Bridge::DetachAll() {
   while (!ports_.empty()) Detach(ports_.begin()->first);
}

const Attachment *Bridge::Find(uint32_t port) const {
   auto it = ports_.find(port);
   return it == ports_.end() ? nullptr : it->second.get();
}

std::vector<uint32_t> Bridge::AttachedPorts() const {
   std::vector<uint32_t> ids;
   for (const auto &entry : ports_) ids.push_back(entry.first);
   return ids;
}

bool Bridge::TryUp(Attachment &att) {
   bool adminUp = false;
   if (InterfaceIndex(att.ifname, &adminUp) == 0) {
      att.downReason = "no interface " + att.ifname;
      return false;
   }
   if (!adminUp) {
      att.downReason = "interface " + att.ifname + " is down";
      return false;
   }
   std::string error;
   if (!att.socket.Open(att.ifname, &error)) {
      att.downReason = error;
      return false;
   }
   struct epoll_event ev;
   std::memset(&ev, 0, sizeof ev);
   ev.events = EPOLLIN;
   ev.data.u64 = Tag(att.port);
   if (epoll_ctl(epollFd_, EPOLL_CTL_ADD, att.socket.Fd(), &ev) != 0) {
      att.downReason = std::string("epoll: ") + std::strerror(errno);
      att.socket.Close();
      return false;
   }
   att.up = true;
   att.downReason.clear();
   Log(Level::Info, "port %#x: up on %s (ifindex %d%s)", att.port, att.ifname.c_str(),
       att.socket.IfIndex(),
       att.accessVlan >= 0 ? (", access VLAN " + std::to_string(att.accessVlan)).c_str()
                           : ", trunk");
   return true;
}

void Bridge::MarkDown(Attachment &att, const std::string &reason) {
   if (att.socket.IsOpen()) {
      epoll_ctl(epollFd_, EPOLL_CTL_DEL, att.socket.Fd(), nullptr);
      CollectSocketStats(att);
   }
   att.socket.Close();
   if (att.up) att.counters.linkDowns++;
   att.up = false;
   att.downReason = reason;
   att.downSince = SteadySeconds();
   Forget(att.port);
   Log(Level::Warn, "port %#x: down: %s; waiting for %s to come back", att.port, reason.c_str(),
       att.ifname.c_str());
}

void Bridge::Forget(uint32_t port) {
   for (auto &entry : fdbs_) {
      Fdb &fdb = entry.second;
      for (auto it = fdb.begin(); it != fdb.end();) {
         it = it->second.port == port ? fdb.erase(it) : std::next(it);
      }
   }
}

SocketCounts Bridge::CollectSocketStats(Attachment &att) {
   SocketCounts counts;
   if (!att.socket.TakeStatistics(&counts.arrived, &counts.dropped)) return counts;
   att.counters.rxSocketDrops += counts.dropped;
   if (counts.dropped != 0) {
      Warn(att, std::to_string(counts.dropped) +
                    " frames lost: the socket's receive buffer was full");
   }
   return counts;
}

std::map<uint32_t, SocketCounts> Bridge::CollectSocketStats() {
   std::map<uint32_t, SocketCounts> out;
   for (auto &entry : ports_) {
      Attachment &att = *entry.second;
      if (att.up && att.socket.IsOpen()) out[att.port] = CollectSocketStats(att);
   }
   return out;
}

void Bridge::Warn(Attachment &att, const std::string &text) {
   double now = SteadySeconds();
   if (now - att.lastWarning < kWarningInterval) return;
   att.lastWarning = now;
   Log(Level::Warn, "port %#x (%s): %s", att.port, att.ifname.c_str(), text.c_str());
}

void Bridge::Tick() {
   double now = SteadySeconds();
   for (auto &entry : ports_) {
      Attachment &att = *entry.second;
      if (!att.up) {
         if (TryUp(att)) {
            Log(Level::Info, "port %#x: %s is back after %.1f s", att.port, att.ifname.c_str(),
                now - att.downSince);
         }
         continue;
      }
      bool adminUp = false;
      int index = InterfaceIndex(att.ifname, &adminUp);
      if (index == 0) {
         MarkDown(att, "interface " + att.ifname + " went away");
      } else if (index != att.socket.IfIndex()) {
         MarkDown(att, "interface " + att.ifname + " was replaced");
      } else if (!adminUp) {
         MarkDown(att, "interface " + att.ifname + " went down");
      }
   }
   for (auto &entry : fdbs_) {
      Fdb &fdb = entry.second;
      for (auto it = fdb.begin(); it != fdb.end();) {
         it = now - it->second.lastSeen > options_.ageingSeconds ? fdb.erase(it) : std::next(it);
      }
   }
   CollectSocketStats();
}

bool Bridge::Service(uint32_t port, uint32_t events) {
   auto it = ports_.find(port);
   if (it == ports_.end() || !it->second->up) return false;
   Attachment &att = *it->second;
   if ((events & (EPOLLERR | EPOLLHUP)) != 0) {
      int err = att.socket.TakeError();
      if (err != 0 || (events & EPOLLHUP) != 0) {
         MarkDown(att, err != 0 ? std::strerror(err) : "hang-up");
         return false;
      }
   }
   for (size_t batch = 0; batch < options_.budget; batch++) {
      int n = att.socket.Receive(rxScratch_);
      if (n < 0) {
         int err = errno;
         if (err == ENETDOWN || err == ENXIO || err == ENODEV || err == EBADF) {
            MarkDown(att, std::strerror(err));
         } else {
            Warn(att, std::string("receive: ") + std::strerror(err));
         }
         return false;
      }
      if (n == 0) return false;
      ProcessBatch(att, rxScratch_);
      /* The batch may have taken this very port down (a send error). */
      if (ports_.count(port) == 0 || !att.up) return false;
      if (static_cast<size_t>(n) < PacketSocket::kBatch) return false;
   }
   return true;
}

bool Bridge::Carries(const Attachment &port, uint16_t vlan) const {
   return port.accessVlan < 0 || port.accessVlan == vlan;
}

void Bridge::Learn(const Attachment &in, uint16_t vlan, const uint8_t *mac, double now) {
   if (IsGroup(mac)) return;
   static const uint8_t kZero[6] = {0, 0, 0, 0, 0, 0};
   if (std::memcmp(mac, kZero, 6) == 0) return;
   Fdb &fdb = fdbs_[in.portset];
   uint64_t key = MacKey(vlan, mac);
   auto it = fdb.find(key);
   if (it != fdb.end()) {
      if (it->second.port != in.port) {
         Log(Level::Debug, "%s: %s on VLAN %u moved from port %#x to %#x", in.portset.c_str(),
             vigilsim::MacText(mac).c_str(), vlan, it->second.port, in.port);
      }
      it->second = FdbEntry{in.port, now};
      return;
   }
   if (fdb.size() >= options_.fdbLimit) {
      fdbFull_++;
      return;
   }
   fdb.emplace(key, FdbEntry{in.port, now});
}

void Bridge::Destinations(const Attachment &in, uint16_t vlan, const uint8_t *dst, double now,
                          std::vector<Attachment *> *out) {
   out->clear();
   if (!IsGroup(dst)) {
      auto fit = fdbs_.find(in.portset);
      if (fit != fdbs_.end()) {
         auto it = fit->second.find(MacKey(vlan, dst));
         if (it != fit->second.end() && now - it->second.lastSeen <= options_.ageingSeconds) {
            if (it->second.port == in.port) return; /* stays behind its own port */
            auto pit = ports_.find(it->second.port);
            if (pit != ports_.end() && pit->second->up && Carries(*pit->second, vlan)) {
               out->push_back(pit->second.get());
               return;
            }
         }
      }
   }
   for (auto &entry : ports_) {
      Attachment &att = *entry.second;
      if (att.port == in.port || !att.up || att.portset != in.portset) continue;
      if (!Carries(att, vlan)) continue;
      out->push_back(&att);
   }
}

void Bridge::ProcessBatch(Attachment &in, std::vector<RxFrame> &frames) {
   double now = SteadySeconds();
   zek_PktList *list = sim::MakeList();
   size_t accepted = 0;
   for (RxFrame &frame : frames) {
      in.counters.rxFrames++;
      in.counters.rxBytes += frame.bytes.size();
      if (frame.truncated) {
         in.counters.rxOversize++;
         Warn(in, "frame longer than " + std::to_string(PacketSocket::kSlotBytes) +
                      " bytes dropped (segmentation offload on the sender?)");
         continue;
      }
      if (frame.bytes.size() < 14) continue;
      uint16_t vlan = frame.tagged ? frame.vlan : 0;
      if (in.accessVlan >= 0) {
         if (frame.tagged && frame.vlan != 0) {
            in.counters.rxVlanDropped++;
            continue;
         }
         vlan = static_cast<uint16_t>(in.accessVlan);
      }
      sim::FrameOptions opts;
      opts.vlan = vlan;
      sim::ListAppend(list, sim::MakeFrame(frame.bytes, opts));
      accepted++;
   }
   if (accepted == 0) {
      sim::DestroyList(list);
      return;
   }
   uint32_t status = sim::SendFromVM(in.port, list);
   std::vector<zek_Pkt *> left = sim::ListFrames(list);
   if (status != 0) {
      Warn(in, "input chains answered " + vigilsim::HexNumber(status) + "; the batch is dropped");
      left.clear();
   }
   in.counters.rxDropped += accepted - left.size();

   /* Frames per destination port, in order. */
   std::map<uint32_t, std::vector<Outgoing>> byPort;
   std::vector<Attachment *> dests;
   for (zek_Pkt *pkt : left) {
      std::vector<uint8_t> bytes = sim::FrameBytes(pkt);
      uint16_t vlan = static_cast<uint16_t>(zek_PktVlanIDGet(pkt) & 0xfff);
      if (bytes.size() < 14) continue;
      Learn(in, vlan, &bytes[6], now);
      Destinations(in, vlan, &bytes[0], now, &dests);
      if (dests.empty()) {
         in.counters.rxLocal++;
         continue;
      }
      if (dests.size() > 1 || IsGroup(&bytes[0])) in.counters.rxFlooded++;
      for (size_t i = 0; i < dests.size(); i++) {
         std::vector<Outgoing> &queue = byPort[dests[i]->port];
         if (i + 1 == dests.size()) {
            queue.push_back(Outgoing{std::move(bytes), vlan});
         } else {
            queue.push_back(Outgoing{bytes, vlan});
         }
      }
   }
   sim::DestroyList(list);
   for (auto &entry : byPort) {
      auto it = ports_.find(entry.first);
      if (it != ports_.end() && it->second->up) Deliver(*it->second, entry.second);
   }
}

void Bridge::Deliver(Attachment &out, std::vector<Outgoing> &frames) {
   zek_PktList *list = sim::MakeList();
   for (Outgoing &frame : frames) {
      sim::FrameOptions opts;
      opts.vlan = frame.vlan;
      sim::ListAppend(list, sim::MakeFrame(frame.bytes, opts));
   }
   uint32_t status = sim::DeliverToVM(out.port, list);
   std::vector<zek_Pkt *> left = sim::ListFrames(list);
   if (status != 0) {
      Warn(out, "output chains answered " + vigilsim::HexNumber(status) + "; the batch is dropped");
      left.clear();
   }
   out.counters.txDropped += frames.size() - left.size();
   std::vector<std::vector<uint8_t>> wire;
   wire.reserve(left.size());
   for (zek_Pkt *pkt : left) {
      std::vector<uint8_t> bytes = sim::FrameBytes(pkt);
      uint16_t vlan = static_cast<uint16_t>(zek_PktVlanIDGet(pkt) & 0xfff);
      if (out.accessVlan < 0 && vlan != 0) InsertTag(bytes, vlan);
      wire.push_back(std::move(bytes));
   }
   sim::DestroyList(list);
   if (wire.empty()) return;
   int error = 0;
   size_t sent = out.socket.Send(wire, 0, wire.size(), &error);
   for (size_t i = 0; i < sent && i < wire.size(); i++) out.counters.txBytes += wire[i].size();
   out.counters.txFrames += sent;
   out.counters.txErrors += wire.size() - sent;
   if (error == ENETDOWN || error == ENXIO || error == ENODEV) {
      MarkDown(out, std::string("send: ") + std::strerror(error));
   } else if (error != 0) {
      Warn(out, std::string("send: ") + std::strerror(error));
   }
}

Json Bridge::Describe() const {
   Json list = Json::array();
   double now = SteadySeconds();
   for (const auto &entry : ports_) {
      const Attachment &att = *entry.second;
      const PortCounters &c = att.counters;
      Json j;
      j["portID"] = att.port;
      j["portset"] = att.portset;
      j["ifname"] = att.ifname;
      j["ifindex"] = att.socket.IfIndex();
      j["up"] = att.up;
      if (!att.up) {
         j["downReason"] = att.downReason;
         j["downFor"] = now - att.downSince;
      }
      j["vlan"] = att.accessVlan < 0 ? Json(nullptr) : Json(att.accessVlan);
      j["rxFrames"] = c.rxFrames;
      j["rxBytes"] = c.rxBytes;
      j["rxDropped"] = c.rxDropped;
      j["rxOversize"] = c.rxOversize;
      j["rxVlanDropped"] = c.rxVlanDropped;
      j["rxLocal"] = c.rxLocal;
      j["rxFlooded"] = c.rxFlooded;
      j["txFrames"] = c.txFrames;
      j["txBytes"] = c.txBytes;
      j["txDropped"] = c.txDropped;
      j["txErrors"] = c.txErrors;
      j["linkDowns"] = c.linkDowns;
      j["rxSocketDrops"] = c.rxSocketDrops;
      list.push_back(j);
   }
   return list;
}

Json Bridge::FdbJson() const {
   Json list = Json::array();
   double now = SteadySeconds();
   for (const auto &entry : fdbs_) {
      for (const auto &mac : entry.second) {
         uint8_t bytes[6];
         for (int i = 0; i < 6; i++) bytes[i] = static_cast<uint8_t>(mac.first >> (8 * (5 - i)));
         Json j;
         j["portset"] = entry.first;
         j["vlan"] = static_cast<uint16_t>(mac.first >> 48);
         j["mac"] = vigilsim::MacText(bytes);
         j["portID"] = mac.second.port;
         j["age"] = now - mac.second.lastSeen;
         list.push_back(j);
      }
   }
   return list;
}

} // namespace vigild
