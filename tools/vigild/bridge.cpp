#include "bridge.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "daemon_log.h"
#include "host_frames.h"
#include "script.h"
#include "sim_frames.h"
#include "sim_switch.h"
#include "zek.h"

namespace vigild {

namespace {

constexpr double kWarningInterval = 10.0; /* seconds between like warnings */
constexpr uint64_t kWakeTag = 1ull << 40;   /* a switching thread's wake-up */

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

struct Fdb {
   struct Entry {
      uint32_t port;
      double lastSeen;
   };
   std::mutex mutex; /* the switching threads learn and look up under it */
   std::unordered_map<uint64_t, Entry> map; /* vlan << 48 | mac */
};

namespace {

/* Switching holds of this thread: the gate is taken by the first and let go
 * by the last. */
thread_local int tHolds = 0;

uint64_t Load(const Counter &c) { return c.load(std::memory_order_relaxed); }
void Add(Counter &c, uint64_t n) {
   if (n != 0) c.fetch_add(n, std::memory_order_relaxed);
}

/* Frames the switch itself dropped on the way in or out of a port: neither
 * the kernel nor the module's chains. */
uint64_t SwitchDrops(const PortCounters &c) {
   return Load(c.rxOversize) + Load(c.rxShort) + Load(c.rxVlanDropped) + Load(c.txErrors) +
          Load(c.txRingFull) + Load(c.txPortDown) + Load(c.txNoFrame);
}

} // namespace

Bridge::Bridge(const BridgeOptions &options) : options_(options) {
   /* Writers first: a command waiting to hold switching is not starved by
    * threads that take the gate again batch after batch. */
   pthread_rwlockattr_t attr;
   pthread_rwlockattr_init(&attr);
   pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
   pthread_rwlock_init(&gate_, &attr);
   pthread_rwlockattr_destroy(&attr);
   size_t threads = std::max<size_t>(options_.threads, 1);
   for (size_t i = 0; i < threads; i++) {
      auto w = std::make_unique<Worker>();
      w->index = i;
      w->epollFd = epoll_create1(EPOLL_CLOEXEC);
      w->wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
      struct epoll_event ev;
      std::memset(&ev, 0, sizeof ev);
      ev.events = EPOLLIN;
      ev.data.u64 = kWakeTag;
      epoll_ctl(w->epollFd, EPOLL_CTL_ADD, w->wakeFd, &ev);
      workers_.push_back(std::move(w));
   }
   for (auto &w : workers_) {
      Worker *worker = w.get();
      worker->thread = std::thread([this, worker] { Run(*worker); });
   }
}

Bridge::~Bridge() {
   stopping_ = true;
   for (auto &w : workers_) {
      uint64_t one = 1;
      if (write(w->wakeFd, &one, sizeof one) < 0) {
         /* The thread still sees `stopping_` at its next wake-up. */
      }
   }
   for (auto &w : workers_) {
      if (w->thread.joinable()) w->thread.join();
   }
   DetachAll();
   for (auto &w : workers_) {
      close(w->epollFd);
      close(w->wakeFd);
   }
   pthread_rwlock_destroy(&gate_);
}

void Bridge::Hold() {
   if (tHolds++ == 0) pthread_rwlock_wrlock(&gate_);
}

void Bridge::Resume() {
   if (tHolds == 1) RefreshChains();
   if (--tHolds == 0) pthread_rwlock_unlock(&gate_);
}

void Bridge::RefreshChains() {
   for (auto &entry : ports_) {
      Attachment &att = *entry.second;
      HostPortChains(att.port, &att.inputChains, &att.outputChains);
   }
}

bool Bridge::Attach(uint32_t port, const std::string &portset, const std::string &ifname,
                    int accessVlan, std::string *error) {
   SwitchingHold hold(*this);
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
   /* The thread with the fewest ports receives its frames. */
   size_t best = 0;
   for (size_t i = 1; i < workers_.size(); i++) {
      if (workers_[i]->ports < workers_[best]->ports) best = i;
   }
   att->worker = best;
   workers_[best]->ports++;
   std::unique_ptr<Fdb> &fdb = fdbs_[portset];
   if (!fdb) fdb = std::make_unique<Fdb>();
   att->fdb = fdb.get();
   Attachment &ref = *att;
   ports_[port] = std::move(att);
   if (!TryUp(ref)) {
      Log(Level::Warn, "port %#x: interface %s is not there or not up (%s); the port waits for it",
          port, ifname.c_str(), ref.downReason.c_str());
   }
   return true;
}

bool Bridge::Detach(uint32_t port) {
   SwitchingHold hold(*this);
   auto it = ports_.find(port);
   if (it == ports_.end()) return false;
   Attachment &att = *it->second;
   if (att.socket.IsOpen()) {
      epoll_ctl(workers_[att.worker]->epollFd, EPOLL_CTL_DEL, att.socket.Fd(), nullptr);
      CollectSocketStats(att);
      DiscardWaiting(att);
   }
   att.socket.Close();
   Forget(port);
   workers_[att.worker]->ports--;
   Log(Level::Info, "port %#x: detached from %s (rx %llu frames, tx %llu frames)", port,
       att.ifname.c_str(), static_cast<unsigned long long>(Load(att.counters.rxFrames)),
       static_cast<unsigned long long>(Load(att.counters.txFrames)));
   ports_.erase(it);
   return true;
}

void Bridge::DetachAll() {
   SwitchingHold hold(*this);
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
   att.socket.UseTxRing(options_.txRing);
   if (!att.socket.Open(att.ifname, &error)) {
      att.downReason = error;
      return false;
   }
   struct epoll_event ev;
   std::memset(&ev, 0, sizeof ev);
   ev.events = EPOLLIN;
   ev.data.u64 = att.port;
   if (epoll_ctl(workers_[att.worker]->epollFd, EPOLL_CTL_ADD, att.socket.Fd(), &ev) != 0) {
      att.downReason = std::string("epoll: ") + std::strerror(errno);
      att.socket.Close();
      return false;
   }
   att.up = true;
   att.failed = false;
   att.downReason.clear();
   HostPortChains(att.port, &att.inputChains, &att.outputChains);
   Log(Level::Info, "port %#x: up on %s (ifindex %d%s)", att.port, att.ifname.c_str(),
       att.socket.IfIndex(),
       att.accessVlan >= 0 ? (", access VLAN " + std::to_string(att.accessVlan)).c_str()
                           : ", trunk");
   if (!att.socket.TxRingProblem().empty()) {
      Log(Level::Warn, "port %#x: no send ring on %s (%s); frames go out by sendmmsg", att.port,
          att.ifname.c_str(), att.socket.TxRingProblem().c_str());
   }
   return true;
}

void Bridge::MarkDown(Attachment &att, const std::string &reason) {
   if (att.socket.IsOpen()) {
      epoll_ctl(workers_[att.worker]->epollFd, EPOLL_CTL_DEL, att.socket.Fd(), nullptr);
      CollectSocketStats(att);
      DiscardWaiting(att);
   }
   att.socket.Close();
   if (att.up) att.counters.linkDowns++;
   att.up = false;
   att.failed = false;
   att.downReason = reason;
   att.downSince = SteadySeconds();
   Forget(att.port);
   Log(Level::Warn, "port %#x: down: %s; waiting for %s to come back", att.port, reason.c_str(),
       att.ifname.c_str());
}

void Bridge::Fail(Attachment &att, const std::string &reason) {
   if (att.failed.exchange(true)) return;
   /* Its socket would be reported again and again until then. */
   epoll_ctl(workers_[att.worker]->epollFd, EPOLL_CTL_DEL, att.socket.Fd(), nullptr);
   std::lock_guard<std::mutex> guard(failMutex_);
   failures_.emplace_back(att.port, reason);
}

void Bridge::Forget(uint32_t port) {
   for (auto &entry : fdbs_) {
      Fdb &fdb = *entry.second;
      std::lock_guard<std::mutex> guard(fdb.mutex);
      for (auto it = fdb.map.begin(); it != fdb.map.end();) {
         it = it->second.port == port ? fdb.map.erase(it) : std::next(it);
      }
   }
}

SocketCounts Bridge::CollectSocketStats(Attachment &att) {
   SocketCounts counts;
   if (!att.socket.TakeStatistics(&counts.arrived, &counts.dropped)) return counts;
   Add(att.counters.rxSocketDrops, counts.dropped);
   if (counts.dropped != 0) {
      Warn(att, std::to_string(counts.dropped) +
                    " frames lost: the socket's receive ring was full");
   }
   return counts;
}

std::map<uint32_t, SocketCounts> Bridge::CollectSocketStats() {
   SwitchingHold hold(*this);
   std::map<uint32_t, SocketCounts> out;
   for (auto &entry : ports_) {
      Attachment &att = *entry.second;
      if (att.up && att.socket.IsOpen()) out[att.port] = CollectSocketStats(att);
   }
   return out;
}

void Bridge::Warn(Attachment &att, const std::string &text) {
   std::lock_guard<std::mutex> guard(warnMutex_);
   double now = SteadySeconds();
   if (now - att.lastWarning < kWarningInterval) return;
   att.lastWarning = now;
   Log(Level::Warn, "port %#x (%s): %s", att.port, att.ifname.c_str(), text.c_str());
}

void Bridge::Tick() {
   SwitchingHold hold(*this);
   double now = SteadySeconds();
   std::vector<std::pair<uint32_t, std::string>> failures;
   {
      std::lock_guard<std::mutex> guard(failMutex_);
      failures.swap(failures_);
   }
   for (const auto &failure : failures) {
      auto it = ports_.find(failure.first);
      if (it != ports_.end() && it->second->up && it->second->failed) {
         MarkDown(*it->second, failure.second);
      }
   }
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
      Fdb &fdb = *entry.second;
      std::lock_guard<std::mutex> guard(fdb.mutex);
      for (auto it = fdb.map.begin(); it != fdb.map.end();) {
         it = now - it->second.lastSeen > options_.ageingSeconds ? fdb.map.erase(it)
                                                                 : std::next(it);
      }
   }
   CollectSocketStats();
}

void Bridge::Run(Worker &w) {
   struct epoll_event events[64];
   while (!stopping_) {
      /* Frames left in a send ring (its socket's send buffer was full) go
       * again within a millisecond, whether or not more frames come. */
      int n = epoll_wait(w.epollFd, events, 64, w.flush.empty() ? 1000 : 1);
      if (n <= 0 && w.flush.empty()) continue;
      /* Every ready port gets one budget of batches per turn, in the order
       * the kernel reports them: a port that still has frames is reported
       * again behind the others. */
      pthread_rwlock_rdlock(&gate_);
      if (!w.flush.empty()) FlushWaiting(w);
      for (int i = 0; i < n && !stopping_; i++) {
         if (events[i].data.u64 == kWakeTag) continue;
         Service(w, static_cast<uint32_t>(events[i].data.u64), events[i].events);
      }
      pthread_rwlock_unlock(&gate_);
   }
}

void Bridge::Service(Worker &w, uint32_t port, uint32_t events) {
   auto it = ports_.find(port);
   if (it == ports_.end()) return;
   Attachment &att = *it->second;
   /* A stale event of a socket since closed, or moved to another thread. */
   if (!att.up || att.failed || att.worker != w.index) return;
   if ((events & (EPOLLERR | EPOLLHUP)) != 0) {
      int err = att.socket.TakeError();
      if (err != 0 || (events & EPOLLHUP) != 0) {
         Fail(att, err != 0 ? std::strerror(err) : "hang-up");
         return;
      }
   }
   std::lock_guard<std::mutex> guard(att.rxMutex);
   if (Drain(w, att, options_.budget)) Help(w);
}

bool Bridge::Drain(Worker &w, Attachment &att, size_t budget) {
   w.sentTo.clear();
   for (size_t batch = 0; batch < budget; batch++) {
      size_t count = 0;
      int slots = att.socket.Receive(w.rx, PacketSocket::kBatch, &count);
      if (slots < 0) {
         Fail(att, std::strerror(errno));
         return false;
      }
      if (slots == 0) return true;
      ProcessBatch(w, att, count);
      /* The frames were sent from the ring: only now do the slots go back. */
      att.socket.Release();
      if (att.failed) return false;
      if (static_cast<size_t>(slots) < PacketSocket::kBatch) return true;
   }
   /* A full budget: frames keep coming, and the other threads are awake. */
   w.sentTo.clear();
   return true;
}

void Bridge::Help(Worker &w) {
   w.helping.swap(w.sentTo);
   for (Attachment *port : w.helping) {
      if (port->worker == w.index || !Usable(*port)) continue;
      std::unique_lock<std::mutex> lock(port->rxMutex, std::try_to_lock);
      if (!lock.owns_lock()) continue; /* its thread is at it */
      uint64_t before = Load(port->counters.rxFrames);
      Drain(w, *port, 1);
      Add(port->counters.rxHelped, Load(port->counters.rxFrames) - before);
   }
   w.helping.clear();
   w.sentTo.clear();
}

bool Bridge::Carries(const Attachment &port, uint16_t vlan) const {
   return port.accessVlan < 0 || port.accessVlan == vlan;
}

bool Bridge::Usable(const Attachment &port) const {
   return port.up && !port.failed.load(std::memory_order_relaxed);
}

void Bridge::Learn(const Attachment &in, uint16_t vlan, const uint8_t *mac, double now) {
   if (IsGroup(mac)) return;
   static const uint8_t kZero[6] = {0, 0, 0, 0, 0, 0};
   if (std::memcmp(mac, kZero, 6) == 0) return;
   auto &map = in.fdb->map;
   uint64_t key = MacKey(vlan, mac);
   auto it = map.find(key);
   if (it != map.end()) {
      if (it->second.port != in.port) {
         Log(Level::Debug, "%s: %s on VLAN %u moved from port %#x to %#x", in.portset.c_str(),
             vigilsim::MacText(mac).c_str(), vlan, it->second.port, in.port);
      }
      it->second = Fdb::Entry{in.port, now};
      return;
   }
   if (map.size() >= options_.fdbLimit) {
      fdbFull_.fetch_add(1, std::memory_order_relaxed);
      return;
   }
   map.emplace(key, Fdb::Entry{in.port, now});
}

void Bridge::Destinations(const Attachment &in, uint16_t vlan, const uint8_t *dst, double now,
                          std::vector<Attachment *> *out) {
   out->clear();
   if (!IsGroup(dst)) {
      auto &map = in.fdb->map;
      auto it = map.find(MacKey(vlan, dst));
      if (it != map.end() && now - it->second.lastSeen <= options_.ageingSeconds) {
         if (it->second.port == in.port) return; /* stays behind its own port */
         auto pit = ports_.find(it->second.port);
         if (pit != ports_.end() && Usable(*pit->second) && Carries(*pit->second, vlan)) {
            out->push_back(pit->second.get());
            return;
         }
      }
   }
   for (auto &entry : ports_) {
      Attachment &att = *entry.second;
      if (att.port == in.port || !Usable(att) || att.portset != in.portset) continue;
      if (!Carries(att, vlan)) continue;
      out->push_back(&att);
   }
}

std::vector<Bridge::Item> &Bridge::QueueFor(Worker &w, Attachment *port) {
   for (size_t i = 0; i < w.queuesUsed; i++) {
      if (w.queues[i].port == port) return w.queues[i].items;
   }
   if (w.queuesUsed == w.queues.size()) w.queues.emplace_back();
   Queue &q = w.queues[w.queuesUsed++];
   q.port = port;
   q.items.clear();
   return q.items;
}

void Bridge::ProcessBatch(Worker &w, Attachment &in, size_t count) {
   double now = SteadySeconds();
   PortCounters &c = in.counters;
   uint64_t bytes = 0, oversize = 0, runts = 0, vlanDropped = 0;
   w.items.clear();
   for (size_t i = 0; i < count; i++) {
      const RxFrame &frame = w.rx[i];
      bytes += frame.len;
      if (frame.truncated) {
         oversize++;
         Warn(in, "frame longer than " + std::to_string(in.socket.SlotCapacity()) +
                      " bytes dropped (segmentation offload on the sender?)");
         continue;
      }
      if (frame.len < 14) {
         runts++;
         continue;
      }
      uint16_t vlan = frame.tagged ? frame.vlan : 0;
      if (in.accessVlan >= 0) {
         if (frame.tagged && frame.vlan != 0) {
            vlanDropped++;
            continue;
         }
         vlan = static_cast<uint16_t>(in.accessVlan);
      }
      w.items.push_back(Item{&frame, nullptr, vlan});
   }
   Add(c.rxFrames, count);
   Add(c.rxBytes, bytes);
   Add(c.rxOversize, oversize);
   Add(c.rxVlanDropped, vlanDropped);
   if (w.items.empty()) {
      Add(c.rxShort, runts);
      return;
   }

   if (in.inputChains) {
      /* Through the port's input chains as host frames; what they let
       * through goes on as host frames. */
      size_t accepted = w.items.size();
      zek_PktList *list = sim::MakeList();
      for (const Item &item : w.items) {
         sim::ListAppend(list, HostFrame(item.raw->data, item.raw->len, item.vlan));
      }
      uint32_t status = sim::SendFromVM(in.port, list);
      w.items.clear();
      if (status != 0) {
         Warn(in, "input chains answered " + vigilsim::HexNumber(status) +
                      "; the batch is dropped");
      } else {
         w.pkts.clear();
         TakeFrames(list, w.pkts);
         for (zek_Pkt *pkt : w.pkts) {
            w.items.push_back(
                Item{nullptr, pkt, static_cast<uint16_t>(zek_PktVlanIDGet(pkt) & 0xfff)});
         }
      }
      sim::DestroyList(list);
      Add(c.rxDropped, accepted - w.items.size());
   }

   /* Frames per destination port, in order. */
   uint64_t local = 0, flooded = 0;
   w.queuesUsed = 0;
   {
      std::lock_guard<std::mutex> guard(in.fdb->mutex);
      for (Item &item : w.items) {
         uint8_t head[12];
         const uint8_t *mac = head;
         if (item.raw != nullptr) {
            mac = item.raw->data;
         } else if (zek_PktFrameLenGet(item.pkt) < 14 ||
                    zek_PktCopyBytesOut(head, sizeof head, 0, item.pkt) != ZEK_OK) {
            zek_PktRelease(item.pkt);
            runts++;
            continue;
         }
         Learn(in, item.vlan, mac + 6, now);
         Destinations(in, item.vlan, mac, now, &w.dests);
         if (w.dests.empty()) {
            local++;
            if (item.pkt != nullptr) zek_PktRelease(item.pkt);
            continue;
         }
         if (w.dests.size() > 1 || IsGroup(mac)) flooded++;
         for (size_t i = 0; i < w.dests.size(); i++) {
            Item copy = item;
            if (item.pkt != nullptr && i + 1 < w.dests.size()) {
               /* Each destination's output chains get a frame of their own. */
               if (zek_PktCopy(item.pkt, &copy.pkt) != ZEK_OK) {
                  Add(w.dests[i]->counters.txNoFrame, 1);
                  continue;
               }
            }
            QueueFor(w, w.dests[i]).push_back(copy);
         }
      }
   }
   Add(c.rxShort, runts);
   Add(c.rxLocal, local);
   Add(c.rxFlooded, flooded);
   w.sentTo.clear();
   for (size_t i = 0; i < w.queuesUsed; i++) {
      Deliver(w, *w.queues[i].port, w.queues[i].items);
      w.sentTo.push_back(w.queues[i].port);
   }
}

void Bridge::Deliver(Worker &w, Attachment &out, std::vector<Item> &items) {
   PortCounters &c = out.counters;
   if (!Usable(out)) {
      for (Item &item : items) {
         if (item.pkt != nullptr) zek_PktRelease(item.pkt);
      }
      Add(c.txPortDown, items.size());
      return;
   }
   zek_PktList *list = nullptr;
   if (out.outputChains) {
      /* Through the port's output chains as host frames. */
      list = sim::MakeList();
      for (Item &item : items) {
         zek_Pkt *pkt = item.pkt != nullptr
                            ? item.pkt
                            : HostFrame(item.raw->data, item.raw->len, item.vlan);
         sim::ListAppend(list, pkt);
      }
      size_t given = items.size();
      uint32_t status = sim::DeliverToVM(out.port, list);
      items.clear();
      if (status != 0) {
         Warn(out, "output chains answered " + vigilsim::HexNumber(status) +
                       "; the batch is dropped");
      } else {
         w.pkts.clear();
         TakeFrames(list, w.pkts);
         for (zek_Pkt *pkt : w.pkts) {
            items.push_back(
                Item{nullptr, pkt, static_cast<uint16_t>(zek_PktVlanIDGet(pkt) & 0xfff)});
         }
      }
      Add(c.txDropped, given - items.size());
   }
   /* Frames go out from where they are: a host frame's own bytes, or the
    * receive ring.  Only a host frame in several pieces is read out into
    * this thread's buffer first. */
   w.tx.clear();
   w.sending.clear();
   size_t pieced = 0;
   for (Item &item : items) {
      TxFrame f;
      if (item.pkt != nullptr) {
         uint32_t len = 0;
         f.data = sim::FrameData(item.pkt, &len);
         f.len = len;
         if (f.data == nullptr) pieced += len;
         w.sending.push_back(item.pkt);
      } else {
         f.data = item.raw->data;
         f.len = item.raw->len;
      }
      f.vlan = item.vlan;
      f.tag = out.accessVlan < 0 && item.vlan != 0;
      w.tx.push_back(f);
   }
   if (pieced != 0) {
      if (w.txBytes.size() < pieced) w.txBytes.resize(pieced);
      size_t at = 0, kept = 0, pkt = 0;
      for (size_t i = 0; i < w.tx.size(); i++) {
         TxFrame f = w.tx[i];
         bool host = items[i].pkt != nullptr;
         if (host && f.data == nullptr) {
            uint8_t *dst = w.txBytes.data() + at;
            if (zek_PktCopyBytesOut(dst, f.len, 0, w.sending[pkt]) != ZEK_OK) {
               Add(c.txNoFrame, 1);
               pkt++;
               continue;
            }
            f.data = dst;
            at += f.len;
         }
         if (host) pkt++;
         w.tx[kept++] = f;
      }
      w.tx.resize(kept);
   }
   if (!w.tx.empty()) {
      SendResult result;
      out.socket.Send(w.tx.data(), w.tx.size(), &result);
      Account(out, result);
      if (out.socket.TxWaiting() != 0 &&
          std::find(w.flush.begin(), w.flush.end(), out.port) == w.flush.end()) {
         w.flush.push_back(out.port);
      }
   }
   for (zek_Pkt *pkt : w.sending) zek_PktRelease(pkt);
   w.sending.clear();
   if (list != nullptr) sim::DestroyList(list);
}

void Bridge::Account(Attachment &out, const SendResult &result) {
   PortCounters &c = out.counters;
   Add(c.txFrames, result.sent);
   Add(c.txBytes, result.bytes);
   Add(c.txErrors, result.failed);
   Add(c.txRingFull, result.ringFull);
   int error = result.error;
   if (error == ENETDOWN || error == ENXIO || error == ENODEV) {
      Fail(out, std::string("send: ") + std::strerror(error));
   } else if (error != 0) {
      Warn(out, std::string("send: ") + std::strerror(error));
   } else if (result.ringFull != 0) {
      Warn(out, std::to_string(result.ringFull) + " frames lost: the send ring was full");
   }
}

void Bridge::FlushWaiting(Worker &w) {
   size_t kept = 0;
   for (uint32_t port : w.flush) {
      auto it = ports_.find(port);
      if (it == ports_.end() || !Usable(*it->second)) continue;
      Attachment &out = *it->second;
      SendResult result;
      out.socket.Flush(&result);
      Account(out, result);
      if (out.socket.TxWaiting() != 0) w.flush[kept++] = port;
   }
   w.flush.resize(kept);
}

void Bridge::DiscardWaiting(Attachment &att) {
   SendResult result;
   att.socket.DiscardWaiting(&result);
   PortCounters &c = att.counters;
   Add(c.txFrames, result.sent);
   Add(c.txBytes, result.bytes);
   Add(c.txErrors, result.failed);
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
      j["rxFrames"] = Load(c.rxFrames);
      j["rxBytes"] = Load(c.rxBytes);
      j["rxDropped"] = Load(c.rxDropped);
      j["rxOversize"] = Load(c.rxOversize);
      j["rxShort"] = Load(c.rxShort);
      j["rxVlanDropped"] = Load(c.rxVlanDropped);
      j["rxLocal"] = Load(c.rxLocal);
      j["rxFlooded"] = Load(c.rxFlooded);
      j["rxHelped"] = Load(c.rxHelped);
      j["txFrames"] = Load(c.txFrames);
      j["txBytes"] = Load(c.txBytes);
      j["txDropped"] = Load(c.txDropped);
      j["txErrors"] = Load(c.txErrors);
      j["txRingFull"] = Load(c.txRingFull);
      j["txPortDown"] = Load(c.txPortDown);
      j["txNoFrame"] = Load(c.txNoFrame);
      j["linkDowns"] = Load(c.linkDowns);
      j["rxSocketDrops"] = Load(c.rxSocketDrops);
      j["ringFrames"] = att.socket.RingFrames();
      j["txRingFrames"] = att.socket.TxRingFrames();
      j["switchDrops"] = SwitchDrops(c);
      j["thread"] = att.worker;
      list.push_back(j);
   }
   return list;
}

Json Bridge::FdbJson() const {
   Json list = Json::array();
   double now = SteadySeconds();
   for (const auto &entry : fdbs_) {
      for (const auto &mac : entry.second->map) {
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
