/*
 * vigilctl: sends one command to vigild on its control socket and prints
 * the answer, as JSON (default) or readable text (--text).
 *
 *   vigilctl [--control PATH] [--text] [--timeout SECONDS] COMMAND [ARG ...]
 *
 * The words are joined into one command line; a word with blanks, quotes or
 * backslashes is quoted for it (`port="ip=192.0.2.10/32"` arrives as one
 * option).  The control socket is --control, else $VIGILD_CONTROL, else
 * /run/vigild.sock.  Exit status: 0 when the answer has "ok": true, 1 when
 * it has "ok": false, 2 for a usage error or when there is no answer.
 *
 * `vigilctl upgrade --module PATH` sends `upgrade module=PATH`.  The files
 * of save, restore and upgrade are opened by vigild: a relative path is
 * taken from vigild's working directory, not from vigilctl's.
 *
 * vigilctl's own commands (commands.h) print the management views as
 * tables (JSON with --json) and follow binding events (watch); words after
 * `--` are always passed on.  Every command of vigilctl's own has a manual
 * page (help.h): `vigilctl --help`, `vigilctl COMMAND --help`, `vigilctl
 * help [COMMAND]`.
 */
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "client.h"
#include "commands.h"
#include "help.h"
#include "script.h"
#include "sim_core.h"
#include "state.h"
#include "text.h"
#include "views.h"

