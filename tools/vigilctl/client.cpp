#include "client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vigilctl {

namespace {

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

} // namespace

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

std::string Line(const std::vector<std::string> &words) {
   std::string line;
   for (const std::string &w : words) line += (line.empty() ? "" : " ") + Word(w);
   return line;
}

std::string ControlPath(const std::string &option) {
   if (!option.empty()) return option;
   const char *env = std::getenv("VIGILD_CONTROL");
   return env != nullptr && *env != '\0' ? env : "/run/vigild.sock";
}

Connection::~Connection() {
   if (fd_ >= 0) close(fd_);
}

bool Connection::Open(const std::string &path, std::string *error) {
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

bool Connection::Send(const std::string &text) {
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

bool Connection::ReadLine(std::string *line, std::chrono::steady_clock::time_point deadline,
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

Client::Client(const std::string &path, double timeoutSeconds)
    : path_(path), timeout_(timeoutSeconds) {}

void Client::Open() {
   std::string error;
   if (!conn_.Open(path_, &error)) throw NoAnswer{error};
   open_ = true;
}

Client::Json Client::Ask(const std::string &line, std::string *text) {
   if (!open_) Open();
   if (line.find('\n') != std::string::npos) throw NoAnswer{"a command is one line"};
   if (!conn_.Send(line + "\n")) {
      throw NoAnswer{std::string("cannot send: ") + std::strerror(errno)};
   }
   auto deadline = std::chrono::steady_clock::now() +
                   std::chrono::milliseconds(static_cast<int64_t>(timeout_ * 1000));
   std::string answer, error;
   if (!conn_.ReadLine(&answer, deadline, &error)) throw NoAnswer{error};
   Json result = Json::parse(answer, nullptr, false);
   if (result.is_discarded() || !result.is_object()) {
      throw NoAnswer{"the answer is not JSON: " + answer};
   }
   if (text != nullptr) *text = answer;
   return result;
}

} // namespace vigilctl
