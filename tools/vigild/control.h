/*
 * The control socket of vigild: a Unix stream socket on which clients send
 * commands, one per line, and read one JSON answer per line, in order.
 * Blank lines and '#' comment lines get no answer.  A line longer than
 * kMaxLine, too many clients, or a client that does not read its answers
 * ends that client's connection; nothing a client sends stops the daemon.
 */
#ifndef VIGILD_CONTROL_H
#define VIGILD_CONTROL_H

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>

namespace vigild {

class ControlServer {
 public:
   static constexpr uint64_t kListenTag = 2ull << 32;
   static constexpr uint64_t kClientKind = 3ull << 32;
   static constexpr size_t kMaxLine = 256 * 1024;
   static constexpr size_t kMaxPendingOutput = 16u << 20;
   static constexpr size_t kMaxClients = 64;
   static constexpr size_t kLinesPerTurn = 16;

   /* Runs one command line, answers its JSON text (no newline). */
   using Handler = std::function<std::string(const std::string &line)>;

   ControlServer() = default;
   ~ControlServer() { Close(); }
   ControlServer(const ControlServer &) = delete;
   ControlServer &operator=(const ControlServer &) = delete;

   bool Open(const std::string &path, int epollFd, std::string *error);
   void Close();
   bool IsOpen() const { return listenFd_ >= 0; }

   void OnListen();
   void OnClient(uint32_t id, uint32_t events, const Handler &handler);
   /* Clients with whole lines still waiting (a turn has a limit). */
   bool HasBacklog() const { return !backlog_.empty(); }
   void RunBacklog(const Handler &handler);
   size_t Clients() const { return clients_.size(); }

 private:
   struct Client {
      int fd = -1;
      std::string in;
      std::string out;
      bool closing = false; /* close once `out` is written */
      uint32_t events = 0; /* as registered with epoll */
   };
   void RunLines(uint32_t id, Client &c, const Handler &handler);
   void Flush(uint32_t id, Client &c);
   void Drop(uint32_t id, const char *why);
   void UpdateEvents(uint32_t id, Client &c);

   int epollFd_ = -1;
   int listenFd_ = -1;
   std::string path_;
   uint32_t nextId_ = 1;
   std::map<uint32_t, Client> clients_;
   std::set<uint32_t> backlog_;
};

} // namespace vigild

#endif /* VIGILD_CONTROL_H */