namespace {

using vigilsim::Json;

/* Columns padded to their widest cell. */
std::string Table(const std::vector<std::vector<std::string>> &rows) {
   std::vector<size_t> width;
   for (const auto &row : rows) {
      if (width.size() < row.size()) width.resize(row.size(), 0);
      for (size_t i = 0; i < row.size(); i++) width[i] = std::max(width[i], row[i].size());
   }
   std::string out;
   for (const auto &row : rows) {
      std::string line = "    ";
      for (size_t i = 0; i < row.size(); i++) {
         line += row[i];
         if (i + 1 < row.size()) line += std::string(width[i] - row[i].size() + 2, ' ');
      }
      out += line + "\n";
   }
   return out;
}

std::string Num(const Json &v) {
   if (v.is_null()) return "-";
   if (v.is_string()) return v.get<std::string>();
   return v.dump();
}

/* The switch's ports and learnt addresses as tables. */
std::string RenderSwitch(const std::string &line, const Json &r) {
   std::string out = "> " + line + "\n";
   if (!r.value("ok", false)) return out + "    error: " + r.value("error", std::string("?")) + "\n";
   char head[160];
   std::snprintf(head, sizeof head, "    ageing %.0f s, budget %s batches of %s frames, %s clients\n",
                 r.value("ageing", 0.0), Num(r["budget"]).c_str(), Num(r["batch"]).c_str(),
                 Num(r["clients"]).c_str());
   out += head;
   if (r.contains("socketDrops")) {
      out += "    lost: " + Num(r["socketDrops"]) + " frames in the receive rings (full), " +
             Num(r["switchDrops"]) + " dropped by vigild; " + Num(r["threads"]) +
             " switching threads\n";
   }
   std::vector<std::vector<std::string>> ports = {{"port", "portset", "interface", "state", "vlan",
                                                   "rx", "rxDropped", "tx", "txDropped",
                                                   "txErrors", "downs", "ringDrops",
                                                   "vigildDrops"}};
   for (const Json &p : r["ports"]) {
      std::string state = p.value("up", false) ? "up" : "down (" + p.value("downReason", std::string()) + ")";
      ports.push_back({vigilsim::HexNumber(p["portID"].get<uint64_t>()), Num(p["portset"]),
                       Num(p["ifname"]), state, p["vlan"].is_null() ? "trunk" : Num(p["vlan"]),
                       Num(p["rxFrames"]), Num(p["rxDropped"]), Num(p["txFrames"]),
                       Num(p["txDropped"]), Num(p["txErrors"]), Num(p["linkDowns"]),
                       Num(p.value("rxSocketDrops", Json())), Num(p.value("switchDrops", Json()))});
   }
   out += ports.size() > 1 ? Table(ports) : "    no ports attached\n";
   std::vector<std::vector<std::string>> fdb = {{"portset", "vlan", "mac", "port", "age"}};
   for (const Json &e : r["fdb"]) {
      char age[32];
      std::snprintf(age, sizeof age, "%.1f s", e.value("age", 0.0));
      fdb.push_back({Num(e["portset"]), Num(e["vlan"]), Num(e["mac"]),
                     vigilsim::HexNumber(e["portID"].get<uint64_t>()), age});
   }
   out += "    learnt addresses:\n";
   out += fdb.size() > 1 ? Table(fdb) : "    none\n";
   return out;
}

/* What an upgrade did to vigild's switching. */
std::string RenderUpgradeSwitch(const Json &r) {
   if (!r.value("ok", false) || !r.contains("switch") || !r["switch"].is_object()) return "";
   const Json &sw = r["switch"];
   char head[200];
   std::snprintf(head, sizeof head,
                 "    switching held %.1f ms: %s frames waited in the sockets, %s lost\n",
                 sw.value("heldMs", 0.0), Num(sw["framesWaited"]).c_str(),
                 Num(sw["framesLost"]).c_str());
   std::string out = head;
   out += "    module " + sw.value("module", std::string("?")) + "\n";
   std::vector<std::vector<std::string>> ports = {
       {"port", "interface", "waited", "lost", "filtered"}};
   for (const Json &p : sw["ports"]) {
      ports.push_back({vigilsim::HexNumber(p["portID"].get<uint64_t>()), Num(p["ifname"]),
                       Num(p["framesWaited"]), Num(p["framesLost"]),
                       p.value("filtered", false) ? "yes" : "NO"});
   }
   if (ports.size() > 1) out += Table(ports);
   for (const Json &p : sw["unfiltered"]) {
      out += "    port " + vigilsim::HexNumber(p.get<uint64_t>()) +
             " lost its filter in the upgrade: its frames pass unfiltered\n";
   }
   return out;
}

/* For command `cmd`, its option `--NAME VALUE` (or --NAME=VALUE) becomes
 * the vigild argument NAME=VALUE: `upgrade --module PATH`, `fleet bindings
 * --vlan N`. */
void OptionWords(std::vector<std::string> &words, const char *cmd, const std::string &name) {
   if (words.empty() || words[0] != cmd) return;
   const std::string option = "--" + name;
   for (size_t i = 1; i < words.size(); i++) {
      if (words[i] == option && i + 1 < words.size()) {
         words[i] = name + "=" + words[i + 1];
         words.erase(words.begin() + static_cast<std::ptrdiff_t>(i) + 1);
      } else if (words[i].rfind(option + "=", 0) == 0) {
         words[i] = words[i].substr(2);
      }
   }
}

/* `apply FILE`: vigild opens FILE, so a relative path is made absolute
 * from vigilctl's working directory. */
void ApplyWords(std::vector<std::string> &words) {
   if (words.size() != 2 || words[0] != "apply" || words[1].empty() || words[1][0] == '/') return;
   char cwd[4096];
   if (getcwd(cwd, sizeof cwd) != nullptr) words[1] = std::string(cwd) + "/" + words[1];
}

/* The passed-on commands that have a page of their own. */
bool HasOwnPage(const std::string &cmd) {
   return cmd == "upgrade" || cmd == "apply" || cmd == "policy" || cmd == "conflicts" ||
          cmd == "agent" || cmd == "fleet";
}

/* `help [COMMAND]`, or COMMAND --help for a passed-on command that has a
 * page (upgrade and the agent's commands); true when a page was asked for, with the exit status. */
bool Help(const std::vector<std::string> &words, int *rc) {
   std::string topic;
   if (words[0] == "help") {
      if (words.size() > 2) {
         std::fprintf(stderr, "vigilctl: usage: vigilctl help [COMMAND]\n");
         *rc = 2;
         return true;
      }
      topic = words.size() == 2 ? words[1] : "";
   } else if (HasOwnPage(words[0]) && words.size() >= 2 &&
              (words.back() == "--help" || words.back() == "-h")) {
      topic = words[0];
   } else {
      return false;
   }
   std::string page;
   if (!vigilctl::ManPage(topic, &page)) {
      std::string topics;
      for (const std::string &t : vigilctl::HelpTopics()) topics += " " + t;
      std::fprintf(stderr,
                   "vigilctl: no page for '%s'; the commands with one:%s. Other commands are "
                   "vigild's (see README.md)\n",
                   topic.c_str(), topics.c_str());
      *rc = 2;
      return true;
   }
   std::fputs(page.c_str(), stdout);
   *rc = 0;
   return true;
}

} // namespace

