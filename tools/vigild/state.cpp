/*
 * The agent's state across restarts of vigild: each managed port's
 * bindings in the module's saved-state format (port-0xID.state, written by
 * the session's `save` to a new file, then renamed), and the order in which
 * the agent admitted them (agent-order.json), so that whoever held an
 * address first holds it first again.  On start the files are restored
 * into the ports, consumed, and their bindings admitted again; a file that
 * does not restore is logged and moved aside (NAME.damaged).
 */
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "agent.h"
#include "script.h"

namespace vigild {

namespace fs = std::filesystem;

namespace {

std::string PortFile(const std::string &dir, uint32_t port) {
   return (fs::path(dir) / ("port-" + vigilsim::HexNumber(port) + ".state")).string();
}

std::string Quote(const std::string &path) {
   std::string out = "\"";
   for (char c : path) {
      if (c == '"' || c == '\\') out += '\\';
      out += c;
   }
   return out + "\"";
}

/* Moves a file that failed aside; the text of where it went. */
std::string MoveAside(const std::string &path) {
   std::string aside = path + ".damaged";
   std::error_code ec;
   fs::rename(path, aside, ec);
   return ec ? "could not be moved aside: " + ec.message() : "moved aside to " + aside;
}

} // namespace

void Agent::SaveState(const std::string &dir) {
   std::vector<uint32_t> ids;
   AgentJson order = AgentJson::array();
   {
      std::lock_guard<std::mutex> lock(mu_);
      std::vector<std::pair<uint64_t, const Learned *>> admitted;
      for (const auto &[id, port] : ports_) {
         if (!port.policy.managed || !port.policy.enabled) continue;
         ids.push_back(id);
         for (const Learned &l : port.learned) {
            if (l.admitted) admitted.push_back({l.admittedSeq, &l});
         }
      }
      std::sort(admitted.begin(), admitted.end(),
                [](const auto &a, const auto &b) { return a.first < b.first; });
      for (const auto &entry : admitted) {
         const Binding &b = entry.second->binding;
         order.push_back({{"portID", b.port}, {"vlanId", b.vlan}, {"mac", b.mac}, {"ip", b.ip},
                          {"method", b.method}});
      }
   }
   if (ids.empty()) return;
   std::error_code ec;
   fs::create_directories(dir, ec);
   if (ec) {
      host_.log("agent: cannot make the state directory " + dir + ": " + ec.message() +
                "; nothing saved");
      return;
   }
   size_t saved = 0;
   for (uint32_t id : ids) {
      std::string file = PortFile(dir, id);
      std::string fresh = file + ".new";
      AgentJson answer = host_.run("save " + vigilsim::HexNumber(id) + " " + Quote(fresh));
      bool ok = answer.value("ok", false) && answer.value("saveStatus", 1u) == 0 &&
                answer.value("dataLen", 0u) > 0;
      if (ok) {
         fs::rename(fresh, file, ec);
         if (!ec) {
            saved++;
            continue;
         }
      }
      /* Nothing to carry (or it failed): no file, so no stale one is
       * restored next time. */
      fs::remove(fresh, ec);
      fs::remove(file, ec);
      if (!answer.value("ok", false)) {
         host_.log("agent: port " + vigilsim::HexNumber(id) + ": saving its bindings failed: " +
                   answer.value("error", std::string("?")));
      }
   }
   std::string orderFile = (fs::path(dir) / kOrderFile).string();
   {
      std::ofstream out(orderFile + ".new", std::ios::trunc);
      out << AgentJson{{"version", 1}, {"bindings", order}}.dump(1) << "\n";
   }
   fs::rename(orderFile + ".new", orderFile, ec);
   host_.log("agent: saved the bindings of " + std::to_string(saved) + " ports in " + dir + " (" +
             std::to_string(order.size()) + " admitted)");
}

void Agent::RestoreState(const std::string &dir) {
   std::error_code ec;
   if (!fs::is_directory(dir, ec)) return;
   /* The order of admission; without it, the module's order. */
   std::vector<Binding> order;
   std::string orderFile = (fs::path(dir) / kOrderFile).string();
   if (fs::exists(orderFile, ec)) {
      std::ifstream in(orderFile);
      std::stringstream text;
      text << in.rdbuf();
      AgentJson j = AgentJson::parse(text.str(), nullptr, false);
      bool good = !j.is_discarded() && j.is_object() && j.value("version", 0) == 1 &&
                  j.contains("bindings") && j["bindings"].is_array();
      if (good) {
         try {
            for (const AgentJson &e : j["bindings"]) {
               Binding b;
               b.port = e.at("portID").get<uint32_t>();
               b.vlan = e.at("vlanId").get<uint16_t>();
               b.mac = e.at("mac").get<std::string>();
               b.ip = e.at("ip").get<std::string>();
               b.method = e.at("method").get<uint32_t>();
               order.push_back(b);
            }
         } catch (const std::exception &) {
            good = false;
            order.clear();
         }
      }
      if (!good) {
         host_.log("agent: " + orderFile + " is damaged; " + MoveAside(orderFile));
      } else {
         fs::remove(orderFile, ec);
      }
   }
   std::vector<uint32_t> ids;
   {
      std::lock_guard<std::mutex> lock(mu_);
      for (const auto &[id, port] : ports_) {
         if (port.policy.managed && port.policy.enabled) ids.push_back(id);
      }
   }
   std::vector<Binding> restored;
   for (uint32_t id : ids) {
      std::string file = PortFile(dir, id);
      if (!fs::exists(file, ec)) continue;
      std::string port = vigilsim::HexNumber(id);
      AgentJson answer = host_.run("restore " + port + " " + Quote(file));
      bool ok = answer.value("ok", false) && answer.contains("status") &&
                answer["status"].is_number() && answer["status"].get<uint64_t>() == 0;
      if (!ok) {
         std::string why = answer.value("ok", false)
                               ? "status " + vigilsim::HexNumber(answer.value("status", 0ull))
                               : answer.value("error", std::string("refused"));
         host_.log("agent: port " + port + ": " + file + " does not restore (" + why +
                   "); the port starts empty; " + MoveAside(file));
         continue;
      }
      fs::remove(file, ec);
      AgentJson list = host_.run("bindings " + port);
      size_t count = 0;
      if (list.value("ok", false) && list["bindings"].is_array()) {
         for (const AgentJson &e : list["bindings"]) {
            if (e.value("expired", false)) continue;
            Binding b;
            b.port = id;
            b.vlan = e.value("vlanId", static_cast<uint16_t>(0));
            b.mac = e.value("mac", std::string());
            b.ip = e.value("ip", std::string());
            b.method = e.value("discMethod", 0u);
            restored.push_back(b);
            count++;
         }
      }
      host_.log("agent: port " + port + ": restored " + std::to_string(count) +
                " bindings from " + file);
   }
   auto rank = [&order](const Binding &b) {
      for (size_t i = 0; i < order.size(); i++) {
         const Binding &o = order[i];
         if (o.port == b.port && o.vlan == b.vlan && o.mac == b.mac && o.ip == b.ip) return i;
      }
      return order.size();
   };
   std::stable_sort(restored.begin(), restored.end(),
                    [&](const Binding &a, const Binding &b) { return rank(a) < rank(b); });
   {
      std::lock_guard<std::mutex> lock(mu_);
      for (const Binding &b : restored) {
         AddLearnedLocked(b, nextSeq_++);
         restored_++;
      }
      if (!restored.empty()) ReconcileLocked("restored");
   }
   FlushLogs();
}

} // namespace vigild
