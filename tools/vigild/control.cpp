#include "control.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "daemon_log.h"

namespace vigild {

bool ControlServer::Open(const std::string &path, int epollFd, std::string *error) {
   struct sockaddr_un addr;
   std::memset(&addr, 0, sizeof addr);
   addr.sun_family = AF_UNIX;
   if (path.empty() || path.size() >= sizeof addr.sun_path) {
      *error = "control socket path too long or empty: " + path;
      return false;
   }
   std::memcpy(addr.sun_path, path.c_str(), path.size());
   int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   if (fd < 0) {
      *error = std::string("socket: ") + std::strerror(errno);
      return false;
   }
   /* A socket file left by a daemon that died is taken over; one that a
    * live daemon answers on is not. */
   struct stat st;
   if (lstat(path.c_str(), &st) == 0) {
      if (!S_ISSOCK(st.st_mode)) {
         *error = path + " exists and is not a socket";
         close(fd);
         return false;
      }
      int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      bool live = probe >= 0 &&
                  connect(probe, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) == 0;
      if (probe >= 0) close(probe);
      if (live) {
         *error = "another daemon answers on " + path;
         close(fd);
         return false;
      }
      unlink(path.c_str());
   }
   mode_t old = umask(0117);
   int rc = bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr);
   umask(old);
   if (rc != 0 || listen(fd, 16) != 0) {
      *error = "control socket " + path + ": " + std::strerror(errno);
      close(fd);
      return false;
   }
   struct epoll_event ev;
   std::memset(&ev, 0, sizeof ev);
   ev.events = EPOLLIN;
   ev.data.u64 = kListenTag;
   if (epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &ev) != 0) {
      *error = std::string("epoll: ") + std::strerror(errno);
      close(fd);
      unlink(path.c_str());
      return false;
   }
   epollFd_ = epollFd;
   listenFd_ = fd;
   path_ = path;
   return true;
}

void ControlServer::Close() {
   while (!clients_.empty()) Drop(clients_.begin()->first, nullptr);
   if (listenFd_ >= 0) {
      epoll_ctl(epollFd_, EPOLL_CTL_DEL, listenFd_, nullptr);
      close(listenFd_);
      listenFd_ = -1;
      unlink(path_.c_str());
   }
}

void ControlServer::OnListen() {
   for (int i = 0; i < 16; i++) {
      int fd = accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) {
         if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            Log(Level::Warn, "control: accept: %s", std::strerror(errno));
         }
         return;
      }
      if (clients_.size() >= kMaxClients) {
         static const char kBusy[] =
             "{\"cmd\":\"\",\"ok\":false,\"error\":\"too many control clients\"}\n";
         (void)!send(fd, kBusy, sizeof kBusy - 1, MSG_NOSIGNAL | MSG_DONTWAIT);
         close(fd);
         Log(Level::Warn, "control: a client was turned away (%zu clients)", clients_.size());
         continue;
      }
      uint32_t id = nextId_++;
      if (nextId_ == 0) nextId_ = 1;
      Client &c = clients_[id];
      c.fd = fd;
      c.events = EPOLLIN | EPOLLRDHUP;
      struct epoll_event ev;
      std::memset(&ev, 0, sizeof ev);
      ev.events = EPOLLIN | EPOLLRDHUP;
      ev.data.u64 = kClientKind | id;
      if (epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &ev) != 0) {
         Drop(id, "epoll");
      }
   }
}

void ControlServer::Drop(uint32_t id, const char *why) {
   auto it = clients_.find(id);
   if (it == clients_.end()) return;
   if (why != nullptr) Log(Level::Info, "control: client %u: %s", id, why);
   epoll_ctl(epollFd_, EPOLL_CTL_DEL, it->second.fd, nullptr);
   close(it->second.fd);
   clients_.erase(it);
   backlog_.erase(id);
}

