#include "commands.h"

#include <signal.h>
#include <time.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <set>

#include "client.h"
#include "help.h"
#include "views.h"

namespace vigilctl {

namespace {

constexpr size_t kMaxStatsPorts = 16;

/* A usage error (exit status 2). */
struct Usage {
   std::string message;
};
/* vigild or the module said no (exit status 1). */
struct Refused {
   std::string message;
};

struct Options {
   bool help = false;
   bool json = false;
   std::vector<std::string> positional;
   std::string fabSwitch;
   std::string fabPort;
   bool v6 = false;
   bool rows = false;
   /* delete */
   std::string mac;
   std::string ip;
   int vlan = -1;
   std::string methods;
   bool all = false;
   /* watch */
   bool fromStart = false;
   uint64_t count = 0;
   double duration = 0;
   int interval = 200;
};

/* The command's options parsed by CLI11; its own -h/--help shows the
 * manual page. */
Options Parse(const std::vector<std::string> &words) {
   const std::string &cmd = words[0];
   Options o;
   CLI::App app{"", "vigilctl " + cmd};
   app.set_help_flag();
   app.add_flag("-h,--help", o.help);
   app.add_flag("--json", o.json);
   app.add_option("args", o.positional);
   bool perPort = cmd != "delete-on-expiry" && cmd != "watch";
   if (perPort) app.add_option("--fabswitch", o.fabSwitch);
   if (perPort && cmd != "stats") app.add_option("--fabport", o.fabPort);
   if (cmd == "bindings") app.add_flag("--v6", o.v6);
   if (cmd == "stats") app.add_flag("--rows", o.rows);
   if (cmd == "delete") {
      app.add_option("--mac", o.mac);
      app.add_option("--ip", o.ip);
      app.add_option("--vlan", o.vlan)->check(CLI::Range(0, 4095));
      app.add_option("--methods", o.methods);
      app.add_flag("--all", o.all);
   }
   if (cmd == "watch") {
      app.add_flag("--all", o.fromStart);
      app.add_option("--count", o.count);
      app.add_option("--duration", o.duration)->check(CLI::PositiveNumber);
      app.add_option("--interval", o.interval)->check(CLI::Range(10, 60000));
   }
   std::vector<std::string> args(words.begin() + 1, words.end());
   std::reverse(args.begin(), args.end()); /* CLI11 takes them last first */
   try {
      app.parse(args);
   } catch (const CLI::ParseError &e) {
      throw Usage{e.what()};
   }
   return o;
}

/* --fabswitch and --fabport name the port; else vigild tells its portset
 * (the filter's portsetName, or the attachment of a port without a
 * filter) and the port is its id in decimal, as `port add` names it. */
void Resolve(Client &client, PortRef &ref, const Options &o) {
   if (!ref.byId) return;
   ref.fabPort = o.fabPort.empty() ? std::to_string(ref.id) : o.fabPort;
   if (!o.fabSwitch.empty()) {
      ref.fabSwitch = o.fabSwitch;
      return;
   }
   Client::Json state = client.Ask("state " + std::to_string(ref.id) + " portsetName");
   if (!state.value("ok", false)) {
      throw Refused{"port " + PortRef{true, ref.id, "", ""}.Short() + ": " +
                    state.value("error", std::string("vigild refused `state`"))};
   }
   if (state.contains("filter") && state["filter"].is_object() &&
       state["filter"].contains("portsetName") && state["filter"]["portsetName"].is_string() &&
       !state["filter"]["portsetName"].get<std::string>().empty()) {
      ref.fabSwitch = state["filter"]["portsetName"].get<std::string>();
      return;
   }
   Client::Json sw = client.Ask("switch");
   if (sw.value("ok", false) && sw.contains("ports") && sw["ports"].is_array()) {
      for (const Client::Json &p : sw["ports"]) {
         if (p.contains("portID") && p["portID"].is_number() &&
             p["portID"].get<uint64_t>() == ref.id && p.contains("portset") &&
             p["portset"].is_string()) {
            ref.fabSwitch = p["portset"].get<std::string>();
            return;
         }
      }
   }
   throw Refused{"port " + PortRef{true, ref.id, "", ""}.Short() +
                 " has no filter and is not attached to an interface, so vigilctl cannot "
                 "tell its switch: give --fabswitch NAME, or PORT as SWITCH/PORT"};
}

PortRef OnePort(const Options &o, const std::string &cmd) {
   if (o.positional.size() != 1) {
      throw Usage{"one PORT is needed"};
   }
   PortRef ref;
   std::string error;
   if (!ParsePortRef(o.positional[0], &ref, &error)) throw Usage{error};
   return ref;
}

std::string PortWords(const PortRef &ref) {
   return "switch=" + Word(ref.fabSwitch) + " port=" + Word(ref.fabPort);
}

uint64_t StatusOf(const Client::Json &answer) {
   return answer.contains("status") && answer["status"].is_number_unsigned()
              ? answer["status"].get<uint64_t>()
              : 0;
}

/* Sends a management call (without the record's hex) and prints its
 * answer: the JSON line with --json, else `render`'s text when its status
 * is 0.  The exit status. */
int Call(Client &client, const Options &o, const std::string &line, const std::string &label,
         const std::function<std::string(const Client::Json &)> &render,
         Client::Json *kept = nullptr) {
   std::string text;
   Client::Json answer = client.Ask(line + " raw=0", &text);
   if (kept != nullptr) *kept = answer;
   if (o.json) std::fputs((text + "\n").c_str(), stdout);
   if (!answer.value("ok", false)) {
      std::fprintf(stderr, "vigilctl: %s: %s\n", label.c_str(),
                   answer.value("error", std::string("vigild refused the command")).c_str());
      return 1;
   }
   uint64_t status = StatusOf(answer);
   if (status != 0) {
      std::string callback = answer.value("callback", std::string());
      std::fprintf(stderr, "vigilctl: %s\n", FailureText(label, callback, status).c_str());
      return 1;
   }
   if (!o.json) std::fputs(render(answer).c_str(), stdout);
   return 0;
}

/* ------------------------------------------------------------- views */

int PortView(Client &client, const Options &o, const std::string &cmd) {
   PortRef ref = OnePort(o, cmd);
   Resolve(client, ref, o);
   const std::string label = ref.Label();
   std::string callback;
   std::function<std::string(const Client::Json &)> render;
   if (cmd == "bindings") {
      callback = o.v6 ? "listV6Vmi" : "listVmi";
      bool v6 = o.v6;
      render = [label, v6](const Client::Json &a) { return BindingsView(label, a, v6); };
   } else if (cmd == "config") {
      callback = "getConfig";
      render = [label](const Client::Json &a) { return ConfigView(label, a); };
   } else if (cmd == "whitelist") {
      callback = "getWhiteList";
      render = [label](const Client::Json &a) { return WhiteListView(label, a); };
   } else if (cmd == "ignorelist") {
      callback = "getIgnoreList";
      render = [label](const Client::Json &a) { return IgnoreListView(label, a); };
   } else {
      callback = "getFilteredBpduMacs";
      render = [label](const Client::Json &a) { return BpduView(label, a); };
   }
   return Call(client, o, "mgmt " + callback + " " + PortWords(ref), label, render);
}

int Stats(Client &client, const Options &o) {
   if (o.positional.empty()) throw Usage{"one PORT or more are needed"};
   if (o.positional.size() > kMaxStatsPorts) {
      throw Usage{"at most " + std::to_string(kMaxStatsPorts) +
                  " ports at once"};
   }
   std::vector<PortRef> refs;
   for (const std::string &word : o.positional) {
      PortRef ref;
      std::string error;
      if (!ParsePortRef(word, &ref, &error)) throw Usage{error};
      refs.push_back(ref);
   }
   std::string list;
   std::vector<std::string> labels;
   for (PortRef &ref : refs) {
      Resolve(client, ref, o);
      if (ref.fabSwitch.find_first_of(",/") != std::string::npos ||
          ref.fabPort.find(',') != std::string::npos) {
         throw Refused{ref.Label() + ": a name with ',' or '/' cannot go into one statistics "
                                     "request"};
      }
      list += (list.empty() ? "" : ",") + ref.fabSwitch + "/" + ref.fabPort;
      labels.push_back(ref.Short());
   }
   std::string label = refs.size() == 1 ? refs[0].Label() : "stats";
   bool rows = o.rows;
   Client::Json answer;
   int rc = Call(client, o, "mgmt getStatsBatch ports=" + Word(list), label,
                 [labels, rows](const Client::Json &a) { return StatsView(labels, a, rows); },
                 &answer);
   if (rc != 0) return rc;
   /* A port whose block could not be read fails the command too (the
    * others were shown). */
   const Client::Json &ports = answer["record"]["ports"];
   for (size_t i = 0; i < ports.size() && i < refs.size(); i++) {
      uint64_t status = StatusOf(ports[i]);
      if (status != 0) {
         std::fprintf(stderr, "vigilctl: %s\n",
                      FailureText(refs[i].Label(), "getStatsBatch", status).c_str());
         rc = 1;
      }
   }
   return rc;
}

int Delete(Client &client, const Options &o) {
   PortRef ref = OnePort(o, "delete");
   bool one = !o.mac.empty() || !o.ip.empty() || o.vlan >= 0;
   int ways = (one ? 1 : 0) + (!o.methods.empty() ? 1 : 0) + (o.all ? 1 : 0);
   if (ways != 1) {
      throw Usage{"give one of: --mac MAC --ip ADDR [--vlan N], "
                  "--methods LIST, --all"};
   }
   std::string request, what;
   if (one) {
      if (o.mac.empty() || o.ip.empty()) throw Usage{"one binding is named by --mac and --ip"};
      if (!IsMac(o.mac)) throw Usage{"bad MAC '" + o.mac + "'"};
      if (!IsIp(o.ip)) throw Usage{"bad address '" + o.ip + "': IPv4 or IPv6"};
      int vlan = o.vlan < 0 ? 0 : o.vlan;
      request = "op=2 vlan=" + std::to_string(vlan) + " mac=" + Word(o.mac) + " ip=" + Word(o.ip);
      what = "delete the binding VLAN " + std::to_string(vlan) + " " + o.mac + " " + o.ip;
   } else if (!o.methods.empty()) {
      uint32_t bits;
      std::string error;
      if (!ParseMethods(o.methods, &bits, &error)) throw Usage{error};
      request = "op=3 methods=" + std::to_string(bits);
      what = "delete the " + MethodNames(bits) + " bindings";
   } else {
      request = "op=1";
      what = "delete every binding but the static ones";
   }
   Resolve(client, ref, o);
   const std::string label = ref.Label();
   return Call(client, o, "mgmt delVmi " + PortWords(ref) + " " + request, label,
               [label, what](const Client::Json &) { return label + ": " + what + ": ok\n"; });
}

int DeleteOnExpiry(Client &client, const Options &o) {
   if (o.positional.size() > 1) throw Usage{"on or off, or nothing to show the setting"};
   if (o.positional.empty()) {
      std::string text;
      Client::Json answer = client.Ask("module delOnExpiry", &text);
      if (o.json) std::fputs((text + "\n").c_str(), stdout);
      if (!answer.value("ok", false)) {
         std::fprintf(stderr, "vigilctl: delete-on-expiry: %s\n",
                      answer.value("error", std::string("vigild refused the command")).c_str());
         return 1;
      }
      if (!o.json) {
         bool on = answer.contains("delOnExpiry") && answer["delOnExpiry"].is_number() &&
                   answer["delOnExpiry"].get<int64_t>() != 0;
         std::printf("delete on expiry: %s\n", on ? "on" : "off");
      }
      return 0;
   }
   const std::string &word = o.positional[0];
   if (word != "on" && word != "off") throw Usage{"on or off, not '" + word + "'"};
   return Call(client, o, std::string("mgmt delExpiry value=") + (word == "on" ? "1" : "0"),
               "delete-on-expiry",
               [word](const Client::Json &) { return "delete on expiry: " + word + "\n"; });
}

/* ------------------------------------------------------------- watch */

volatile sig_atomic_t stopWatch = 0;

void OnStopSignal(int) { stopWatch = 1; }

std::string ClockNow() {
   struct timespec ts;
   clock_gettime(CLOCK_REALTIME, &ts);
   struct tm tm;
   localtime_r(&ts.tv_sec, &tm);
   char buf[32];
   std::snprintf(buf, sizeof buf, "%02d:%02d:%02d.%03ld", tm.tm_hour, tm.tm_min, tm.tm_sec,
                 ts.tv_nsec / 1000000);
   return buf;
}

uint64_t Unsigned(const Client::Json &answer, const char *key) {
   return answer.contains(key) && answer[key].is_number_unsigned() ? answer[key].get<uint64_t>()
                                                                   : 0;
}

int Watch(Client &client, const Options &o) {
   if (!o.positional.empty()) throw Usage{"no PORT or other word is taken"};
   struct sigaction sa;
   std::memset(&sa, 0, sizeof sa);
   sa.sa_handler = OnStopSignal; /* no SA_RESTART: a sleep ends at once */
   sigemptyset(&sa.sa_mask);
   sigaction(SIGINT, &sa, nullptr);
   sigaction(SIGTERM, &sa, nullptr);
   auto refused = [](const Client::Json &answer) {
      std::fprintf(stderr, "vigilctl: watch: %s\n",
                   answer.value("error", std::string("vigild refused `events`")).c_str());
      return 1;
   };
   uint64_t after = 0;
   if (!o.fromStart) {
      Client::Json now = client.Ask("events max=0");
      if (!now.value("ok", false)) return refused(now);
      after = Unsigned(now, "last");
   }
   auto start = std::chrono::steady_clock::now();
   uint64_t shown = 0;
   while (!stopWatch) {
      Client::Json answer = client.Ask("events after=" + std::to_string(after));
      if (!answer.value("ok", false)) return refused(answer);
      uint64_t lost = Unsigned(answer, "lost");
      if (lost != 0) {
         std::fprintf(stderr,
                      "vigilctl: watch: %llu events left vigild's journal before they were "
                      "read\n",
                      static_cast<unsigned long long>(lost));
      }
      size_t given = 0;
      if (answer.contains("events") && answer["events"].is_array()) {
         for (const Client::Json &e : answer["events"]) {
            given++;
            std::string line = o.json ? e.dump() : EventLine(e, ClockNow());
            std::fputs((line + "\n").c_str(), stdout);
            std::fflush(stdout);
            if (o.count != 0 && ++shown >= o.count) return 0;
         }
      }
      after = answer.contains("next") ? Unsigned(answer, "next") : after + given;
      if (o.duration > 0 &&
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() >=
              o.duration) {
         return 0;
      }
      /* A full answer: more are waiting. */
      if (given >= 1000) continue;
      struct timespec pause = {o.interval / 1000, (o.interval % 1000) * 1000000L};
      nanosleep(&pause, nullptr);
   }
   return 0;
}

} // namespace

bool IsOwnCommand(const std::vector<std::string> &words) {
   static const std::set<std::string> own = {"bindings",  "config", "stats",
                                             "whitelist", "bpdu",   "delete",
                                             "delete-on-expiry", "watch"};
   if (words.empty()) return false;
   if (own.count(words[0]) != 0) return true;
   if (words[0] != "ignorelist") return false;
   size_t plain = 0;
   for (size_t i = 1; i < words.size(); i++) {
      if (words[i].empty() || words[i][0] != '-') plain++;
   }
   return plain <= 1;
}

int RunOwnCommand(const std::vector<std::string> &words, const Globals &globals) {
   const std::string &cmd = words[0];
   try {
      Options o = Parse(words);
      if (o.help) {
         std::string page;
         ManPage(cmd, &page);
         std::fputs(page.c_str(), stdout);
         return 0;
      }
      o.json = o.json || globals.json;
      /* It connects when it first asks, after the words are checked. */
      Client client(globals.control, globals.timeout);
      if (cmd == "stats") return Stats(client, o);
      if (cmd == "delete") return Delete(client, o);
      if (cmd == "delete-on-expiry") return DeleteOnExpiry(client, o);
      if (cmd == "watch") return Watch(client, o);
      return PortView(client, o, cmd);
   } catch (const Usage &u) {
      std::fprintf(stderr, "vigilctl %s: %s (vigilctl %s --help shows the usage)\n",
                   cmd.c_str(), u.message.c_str(), cmd.c_str());
      return 2;
   } catch (const Refused &r) {
      std::fprintf(stderr, "vigilctl: %s\n", r.message.c_str());
      return 1;
   } catch (const NoAnswer &n) {
      std::fprintf(stderr, "vigilctl: %s\n", n.message.c_str());
      return 2;
   }
}

} // namespace vigilctl