int main(int argc, char **argv) {
   CLI::App app{"Sends one command to vigild and prints its answer."};
   std::string control;
   bool text = false;
   bool json = false;
   bool help = false;
   double timeout = 30;
   app.set_help_flag();
   app.add_flag("-h,--help", help, "show vigilctl's manual page");
   app.add_option("--control", control, "vigild's control socket");
   app.add_flag("--text", text, "print readable text instead of JSON");
   app.add_flag("--json", json, "print the JSON answer of a view instead of its table");
   app.add_option("--timeout", timeout, "seconds to wait for the answer (default 30)")
       ->check(CLI::PositiveNumber);
   app.prefix_command();
   try {
      app.parse(argc, argv);
   } catch (const CLI::ParseError &e) {
      int rc = app.exit(e);
      return rc == 0 ? 0 : 2;
   }
   std::vector<std::string> words = app.remaining();
   bool passOn = false;
   if (!words.empty() && words[0] == "--") {
      words.erase(words.begin());
      passOn = true;
   }
   if (help || (!passOn && !words.empty() && (words[0] == "--help" || words[0] == "-h"))) {
      std::string page;
      vigilctl::ManPage("", &page);
      std::fputs(page.c_str(), stdout);
      return 0;
   }
   if (words.empty()) {
      std::fprintf(stderr, "vigilctl: no command given (vigilctl --help shows the commands)\n");
      return 2;
   }
   int helpRc;
   if (!passOn && Help(words, &helpRc)) return helpRc;
   if (!passOn && vigilctl::IsOwnCommand(words)) {
      vigilctl::Globals globals;
      globals.control = vigilctl::ControlPath(control);
      globals.timeout = timeout;
      globals.json = json;
      return vigilctl::RunOwnCommand(words, globals);
   }
   OptionWords(words, "upgrade", "module");
   OptionWords(words, "fleet", "vlan");
   ApplyWords(words);
   control = vigilctl::ControlPath(control);
   std::string line = vigilctl::Line(words);
   if (line.find('\n') != std::string::npos) {
      std::fprintf(stderr, "vigilctl: a command is one line\n");
      return 2;
   }

   vigilctl::Connection conn;
   std::string error;
   if (!conn.Open(control, &error)) {
      std::fprintf(stderr, "vigilctl: %s\n", error.c_str());
      return 2;
   }
   auto deadline = std::chrono::steady_clock::now() +
                   std::chrono::milliseconds(static_cast<int64_t>(timeout * 1000));
   /* The text form shows times relative to the daemon's clock. */
   std::string request = (text ? std::string("uptime\n") : std::string()) + line + "\n";
   if (!conn.Send(request)) {
      std::fprintf(stderr, "vigilctl: cannot send: %s\n", std::strerror(errno));
      return 2;
   }
   std::string answer;
   if (text) {
      std::string uptime;
      if (!conn.ReadLine(&uptime, deadline, &error)) {
         std::fprintf(stderr, "vigilctl: %s\n", error.c_str());
         return 2;
      }
      Json up = Json::parse(uptime, nullptr, false);
      if (!up.is_discarded() && up.contains("time") && up["time"].is_number()) {
         sim::SetTime(up["time"].get<double>());
      }
   }
   if (!conn.ReadLine(&answer, deadline, &error)) {
      std::fprintf(stderr, "vigilctl: %s\n", error.c_str());
      return 2;
   }
   Json result = Json::parse(answer, nullptr, false);
   if (result.is_discarded() || !result.is_object()) {
      std::fprintf(stderr, "vigilctl: the answer is not JSON: %s\n", answer.c_str());
      return 2;
   }
   bool ok = result.contains("ok") && result["ok"].is_boolean() && result["ok"].get<bool>();
   if (text) {
      const std::string cmd = result.value("cmd", std::string());
      bool isSwitch = cmd == "switch";
      std::string agentText;
      std::string rendered =
          isSwitch ? RenderSwitch(line, result)
          : ok && vigilctl::AgentAnswerText(result, &agentText) ? agentText
                                                                : vigilsim::RenderText(line, result);
      if (cmd == "upgrade") rendered += RenderUpgradeSwitch(result);
      std::fputs(rendered.c_str(), stdout);
   } else {
      std::fputs((answer + "\n").c_str(), stdout);
   }
   return ok ? 0 : 1;
}
