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

#include "script.h"
#include "sim_core.h"
#include "state.h"
#include "text.h"

namespace {

using vigilsim::Json;

bool IsOptionKey(const std::string &word, size_t *eq) {
   *eq = word.find('=');
   if (*eq == std::string::npos || *eq == 0) return false;
   for (size_t i = 0; i < *eq; i++) {
      char c = word[i];
      bool ok = std::isalpha(static_cast<unsigned char>(c)) || c == '_' ||
                (i > 0 && std::isdigit(static_cast<unsigned char>(c)));
      if (!ok) return false;
   }
   return true;
}

std::string Quote(const std::string &text) {
   std::string out = "\"";
   for (unsigned char c : text) {
      if (c == '"' || c == '\\') {
         out += '\\';
         out += static_cast<char>(c);
      } else if (c == '\n') {
         out += "\\n";
      } else if (c < 0x20 || c == 0x7f) {
         char buf[8];
         std::snprintf(buf, sizeof buf, "\\x%02x", c);
         out += buf;
      } else {
         out += static_cast<char>(c);
      }
   }
   return out + "\"";
}

std::string Word(const std::string &word) {
   bool plain = !word.empty();
   for (unsigned char c : word) {
      if (c <= 0x20 || c == '"' || c == '\\' || c == 0x7f) plain = false;
   }
   if (plain) return word;
   size_t eq;
   if (IsOptionKey(word, &eq)) return word.substr(0, eq + 1) + Quote(word.substr(eq + 1));
   return Quote(word);
}

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
   std::vector<std::vector<std::string>> ports = {{"port", "portset", "interface", "state", "vlan",
                                                   "rx", "rxDropped", "tx", "txDropped",
                                                   "txErrors", "downs"}};
   for (const Json &p : r["ports"]) {
      std::string state = p.value("up", false) ? "up" : "down (" + p.value("downReason", std::string()) + ")";
      ports.push_back({vigilsim::HexNumber(p["portID"].get<uint64_t>()), Num(p["portset"]),
                       Num(p["ifname"]), state, p["vlan"].is_null() ? "trunk" : Num(p["vlan"]),
                       Num(p["rxFrames"]), Num(p["rxDropped"]), Num(p["txFrames"]),
                       Num(p["txDropped"]), Num(p["txErrors"]), Num(p["linkDowns"])});
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

/* `upgrade --module PATH` (or --module=PATH) is the command's module=PATH. */
void UpgradeWords(std::vector<std::string> &words) {
   if (words.empty() || words[0] != "upgrade") return;
   for (size_t i = 1; i < words.size(); i++) {
      if (words[i] == "--module" && i + 1 < words.size()) {
         words[i] = "module=" + words[i + 1];
         words.erase(words.begin() + static_cast<std::ptrdiff_t>(i) + 1);
      } else if (words[i].rfind("--module=", 0) == 0) {
         words[i] = words[i].substr(2);
      }
   }
}

class Connection {
 public:
   ~Connection() {
      if (fd_ >= 0) close(fd_);
   }
   bool Open(const std::string &path, std::string *error) {
      struct sockaddr_un addr;
      std::memset(&addr, 0, sizeof addr);
      addr.sun_family = AF_UNIX;
      if (path.size() >= sizeof addr.sun_path) {
         *error = "control socket path too long";
         return false;
      }
      std::memcpy(addr.sun_path, path.c_str(), path.size());
      fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      if (fd_ < 0 || connect(fd_, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0) {
         *error = "cannot connect to " + path + ": " + std::strerror(errno);
         return false;
      }
      return true;
   }
   bool Send(const std::string &text) {
      size_t done = 0;
      while (done < text.size()) {
         ssize_t n = send(fd_, text.data() + done, text.size() - done, MSG_NOSIGNAL);
         if (n < 0) {
            if (errno == EINTR) continue;
            return false;
         }
         done += static_cast<size_t>(n);
      }
      return true;
   }
   /* One answer line, within the deadline. */
   bool ReadLine(std::string *line, std::chrono::steady_clock::time_point deadline,
                 std::string *error) {
      for (;;) {
         size_t nl = buffer_.find('\n');
         if (nl != std::string::npos) {
            *line = buffer_.substr(0, nl);
            buffer_.erase(0, nl + 1);
            return true;
         }
         auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
             deadline - std::chrono::steady_clock::now());
         if (left.count() <= 0) {
            *error = "no answer in time";
            return false;
         }
         struct pollfd pfd = {fd_, POLLIN, 0};
         int rc = poll(&pfd, 1, static_cast<int>(left.count()));
         if (rc < 0 && errno == EINTR) continue;
         if (rc <= 0) continue;
         char buf[65536];
         ssize_t n = recv(fd_, buf, sizeof buf, 0);
         if (n < 0 && errno == EINTR) continue;
         if (n <= 0) {
            *error = "the daemon closed the connection without an answer";
            return false;
         }
         buffer_.append(buf, static_cast<size_t>(n));
      }
   }

 private:
   int fd_ = -1;
   std::string buffer_;
};

} // namespace

int main(int argc, char **argv) {
   CLI::App app{"Sends one command to vigild and prints its answer."};
   std::string control;
   bool text = false;
   double timeout = 30;
   app.add_option("--control", control, "vigild's control socket");
   app.add_flag("--text", text, "print readable text instead of JSON");
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
   if (!words.empty() && words[0] == "--") words.erase(words.begin());
   if (words.empty()) {
      std::fprintf(stderr, "vigilctl: no command given\n%s", app.help().c_str());
      return 2;
   }
   UpgradeWords(words);
   if (control.empty()) {
      const char *env = std::getenv("VIGILD_CONTROL");
      control = env != nullptr && *env != '\0' ? env : "/run/vigild.sock";
   }
   std::string line;
   for (const std::string &w : words) line += (line.empty() ? "" : " ") + Word(w);
   if (line.find('\n') != std::string::npos) {
      std::fprintf(stderr, "vigilctl: a command is one line\n");
      return 2;
   }

   Connection conn;
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
      std::string rendered =
          isSwitch ? RenderSwitch(line, result) : vigilsim::RenderText(line, result);
      if (cmd == "upgrade") rendered += RenderUpgradeSwitch(result);
      std::fputs(rendered.c_str(), stdout);
   } else {
      std::fputs((answer + "\n").c_str(), stdout);
   }
   return ok ? 0 : 1;
}