void ControlServer::UpdateEvents(uint32_t id, Client &c) {
   uint32_t events = (c.closing ? 0u : static_cast<uint32_t>(EPOLLIN | EPOLLRDHUP)) |
                     (c.out.empty() ? 0u : static_cast<uint32_t>(EPOLLOUT));
   if (events == c.events) return;
   c.events = events;
   struct epoll_event ev;
   std::memset(&ev, 0, sizeof ev);
   ev.events = events;
   ev.data.u64 = kClientKind | id;
   epoll_ctl(epollFd_, EPOLL_CTL_MOD, c.fd, &ev);
}

void ControlServer::Flush(uint32_t id, Client &c) {
   while (!c.out.empty()) {
      ssize_t n = send(c.fd, c.out.data(), c.out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n < 0) {
         if (errno == EINTR) continue;
         if (errno == EAGAIN || errno == EWOULDBLOCK) break;
         Drop(id, nullptr); /* the client went away */
         return;
      }
      c.out.erase(0, static_cast<size_t>(n));
   }
   if (c.out.size() > kMaxPendingOutput) {
      Drop(id, "does not read its answers; dropped");
      return;
   }
   if (c.out.empty() && c.closing) {
      Drop(id, nullptr);
      return;
   }
   UpdateEvents(id, c);
}

void ControlServer::RunLines(uint32_t id, Client &c, const Handler &handler) {
   size_t done = 0;
   size_t start = 0;
   while (!c.closing) {
      size_t nl = c.in.find('\n', start);
      if (nl == std::string::npos) break;
      if (done == kLinesPerTurn) break;
      std::string line = c.in.substr(start, nl - start);
      start = nl + 1;
      if (!line.empty() && line.back() == '\r') line.pop_back();
      size_t first = line.find_first_not_of(" \t\r");
      if (first == std::string::npos || line[first] == '#') continue;
      c.out += handler(line);
      c.out += '\n';
      done++;
   }
   c.in.erase(0, start);
   if (!c.closing && c.in.size() > kMaxLine && c.in.find('\n') == std::string::npos) {
      c.out += "{\"cmd\":\"\",\"ok\":false,\"error\":\"line longer than " +
               std::to_string(kMaxLine) + " bytes\"}\n";
      c.in.clear();
      c.closing = true;
      Log(Level::Warn, "control: client %u sent a line longer than %zu bytes; closing", id,
          kMaxLine);
   }
   if (!c.closing && c.in.find('\n') != std::string::npos) {
      backlog_.insert(id);
   } else {
      backlog_.erase(id);
   }
}

void ControlServer::OnClient(uint32_t id, uint32_t events, const Handler &handler) {
   auto it = clients_.find(id);
   if (it == clients_.end()) return;
   Client &c = it->second;
   bool eof = false;
   /* While whole lines wait their turn, what comes next stays in the
    * socket: a client that streams commands cannot grow the buffer. */
   bool room = c.in.size() < kMaxLine || c.in.find('\n') == std::string::npos;
   if ((events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0 && !c.closing && room) {
      char buf[65536];
      for (int i = 0; i < 4; i++) {
         ssize_t n = recv(c.fd, buf, sizeof buf, MSG_DONTWAIT);
         if (n > 0) {
            c.in.append(buf, static_cast<size_t>(n));
            if (c.in.size() > kMaxLine * 2) break;
            continue;
         }
         if (n == 0) {
            eof = true;
         } else if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            eof = true;
         }
         break;
      }
      RunLines(id, c, handler);
   }
   if (eof && !c.closing) {
      /* Answer everything that came before the end (a last line without
       * its newline too), then close. */
      if (!c.in.empty() && c.in.back() != '\n') c.in += '\n';
      while (!c.closing && c.in.find('\n') != std::string::npos) RunLines(id, c, handler);
      c.closing = true;
      backlog_.erase(id);
   }
   Flush(id, c);
}

void ControlServer::RunBacklog(const Handler &handler) {
   std::set<uint32_t> ids = backlog_;
   for (uint32_t id : ids) {
      auto it = clients_.find(id);
      if (it == clients_.end()) {
         backlog_.erase(id);
         continue;
      }
      RunLines(id, it->second, handler);
      Flush(id, it->second);
   }
}

} // namespace vigild
